"""Checks every link and anchor within the site, those in scripts too, that no page fetches anything from elsewhere, and
that Doxygen understood the text.

Usage: links.py SITE_FOLDER. Prints each dead link, each pair of asterisks that was to be bold, each escaped character or
link that came out so, and each piece of code that came out empty, and ends with 1 if there are any.
"""

import html.parser
import pathlib
import re
import sys
import urllib.parse

# Whose text stands as it is.
VERBATIM = {"code", "pre", "script", "style"}


class Page(html.parser.HTMLParser):
    """What a page links to, what can be linked to in it, and what has been lost in its text."""

    def __init__(self, path):
        super().__init__()
        self.links, self.anchors, self.doubled, self.lost, self.title = [], set(), [], [], ""
        self.fetched = []
        self._inside, self._code = [], None
        self.feed(path.read_text(encoding="utf-8", errors="replace"))

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        if tag in VERBATIM:
            self._inside.append(tag)
            self._code = ""
        if attributes.get("role") == "img" and not attributes.get("aria-label"):
            self.lost.append("a drawing without a name")
        own = {attributes.get("id"), attributes.get("name") if tag == "a" else None} - {None, ""}
        if attributes.get("id") in self.anchors:
            self.doubled.append(attributes["id"])
        self.anchors |= own
        for name in ("href", "src"):
            if attributes.get(name):
                self.links.append(attributes[name])
                if (name == "src" or tag == "link") and not attributes[name].startswith(("data:", "javascript:")):
                    self.fetched.append(attributes[name])
        self.fetched += FETCHED.findall(attributes.get("style", ""))

    def handle_data(self, data):
        if self._inside:
            self._code += data
        elif self.lasttag == "title":
            self.title = self.title or data
        elif "**" in data:
            self.lost.append(f"asterisks in {data.strip()!r}")
        elif re.search("[`\u2018]", data):
            self.lost.append(f"a backquote in {data.strip()!r}")
        elif "](" in data:
            self.lost.append(f"a link's brackets in {data.strip()!r}")
        elif re.search(r"&#?\w+;", data):
            self.lost.append(f"an escaped character in {data.strip()!r}")

    def handle_endtag(self, tag):
        if self._inside and tag == self._inside[-1]:
            self._inside.pop()
            if tag == "code" and not self._code.strip():
                self.lost.append("an empty piece of code")


# What a page fetches when it is shown: a style sheet's links, too.
FETCHED = re.compile(r"(?:url\(|@import\s)\s*[\"']?(?!data:|#)([^\"')\s;]+)")


def main(folder):
    folder = pathlib.Path(folder).resolve()
    pages = {path: Page(path) for path in folder.rglob("*.html")}
    count, dead = 0, []
    # A page may overwrite another one, or be missing in the list of pages, as all are if the first has another title than
    # the site.
    titles = [page.title for path, page in pages.items() if path.parent == folder]
    listed = (folder / "navtreedata.js").read_text()
    for source in pathlib.Path("docs").glob("*.md"):
        title = source.read_text().splitlines()[0].removeprefix("# ")
        if not any(shown in (title, f"boardkit: {title}") for shown in titles):
            dead.append(f"the page of {source} is not there")
        elif f'[ "{title}", "' not in listed:
            dead.append(f"the list of pages does not have {title!r}")
    sheets = {path: FETCHED.findall(path.read_text(errors="replace")) for path in folder.rglob("*.css")}
    for path, fetched in [*sheets.items(), *((path, page.fetched) for path, page in pages.items())]:
        for link in fetched:
            # The site needs no other machine.
            parts = urllib.parse.urlsplit(link)
            if parts.scheme or parts.netloc:
                dead.append(f"{path.name} fetches {link}")
            elif not (path.parent / urllib.parse.unquote(parts.path)).exists():
                dead.append(f"{path.name} fetches {link}, which is not there")
    for path, page in pages.items():
        dead += [f"{path.name}: two anchors {anchor}" for anchor in page.doubled]
        dead += [f"{path.name}: {what}" for what in page.lost]
        for link in page.links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme or parts.netloc:
                if parts.scheme not in ("http", "https", "mailto", "javascript"):
                    dead.append(f"{path.name}: {link}")
                continue
            count += 1
            target = (path.parent / urllib.parse.unquote(parts.path)).resolve() if parts.path else path
            fragment = urllib.parse.unquote(parts.fragment)
            if not target.exists():
                dead.append(f"{path.name}: {link}")
            elif fragment and target in pages and fragment not in pages[target].anchors:
                dead.append(f"{path.name}: {link}")
    # The list of pages and the search have theirs in scripts.
    for script in folder.rglob("*.js"):
        for link in re.findall(r"[\"']((?:\.\./)?[\w-]+\.html(?:#[\w-]+)?)[\"']", script.read_text(errors="replace")):
            count += 1
            file, _, fragment = link.partition("#")
            target = (script.parent / file).resolve()
            if target not in pages or fragment and fragment not in pages[target].anchors:
                dead.append(f"{script.name}: {link}")
    for line in dead:
        print(f"Wrong: {line}")
    print(f"{len(pages)} pages, {count} links within the site, {len(dead)} wrong.")
    return 1 if dead or count < 3500 else 0


sys.exit(main(sys.argv[1]))

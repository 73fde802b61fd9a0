"""Checks every link and anchor within the site.

Usage: links.py SITE_FOLDER. Prints each dead one and ends with 1 if there are any.
"""

import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    """What a page links to and what can be linked to in it."""

    def __init__(self, path):
        super().__init__()
        self.links, self.anchors, self.doubled = [], set(), []
        self.feed(path.read_text(encoding="utf-8", errors="replace"))

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        own = {attributes.get("id"), attributes.get("name") if tag == "a" else None} - {None, ""}
        if attributes.get("id") in self.anchors:
            self.doubled.append(attributes["id"])
        self.anchors |= own
        for name in ("href", "src"):
            if attributes.get(name):
                self.links.append(attributes[name])


# Doxygen links from a file's page to a list of classes that is left out where it is empty.
KNOWN = {"#nested-classes"}


def main(folder):
    folder = pathlib.Path(folder).resolve()
    pages = {path: Page(path) for path in folder.rglob("*.html")}
    count, dead = 0, []
    for path, page in pages.items():
        dead += [f"{path.name}: two anchors {anchor}" for anchor in page.doubled]
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
            elif fragment and target in pages and fragment not in pages[target].anchors and "#" + fragment not in KNOWN:
                dead.append(f"{path.name}: {link}")
    for line in dead:
        print(f"Dead: {line}")
    print(f"{len(pages)} pages, {count} links within the site, {len(dead)} dead.")
    return 1 if dead or count < 1000 else 0


sys.exit(main(sys.argv[1]))

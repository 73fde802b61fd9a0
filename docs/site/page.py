"""Translates a page of the handbook for Doxygen. The pages are plain Markdown, so that they read well as sources, too.

Each heading gets an anchor, and a long page a list of its contents. Links between pages, to the error catalogue and to the
headers become Doxygen's, and a link to a drawing becomes the drawing.
"""

import re

FENCE = re.compile(r" *```")
LINK = re.compile(r"\[([^]\[]+)\]\(([\w./-]*)(?:#([\w-]+))?\)")


def slug(heading):
    """A heading's anchor, as the places that show Markdown files make it."""
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def headings(text):
    """(level, words) of each heading."""
    inside = False
    for line in text.splitlines():
        if FENCE.match(line):
            inside = not inside
        elif not inside and (found := re.match(r"(#+) (.*)", line)):
            yield len(found.group(1)), found.group(2)


def target(stem, file, anchor):
    """What Doxygen calls the place that a link of the page stem leads to; None if it is outside the site."""
    if file == "errors.json":
        return anchor or "error-catalogue"
    if file and not re.fullmatch(r"[\w-]+\.md", file):
        return None
    page = file.removesuffix(".md") or stem
    return f"{page}-{anchor}" if anchor else page


def linked(stem, line):
    def link(found):
        words, file, anchor = found.groups()
        if file.startswith("../include/"):
            return f'@ref {words} "{words}"'
        place = target(stem, file, anchor)
        if place is None:
            return found.group(0)
        # The tables of the first page are the tree of all pages.
        command = "@subpage" if stem == "index" and line.startswith("|") and not anchor else "@ref"
        return f'{command} {place} "{words}"'

    return LINK.sub(link, line)


def translated(stem, text):
    sections = sum(level == 2 for level, _ in headings(text))
    inside, lines = False, []
    for line in text.splitlines():
        if FENCE.match(line):
            inside = not inside
        elif inside:
            pass
        elif found := re.match(r"# (.*)", line):
            line = f"{line} {{#{'mainpage' if stem == 'index' else stem}}}"
            if sections > 2:
                line += "\n\n@tableofcontents"
        elif found := re.match(r"##+ (.*)", line):
            line = f"{line} {{#{stem}-{slug(found.group(1))}}}"
        elif found := re.fullmatch(r"\[[^]]+\]\(site/([\w-]+)\.dot\)", line):
            line = f"@htmlinclude[block] {found.group(1)}.svg"
        else:
            line = linked(stem, line)
        lines.append(line)
    return "\n".join(lines) + "\n"

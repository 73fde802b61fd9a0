"""Translates a page of the handbook for Doxygen. The pages are plain Markdown, so that they read well as sources, too.

Each heading gets an anchor, and a long page a list of its contents. Links between pages, to the error catalogue and to the
headers become Doxygen's, and a link to a drawing becomes the drawing.
"""

import pathlib
import re

CODE = re.compile(r"(?ms)(^ *```.*?^ *```$)")
HEADING = re.compile(r"(?m)^(#+) (.*)$")
DRAWING = re.compile(r"(?m)^\[([^]]+)\]\(site/([\w-]+)\.dot\)$")
LINK = re.compile(r"\[([^]\[]+)\]\(([\w./-]*)(?:#([\w-]+))?\)")


# Doxygen's own list of files takes the name files.html, and overwrites a page of that name.
LABELS = {"index": "mainpage", "files": "handbook-files"}


def label(stem):
    """A page's name for Doxygen, and of its HTML file."""
    return LABELS.get(stem, stem)


def slug(heading):
    """A heading's anchor, as the places that show Markdown files make it."""
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def headings(text):
    """The words of each heading."""
    return [words for _, words in HEADING.findall(CODE.sub("", text))]


def drawn():
    """What the handbook calls each drawing."""
    return {stem: words for path in sorted(pathlib.Path("docs").glob("*.md"))
            for words, stem in DRAWING.findall(path.read_text())}


def translated(stem, text):
    contents = "\n\n@tableofcontents" if len(headings(text)) > 3 else ""

    def heading(found):
        marks, words = found.groups()
        if marks == "#":
            return f"# {words} {{#{label(stem)}}}{contents}"
        return f"{marks} {words} {{#{stem}-{slug(words)}}}"

    def link(found):
        words, file, anchor = re.sub(r"\s+", " ", found.group(1)), found.group(2), found.group(3)
        # The tables of the first page are the tree of all pages.
        line = found.string[found.string.rfind("\n", 0, found.start()) + 1:]
        command = "@subpage" if stem == "index" and line.startswith("|") and not anchor else "@ref"
        if file.startswith("../include/"):
            return f'@ref {words} "{words}"'
        if file == "errors.md":
            return f'{command} {anchor or "error-catalogue"} "{words}"'
        if file and not file.endswith(".md"):
            return found.group(0)
        page = file.removesuffix(".md") or stem
        return f'{command} {page}-{anchor} "{words}"' if anchor else f'{command} {label(page)} "{words}"'

    parts = CODE.split(text)
    parts[::2] = [LINK.sub(link, DRAWING.sub(r"@htmlinclude[block] \2.svg", HEADING.sub(heading, part)))
                  for part in parts[::2]]
    return "".join(parts)

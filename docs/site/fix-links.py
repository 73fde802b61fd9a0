"""Fixes the two kinds of links that Doxygen makes to anchors that do not exist.

Usage: fix-links.py SITE_FOLDER
"""

import pathlib
import re
import sys


def main(folder):
    folder = pathlib.Path(folder)
    pages = {path.name: path.read_text() for path in folder.glob("*.html")}
    # The list of nested classes is left out of a page where all of them are private, and the link to it is not.
    for name, text in pages.items():
        if 'id="nested-classes"' not in text:
            fixed = re.sub(r'<a href="#nested-classes">Classes</a>(?: &#124;\n)?', "", text)
            if fixed != text:
                (folder / name).write_text(fixed)
    # The list of pages looks for functions of a namespace on the page of their header.
    owners = {anchor: name for name, text in pages.items() for anchor in re.findall(r'id="(\w+)"', text)}
    for script in [*folder.glob("*_8h.js"), *folder.glob("navtreeindex*.js")]:
        text = script.read_text()

        def found(link):
            name, anchor = link.groups()
            return link.group(0) if f'id="{anchor}"' in pages[name] else f'"{owners.get(anchor, name)}#{anchor}"'

        fixed = re.sub(r'"(\w+_8h\.html)#(\w+)"', found, text)
        if fixed != text:
            script.write_text(fixed)


main(sys.argv[1])

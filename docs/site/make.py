"""Writes what Doxygen reads besides the headers: the handbook's pages, the error catalogue, the drawings of states, the
HTML header and the layout.

Usage: make.py OUTPUT_FOLDER, from the top folder; scripts/docs calls it.
"""

import pathlib
import re
import subprocess
import sys
import textwrap

import catalogue
import page

FOLDER = pathlib.Path(__file__).parent

def header():
    """Doxygen's own header with the theme's scripts and ours."""
    made = subprocess.run(["doxygen", "-w", "html", "/dev/stdout", "/dev/null", "/dev/null"],
                          check=True, capture_output=True, text=True).stdout
    names = ["doxygen-awesome-darkmode-toggle", "doxygen-awesome-fragment-copy-button", "doxygen-awesome-paragraph-link",
             "filter"]
    scripts = "".join(f'<script type="text/javascript" src="$relpath^{name}.js"></script>\n' for name in names)
    scripts += ("<script type=\"text/javascript\">\nDoxygenAwesomeDarkModeToggle.init();\n"
                "DoxygenAwesomeFragmentCopyButton.init();\nDoxygenAwesomeParagraphLink.init();\n</script>\n")
    before, after = made.split("$treeview", 1)
    # The page says its language, which screen readers and hyphenation want to know.
    before = before.replace("<html xmlns=", '<html lang="en" xmlns=', 1)
    return before + scripts + "$treeview" + after


def drawing(source):
    """A drawing that takes the page's colour and width, with the words that the handbook links to it with as its name."""
    svg = subprocess.run(["dot", "-Tsvg", str(source)], check=True, capture_output=True, text=True).stdout
    svg = svg[svg.index("<svg"):]
    width = re.search(r'width="(\d+)pt"', svg).group(1)
    svg = re.sub(r'<svg width="\d+pt" height="\d+pt"', f'<svg role="img" aria-label="{page.drawn()[source.stem]}" style="width: {width}pt"', svg,
                 count=1)
    # That name is the graph's, which is shown where the pointer rests.
    svg = re.sub(r"<title>states</title>\n", "", svg, count=1)
    svg = re.sub(r'<polygon fill="white" stroke="transparent"[^>]*/>\n', "", svg)
    svg = svg.replace('"black"', '"currentColor"').replace(' xmlns:xlink="http://www.w3.org/1999/xlink"', "")
    # Ids are unique in a page, and the tool numbers them anew in each drawing.
    svg = re.sub(r'id="', f'id="{source.stem}-', svg)
    return f'<div class="states">{svg}</div>\n'


def layout():
    """Doxygen's own layout, which calls the list of headers "Files", as a page of the handbook is called."""
    made = subprocess.run(["doxygen", "-l", "/dev/stdout"], check=True, capture_output=True, text=True).stdout
    return made.replace('<tab type="files" visible="yes" title="">', '<tab type="files" visible="yes" title="Headers">', 1)


SNIPPET = re.compile(r"(?ms)^[^\n]*\[(\w+)\]$\n(.*?)^[^\n]*\[\1\]$")


def snippets(path):
    """The parts of an example that pages show, by name, without the indentation that they have in common."""
    return {name: textwrap.dedent(part) for name, part in SNIPPET.findall(path.read_text())}


def whole(path):
    """An example as users write it, without the marks of its parts."""
    return re.sub(r"(?m)^.*\[\w+\]\n", "", path.read_text())


def main(output):
    output = pathlib.Path(output)
    output.mkdir(parents=True, exist_ok=True)
    (output / "header.html").write_text(header())
    (output / "layout.xml").write_text(layout())
    (output / "error-catalogue.md").write_text(catalogue.for_site())
    # The headers show parts of the examples with @snippet.
    for example in pathlib.Path("examples").glob("*.cpp"):
        (output / example.name).write_text("".join(
            f"// [{name}]\n{part}// [{name}]\n" for name, part in snippets(example).items()))
    for path in pathlib.Path("docs").glob("*.md"):
        if path.stem == "errors":
            continue  # The site has its own.
        (output / path.name).write_text(page.translated(path.stem, path.read_text()))
    for source in FOLDER.glob("*.dot"):
        (output / f"{source.stem}.svg").write_text(drawing(source))


if __name__ == "__main__":
    main(sys.argv[1])

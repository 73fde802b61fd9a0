"""The parts of the manual pages that are taken from the headers, the error catalogue and the examples.

Usage: manual.py, from the top folder: writes the sections SYNOPSIS, ERRORS and EXAMPLES of docs/man/*.3boardkit anew, and
docs/errors.md, the catalogue as a page.
"""

import pathlib
import re

import catalogue
import make

# Of the headers with more than one page in the handbook, the examples of the others.
FURTHER_EXAMPLES = {"SystemCalls.h": ["signals", "memory"]}
CATALOGUE = pathlib.Path("docs/errors.md")
FAMILIES = {header: subsystem for subsystem, (_, header) in catalogue.SUBSYSTEMS.items()}


def page_of(header):
    return pathlib.Path("docs/man") / f"{header.stem}.3boardkit"


def public(header):
    """What a header declares, without comments, private members and bodies, one declaration a line."""
    text = header.read_text()
    text = re.sub(r"//[^\n]*", "", text)
    text = re.sub(r"(?m)^#.*$", "", text)
    text = re.sub(r"(?s)\n private:.*?\n\};", "\n};", text)
    text = re.sub(r"[ \t]+", " ", text)
    text = re.sub(r"\s*\n\s*", "\n", text)
    # A declaration that goes on in the next line is one line.
    lines, current = [], ""
    for line in text.strip().splitlines():
        current += (" " if current else "") + line
        if current.endswith(";" if current.startswith("enum") else (";", "{", "}", "public:")):
            lines.append(current)
            current = ""
    return lines


def synopsis_of(header):
    """The include line and the declarations, wrapped as a terminal shows them."""
    lines, depth, result = public(header), 0, [f"#include <{header.name}>", ""]
    for line in lines:
        if line.startswith("}"):
            depth -= 1
        if line in ("public:", "};", "}", "class OpSystem;", "struct sysinfo;"):
            if line == "};" or line == "}":
                result.append(line)
            continue
        result += wrapped("    " * depth + line)
        if line.endswith("{"):
            depth += 1
    return "\n".join(result) + "\n"


def wrapped(line, width=76):
    """Breaks after commas; continuation lines are indented."""
    indent = re.match(" *", line).group(0)
    pieces, current = re.findall(r"[^,]*,?\s?", line.strip()), indent
    result = []
    for piece in filter(None, pieces):
        if len(current.rstrip() + piece.rstrip()) > width and current.strip():
            result.append(current.rstrip())
            current = indent + "    "
        current += piece
    return result + [current.rstrip()]


def roff(text):
    """Text as roff shows it as it stands."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return "\\&" + text if text.startswith((".", "\\(aq")) else text


def continued(text, width=76):
    """One line of roff, on several lines of the file if it is long."""
    lines = [""]
    for piece in re.findall(r"\S* ?", text):
        lines += [""] if len(lines[-1]) + len(piece) > width else []
        lines[-1] += piece
    return "\\\n".join(lines)


def flat(text):
    """Running text: hyphens stay hyphens."""
    text = text.replace("\\", "\\e")
    return "\\&" + text if text.startswith((".", "'")) else text


def errors_of(header):
    result = []
    for entry in catalogue.ERRORS:
        if entry["subsystem"] != FAMILIES[header.name]:
            continue
        text = entry["text"]
        result.append(".TP")
        result.append(continued(f'\\(lq{roff(text)}\\(rq') if text else "(an empty text)")
        result.append(flat(entry["exception"]) + " from " + ", ".join(entry["operations"]) + ".")
        for cause in entry["causes"]:
            numbers = ", ".join(cause["errno"])
            result.append((numbers + ": " if numbers else "") + flat(cause["cause"]))
            result.append(flat(cause["remedy"]))
        result.append("Remains: " + entry["remains"])
    return sentences("\n".join(result)) + "\n" if result else ""


def examples_of(header):
    """What the header's example shows, and those of its other pages in the handbook."""
    own = re.search(r"This is a part of `examples/([\w-]+)\.cpp`", header.read_text()).group(1)
    result = []
    for name in [own, *FURTHER_EXAMPLES.get(header.name, [])]:
        path = pathlib.Path(f"examples/{name}.cpp")
        result += [".PP"] if result else []
        result += [".EX", *map(roff, make.snippets(path)["use"].splitlines()), ".EE", ".PP"]
        result += ["This is a part of", f".BR examples/{roff(name)}.cpp ."]
        trial = re.search(r"boardsim -- [^\n]*", path.read_text())
        result += ["Without a board:", f".B {roff(trial.group(0))}"] if trial else []
    return "\n".join(result) + "\n"


def sentences(text):
    """Lines short enough for the linter."""
    result = []
    for line in text.splitlines():
        # The text of an error stays one line.
        if line.startswith((".TP", "\\(lq")) or result and result[-1].endswith("\\"):
            result.append(line)
            continue
        # A new sentence begins a new line.
        for sentence in re.split(r"(?<=[.:;]) (?=[A-Z(])", line):
            words, current = sentence.split(" "), ""
            for word in words:
                if len(current) + len(word) > 78:
                    result.append(current.strip())
                    current = ""
                current += word + " "
            result.append(current.strip())
    # No line may begin with a control character.
    return "\n".join("\\&" + line if line.startswith("'") or (line.startswith(".") and not line.startswith(".TP")) else line
                     for line in result)


SYNOPSIS = re.compile(r"(?s)(?<=\.SH SYNOPSIS\n\.nf\n)(.*?)(?=\.fi\n)")
ERRORS = re.compile(r"(?s)(?<=\.SH ERRORS\n)(.*?)(?=\.SH )")
EXAMPLES = re.compile(r"(?s)(?<=\.SH EXAMPLES\n)(.*?)(?=\.SH )")


def synopsis_in(text):
    found = SYNOPSIS.search(text)
    return found.group(1).replace("\\-", "-") if found else "(none)"


def errors_in(text):
    found = ERRORS.search(text)
    return found.group(1) if found else ""


def examples_in(text):
    found = EXAMPLES.search(text)
    return found.group(1) if found else ""


def main():
    for header in pathlib.Path("include").glob("*.h"):
        page = page_of(header)
        text = page.read_text()
        text = SYNOPSIS.sub(lambda _: synopsis_of(header).replace("-", "\\-"), text, count=1)
        text = ERRORS.sub(lambda _: errors_of(header), text, count=1)
        text = EXAMPLES.sub(lambda _: examples_of(header), text, count=1)
        page.write_text(text)
    CATALOGUE.write_text(catalogue.for_readers())


if __name__ == "__main__":
    main()

"""Prints a public header as Doxygen reads it: after the comment of each operation, the fixed texts of its failures; after
each enumerator, what it means.

Usage: header.py HEADER, from the top folder; the Doxyfile names it as a filter. The texts are the error catalogue's.
"""

import html
import pathlib
import re
import sys

from catalogue import ERRORS

# A declaration's first line: perhaps words and a type, the name, and what it takes.
DECLARATION = re.compile(r"^ *(?!//|return\b)(?:[\w:<>,&* ]+[&* ])?(~?\w+)\(")


def plain(comment):
    return re.sub(r"\s+", " ", re.sub(r"(?m)^\s*///", "", comment))


def names(comment, entry):
    """Whether the comment has the entry's text."""
    pieces = [piece for piece in re.sub(r"\s+", " ", entry["text"]).split("...") if piece.strip()]
    return bool(pieces) and all(piece.strip() in plain(comment) for piece in pieces)


def operations(lines):
    """(line, qualified name, comment) of each public declaration that has a comment."""
    scope, comment, found = "", [], []
    for number, line in enumerate(lines):
        if re.match(r" private:", line):
            scope = None
        elif re.match(r"\};?", line):
            scope = ""
        elif opened := re.match(r"(?:class|namespace) (\w+) \{", line):
            scope = opened.group(1) + "::"
        if line.lstrip().startswith("///"):
            comment.append(line)
            continue
        declared = DECLARATION.match(line)
        if comment and declared and scope is not None:
            found.append((number, scope + declared.group(1), "\n".join(comment)))
        comment = []
    return found


def failures(name, comment, found):
    """The catalogue's entries for an operation. Of overloads, each has what its comment names, itself or by naming another
    operation, or all if it names none."""
    scope = name[:name.rfind(":") + 1]
    if "~" in name:
        # What the operation that it names throws ends the process here. It calls that only where there is something to close.
        return [{**entry, "remains": "The process ends."} for entry in ERRORS
                if entry["id"] != "err-serial-not-open" and {scope + other for other in re.findall(r"\b(\w+)\(\)", comment)} & set(entry["operations"])]
    entries = [entry for entry in ERRORS if name in entry["operations"]]
    if [other for _, other, _ in found].count(name) == 1:
        return entries
    referred = {scope + other for other in re.findall(r"\b(\w+)\(\)", comment)} - {name}
    comments = [comment] + [text for _, other, text in found if other in referred]
    return [entry for entry in entries if any(names(text, entry) for text in comments)] or entries


# Without words, an enumerator has no place on its page where the search could lead to.
ENUMERATORS = [("BAUD_0", "No speed: a real line drops DTR and RTS."), (r"BAUD_(\d+)", r"\1 bits per second."),
               (r"CHAR_SIZE_(\d)", r"\1 data bits."), ("STOP_BITS_1", "One stop bit."), ("STOP_BITS_2", "Two stop bits."),
               ("PARITY_EVEN", "Even parity."), ("PARITY_ODD", "Odd parity."), ("PARITY_NONE", "No parity bit."),
               ("FLOW_CONTROL_HARDWARE", "By the lines RTS and CTS."),
               ("FLOW_CONTROL_SOFTWARE", "By the characters XON and XOFF."), ("FLOW_CONTROL_NONE", "Nobody stops the sender.")]


def described(text):
    """Enumerators with what they mean."""
    def with_words(found):
        words = next(re.sub(pattern, words, found[1]) for pattern, words in ENUMERATORS if re.fullmatch(pattern, found[1]))
        return f"{found[0]} /**< {words} */"

    return re.sub(r"(?s)\benum \w+[^{};]*\{.*?\}", lambda found: re.sub(r"\b([A-Z]\w+) = \d+", with_words, found[0]), text)


def filtered(text):
    """The header's text with the failures, and the set of (operation, id) that it names."""
    lines = text.splitlines()
    found, shown = operations(lines), set()
    for number, name, comment in reversed(found):
        entries = failures(name, comment, found)
        indent = re.match(" *", lines[number]).group(0)
        listed = []
        for entry in entries:
            # Doxygen knows the quotation mark's name, but no numbers of characters.
            words = html.escape(entry["text"].strip()).replace("&#x27;", "'") or "an empty text"
            listed.append(f'{indent}/// - @ref {entry["id"]} "{words}": {html.escape(entry["remains"], quote=False)}')
            shown.add((name, entry["id"]))
        if listed:
            lines[number:number] = [f"{indent}///", f"{indent}/// @par Failures and what remains", *listed]
    return described("\n".join(lines) + "\n"), shown


if __name__ == "__main__":
    sys.stdout.write(filtered(pathlib.Path(sys.argv[1]).read_text())[0])

#!/usr/bin/env python3
"""Compares docs/errors.json with the sources: every text that is thrown stands in it, and nothing else does.

Usage: catalogue.py SOURCE_FOLDER
"""
import errno
import json
import pathlib
import re
import sys

VARIES = "..."
LITERAL = r'"((?:[^"\\\n]|\\.)*)"'
EXCEPTIONS = {"std::" + name for name in
              ("system_error", "logic_error", "runtime_error", "invalid_argument")} | {"SIGBUS"}
KEYS = ["id", "subsystem", "origin", "text", "operations", "exception", "causes", "remains"]


def unescaped(literal):
    return re.sub(r"\\(.)", r"\1", literal)


def thrown_texts(source):
    """The literals of all statements that throw, and of the constants that such statements name."""
    text = re.sub(r"//[^\n]*", "", source)
    text = re.sub(r"^\s*#.*$", "", text, flags=re.M)
    constants = dict(re.findall(r"const char\* (k\w+) = " + LITERAL, text))
    texts = set()
    for statement in re.findall(r"(?:\bthrow\b|\bThrow\w+\(|\bCloseAndThrow\(|\bSetPortSettings\()[^;]*;", text):
        texts.update(unescaped(literal) for literal in re.findall(LITERAL, statement))
        texts.update(unescaped(constants[name]) for name in re.findall(r"\bk\w+", statement) if name in constants)
    return texts


def main(root):
    with open(root / "docs/errors.json", encoding="utf-8") as file:
        errors = json.load(file)["errors"]
    sources = {path: path.read_text() for path in sorted((root / "src").rglob("*")) if path.suffix in (".cpp", ".h")}
    thrown = set().union(*(thrown_texts(source) for source in sources.values()))
    headers = "\n".join(path.read_text() for path in (root / "include").glob("*.h"))
    subsystems = {path.name for path in (root / "src").iterdir() if path.is_dir()}
    faults = []

    told = set()
    for error in errors:
        if list(error) != KEYS:
            faults.append(f"{error['id']}: the keys are not {KEYS}")
        if not re.fullmatch(r"err(-[a-z0-9]+)+", error["id"]):
            faults.append(f"{error['id']} is no anchor")
        if error["origin"] == "library":
            pieces = error["text"].split(VARIES)
            told.update(piece for piece in pieces if piece or len(pieces) == 1)
        elif error["origin"] not in ("shell", "ip", "kernel"):
            faults.append(f"{error['id']}: from where is {error['origin']}?")
        if error["exception"] not in EXCEPTIONS:
            faults.append(f"{error['id']}: nobody throws {error['exception']}")
        if error["subsystem"] not in subsystems:
            faults.append(f"{error['id']}: there is no src/{error['subsystem']}")
        for operation in error["operations"]:
            if not re.search(r"\b" + operation.split("::")[-1] + r"\(", headers):
                faults.append(f"{error['id']}: no header has {operation}")
        for cause in error["causes"]:
            faults.extend(f"{error['id']}: {name} is no error number"
                          for name in cause["errno"] if name not in errno.errorcode.values())
            if not cause["cause"] or not cause["remedy"]:
                faults.append(f"{error['id']}: a cause or remedy is empty")
        if not error["operations"] or not error["causes"] or not error["remains"]:
            faults.append(f"{error['id']}: something is empty")

    for key in ("id", "text"):
        values = [error[key] for error in errors]
        faults.extend(f'the {key} "{value}" stands there twice' for value in set(values) if values.count(value) > 1)
    faults.extend(f'"{text}" is thrown, but stands not in docs/errors.json' for text in sorted(thrown - told))
    faults.extend(f'"{text}" stands in docs/errors.json, but nobody throws it' for text in sorted(told - thrown))
    if len(thrown) < 60:  # there are more; a parser that finds nothing would accept everything
        faults.append(f"only {len(thrown)} texts were found in the sources")
    print(f"{len(errors)} errors, {len(thrown)} texts thrown")
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))

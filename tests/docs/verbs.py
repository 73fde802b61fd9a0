"""Compares what README, handbook and manual pages show of boardctl and boardsim with the help of these.

Usage: verbs.py SOURCE_DIR BOARDCTL BOARDSIM. Every command that is shown is there, with every option; the manual pages and
the help have the same verbs and options.
"""

import functools
import pathlib
import re
import subprocess
import sys

source, boardctl, boardsim = map(pathlib.Path, sys.argv[1:])
complaints = []
count = 0


@functools.lru_cache(None)
def help_of(*command):
    return subprocess.run([*command, "--help"], capture_output=True, text=True, check=True).stdout


def words_of(text, beginning="  "):
    """The words that begin the lines of a help: groups or verbs."""
    return set(re.findall(rf"(?m)^{beginning}([a-z][a-z-]*)  ", text))


def options_of(text):
    return {option for line in re.findall(r"(?m)^ +(-.*)", text) for option in re.findall(r"--[a-z][a-z-]*", line)}


GROUPS = words_of(help_of(boardctl))
VERBS = {group: words_of(help_of(boardctl, group)) if "VERB [" in help_of(boardctl, group) else set() for group in GROUPS}


def check(holds, complaint):
    global count
    count += 1
    if not holds:
        complaints.append(complaint)


def check_command(tool, words, where):
    """One command, from after the tool's name on."""
    shown = f"{where}: {tool} {' '.join(words)}"
    words = words[:words.index("--")] if "--" in words else words
    options = [re.match(r"--[a-z-]*", word)[0] for word in words if word.startswith("--")]
    known = help_of(boardsim if tool == "boardsim" else boardctl)
    if tool == "boardctl":
        named = [word for word in words if not word.startswith("--")]
        if not named or named[0].isupper():
            check(set(options) <= options_of(known), f"{shown}: an option that is not there")
            return
        check(named[0] in GROUPS, f"{shown}: no such group")
        if named[0] not in GROUPS:
            return
        verb = [boardctl, named[0]]
        if VERBS[named[0]]:
            if len(named) > 1 and not named[1].isupper():
                check(named[1] in VERBS[named[0]], f"{shown}: no such verb")
                verb += [named[1]] if named[1] in VERBS[named[0]] else []
        known = help_of(*verb)
    for option in options:
        check(option in options_of(known) | {"--help", "--version"}, f"{shown}: no option {option}")


def check_commands(text, where):
    for found in re.finditer(r"(?<![\w./-])(boardctl|boardsim) (?=([^|;&<>`#()\"'\n]*))", text):
        check_command(found[1], found[2].split(), where)


for path in [source / "README.md", *sorted((source / "docs").glob("*.md"))]:
    text = re.sub(r"\\\n", " ", path.read_text())
    blocks = re.findall(r"(?ms)^ *```\w*\n(.*?)^ *```$", text)
    text = re.sub(r"(?ms)^ *```.*?^ *```$", "", text)
    for code in blocks + re.findall(r"`([^`\n]+)`", text):
        # Where a comment or a sentence begins with the tool's name, no command does.
        check_commands(re.sub(r"(?m)(^|\s)#.*$", "", code), path.name)
sim_page, ctl_page = source / "sim/boardsim.1", source / "tools/boardctl/boardctl.1"
for path in [sim_page, ctl_page, *sorted((source / "docs/man").iterdir())]:
    text = path.read_text().replace("\\-", "-")
    for found in re.findall(r"(?ms)^(?:\.RS|\.EX|\.nf)\n(.*?)^(?:\.RE|\.EE|\.fi)$", text):
        check_commands(re.sub(r'(?m)^\.BI? "?|\\f.|["[\]]', "", found), path.name)

text = sim_page.read_text().replace("\\-", "-")
described = set(re.findall(r"--[a-z][a-z-]*", " ".join(re.findall(r"(?m)^\.TP\n(\.[BI].*)", text))))
check(described == options_of(help_of(boardsim)),
      f"{sim_page.name} and the help differ in {described ^ options_of(help_of(boardsim))}")
text = ctl_page.read_text().replace("\\-", "-")
described = {tuple(words.split()[:1 if not VERBS.get(words.split()[0], set()) else 2])
             for words in re.findall(r'(?m)^\.SS "?([a-z][^"\n]*)', text)}
there = {(group, verb) for group in GROUPS for verb in VERBS[group]} | {(group,) for group in GROUPS if not VERBS[group]}
check(described == there, f"{ctl_page.name} and the help differ in {described ^ there}")

print("\n".join(complaints) or f"{count} commands and options are there.")
sys.exit(1 if complaints or count < 120 else 0)

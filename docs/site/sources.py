"""Compares what the documentation shows with its sources. Run from the top folder; ends with 1 at a difference.

- Every public header begins with the example of its page of the handbook, has every text of its family, and on the site
  each operation shows its failures.
- The error catalogue names composite operations where the calls in them fail, and docs/errors.md is made of it.
- All C++ that the README and the handbook show is a part of the files in examples/, which tests run.
- Each subsystem's page has the same sections: example, arguments, failures, threads, pitfalls; its states are drawn; and
  its table of arguments has every parameter of every operation.
- The handbook is plain Markdown, whose links lead somewhere also where the sources are read.
- The handbook's number of test functions is about right.
- Every header, and no other, is in the tables of README.md, of the handbook's first page and of boardkit(7).
- Each fixed text of the library is in a test.
- The handbook and the headers name only files that are there, and the handbook's commands are not cut off on a desktop.
- The synopsis of each manual page in section 3 is what its header declares, its ERRORS section is the catalogue's, its
  EXAMPLES are parts of the examples, narrow enough for a terminal, and it says which threads may use it.
"""

import difflib
import pathlib
import re
import sys

import catalogue
import header
import make
import manual
import page as handbook

complaints = []
compared = 0


def compare(what, shown, source):
    global compared
    compared += 1
    if shown != source:
        difference = difflib.unified_diff(str(shown).splitlines(), str(source).splitlines(), "shown", "in the source",
                                          lineterm="")
        complaints.append("\n".join([f"{what} differs:", *difference]))


def check_headers():
    for path in sorted(pathlib.Path("include").glob("*.h")):
        text = path.read_text()
        found = re.search(r"\A#ifndef \w+\n#define \w+\n\n/// @file\n.*?/// @code\{\.cpp\}\n(.*?)/// @endcode\n"
                          r"/// This is a part of `(examples/[\w-]+\.cpp)`", text, re.S)
        if not found:
            complaints.append(f"{path} does not begin with an example.")
            continue
        shown = "".join(line[4:] + "\n" for line in found.group(1).splitlines())
        compare(f"The example of {path}", shown, make.snippets(pathlib.Path(found.group(2)))["use"])


def check_failures():
    """Each operation's page on the site shows its failures, and the headers alone have every text of the library."""
    shown = set()
    for path in sorted(pathlib.Path("include").glob("*.h")):
        text = path.read_text()
        shown |= header.filtered(text)[1]
        for entry in catalogue.ERRORS:
            if entry["origin"] == "library" and entry["text"] and manual.FAMILIES[path.name] == entry["subsystem"] and \
                    not header.names(text, entry):
                complaints.append(f"{path} does not have the text {entry['text']!r}.")
    for entry in catalogue.ERRORS:
        for operation, destructor in (("SerialPort::Close", "SerialPort::~SerialPort"),
                                      ("WatchDog::Deactivate", "WatchDog::~WatchDog")):
            compare(f"Whether the page of {destructor} shows {entry['id']}", (destructor, entry["id"]) in shown,
                    operation in entry["operations"] and entry["id"] != "err-serial-not-open")
        for operation in entry["operations"]:
            compare(f"What the page of {operation} shows", (operation, entry["id"]) in shown, True)


def check_composed():
    """Operations that call others fail as these do."""
    opens = "SerialPort::OpenSerialPortDevice"
    sets = {f"SerialPort::Set{what}" for what in ("BaudRate", "CharSize", "Parity", "NumOfStopBits", "FlowControl")}
    for entry in catalogue.ERRORS:
        names = set(entry["operations"])
        if entry["id"] in ("err-serial-already-open", "err-serial-not-open"):
            continue  # Whoever calls another has looked.
        if opens in names:
            compare(f"What {entry['id']} has beside {opens}", names >= {"SerialPort::SerialPort", "SerialPort::Open"}, True)
        if names & sets:
            compare(f"What {entry['id']} has beside setters", "SerialPort::Open" in names, True)
        if names & {"SerialPort::Open", "SerialPort::Close", "ReadFromPhysicalMemoryAddress"}:
            compare(f"What {entry['id']} has beside what a report calls", "SerialPort::ToString" in names, True)
        if "OpSystem::ExecCmd" in names:
            compare(f"What {entry['id']} has beside ExecCmd", "IpNet::SetAddr" in names and "IpNet::GetGwInfo" in names, True)


def check_readme():
    text = pathlib.Path("README.md").read_text()
    compare("README.md is a page, of 160 lines at most", text.count("\n") <= 160, True)
    compare("The programs of README.md", [name for name, _, _ in SHOWN.findall(text)],
            ["examples/ip-configuration.cpp", "examples/set-address.cpp"])


SUBSYSTEMS = ["descriptors", "signals", "memory", "files", "watchdog", "serial-port", "commands", "ip-configuration",
              "tracebacks"]
SHOWN = re.compile(r"(?ms)^<!-- (examples/[\w.-]+): (\w+) -->\n```\w+\n(.*?)^```$")


def check_examples():
    """What the handbook shows of C++ is a part of the examples, which the tests compile and run."""
    tests = "".join(path.read_text() for path in pathlib.Path("tests/examples").glob("*.sh"))
    for path in [pathlib.Path("README.md"), *sorted(pathlib.Path("docs").glob("*.md"))]:
        blocks = SHOWN.findall(path.read_text())
        compare(f"The C++ in {path} that is an example's", sum(name.endswith(".cpp") for name, _, _ in blocks),
                path.read_text().count("\n```cpp\n"))
        for name, part, block in blocks:
            example = pathlib.Path(name)
            compare(f"What {path} shows of {name}", block, make.whole(example) if part == "whole" else
                    make.snippets(example)[part])
            compare(f"A test runs {name}", f"examples/{example.name.removesuffix('.cpp')}\"" in tests, True)
        if path.stem in SUBSYSTEMS:
            compare(f"The beginning of the examples of {path}", [part for _, part, _ in blocks][:1], ["use"])


# The handbook's pages of each header.
PAGES = {"SystemCalls.h": ["descriptors", "signals", "memory"], "File.h": ["files"], "WatchDog.h": ["watchdog"],
         "SerialPort.h": ["serial-port"], "OpSystem.h": ["commands"], "IpNet.h": ["ip-configuration"],
         "linuxutils.h": ["tracebacks"]}


def check_tables():
    """Each table of headers has all of them."""
    headers = {path.name for path in pathlib.Path("include").glob("*.h")}
    rows = re.findall(r"(?m)^\| \[`(\S+\.h)`\]\(include/(\S+)\) \|", pathlib.Path("README.md").read_text())
    compare("The headers in README.md", sorted(rows), sorted((name, name) for name in headers))
    pages = {}
    index = pathlib.Path("docs/index.md").read_text()
    for stem, name in re.findall(r"(?m)^\| \[[^]]+\]\((\S+)\.md\) \| (\S+\.h) \|", index):
        pages.setdefault(name, []).append(stem)
    compare("The headers and their pages in docs/index.md", pages, PAGES)
    compare("The headers that have pages", sorted(PAGES), sorted(headers))
    table = re.search(r"(?s)\n\.SS Headers\n\.TS\n.*?\.\n(.*?)\.TE\n", pathlib.Path("docs/man/boardkit.7").read_text())
    compare("The headers in boardkit(7)", sorted(line.split("\t")[0] for line in table.group(1).splitlines()),
            sorted(headers))


def check_texts():
    """The tests have each fixed text, and each one that has a name there is used."""
    texts = sorted(pathlib.Path("tests").rglob("*Texts.h"))
    written = "".join(path.read_text() for path in [*texts, *sorted(pathlib.Path("tests").rglob("*Test.cpp"))])
    quoted = re.sub(r'"\s*\n\s*"', "", written).replace('\\"', '"')
    for entry in catalogue.ERRORS:
        if entry["origin"] == "library":
            for part in entry["text"].split("..."):
                compare(f"A test has {part!r}", part in quoted, True)
    for path in texts:
        code = "".join(other.read_text() for other in path.parent.iterdir() if other.suffix in (".cpp", ".h"))
        for name in re.findall(r"(?m)^inline (?:const )?std::string (\w+)", path.read_text()):
            compare(f"A test uses {name} of {path}", len(re.findall(rf"\b{name}\b", code)) > 1, True)


def parameters(declaration):
    """The names of what an operation takes."""
    if "= default" in declaration or "= delete" in declaration:
        return set()
    taken = re.sub(r"\(\*(\w+)\)\([^()]*\)", r"\1", declaration[declaration.index("(") + 1:declaration.rindex(")")])
    return {found.group(1) for one in taken.split(",") if (found := re.search(r"[\w>&*] ?[ &*](\w+)$", one.strip()))}


def check_arguments():
    """The table of arguments has every parameter of every operation, and nothing else."""
    for header_name, stems in PAGES.items():
        lines = pathlib.Path("include", header_name).read_text().splitlines()
        taken = {}
        for number, name, _ in header.operations(lines):
            declaration = " ".join(lines[number:]).split(";")[0]
            taken.setdefault(name.rsplit("::")[-1], set()).update(parameters(declaration))
        explained = {}
        for stem in stems:
            text = pathlib.Path(f"docs/{stem}.md").read_text()
            table = re.search(r"(?s)\n\| Argument \| Meaning \|\n\|---\|---\|\n(.*?)\n\n", text).group(1)
            cells = [row.split(" | ")[0] for row in table.splitlines()]
            explained[stem] = {name for cell in cells for name in re.findall(r"`(\w+)`", cell)}
        for name, names in taken.items():
            # The page is the one that names the operation, where there are several.
            pages = [stem for stem in stems if len(stems) == 1 or name in pathlib.Path(f"docs/{stem}.md").read_text()]
            compare(f"What {' and '.join(pages)} explain of what {name}() takes",
                    names & set().union(*(explained[stem] for stem in pages)), names)
        compare(f"The arguments explained for {header_name}", set().union(*explained.values()), set().union(*taken.values()))


SECTIONS = ["Smallest example", "Failures and what remains", "Threads", "Pitfalls"]


def check_sections():
    for stem in SUBSYSTEMS:
        text = pathlib.Path(f"docs/{stem}.md").read_text()
        compare(f"The sections of {stem}", [words for words in handbook.headings(text) if words in SECTIONS], SECTIONS)
        compare(f"A table of the arguments in {stem}", "\n| Argument | Meaning |\n" in text, True)
    compare("What is drawn", set(handbook.drawn()), {path.stem for path in pathlib.Path("docs/site").glob("*.dot")})


def prose(text):
    return re.sub(r"`[^`\n]*`|<!--.*?-->", "", handbook.CODE.sub("", text))


def anchors(path):
    """What a link to a file can name in it."""
    text = path.read_text()
    return {handbook.slug(words) for words in handbook.headings(text)} | set(re.findall(r'<a id="([\w-]+)">', text))


def check_links():
    for path in [pathlib.Path("README.md"), pathlib.Path("CONTRIBUTING.md"), *sorted(pathlib.Path("docs").glob("*.md"))]:
        text = prose(path.read_text())
        for command in re.findall(r"[@\\](?:ref|subpage|snippet|include|htmlinclude|tableofcontents)\b.*|\{#.*", text):
            complaints.append(f"{path} has what only Doxygen reads: {command}")
        # Doxygen shows backquotes in a link's words as they are.
        if path.parent.name == "docs" and (quoted := re.search(r"\[[^]\n]*`[^]\n]*\]\([\w#./-]+\)", path.read_text())):
            complaints.append(f"{path} has backquotes in a link: {quoted.group(0)}")
        for file, anchor in re.findall(r"\]\(([^)#]*)(?:#([^)]+))?\)", text):
            if re.match(r"https?:", file):
                continue
            target = path.parent / file if file else path
            compare(f"The link of {path} to {file}", target.exists(), True)
            if anchor and target.exists():
                compare(f"The link of {path} to {file}#{anchor}", anchor in anchors(target), True)


def check_figures():
    said = int(re.search(r"more than (\d+) functions in C\+\+", pathlib.Path("docs/testing.md").read_text()).group(1))
    written = sum(len(re.findall(r"(?m)^ *(?:TYPED_)?TEST(?:_F|_P)?\(", path.read_text()))
                  for path in pathlib.Path("tests").rglob("*.cpp"))
    compare(f"The number of tests in docs/testing.md, {said} of {written},", said < written < 1.2 * said, True)


def check_rules():
    """The page on boards shows the lines of the udev rules that are for watchdogs."""
    rules = pathlib.Path("packaging/udev/60-boardkit.rules").read_text()
    shown = re.search(r"(?s)\n```\n(SUBSYSTEM.*?)```", pathlib.Path("docs/on-the-board.md").read_text())
    compare("The udev rules in docs/on-the-board.md", shown and shown.group(1).splitlines(),
            [line for line in rules.splitlines() if line.startswith("SUBSYSTEM") and "watchdog" in line])


def in_seconds(text):
    number, unit = re.match(r"([\d.]+) (ns|us|ms|s)\b", text).groups()
    return float(number) * {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}[unit]


def check_limits():
    """The tables of speeds name the benchmarks' limits, and say of each that is exceeded that it is."""
    text = pathlib.Path("docs/performance.md").read_text()
    for row in re.findall(r"(?m)^\| (.+?) \| .+? \| .+? \| ([\d.]+) \| ([\d.]+.*?) \|$", text):
        name, ratio, limit = row
        compare(f"Whether docs/performance.md calls the limit of {name} exceeded", "exceeded" in limit,
                float(ratio) > float(limit.split()[0].rstrip(":")))
    bench = pathlib.Path("bench/SimBench.cpp").read_text()
    constants = {name: float(value) for name, value in re.findall(r"constexpr double (k\w+Limit) = ([\d.e-]+);", bench)}
    limits = {"start and end": constants["kStartLimit"], "a byte": constants["kByteLimit"],
              "a request": constants["kTrappedLimit"], "opening and closing the port": constants["kTrappedLimit"],
              "opening a file": 2 * constants["kUntouchedLimit"], "any other": constants["kUntouchedLimit"],
              "10 MiB": constants["kFloodLimit"]}
    rows = re.findall(r"(?m)^\| ([^|]+) \| ([^|]+) \| ([\d.]+ \ws) \| ([^|]+) \|$", text[text.index("## The simulator"):])
    compare("The rows of the simulator's table", len(rows), len(limits))
    for name, bare, measured, limit in rows:
        wanted = next((value for beginning, value in limits.items() if name.startswith(beginning)), None)
        compare(f"The limit of {name} in docs/performance.md", f"{in_seconds(limit):.2e}", f"{wanted or 0:.2e}")
        over = in_seconds(measured) - (in_seconds(bare) if "more than bare" in limit else 0)
        compare(f"Whether docs/performance.md calls the limit of {name} exceeded", "exceeded" in limit,
                over > in_seconds(limit))


FILES = r"`((?:examples|tests|scripts|src|cmake|docs|packaging|tools)/[\w./-]+)[ `]"


def check_names():
    global compared
    for page in [pathlib.Path("README.md"), *sorted(pathlib.Path("docs").glob("*.md"))]:
        for name in re.findall(FILES, page.read_text()):
            compared += 1
            if not pathlib.Path(name).exists():
                complaints.append(f"{page} names {name}, which is not there.")
    for path in pathlib.Path("include").glob("*.h"):
        for name in re.findall(r"`(examples/[\w./-]+)`", path.read_text()):
            if not pathlib.Path(name).exists():
                complaints.append(f"{path} names {name}, which is not there.")


def check_widths():
    for page in sorted(pathlib.Path("docs").glob("*.md")):
        for block in re.findall(r"(?ms)^ *```\w*\n(.*?)^ *```$", page.read_text()):
            for line in block.splitlines():
                if len(line) > 80:
                    complaints.append(f"{page} shows a line that is cut off beside the contents list: {line}")


def check_manual():
    version = re.search(r"project\(boardkit VERSION ([\d.]+)", pathlib.Path("CMakeLists.txt").read_text()).group(1)
    for page in [*pathlib.Path("docs/man").iterdir(), *pathlib.Path("sim").glob("*.1"),
                 *pathlib.Path("tools").rglob("*.1")]:
        compare(f"The version of {page}", re.search(r'"boardkit ([\d.]+)"', page.read_text()).group(1), version)
    for path in sorted(pathlib.Path("include").glob("*.h")):
        page = manual.page_of(path)
        if not page.exists():
            complaints.append(f"There is no manual page {page}.")
            continue
        text = page.read_text()
        compare(f"The synopsis of {page}", manual.synopsis_in(text), manual.synopsis_of(path))
        if "\n.SH ATTRIBUTES\n" not in text:
            complaints.append(f"{page} does not say which threads may use it.")
        compare(f"The section ERRORS of {page}", manual.errors_in(text), manual.errors_of(path))
        compare(f"The section EXAMPLES of {page}", manual.examples_in(text), manual.examples_of(path))
        for line in re.search(r"(?s)\.EX\n(.*)\.EE", manual.examples_of(path)).group(1).splitlines():
            # A manual page's text is indented by 7 columns of 80.
            if len(line.replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")) > 73:
                complaints.append(f"{page} has an example that is too wide for a terminal: {line}")


check_headers()
check_failures()
check_composed()
check_readme()
check_examples()
compare(f"What {manual.CATALOGUE} shows (python3 docs/site/manual.py writes it)", manual.CATALOGUE.read_text(),
        catalogue.for_readers())
check_sections()
check_tables()
check_texts()
check_arguments()
check_links()
check_figures()
check_rules()
check_limits()
check_names()
check_widths()
check_manual()
for complaint in complaints:
    print(complaint)
print(f"{compared} comparisons, {len(complaints)} complaints.")
sys.exit(1 if complaints or compared < 400 else 0)

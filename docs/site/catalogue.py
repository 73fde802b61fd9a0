"""The error catalogue as pages, made of docs/errors.json: one for the site, and one for readers of the sources.

In both, each entry and each subsystem has its anchor.
"""

import html
import json
import pathlib
import re

ERRORS = json.loads(pathlib.Path("docs/errors.json").read_text())["errors"]

SUBSYSTEMS = {
    "sys": ("Descriptors, signals, memory", "SystemCalls.h"),
    "file": ("Files", "File.h"),
    "watchdog": ("Watchdog", "WatchDog.h"),
    "serial": ("Serial port", "SerialPort.h"),
    "os": ("Commands", "OpSystem.h"),
    "net": ("IP configuration", "IpNet.h"),
    "diag": ("Tracebacks", "linuxutils.h"),
}


def sections():
    """(subsystem, title, entries) of each subsystem that has entries."""
    for subsystem, (title, _) in SUBSYSTEMS.items():
        entries = [entry for entry in ERRORS if entry["subsystem"] == subsystem]
        if entries:
            yield subsystem, title, entries


def for_site():
    """The page as Doxygen reads it, with a place for the filter."""
    def operations(names):
        return ", ".join(f"@ref {name} \"{name}\"" if "::" in name else f"@ref {name}" for name in names)

    def row(cause):
        numbers = ", ".join(cause["errno"])
        numbers = f"<b>{numbers}:</b> " if numbers else ""
        return f'<li>{numbers}{html.escape(cause["cause"])} <i>What to do:</i> {html.escape(cause["remedy"])}</li>'

    lines = ["# Error catalogue {#error-catalogue}\n",
             "@tableofcontents\n",
             "Every fixed text of the library, what causes it, what to do, and what remains. Paste a line of a log into the "
             "field, or type a part of it; @ref failures explains how to read a message. `boardctl explain` has the same "
             "catalogue at the command line. Three dots stand for what varies.\n",
             '<div id="filter-place"></div>\n']
    for subsystem, title, entries in sections():
        lines.append(f"## {title} {{#errors-{subsystem}}}\n")
        for entry in entries:
            text = html.escape(entry["text"]) or "(an empty text)"
            rows = "".join(map(row, entry["causes"]))
            # What users may search for is not read as Markdown; the names of the operations are links.
            lines.append(f'@htmlonly[block]<div class="entry"><div class="text"><code>{text}</code></div>@endhtmlonly\n'
                         f"@anchor {entry['id']} {entry['exception']} from {operations(entry['operations'])}\n\n"
                         f"@htmlonly[block]<ul>{rows}</ul><p>Remains: {html.escape(entry['remains'])}</p></div>"
                         "@endhtmlonly\n")
    return "\n".join(lines)


def for_readers():
    """The page as plain Markdown, docs/errors.md."""
    def plain(text):
        return re.sub(r"([\\`*<>|]|\[|\])", r"\\\1", text)

    lines = ["# Error catalogue\n",
             "<!-- python3 docs/site/manual.py makes this page of errors.json. -->\n",
             "Every fixed text of the library, what causes it, what to do, and what remains. Search this page for your "
             "message without the words after its last colon; `descriptor:: ...` comes from WriteLoop or "
             "ReadLoop, `descriptor: : ...` from SerialPort. [How failures are reported](failures.md) explains how to read one. `boardctl explain` has the same "
             "catalogue at the command line, and `scripts/docs --open` in the browser, with a filter. Three dots stand for "
             "what varies.\n",
             *(f"- [{title}](#errors-{subsystem})" for subsystem, title, _ in sections())]
    for subsystem, title, entries in sections():
        lines.append(f'\n<a id="errors-{subsystem}"></a>\n\n## {title}')
        for entry in entries:
            text = f'`{entry["text"]}`' if entry["text"] else "(an empty text)"
            names = ", ".join(f"`{name}`" for name in entry["operations"])
            lines.append(f'\n<a id="{entry["id"]}"></a>\n\n### {text}\n\n`{entry["exception"]}` from {names}\n')
            for cause in entry["causes"]:
                numbers = ", ".join(cause["errno"])
                numbers = f"**{numbers}**: " if numbers else ""
                lines.append(f'- {numbers}{plain(cause["cause"])} *What to do:* {plain(cause["remedy"])}')
            lines.append(f'\nRemains: {plain(entry["remains"])}')
    return "\n".join(lines) + "\n"

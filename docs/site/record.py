"""Makes a picture of the demo, in motion.

Usage: record.py DEMO_OUTPUT PICTURE.svg
       record.py --compare DEMO_OUTPUT PICTURE.svg    ends with 1 if the demo prints something else by now

The lines are those that scripts/demo has printed. What varies from run to run (times, load) is what it was in that run.
Programs that show no motion, and readers who want none, see the last screen.
"""

import difflib
import html
import re
import sys

COLUMNS, ROWS = 84, 24
CHARACTER, LINE = 8.4, 19  # pixels
LINES_PER_STEP, STEP_S, HOLD_S = 5, 0.8, 4


def chapters(lines):
    """The chapters that are shown: enough to see what it is, short enough to be watched."""
    shown, keep = ["$ scripts/demo"], True
    for line in lines:
        if line.startswith("---"):
            keep = any(name in line for name in ("Serial port", "Watchdog ---", "once more"))
            if not keep and shown[-1] != "   ...":
                shown += ["   ..."]
        elif line.startswith(("That was all", "The same from the command line")):
            keep = True
            shown.append("")
        elif line.startswith("$"):
            keep = not line.startswith("$ boardctl serial show")
            if not keep:
                shown += ["   ...", ""]
        if keep:
            shown.append(line if len(line) <= COLUMNS else line[:COLUMNS - 1] + "…")
    return shown


def colour(line):
    if line.startswith("$"):
        return "prompt"
    if line.startswith(("---", "The same")):
        return "chapter"
    if "has reset the board" in line or "throws" in line:
        return "alarm"
    return "step" if line.startswith("   ") and line[3:4].strip() else "text"


def picture(lines):
    width, height = round(COLUMNS * CHARACTER + 32), ROWS * LINE + 56
    scrolled = max(0, len(lines) - ROWS)
    steps = -(-scrolled // LINES_PER_STEP)
    seconds = (steps + 1) * STEP_S + HOLD_S
    frames = "".join(
        f"{min(100, (step + 1) * STEP_S / seconds * 100):.2f}% {{ transform: "
        f"translateY(-{min(scrolled, step * LINES_PER_STEP) * LINE}px); }}\n" for step in range(steps + 1))
    rows = "\n".join(
        f'<text class="{colour(line)}" x="16" y="{(number + 1) * LINE}" xml:space="preserve">{html.escape(line)}</text>'
        for number, line in enumerate(lines) if line)
    return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}"
 role="img" aria-label="Recording of scripts/demo: a tour of the library on a simulated board, which its watchdog resets">
<style>
text {{ font: 14px ui-monospace, "DejaVu Sans Mono", monospace; fill: #d2dbde; }}
.prompt {{ fill: #8fd6a9; font-weight: bold; }}
.chapter {{ fill: #6db3f2; font-weight: bold; }}
.step {{ fill: #ffffff; font-weight: bold; }}
.alarm {{ fill: #ff9c90; }}
.roll {{ transform: translateY(-{scrolled * LINE}px); animation: roll {seconds:.1f}s steps(1, end) infinite; }}
@keyframes roll {{
0% {{ transform: translateY(0); }}
{frames}100% {{ transform: translateY(-{scrolled * LINE}px); }}
}}
@media (prefers-reduced-motion: reduce) {{ .roll {{ animation: none; }} }}
</style>
<rect width="{width}" height="{height}" rx="10" fill="#1c1d1f"/>
<circle cx="20" cy="18" r="6" fill="#ff6159"/><circle cx="40" cy="18" r="6" fill="#ffbd2e"/>
<circle cx="60" cy="18" r="6" fill="#28c941"/>
<svg x="0" y="34" width="{width}" height="{ROWS * LINE + 8}" overflow="hidden"><g class="roll">
{rows}
</g></svg>
</svg>
"""


def recorded(source):
    with open(source, encoding="utf-8") as output:
        lines = output.read().splitlines()
    # What is built or installed before the tour is no part of it.
    return chapters(lines[next(i for i, line in enumerate(lines) if line.startswith("A tour of")):])


def compare(source, target):
    """Numbers, their bars and columns aside, for times differ from run to run, and with repeated lines once, for so does
    their count. So does the order of the reset and of the last word before it, which come at the same time."""
    def masked(lines):
        lines = [re.sub(r"0x[0-9a-f]+|[0-9]+(\.[0-9]+)?( ms| s)?\b", "#", line) for line in lines if line]
        lines = [re.sub(r"^ +# to # us  .*", "# to # us", re.sub(r"(?<=#) +(?=#)", " ", line)) for line in lines]
        lines = [re.sub(r" +", " ", line) for line in lines]
        lines = [line for number, line in enumerate(lines) if "not fed for" not in line or line not in lines[:number]]
        return [line for line, before in zip(lines, [None, *lines]) if line != before]

    with open(target, encoding="utf-8") as file:
        texts = [html.unescape(text) for text in re.findall(r"<text[^>]*>(.*?)</text>", file.read())]
    differences = list(difflib.unified_diff(masked(texts), masked(recorded(source)), "recorded", "printed", lineterm=""))
    print("\n".join(differences) or f"{len(texts)} lines are the same.")
    return 1 if differences or len(texts) < 2 * ROWS else 0


def main(source, target):
    with open(target, "w", encoding="utf-8") as file:
        file.write(picture(recorded(source)))
    return 0


sys.exit(compare(*sys.argv[2:]) if sys.argv[1] == "--compare" else main(*sys.argv[1:]))

"""Looks at the site in headless Chromium, as a desktop and as a telephone, in light and in dark colours.

Usage: look.py SITE_FOLDER SCREENSHOT_FOLDER

On every page: no error in the console, text with a contrast of 4.5 to 1 or more, nothing that is wider than the screen,
and nothing that is cut off. The search must find Activate, and the error catalogue's field must find EBUSY. Screenshots of
five whole pages are left in all four ways, of long ones in several pieces. The pages are opened as files, without a server.
"""

import base64
import json
import os
import pathlib
import select
import shutil
import subprocess
import sys
import tempfile
import time

DESKTOP = {"width": 1280, "height": 900, "mobile": False, "deviceScaleFactor": 1}
TELEPHONE = {"width": 390, "height": 844, "mobile": True, "deviceScaleFactor": 2}
PATIENCE_S = 60
SCREENS = [("desktop", DESKTOP), ("telephone", TELEPHONE)]
SCHEMES = ["light", "dark"]
# The height of a screenshot that can still be looked at.
PIECE = 6000
PICTURES = ["index", "watchdog", "serial-port", "error-catalogue", "classSerialPort"]

CONTRAST = """(() => {
  const parse = (text) => (text.match(/[\\d.]+/g) || []).map(Number);
  const over = (top, below) => { const a = top.length > 3 ? top[3] : 1; return [0, 1, 2].map((i) => top[i] * a + below[i] * (1 - a)); };
  const light = (c) => { const [r, g, b] = c.map((v) => { v /= 255; return v <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4; });
    return 0.2126 * r + 0.7152 * g + 0.0722 * b; };
  const background = (element) => {
    const layers = [];
    for (let e = element; e; e = e.parentElement) {
      const c = parse(getComputedStyle(e).backgroundColor);
      layers.push(c);
      if (c.length === 3 || c[3] === 1) { break; }
    }
    return layers.reverse().reduce((below, top) => over(top, below), [255, 255, 255]);
  };
  const bad = new Map();
  let looked = 0;
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  for (let node = walker.nextNode(); node; node = walker.nextNode()) {
    const element = node.parentElement;
    if (!node.data.trim() || ["SCRIPT", "STYLE"].includes(element.tagName)) { continue; }
    const range = document.createRange();
    range.selectNodeContents(node);
    const box = range.getBoundingClientRect();
    const style = getComputedStyle(element);
    if (box.width < 1 || box.height < 1 || style.visibility !== "visible" || !element.checkVisibility({checkOpacity: true})) { continue; }
    looked += 1;
    const behind = background(element);
    const own = over(parse(style.fill && element instanceof SVGElement ? style.fill : style.color), behind);
    const [a, b] = [light(own), light(behind)].sort((x, y) => y - x);
    const ratio = (a + 0.05) / (b + 0.05);
    if (ratio < 4.5) { bad.set(element.tagName + "." + element.className + " " + style.color + " on " + behind.map(Math.round), `${ratio.toFixed(2)} "${node.data.trim().slice(0, 30)}"`); }
  }
  for (const field of document.querySelectorAll("input")) {
    if (!(field.value || field.placeholder) || !field.checkVisibility()) { continue; }
    const style = getComputedStyle(field, field.value ? null : "::placeholder");
    const behind = background(field);
    const color = parse(style.color);
    const own = over([...color.slice(0, 3), (color.length > 3 ? color[3] : 1) * style.opacity], behind);
    const [a, b] = [light(own), light(behind)].sort((x, y) => y - x);
    const ratio = (a + 0.05) / (b + 0.05);
    if (ratio < 4.5) { bad.set("a field's text", `${ratio.toFixed(2)} "${field.value || field.placeholder}"`); }
  }
  return {looked, bad: [...bad].map((pair) => pair.join(": "))};
})()"""

TOO_WIDE = """(() => {
  const scrolls = (e) => { for (let p = e.parentElement; p && p !== document.body; p = p.parentElement) {
      const style = getComputedStyle(p), box = p.getBoundingClientRect();
      if (/auto|scroll/.test(style.overflowX) && p.id !== "doc-content" && box.right <= innerWidth + 1) { return true; } }
    return false; };
  const bad = [];
  for (const e of document.body.querySelectorAll("*")) {
    const box = e.getBoundingClientRect();
    if (box.width >= 1 && box.height >= 1 && (box.right > SCREEN + 1 || box.width > SCREEN + 1) && e.checkVisibility() && !scrolls(e)) {
      bad.push(`${e.tagName}.${e.className} ${Math.round(box.left)} to ${Math.round(box.right)} "${(e.textContent || "").trim().slice(0, 40)}"`); }
  }
  // The menu's button has its words for screen readers alone.
  for (const e of document.body.querySelectorAll("*:not(.main-menu-btn)")) {
    if (/hidden|clip/.test(getComputedStyle(e).overflowX) && e.innerText && e.clientWidth > 1 && e.scrollWidth > e.clientWidth + 1 &&
        e.checkVisibility()) { bad.push(`${e.tagName}.${e.className} cuts off "${e.innerText.trim().slice(0, 40)}"`); }
  }
  if (document.scrollingElement.scrollWidth > SCREEN) { bad.push(`the page is ${document.scrollingElement.scrollWidth} wide`); }
  return bad;
})()"""


class Browser:
    """Chromium at the other end of two pipes; messages are JSON texts that end in a NUL."""

    def __init__(self, profile):
        to_browser, self._out = os.pipe()
        self._in, from_browser = os.pipe()

        def place():
            # As 3 and 4, where it looks for them; by way of numbers that are neither.
            incoming, outgoing = os.dup2(to_browser, 20), os.dup2(from_browser, 21)
            os.dup2(incoming, 3)
            os.dup2(outgoing, 4)

        # Without its own sandbox, which root and containers can't have: it sees nothing but our own pages.
        self._process = subprocess.Popen(
            ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
             "--no-first-run", "--disable-extensions", f"--user-data-dir={profile}", "--remote-debugging-pipe"],
            preexec_fn=place, close_fds=False, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self._pending, self._number, self.events = b"", 0, []
        target = self._ask("Target.createTarget", {"url": "about:blank"})["targetId"]
        self._session = self._ask("Target.attachToTarget", {"targetId": target, "flatten": True})["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.ask(f"{domain}.enable")

    def _receive(self, deadline):
        while b"\0" not in self._pending:
            ready, _, _ = select.select([self._in], [], [], max(0, deadline - time.monotonic()))
            piece = os.read(self._in, 1 << 16) if ready else b""
            if not piece:
                raise SystemExit("The browser does not answer.")
            self._pending += piece
        text, self._pending = self._pending.split(b"\0", 1)
        return json.loads(text)

    def _ask(self, method, parameters, **more):
        self._number += 1
        message = {"id": self._number, "method": method, "params": parameters, **more}
        os.write(self._out, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + PATIENCE_S
        while True:
            answer = self._receive(deadline)
            if answer.get("id") == self._number:
                if "error" in answer:
                    raise SystemExit(f"{method}: {answer['error']}")
                return answer["result"]
            self.events.append(answer)

    def ask(self, method, parameters=None):
        return self._ask(method, parameters or {}, sessionId=self._session)

    def evaluate(self, script, **more):
        result = self.ask("Runtime.evaluate", {"expression": script, "returnByValue": True, "awaitPromise": True, **more})
        if "exceptionDetails" in result:
            raise SystemExit(f"In the page: {result['exceptionDetails']}")
        return result["result"].get("value")

    def contexts(self):
        """Those of the page and of the frames in it."""
        return [event["params"]["context"]["id"] for event in self.events
                if event.get("method") == "Runtime.executionContextCreated"]

    def open(self, path, screen, scheme):
        self.ask("Emulation.setDeviceMetricsOverride", screen)
        self.colour(scheme)
        self.events.clear()
        self.ask("Page.navigate", {"url": path.as_uri()})
        deadline = time.monotonic() + PATIENCE_S
        while not any(event.get("method") == "Page.loadEventFired" for event in self.events):
            self.events.append(self._receive(deadline))
        self.settle()

    def colour(self, scheme):
        self.ask("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme},
                                                             {"name": "prefers-reduced-motion", "value": "reduce"}]})

    def settle(self):
        # Two frames later, what the scripts do is done and painted, unless they move something.
        self.evaluate("""new Promise((done) => {
          const still = () => window.jQuery && jQuery(":animated").length ? setTimeout(still, 20) : done();
          requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(still, 30))); })""")

    def errors(self):
        for event in self.events:
            method, parameters = event.get("method"), event.get("params", {})
            if method == "Runtime.exceptionThrown":
                yield parameters["exceptionDetails"].get("exception", {}).get("description", "an exception")
            elif method == "Log.entryAdded" and parameters["entry"]["level"] == "error":
                yield parameters["entry"]["text"]
            elif method == "Runtime.consoleAPICalled" and parameters["type"] == "error":
                yield str(parameters["args"])

    def type(self, text):
        for character in text:
            for kind in ("keyDown", "keyUp"):
                event = {"type": kind, "key": character, "code": "Key" + character.upper(),
                         "windowsVirtualKeyCode": ord(character.upper())}
                if kind == "keyDown":
                    event["text"] = character
                self.ask("Input.dispatchKeyEvent", event)

    def pictures(self, folder, name, screen):
        """Of the whole page; those of a long one are numbered."""
        height = self.evaluate("""(() => {
          const content = document.getElementById("doc-content"), page = document.scrollingElement;
          return innerHeight + Math.max(content.scrollHeight - content.clientHeight, page.scrollHeight - innerHeight); })()""")
        self.ask("Emulation.setDeviceMetricsOverride", {**screen, "height": height})
        self.settle()
        for number, top in enumerate(range(0, height, PIECE)):
            clip = {"x": 0, "y": top, "width": screen["width"], "height": min(PIECE, height - top), "scale": 1}
            data = self.ask("Page.captureScreenshot", {"format": "png", "clip": clip})["data"]
            piece = f"{name}-{number + 1}" if number else name
            (folder / f"{piece}.png").write_bytes(base64.b64decode(data))

    def close(self):
        os.close(self._out)
        self._process.wait(PATIENCE_S)


def check_search(browser, site, screen, scheme):
    """The search works from a file, finds a member by its beginning, and its results can be read."""
    browser.open(site / "index.html", screen, scheme)
    browser.evaluate("document.getElementById('MSearchField').focus()")
    browser.type("Activ")
    shown = "[...document.querySelectorAll('.SRResult')].filter((e) => e.checkVisibility()).map((e) => e.innerText).join(' ')"
    deadline = time.monotonic() + PATIENCE_S / 6
    while time.monotonic() < deadline:
        for context in browser.contexts():
            try:
                if "Activate" in (browser.evaluate(shown, contextId=context) or ""):
                    contrast = browser.evaluate(CONTRAST, contextId=context)["bad"]
                    return [f"the search: {error}" for error in browser.errors()] + \
                        [f"the search: contrast of {bad}" for bad in contrast]
            except SystemExit:
                # A frame that has gone.
                continue
        time.sleep(0.1)
    return ["the search does not find Activate"]


def check_filter(browser, site, screen, scheme):
    """The error catalogue's field finds entries by a word, and the text in a line of a log."""
    browser.open(site / "error-catalogue.html", screen, scheme)
    shown = "[...document.querySelectorAll('.entry')].filter((e) => e.checkVisibility()).map((e) => e.innerText)"
    everything = browser.evaluate(shown)
    complaints = []
    for typed, most, wanted in (("ebusy", 9, "Could not open watchdog device!"),
                                ("app: Open Serial Port '/dev/ttyS1' failed?: Permission denied", 1, "Open Serial Port")):
        browser.evaluate("document.getElementById('filter').value = ''")
        browser.evaluate("document.getElementById('filter').focus()")
        browser.ask("Input.insertText", {"text": typed})
        found = browser.evaluate(shown)
        if len(everything) < 60 or len(found) > most or not any(wanted in text for text in found):
            complaints.append(f"the filter: {typed!r} leaves {len(found)} of {len(everything)} entries")
        headings = browser.evaluate("[...document.querySelectorAll('.contents h1')].filter((e) => e.checkVisibility()).length")
        if not 1 <= headings <= len(found):
            complaints.append(f"the filter: {typed!r} leaves {headings} headings over {len(found)} entries")
    complaints += [f"the filter: contrast of {bad}" for bad in browser.evaluate(CONTRAST)["bad"]]
    return complaints + [f"the filter: {error}" for error in browser.errors()]


def check_page(browser, path, name, screen, pictures):
    """The number of texts, and the complaints."""
    looked, complaints = 0, []
    browser.open(path, screen, SCHEMES[0])
    complaints += [f"too wide: {bad}" for bad in browser.evaluate(TOO_WIDE.replace("SCREEN", str(screen["width"])))[:5]]
    for scheme in SCHEMES:
        # The page follows when it changes.
        browser.colour(scheme)
        browser.settle()
        dark = browser.evaluate("document.documentElement.classList.contains('dark-mode')")
        if dark != (scheme == "dark"):
            complaints.append(f"it does not become {scheme}")
        contrast = browser.evaluate(CONTRAST)
        looked += contrast["looked"]
        complaints += [f"contrast, {scheme}, of {bad}" for bad in contrast["bad"]]
        if path.stem in PICTURES:
            browser.pictures(pictures, f"{path.stem}-{name}-{scheme}", screen)
    return looked, [f"{path.name} ({name}): {complaint}" for complaint in complaints + list(browser.errors())]


def main(site, pictures):
    site, pictures = pathlib.Path(site).resolve(), pathlib.Path(pictures)
    shutil.rmtree(pictures, ignore_errors=True)
    pictures.mkdir(parents=True)
    complaints, looked, pages = [], 0, sorted(site.glob("*.html"))
    with tempfile.TemporaryDirectory() as profile:
        browser = Browser(profile)
        for name, screen in SCREENS:
            for path in pages:
                texts, found = check_page(browser, path, name, screen, pictures)
                looked += texts
                complaints += found
            for scheme in SCHEMES:
                complaints += [f"{complaint} ({name}, {scheme})" for check in (check_search, check_filter)
                               for complaint in check(browser, site, screen, scheme)]
        browser.close()
    missing = [f"{stem}-{name}-{scheme}" for stem in PICTURES for name, _ in SCREENS for scheme in SCHEMES
               if not (pictures / f"{stem}-{name}-{scheme}.png").exists()]
    if missing or looked < 1000 * len(SCREENS) * len(SCHEMES):
        complaints.append(f"Not all was there to be looked at: {looked} texts; no picture {missing}.")
    for line in complaints:
        print(line)
    print(f"{len(pages)} pages, {looked} texts, {len(complaints)} complaints.")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

#!/usr/bin/env python3
"""The picture that the line test draws, in a browser."""
import itertools
import pathlib
import sys

from ctl import SOURCE, main, TestCase

sys.path.insert(0, str(SOURCE / "docs/site"))
from look import DESKTOP, TELEPHONE, Browser  # noqa: E402  (beside the pages that it looks at)

# What is seen of the picture, in the window's own units.
SEEN = """(() => {
  const box = (e) => { const r = e.getBoundingClientRect(); return [r.left, r.top, r.right, r.bottom]; };
  const all = (what) => [...document.querySelectorAll(what)];
  return {
    window: [0, 0, innerWidth, innerHeight],
    labels: all('text[transform]').map((e) => ({text: e.textContent, box: box(e)})),
    texts: all('text:not([transform])').map((e) => ({text: e.textContent, box: box(e)})),
    colours: [...new Set(all('text').map((e) => getComputedStyle(e).fill))],
    ground: getComputedStyle(all('rect')[0]).fill,
    grid: all('.grid').map(box),
    points: all('circle').map(box),
    lines: all('polyline').map(box)};
})()"""


class Picture(TestCase):
    def check_inside(self, inner, outer, what):
        margin = 1
        self.assertTrue(inner[0] >= outer[0] - margin and inner[1] >= outer[1] - margin and inner[2] <= outer[2] + margin
                        and inner[3] <= outer[3] + margin, f"{what}: {inner} is not inside {outer}")

    def test_ThePictureOfTheLineTestLooksRightInABrowser(self):
        result = self.on_board("--json", "serial", "test", "/dev/ttyS1", "--size", "300", "--turns", "3", "--svg", "line.svg")
        self.assertEqual(result.status, 0, result.err)
        speeds = [str(measured["speed_bps"]) for measured in result.objects[:-1]]
        browser = Browser(f"{self.folder}/profile")
        self.addCleanup(browser.close)
        for screen in (DESKTOP, TELEPHONE):
            pictures = []
            for scheme in ("light", "dark"):
                with self.subTest(screen=screen, scheme=scheme):
                    browser.open(pathlib.Path("line.svg").resolve(), screen, scheme)
                    self.assertEqual(list(browser.errors()), [])
                    self.check(browser.evaluate(SEEN), speeds)
                pictures.append(browser.ask("Page.captureScreenshot", {"format": "png"})["data"])
            self.assertEqual(pictures[0], pictures[1], screen)  # it brings its own ground along

    def check(self, seen, speeds):
        self.assertEqual([label["text"] for label in seen["labels"]], speeds)
        for before, after in zip(seen["labels"], seen["labels"][1:]):
            self.assertLess(before["box"][2] + 1, after["box"][2])
        for text in seen["labels"] + seen["texts"]:
            self.check_inside(text["box"], seen["window"], text["text"])
        for one, other in itertools.combinations(seen["texts"], 2):
            left, right = one["box"], other["box"]
            self.assertTrue(left[2] <= right[0] or right[2] <= left[0] or left[3] <= right[1] or right[3] <= left[1],
                            f"{one} lies on {other}")
        words = " ".join(text["text"] for text in seen["texts"])
        for expected in ("Line test of /dev/ttyS1", "Throughput (bytes per second)", "the line's own limit",
                         "Turn-around of single bytes (microseconds)", "median", "speed in bits per second"):
            self.assertIn(expected, words)
        self.assertEqual((seen["colours"], seen["ground"]), (["rgb(34, 34, 34)"], "rgb(255, 255, 255)"))
        # Two panels, one above the other, and everything that is drawn lies in one of them.
        middle = next(text["box"][1] for text in seen["texts"] if text["text"].startswith("Turn-around"))
        self.assertEqual((len(seen["points"]), len(seen["lines"])), (2 * len(speeds), 5))
        for is_lower in (False, True):
            def of_panel(boxes):
                return [box for box in boxes if (box[1] > middle) == is_lower]
            grid = of_panel(seen["grid"])
            panel = [grid[0][0], min(box[1] for box in grid) - 4, grid[0][2], max(box[3] for box in grid) + 4]
            self.assertEqual(len(of_panel(seen["points"])), len(speeds), f"lower panel: {is_lower}")
            for box in of_panel(seen["points"]) + of_panel(seen["lines"]):
                self.check_inside(box, panel, "the panel")


if __name__ == "__main__":
    main()

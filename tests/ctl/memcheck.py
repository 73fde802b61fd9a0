#!/usr/bin/env python3
"""Every verb of boardctl under valgrind, on a simulated board. It takes its time: .ci/run does it, ctest does not."""
import shlex
import signal

import documents
from arguments import VERBS
from ctl import BOARDCTL, main, TestCase

PORT = "/dev/ttyS1"
DEVICE = "/dev/watchdog"
# What the verbs without JSON are called with, and what else has ways of its own.
MORE = [
    ["completion", "bash"], ["watchdog", "feed", DEVICE, "--interval", "60"],
    ["watchdog", "run", DEVICE, "--interval", "60", "--", "true"],
    ["--help"], ["serial", "send", "--help"], ["serial", "sennd"], ["mem", "read", "1"], ["__complete", "serial", "show", ""],
    ["serial", "show", "/dev/ttyS7"], ["serial", "receive", PORT, "--hex", "--timestamps", "absolute", "--count", "9"],
    ["serial", "receive", PORT, "--until", "x\nx"],
    ["serial", "test", PORT, "--loop", "--speeds", "9600,115200", "--size", "200", "--turns", "2", "--svg", "picture"],
    ["mem", "write", "0", "1", "--mask", "1"], ["net", "clear", "address", "eth0"]]
VALGRIND = ["valgrind", "-q", "--error-exitcode=99", "--log-file=faults", "--trace-children=no"]


class Memcheck(TestCase):
    def test_NoVerbUsesMemoryThatIsNotItsOwnOrNotSet(self):
        self.need("valgrind")
        calls = [[*before, *verb, *arguments] for verb, arguments in documents.Schema.CALLS.items() for before in ([], ["--json"])]
        calls += MORE
        self.assertEqual([verb for verb in VERBS if not any(call[:len(verb)] == list(verb) for call in calls)], [])
        for call in calls:
            with self.subTest(call=call):
                command = shlex.join([*VALGRIND, BOARDCTL, *call])
                if ["mem", "watch"] == call[-3:-1] or call[:2] == ["watchdog", "feed"]:
                    # These go on until a signal comes.
                    command += f" > out 2>&1 & until [ -s out ]; do sleep 0.3; done; kill -{signal.SIGTERM:d} $!; wait $!"
                result = self.board("sh", "-c", command, options=["--tty", PORT + "=exec:while echo x; do sleep 0.1; done"])
                with open("faults", encoding="utf-8") as faults:
                    self.assertEqual(faults.read(), "")
                self.assertNotEqual(result.status, 99)


if __name__ == "__main__":
    main()

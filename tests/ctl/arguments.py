#!/usr/bin/env python3
"""The command line of boardctl: help, options, and what is refused."""
import re

from ctl import BOARDCTL, POPEN_FAILED, ctl, finish, main, start, TestCase

# Every verb, with the arguments that it takes at least.
VERBS = {
    ("serial", "list"): [],
    ("serial", "show"): ["/dev/null"],
    ("serial", "report"): ["/dev/null"],
    ("serial", "send"): ["/dev/null"],
    ("serial", "receive"): ["/dev/null"],
    ("serial", "test"): ["/dev/null"],
    ("mem", "read"): ["0x80011000"],
    ("mem", "write"): ["0x80011000", "1"],
    ("mem", "watch"): ["0x80011000"],
    ("mem", "dump"): ["0x80011000"],
    ("completion",): ["bash"],
    ("report",): [],
    ("net", "show"): [],
    ("net", "address"): ["eth0", "192.0.2.10/24"],
    ("net", "link-local"): ["eth0"],
    ("net", "gateway"): ["eth0", "192.0.2.1"],
    ("net", "clear"): ["gateway"],
    ("watchdog", "show"): ["/dev/watchdog"],
    ("watchdog", "feed"): ["/dev/watchdog"],
    ("watchdog", "run"): ["/dev/watchdog"],
    ("run",): ["true"],
    ("explain",): ["text"],
}

# Arguments, and what is said of them after "boardctl: ".
WRONG = [
    ([], "it takes a group: "),
    (["nope"], 'there is no group "nope"'),
    (["meme"], 'there is no group "meme" (did you mean mem?)'),
    (["mem"], "mem: it takes a verb: read, write, watch, dump (see boardctl mem --help)"),
    (["mem", "reed", "0"], 'mem: there is no verb "reed" (did you mean read?)'),
    (["mem", "read"], "mem read: ADDRESS is required (see boardctl mem read --help)"),
    (["mem", "read", ""], 'mem read: ADDRESS: "" is not a 32-bit number'),
    (["mem", "read", "3"], 'mem read: ADDRESS: "3" is not the address of a 32-bit word: a multiple of 4'),
    (["mem", "read", "0x100000000"], 'mem read: ADDRESS: "0x100000000" is not a 32-bit number'),
    (["mem", "read", "-4"], 'mem read: ADDRESS: "-4" is not a 32-bit number'),
    (["mem", "read", "0x"], 'mem read: ADDRESS: "0x" is not a 32-bit number'),
    (["mem", "read", "08"], 'mem read: ADDRESS: "08" is not a 32-bit number'),
    (["mem", "read", " 8"], 'mem read: ADDRESS: " 8" is not a 32-bit number'),
    (["mem", "read", "0", "0"], 'mem read: COUNT: "0" is not a number from 1 to 1073741824'),
    (["mem", "read", "0", "0x2"], 'mem read: COUNT: "0x2" is not a number from 1 to 1073741824'),
    (["mem", "read", "0xfffffffc", "2"], "mem read: COUNT: 2 words from 0xFFFFFFFC on reach beyond 32-bit addresses"),
    (["mem", "dump", "0xfffffff0", "5"], "mem dump: COUNT: 5 words from 0xFFFFFFF0 on reach beyond 32-bit addresses"),
    (["mem", "read", "0", "1", "2"], 'mem read: there is no argument "2"'),
    (["mem", "read", "0", "--jsn"], 'mem read: there is no option "--jsn" (did you mean --json?)'),
    (["mem", "write", "0"], "mem write: VALUE is required"),
    (["mem", "write", "0", "1", "--mask", "x"], 'mem write: --mask: "x" is not a 32-bit number'),
    (["mem", "watch", "0", "--every", "0"], 'mem watch: --every: "0" is not a number from 1 to 3600000'),
    (["mem", "watch", "0", "--changes", "99999999999999999999"], 'mem watch: --changes: "99999999999999999999" is not a num'),
    (["--dry-run", "mem", "read", "0"], "mem read: it has no dry run"),
    (["serial", "show"], "serial show: DEVICE is required"),
    (["serial", "show", ""], 'serial show: DEVICE: "" is not a path'),
    (["serial", "list", "/dev/ttyS1"], 'serial list: there is no argument "/dev/ttyS1"'),
    (["serial", "send", "/dev/ttyS1", "--speed", "0"], 'serial send: --speed: "0" is not a number from 1 to 20000000'),
    (["serial", "send", "/dev/ttyS1", "--speed", "9600x"], 'serial send: --speed: "9600x" is not a number from 1 to'),
    (["serial", "send", "/dev/ttyS1", "--bits", "9"], 'serial send: --bits: "9" is not one of 5, 6, 7, 8'),
    (["serial", "send", "/dev/ttyS1", "--parity", "mark"], 'serial send: --parity: "mark" is not one of even, none, odd'),
    (["serial", "send", "/dev/ttyS1", "--stop", "3"], 'serial send: --stop: "3" is not one of 1, 2'),
    (["serial", "send", "/dev/ttyS1", "--flow", "x"], 'serial send: --flow: "x" is not one of hardware, none, software'),
    (["serial", "send", "/dev/ttyS1", "a", "b"], 'serial send: there is no argument "b"'),
    (["serial", "receive", "/dev/ttyS1", "--count", "0"], 'serial receive: --count: "0" is not a number from 1 to'),
    (["serial", "receive", "/dev/ttyS1", "--until", ""], 'serial receive: --until: "" is not a text to wait for'),
    (["serial", "receive", "/dev/ttyS1", "--idle", "-1"], 'serial receive: --idle: "-1" is not a number from 1 to 8640000'),
    (["serial", "receive", "/dev/ttyS1", "--timestamps", "x"], 'serial receive: --timestamps: "x" is not one of absolute, relative'),
    (["serial", "test", "/dev/ttyS1", "--speeds", "9600,"], 'serial test: --speeds: "" is not a number from 1 to 20000000'),
    (["serial", "test", "/dev/ttyS1", "--svg", ""], 'serial test: --svg: "" is not a path'),
    (["explain", "text", "--", "more"], 'explain: it takes no command, and so no "--"'),
    (["report", "x"], 'report: there is no argument "x"'),
    (["net", "show", "e0;reboot"], 'net show: IFACE: "e0;reboot" is not the name of an interface: 1 to 15 letters'),
    (["net", "address", "eth0"], "net address: ADDRESS/LENGTH is required"),
    (["net", "address", "eth0", "192.0.2.300/24"], 'net address: ADDRESS/LENGTH: "192.0.2.300" is not an IPv4 or IPv6 address'),
    (["net", "address", "eth0", "192.0.2.1"], 'net address: ADDRESS/LENGTH: "192.0.2.1" is not an address with its prefix'),
    (["net", "address", "eth0", "192.0.2.1/33"], 'net address: ADDRESS/LENGTH: "33" is not a prefix length from 0 to 32'),
    (["net", "address", "eth0", "2001:db8::1/129"], 'net address: ADDRESS/LENGTH: "129" is not a prefix length from 0 to 128'),
    (["net", "address", "eth0", "192.0.2.1/24;x"], 'net address: ADDRESS/LENGTH: "24;x" is not a prefix length from 0 to 32'),
    (["net", "address", "eth0", "192.0.2.1/18446744073709551640"], 'net address: ADDRESS/LENGTH: "18446744073709551640" is'),
    (["net", "address", "eth0", "0.0.0.0/0"], 'net address: ADDRESS/LENGTH: "0.0.0.0" is not the address of a host'),
    (["net", "address", "eth0", "::/64"], 'net address: ADDRESS/LENGTH: "::" is not the address of a host'),
    (["net", "address", "eth0", "224.0.0.1/24"], 'net address: ADDRESS/LENGTH: "224.0.0.1" is not the address of a host'),
    (["net", "address", "eth0", "ff02::1/64"], 'net address: ADDRESS/LENGTH: "ff02::1" is not the address of a host'),
    (["net", "address", "eth0", "255.255.255.255/24"], 'net address: ADDRESS/LENGTH: "255.255.255.255" is not the address of a host'),
    (["net", "gateway", "eth0"], "net gateway: ADDRESS is required"),
    (["completion", "tcsh"], 'completion: SHELL: "tcsh" is not one of bash, fish, zsh'),
    (["net", "gateway", "eth0", "$(x)"], 'net gateway: ADDRESS: "$(x)" is not an IPv4 or IPv6 address'),
    (["net", "gateway", "eth0", "0.0.0.0"], 'net gateway: ADDRESS: "0.0.0.0" is not the address of a host'),
    (["net", "gateway", "eth0", "::"], 'net gateway: ADDRESS: "::" is not the address of a host'),
    (["net", "clear", "all"], 'net clear: WHAT: "all" is not one of address, gateway'),
    (["net", "clear", "address"], "net clear: IFACE is required for an address"),
    (["net", "clear", "gateway", "--flush"], "net clear: --flush is for addresses"),
    (["--dry-run", "net", "show"], "net show: it has no dry run"),
    (["serial", "send", "/dev/ttyS1", "--speed"], "serial send: --speed takes a value: BPS (see"),
    (["serial", "send", "/dev/ttyS1", "--speed="], "serial send: --speed takes a value: BPS (see"),
    (["serial", "send", "/dev/ttyS1", "--speed", "1", "--speed", "2"], "serial send: --speed is given more than once (see"),
    (["serial", "receive", "/dev/ttyS1", "--hex=no"], "serial receive: --hex takes no value (see"),
    (["--json=2", "report"], "--json takes no value (see boardctl --help)"),
    (["report", "--quiet=x"], "report: --quiet takes no value (see"),
    (["watchdog", "show"], "watchdog show: DEVICE is required"),
    (["watchdog", "show", ""], 'watchdog show: DEVICE: "" is not a path'),
    (["watchdog", "feed", "/dev/watchdog", "--interval", "0"], 'watchdog feed: --interval: "0" is not a number from 1 to '),
    (["watchdog", "feed", "/dev/watchdog", "--interval", "010s"], 'watchdog feed: --interval: "010s" is not a number from 1'),
    (["watchdog", "feed", "/dev/watchdog", "--interval", "0x10"], 'watchdog feed: --interval: "0x10" is not a number from 1'),
    (["watchdog", "feed", "/dev/watchdog", "--interval", "-5"], 'watchdog feed: --interval: "-5" is not a number from 1'),
    (["watchdog", "feed", "/dev/watchdog", "--every", "30"], "watchdog feed: --every: 30 s is not shorter than --interval"),
    (["--json", "watchdog", "feed", "/dev/watchdog"], "watchdog feed: it has no JSON"),
    (["watchdog", "run", "/dev/watchdog"], 'watchdog run: it takes "--" and a command after all options'),
    (["watchdog", "run", "/dev/watchdog", "--"], 'watchdog run: it takes "--" and a command after all options'),
    (["watchdog", "run", "/dev/watchdog", "--", ""], 'watchdog run: it takes "--" and a command after all options'),
    (["watchdog", "run", "/dev/watchdog", "true"], 'watchdog run: there is no argument "true"'),
    (["watchdog", "run", "/dev/watchdog", "--check", "", "--", "true"], 'watchdog run: --check: "" is not a command'),
    (["watchdog", "run", "/dev/watchdog", "--alive", "", "--", "true"], 'watchdog run: --alive: "" is not a path'),
    (["watchdog", "run", "/dev/watchdog", "--intervall", "3", "--", "x"], 'watchdog run: there is no option "--intervall" '),
    (["run"], "run: it takes one command"),
    (["run", "a", "--", "b"], "run: it takes one command"),
    (["run", "--"], "run: it takes one command"),
]


class Arguments(TestCase):
    def test_WhatIsWrongIsCalledByItsNameWithStatus2AndNothingIsPrinted(self):
        for arguments, words in WRONG:
            with self.subTest(arguments=arguments):
                # Apart from this machine's network, should it not be refused.
                apart = self.away_from_the_network() if "net" in arguments else []
                result = finish(start([*apart, BOARDCTL, *arguments]))
                self.assertEqual(result.status, 2, result.err)
                self.assertEqual(result.out, "")
                self.assertTrue(result.err.startswith("boardctl: " + words), result.err)
                self.assertRegex(result.err, r" \(see boardctl[a-z -]* --help\)\n$")
                self.assertEqual(result.err.count("\n"), 1, result.err)

    def test_APathOfSeveralLinesIsRefused(self):
        result = ctl("serial", "show", "/dev/tty\nS1")
        self.assertEqual((result.status, result.out), (2, ""))
        self.assertIn(" is not a path (see", result.err)

    def test_NothingIsOpenedWhenArgumentsAreWrong(self):
        for words in (["mem", "read", "3"], ["mem", "write", "0x80011000"], ["mem", "read", "0x80011000", "--nope"]):
            with self.subTest(words=words):
                # Opening would fail on this memory, with status 1.
                result = self.on_board(*words, options=["--mem", "none"])
                self.assertEqual(result.status, 2, result.err)

    def test_OptionsOfAllVerbsStandBeforeOrBehindTheVerb(self):
        for words in (["--json", "explain", POPEN_FAILED], ["explain", "--json", POPEN_FAILED],
                      ["explain", POPEN_FAILED, "--json"]):
            with self.subTest(words=words):
                result = ctl(*words)
                self.assertEqual((result.status, [found.get("id") for found in result.objects]), (0, ["err-popen", None]))

    def test_AnArgumentThatIsCalledLikeAVerbIsAnArgument(self):
        result = ctl("explain", "mem")
        self.assertEqual((result.status, result.err), (0, "boardctl: No known error text found.\n"))
        result = ctl("run", "explain")
        self.assertEqual(result.status, 1)
        self.assertIn("boardctl: status 127: there is no such command", result.err)

    def test_TheHelpOfTheProgramFitsATerminalOf24LinesAndNamesEveryGroup(self):
        for option in ("--help", "-h"):
            with self.subTest(option=option):
                result = ctl(option)
                self.assertEqual((result.status, result.err), (0, ""))
                lines = result.out.splitlines()
                self.assertLessEqual(len(lines), 24)
                self.assertEqual([line for line in lines if len(line) > 80], [])
                for verb in VERBS:
                    self.assertRegex(result.out, rf"(?m)^  {verb[0]} ")

    def test_TheTableOfVerbsHasEveryVerbThereIs(self):
        groups = re.findall(r"(?m)^  (\w+)  ", ctl("--help").out)
        there = set()
        for group in groups:
            text = ctl(group, "--help").out
            verbs = re.findall(r"(?m)^  (\w[\w-]*)  ", text) if " VERB --help shows" in text else []
            there.update({(group, verb) for verb in verbs} or {(group,)})
        self.assertEqual(there, set(VERBS))

    def test_EveryVerbsHelpEndsWithWhatRemainsAndFitsTheLine(self):
        for verb in VERBS:
            with self.subTest(verb=verb):
                result = ctl(*verb, "--help")
                self.assertEqual((result.status, result.err), (0, ""))
                self.assertEqual([line for line in result.out.splitlines() if len(line) > 80], [])
                self.assertRegex(result.out, r"\nStatus: 0 done, 1 failed, 2 wrong usage[^.]*\.\nWhat remains: [^\n]+\n(?:[^\n]+\n)*$")
                self.assertIn(f"\nUsage: boardctl {' '.join(verb)}", result.out)
                self.assertIn(f"\nExample: boardctl {' '.join(verb)}", result.out)
                self.assertIn("-h, --help", result.out)
                # What stands before the usage fills its lines.
                above = result.out[:result.out.index("\nUsage: ")].splitlines()
                for line, following in zip(above, above[1:]):
                    self.assertTrue(line.endswith(".") or len(f"{line} {following.split()[0]}") > 80, above)

    def test_JsonIsGivenOrRefusedWithStatus2(self):
        for verb, arguments in VERBS.items():
            has_json = "\n  --json " in ctl(*verb, "--help").out
            with self.subTest(verb=verb):
                if not has_json:
                    result = ctl("--json", *verb, *arguments)
                    self.assertEqual(result.status, 2)
                    self.assertIn(": it has no JSON (", result.err)

    def test_TheVersionIsTold(self):
        result = ctl("--version")
        self.assertEqual(result.status, 0)
        self.assertRegex(result.out, r"^boardctl \d+\.\d+\.\d+\n$")


if __name__ == "__main__":
    main()

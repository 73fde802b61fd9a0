#!/usr/bin/env python3
"""The manual page, the schema and the completion against the program itself."""
import pathlib
import re
import shlex
import subprocess
import sys

from arguments import VERBS
from ctl import BOARDCTL, NO_MEMORY_FOR_POPEN, SCHEMA, SOURCE, ctl, differences, main, shell, strict, TestCase

PAGE = SOURCE / "tools/boardctl/boardctl.1"
SCRIPTS = SOURCE / "tools/boardctl"


def complete(*words):
    return ctl("__complete", *words).out.splitlines()


class ManualPage(TestCase):
    def setUp(self):
        super().setUp()
        # As a reader sees it, but for the letters' shapes.
        self.text = re.sub(r"\\(.)", r"\1", re.sub(r"\\(?:f.|&|\(dq)", "", PAGE.read_text()))

    def test_TheManualPageIsWithoutFaults(self):
        result = subprocess.run(["mandoc", "-Tlint", "-W", "style", PAGE], capture_output=True, text=True)
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_EveryVerbStandsInTheManualPageWithAnExample(self):
        for verb in VERBS:
            with self.subTest(verb=verb):
                name = " ".join(verb)
                section = re.search(rf'(?ms)^\.SS "?{name}[ "\n].*?(?=^\.S[SH])', self.text)
                self.assertTrue(section, f"no section for {name}")
                self.assertRegex(section[0], rf"(?m)^\.RS\nboardctl(?: --[a-z-]+)? {name}", name)

    def test_TheOptionsOfHelpPageAndCompletionAreTheSame(self):
        known = {"--version", "--changed", "--json-lines"}
        for verb in VERBS:
            helped = set(re.findall(r"(?m)^  (?:-h, )?(--[a-z0-9-]+)", ctl(*verb, "--help").out))
            self.assertEqual(set(complete(*verb, "-")), helped, verb)
            for option in helped:
                self.assertIn(option, self.text, f"{verb}: {option}")
            known |= helped
        for option in re.findall(r"--[a-z0-9-]+", self.text):
            self.assertIn(option, known)


class Readme(TestCase):
    def test_TheCommandsOfTheReadmeRunOnASimulatedBoard(self):
        commands = re.findall(r"(?m)^(?:sudo |boardsim -- )?boardctl (.*?) *#.*$", (SOURCE / "README.md").read_text())
        self.assertGreater(len(commands), 4)
        for command in commands:
            with self.subTest(command=command):
                result = self.on_board(*shlex.split(command))
                self.assertEqual(result.status, 0, result.err)
                self.assertTrue(result.out)


class Schema(TestCase):
    # What every verb that has JSON is called with on a board.
    CALLS = {
        ("serial", "list"): [], ("serial", "show"): ["/dev/ttyS1"], ("serial", "report"): ["/dev/ttyS1"],
        ("serial", "send"): ["/dev/ttyS1", "/etc/passwd"], ("serial", "receive"): ["/dev/ttyS1", "--count", "1"],
        ("serial", "test"): ["/dev/ttyS1", "--loop", "--speeds", "9600", "--size", "100", "--turns", "1"],
        ("mem", "read"): ["0"], ("mem", "write"): ["0", "1"], ("mem", "watch"): ["0"], ("mem", "dump"): ["0"],
        ("report",): [], ("watchdog", "show"): ["/dev/watchdog"], ("run",): ["printf '\\377\\1'"],
        ("explain",): [NO_MEMORY_FOR_POPEN], ("net", "show"): [],
        ("net", "address"): ["eth0", "192.0.2.10/24"], ("net", "gateway"): ["eth0", "192.0.2.1"],
        ("net", "clear"): ["gateway"], ("net", "link-local"): ["eth1", "--dry-run"]}

    def test_WhatEveryVerbPrintsAsJsonIsReadByPythonsOwnToolAndIsAsTheSchemaSays(self):
        self.assertEqual(set(self.CALLS), {verb for verb in VERBS if "\n  --json " in ctl(*verb, "--help").out})
        steps = []
        for verb, arguments in self.CALLS.items():
            call = shell("--json", *verb, *arguments) + " > printed 2> said"
            # This one alone goes on until a signal comes.
            steps.append(f"{call} & until test -s printed; do sleep 0.3; done; kill $!; wait $!" if verb == ("mem", "watch")
                         else call)
            steps.append(f"test -s printed || {{ echo nothing by {'-'.join(verb)} >&2; cat said >&2; }}; cat printed; > printed")
        result = self.board("sh", "-c", "\n".join(steps), options=["--tty", "/dev/ttyS1=exec:while echo x; do sleep 0.1; done"])
        self.assertEqual((result.status, result.err), (0, ""))
        subprocess.run([sys.executable, "-m", "json.tool", "--json-lines"], input=result.raw, check=True, capture_output=True)
        self.assertEqual({found["kind"] for found in result.objects}, set(SCHEMA["$defs"]))

    def test_EveryKindThatTheSourcesPrintStandsInTheSchemaAndNoOther(self):
        sources = "".join(path.read_text() for path in (SOURCE / "tools/boardctl").glob("*.cpp"))
        printed = set(re.findall(r'\.Object\(\s*"([a-z_0-9]+)"', sources))
        self.assertEqual(printed, set(SCHEMA["$defs"]))
        self.assertEqual([kind["$ref"] for kind in SCHEMA["oneOf"]], [f"#/$defs/{kind}" for kind in SCHEMA["$defs"]])
        for kind, schema in SCHEMA["$defs"].items():
            with self.subTest(kind=kind):
                self.assertEqual((schema["properties"]["kind"], schema["properties"]["schema"]), ({"const": kind}, {"const": 1}))

    def test_EveryKindAndEveryKeyWhoseNameDoesNotSayItIsDescribed(self):
        plain = {"schema", "kind", "DTR", "RTS", "CTS", "DSR", "CD", "RI", "LOOP", "min", "median", "max", "dry_run", "parity",
                 "versions", "load", "memory"}

        def undescribed(schema, where):
            for key, inner in schema.get("properties", {}).items():
                if not inner.get("description") and key not in plain:
                    yield f"{where}.{key}"
                yield from undescribed(inner, f"{where}.{key}")
            yield from undescribed(schema["items"], where) if "items" in schema else ()
        for kind, schema in SCHEMA["$defs"].items():
            self.assertIn(" ".join(schema["description"].split(":")[0].split(",")[0].split(" ")[:2]),
                          {" ".join(verb) for verb in VERBS}, kind)
            self.assertEqual(list(undescribed(schema, kind)), [])

    def test_TheComparisonFindsWhatIsMissingTooMuchOrWrong(self):
        schema = SCHEMA["$defs"]["mem_word"]
        good = {"schema": 1, "kind": "mem_word", "address": "0x00000000", "value": "0x00000001"}
        self.assertEqual(list(differences(good, schema, "it")), [])
        for fault in ({"schema": 2}, {"value": "0x1"}, {"value": None}, {"more": 1}):
            with self.subTest(fault=fault):
                self.assertEqual(len(list(differences({**good, **fault}, schema, "it"))), 1)
        self.assertEqual(len(list(differences({"schema": 1, "kind": "mem_word"}, schema, "it"))), 2)
        for text in ('{"a":NaN}', '{"a":1,"a":1}', '{"a":-Infinity}'):
            with self.subTest(text=text):
                self.assertRaises(AssertionError, strict, text)


class Completion(TestCase):
    def test_GroupsVerbsOptionsAndValuesAreCompleted(self):
        self.assertEqual(set(complete("")), {verb[0] for verb in VERBS})
        self.assertEqual(complete("serial", "re"), ["report", "receive"])
        self.assertEqual(complete("--json", "mem", "d"), ["dump"])
        self.assertEqual(complete("serial", "send", "/dev/ttyS1", "--pa"), ["--parity"])
        self.assertEqual(complete("serial", "send", "--parity", ""), ["none", "even", "odd"])
        self.assertEqual(complete("serial", "send", "/dev/ttyS1", ""), [":files"])
        self.assertEqual(complete("run", "--", ""), [":files"])
        self.assertEqual(complete("completion", ""), ["bash", "zsh", "fish"])

    def test_ValuesThatAreCompletedAreTaken(self):
        for option in ("--bits", "--parity", "--stop", "--flow", "--speed", "--timestamps"):
            for value in complete("serial", "receive", option, ""):
                with self.subTest(option=option, value=value):
                    result = ctl("serial", "receive", "/dev/null", option, value)
                    self.assertEqual(result.status, 1, result.err)  # it is the device that is refused

    def test_DevicesAreCompletedAndNotOpened(self):
        result = self.on_board("__complete", "serial", "show", "", log="log",
                               options=["--tty", "/dev/ttyS1", "--tty", "/dev/ttyS2"])
        self.assertEqual((result.status, result.out), (0, "/dev/ttyS1\n/dev/ttyS2\n"))
        self.assertNotIn("open", pathlib.Path("log").read_text())

    def test_TheScriptsOfTheShellsAreThoseThatAreInstalledAndBashReadsThem(self):
        for name in ("bash", "zsh", "fish"):
            with self.subTest(name=name):
                result = ctl("completion", name)
                self.assertEqual((result.status, result.out), (0, (SCRIPTS / f"completion.{name}").read_text()))
        ask = (f'PATH={shlex.quote(str(pathlib.Path(BOARDCTL).parent))}:$PATH; . "{SCRIPTS}/completion.bash"; '
               'COMP_WORDS=(boardctl serial re); COMP_CWORD=2; _boardctl boardctl re serial; echo "${COMPREPLY[*]}"')
        self.assertEqual(subprocess.run(["bash", "-c", ask], capture_output=True, text=True, check=True).stdout,
                         "report receive\n")


if __name__ == "__main__":
    main()

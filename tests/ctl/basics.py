#!/usr/bin/env python3
"""The verbs without a group, and the memory."""
import errno
import json
import os
import pathlib
import signal
import subprocess

from ctl import (BOARDCTL, DISK_FULL, MEMORY_NOT_OPENED, NO_IP, NO_MEMORY_FOR_POPEN, NOT_WRITTEN, PATIENCE, POPEN_FAILED, SOURCE,
                 WATCHDOG_NOT_OPENED, bus_error, ctl, finish, main, port_not_opened, shell, start, TestCase, without_rights)

CATALOGUE = json.loads((SOURCE / "docs/errors.json").read_text())["errors"]


class Explain(TestCase):
    def test_EveryTextOfTheCatalogueIsExplainedByItsOwnEntry(self):
        asked = []
        for error in CATALOGUE:
            for cause in error["causes"]:
                number = cause["errno"][0] if cause["errno"] else None
                said = os.strerror(getattr(errno, number)) if number else "Success"
                message = error["text"].replace("...", "x") + ": " + said if error["text"] else ": Invalid argument"
                asked.append((message, error, cause, number))
        log = "".join(message + "\n" for message, *_ in asked)
        objects = ctl("--json", "explain", "-", given=log.encode()).objects
        self.assertEqual(objects[-1]["lines"], len(asked))
        for line, (message, error, cause, number) in enumerate(asked, 1):
            with self.subTest(message=message):
                explained = {found["id"]: found for found in objects[:-1] if found["line"] == line}
                self.assertIn(error["id"], explained)
                if number:
                    mine = explained[error["id"]]
                    self.assertEqual(mine["errno"], number)
                    self.assertIn(cause, mine["causes"])
                    self.assertTrue(all(number in other["errno"] for other in mine["causes"]), mine["causes"])

    def test_TextsThatBeginAlikeAreToldApart(self):
        for message, identity in [
                (NOT_WRITTEN + ":: Bad file descriptor", "err-write-loop"),
                (NOT_WRITTEN + ": : Input/output error", "err-serial-write"),
                (NOT_WRITTEN + ". No bytes written:", "err-write-loop-nothing"),
                (" SetLoopback TIOCMGET failed!: Inappropriate ioctl for device", "err-serial-loop-get"),
                ("TIOCMGET failed?: Inappropriate ioctl for device", "err-serial-lines-get"),
                (WATCHDOG_NOT_OPENED + ": Device or resource busy", "err-watchdog-open")]:
            with self.subTest(message=message):
                self.assertEqual([found.get("id") for found in ctl("--json", "explain", message).objects],
                                 [identity, None])

    def test_ATextThatHasLostItsColonIsExplainedToo(self):
        for message, identities in [
                (NOT_WRITTEN, ["err-write-loop", "err-serial-write"]),
                ("Error reading from file descriptor. No bytes read", ["err-read-loop-end"]),
                ("Error sleeping", ["err-sleep"])]:
            with self.subTest(message=message):
                self.assertEqual([found.get("id") for found in ctl("--json", "explain", message).objects],
                                 [*identities, None])

    def test_OfATextWithinATextBothAreExplained(self):
        message = ("SerialPort::SetPortSettings(): Setting the attributes of the serial port '/dev/ttyS1' failed?"
                   "Unsupported baud rate.: Invalid argument")
        found = ctl("--json", "explain", message).objects
        self.assertEqual([error.get("id") for error in found], ["err-serial-apply", "err-serial-speed", None])
        self.assertEqual(found[0]["errno"], "EINVAL")

    def test_AWholeLogIsReadFromStandardInputAndLinesAreNumbered(self):
        log = f"all is well\n12:00 app: {NO_MEMORY_FOR_POPEN}\n\xff\xfe\n{NO_IP}\n".encode("latin-1")
        result = ctl("--json", "explain", "-", given=log)
        self.assertEqual([(found.get("line"), found.get("id")) for found in result.objects[:-1]],
                         [(2, "err-popen"), (4, "err-ip-missing")])
        self.assertEqual(result.objects[-1], {"schema": 1, "kind": "explained", "lines": 4, "explanations": 2})
        self.assertEqual(ctl("--json", "explain", "-", given=log.rstrip()).objects, result.objects)  # the last line, unended
        result = ctl("explain", "-", given=log)
        self.assertIn(f"2: 12:00 app: {NO_MEMORY_FOR_POPEN}\n", result.out)
        self.assertIn("  cause    ENOMEM, EAGAIN: Out of memory or processes.\n", result.out)
        self.assertIn("  remedy   Look for a leak: free, ps.\n", result.out)

    def test_ALogsControlCharactersDoNotReachTheTerminal(self):
        result = ctl("explain", "-", given=f"\x1b[2J\r\0{POPEN_FAILED}\n".encode())
        self.assertTrue(result.out.startswith(f"1: ?[2J??{POPEN_FAILED}\n"), result.out)

    def test_OfALogThatGrowsEachLineIsExplainedAtOnceUntilASignalComes(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                process = start([BOARDCTL, "explain", "-"], stdin=subprocess.PIPE)
                process.stdin.write(NO_MEMORY_FOR_POPEN[:9].encode())
                process.stdin.flush()
                process.stdin.write(NO_MEMORY_FOR_POPEN[9:].encode() + b"\nall is ")
                process.stdin.flush()
                self.assertEqual(process.stdout.readline(), f"1: {NO_MEMORY_FOR_POPEN}\n".encode())
                process.send_signal(number)
                # Standard input stays open.
                self.assertEqual(process.wait(PATIENCE), 128 + number)
                process.communicate()

    def test_ALogThatCannotBeReadIsAFailure(self):
        folder = os.open("/", os.O_RDONLY)
        self.addCleanup(os.close, folder)
        result = finish(start([BOARDCTL, "explain", "-"], stdin=folder))
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertTrue(result.err.startswith("boardctl: explain: Standard input can't be read: Is a directory\n"), result.err)

    def test_WhatRemainsIsExplainedToo(self):
        self.assertRegex(ctl("explain", NO_MEMORY_FOR_POPEN).out, r"\n  cause    ENOMEM[^\n]+\n  remedy   [^\n]+\n  remains  [^\n]+\n$")

    def test_ATextThatIsNotInTheCatalogueIsSaidSo(self):
        result = ctl("explain", "all is well")
        self.assertEqual((result.status, result.out, result.err), (0, "", "boardctl: No known error text found.\n"))
        self.assertEqual(ctl("--quiet", "explain", "all is well").err, "")

    def test_ItNeedsNoFileOnTheBoard(self):
        strings = open(BOARDCTL, "rb").read()
        for error in CATALOGUE:
            with self.subTest(error=error["id"]):
                self.assertIn(json.dumps(error["id"]).encode(), strings)


class Run(TestCase):
    def test_TheWholeOutputAndTheStatusAreTold(self):
        result = ctl("run", "echo out; echo err >&2; exit 3")
        self.assertEqual((result.status, result.out, result.err), (1, "out\nerr\n", "boardctl: status 3\n"))
        result = ctl("run", "true")
        self.assertEqual((result.status, result.out, result.err), (0, "", "boardctl: status 0\n"))

    def test_WordsBehindTheDashesReachTheCommandAsTheyAre(self):
        words = ["a b", "$(touch x)", "'", ";", "*", "--json", ""]
        result = ctl("--json", "run", "--", "printf", "<%s>", *words)
        self.assertEqual(result.objects, [{"schema": 1, "kind": "run", "output": "".join(f"<{word}>" for word in words),
                                           "command": result.objects[0]["command"], "status": 0}])
        self.assertFalse(os.path.exists("x"))

    def test_AnEmptyWordIsNoCommand(self):
        for words in ["run", ""], ["run", "--", ""], ["run", "--", "", "x"], ["watchdog", "run", "./none", "--", ""]:
            with self.subTest(words=words):
                result = ctl(*words)
                self.assertEqual((result.status, result.out), (2, ""), result.err)

    def test_TextsThatTheBareRunnerWouldMistakeAreRunAsTheyStand(self):
        for text, status, output in [("false\n", 1, ""), ("echo a # comment", 0, "a\n"), ("echo 5; exit 7", 7, "5\n"),
                                     ("printf 12", 0, "12"), ("printf 'a\\n\\n'", 0, "a\n\n"),
                                     ("printf 'a\\0b\\n'", 0, "a"), ("printf 'a\\0b'", 0, "a"), ("kill -9 $$", 137, None),
                                     ("nonsense-command", 127, None)]:
            with self.subTest(text=text):
                result = ctl("--json", "run", text)
                self.assertEqual(result.status, 0 if status == 0 else 1)
                self.assertEqual(result.objects[0]["status"], status)
                if output is not None:
                    self.assertEqual(result.objects[0]["output"], output)

    def test_ASignalIsHandedOnToTheCommandAndEndsWith130Or143(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                process = start([BOARDCTL, "run", "trap 'echo tidy; exit 5' INT TERM; echo $$ > pid; sleep 100 > quiet 2>&1 & wait"])
                self.wait_until(lambda: os.path.exists("pid") and os.path.getsize("pid") > 0, "the command's start")
                process.send_signal(number)
                result = finish(process)
                self.assertEqual((result.status, result.out), (128 + number, "tidy\n"))
                os.remove("pid")

    def test_ASignalReachesWhatACommandLeftInTheBackground(self):
        process = start([BOARDCTL, "run", "sleep 1000 & echo $! > pid; echo started"])
        self.wait_until(lambda: os.path.exists("pid") and os.path.getsize("pid") > 0, "the command's start")
        left = int(pathlib.Path("pid").read_text())
        # It belongs to boardctl when all between them have ended.
        parent = pathlib.Path(f"/proc/{left}/stat")
        self.wait_until(lambda: parent.read_text().split()[3] == str(process.pid), "its parent")
        process.send_signal(signal.SIGTERM)
        result = finish(process)
        self.assertEqual((result.status, result.out, result.err), (143, "started\n", "boardctl: status 0\n"))
        # Nor is it held up by one that does not keep its output open.
        result = ctl("run", "sleep 1000 > quiet 2>&1 & echo $!; exit 3")
        self.assertEqual((result.status, result.err), (1, "boardctl: status 3\n"))
        os.kill(int(result.out), signal.SIGKILL)

    def test_ACommandsClosedPipeWorksAsInAShell(self):
        result = ctl("run", "yes | head -n 1")
        self.assertEqual((result.status, result.out), (0, "y\n"))


class OnABoard(TestCase):
    """The verbs that need none of its devices."""

    def test_WhatNeedsNoDeviceRunsThereForEveryUser(self):
        script = "; ".join([
            shell("run", "--", "cat", "/proc/sys/kernel/ostype") + " 2>&1", shell("run", "echo out; exit 3") + " 2>&1",
            f"printf 'x\\n{NO_MEMORY_FOR_POPEN}\\n' | {shell('explain', '-')} | head -n 1",
            f"{shell('completion', 'bash')} | head -n 2 | tail -n 1", shell("__complete", "watchdog", "feed", ""),
            shell("__complete", "net", "show", "")])
        result = self.board("bash", "-c", script)
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(result.out.splitlines(), [
            "Linux", "boardctl: status 0", "out", "boardctl: status 3", f"2: {NO_MEMORY_FOR_POPEN}", "_boardctl() {",
            "/dev/watchdog", "/dev/watchdog0", "lo", "eth0", "eth1"])

    def test_ASignalIsHandedOnThere(self):
        command = "trap 'echo tidy; exit 5' TERM; : > ready; sleep 600 > quiet 2>&1 & wait"
        script = (f"{shell('run', command)} 2> said & until test -e ready; do sleep 0.3; done; "
                  "kill -TERM $!; wait $!; echo $?; cat said")
        result = self.board("bash", "-c", script)
        self.assertEqual((result.status, result.out, result.err), (0, "tidy\n143\nboardctl: status 5\n", ""))


class OnABoardAsAnOrdinaryUser(OnABoard):
    user = "ordinary"


class Output(TestCase):
    # Erases the screen, by the control characters of ASCII and by those that UTF-8 has besides.
    HOSTILE = "\x1b[2J\a\x7f\u009b2J\u00e9"
    HARMLESS = "?[2J???2J\u00e9"

    def test_NoControlCharacterFromOutsideReachesTheTerminalInTheWordsOfAFailure(self):
        # By what ip says, by an argument, and by the name of what can't be opened or started.
        pathlib.Path("tools").mkdir()
        pathlib.Path("tools/ip").write_text(f"#!/bin/sh\nprintf 'line one\\n{self.HOSTILE}\\n'; exit 1\n")
        pathlib.Path("tools/ip").chmod(0o755)
        apart = self.away_from_the_network()
        for words, said in [(["net", "show", "lo"], f"boardctl: net show: line one\n{self.HARMLESS}\n"),
                            (["mem", "read", self.HOSTILE], f'boardctl: mem read: ADDRESS: "{self.HARMLESS}" is not '),
                            (["mem", "read", "0", self.HOSTILE + "x", "y"], "boardctl: mem read: "),
                            (["serial", "show", "./" + self.HOSTILE],
                             f"boardctl: serial show: {port_not_opened('./' + self.HARMLESS)}: No such file or directory\n"),
                            (["serial", "send", "/dev/null", "./" + self.HOSTILE],
                             f"boardctl: serial send: ./{self.HARMLESS} can't be read: No such file or directory\n")]:
            with self.subTest(words=words):
                environment = {**os.environ, "PATH": f"{self.folder}/tools:{os.environ['PATH']}"}
                result = finish(start([*apart, BOARDCTL, *words], env=environment))
                self.assertTrue(result.err.startswith(said), result.err)
                self.assertFalse(set(result.err) & set("\x1b\a\x7f\u009b"), result.err)

    def test_NorInAResultAsTextOrAsJson(self):
        message = f"{self.HOSTILE}: {POPEN_FAILED}"
        self.assertEqual(ctl("explain", message).out.splitlines()[0], f"{self.HARMLESS}: {POPEN_FAILED}")
        result = ctl("--json", "explain", message)
        self.assertEqual(result.objects[0]["message"], message)
        self.assertTrue(result.out.isascii() and "\x7f" not in result.out, result.out)

    def test_NobodyReadingEndsItWithoutAWord(self):
        read, write = os.pipe()
        os.close(read)
        result = finish(start([BOARDCTL, "explain", POPEN_FAILED], stdout=write))
        os.close(write)
        self.assertEqual((result.status, result.err), (1, ""))

    def test_ASignalEndsItAlsoWhereThePipeIsFullAndNobodyReads(self):
        with open("log", "w", encoding="ascii") as log:
            log.write((NO_MEMORY_FOR_POPEN + "\n") * 1000)
        for words in (["run", "yes | head -c 300000"], ["explain", "-"]):
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(words=words, number=number):
                    unread, write = os.pipe()
                    with open("log", "rb") as log:
                        process = start([BOARDCTL, *words], stdin=log, stdout=write)
                    self.wait_until_full(write)
                    process.send_signal(number)
                    self.assertEqual(finish(process).status, 128 + number)
                    os.close(write)
                    os.close(unread)

    def test_AClosedStandardOutputIsAFailure(self):
        for words in (["explain", POPEN_FAILED], ["--help"]):
            with self.subTest(words=words):
                result = finish(start(["sh", "-c", shell(*words) + " >&-"]))
                self.assertEqual(result.status, 1)
                self.assertTrue(result.err.endswith("Standard output can't be written: Bad file descriptor\n"), result.err)

    def test_AFullDiskIsToldWithItsCauseAndStatus1(self):
        with open("/dev/full", "w") as full:
            result = finish(start([BOARDCTL, "explain", POPEN_FAILED], stdout=full))
        self.assertEqual(result.status, 1)
        self.assertEqual(result.err, f"boardctl: explain: {DISK_FULL}\n")
        # Before a verb is known, too.
        for words in (["--help"], ["--version"], ["serial", "--help"], ["serial", "send", "--help"],
                      ["__complete", "serial"]):
            with self.subTest(words=words), open("/dev/full", "w") as full:
                result = finish(start([BOARDCTL, *words], stdout=full))
                self.assertEqual((result.status, result.err), (1, f"boardctl: {DISK_FULL}\n"))


class Memory(TestCase):
    network = "none"
    REGISTERS = ["--reg", "0x40000000=0x600dcafe", "--reg", "0x40000008=0x21676f64"]

    def test_WordsAreReadOneALine(self):
        result = self.on_board("mem", "read", "0x40000000", "3", options=self.REGISTERS)
        self.assertEqual(result.out, "0x40000000  0x600DCAFE\n0x40000004  0x00000000\n0x40000008  0x21676F64\n")
        self.assertEqual((result.status, result.err), (0, ""))
        # As devmem takes addresses: decimal and octal, too.
        for address in ("1073741824", "010000000000"):
            with self.subTest(address=address):
                self.assertEqual(self.on_board("--json", "mem", "read", address, options=self.REGISTERS).objects,
                                 [{"schema": 1, "kind": "mem_word", "address": "0x40000000", "value": "0x600DCAFE"}])

    def test_AWordIsWrittenWholeOrTheBitsOfAMaskAndADryRunOnlyTells(self):
        script = " && ".join([shell("mem", "write", "0x40000004", "0x12345678"),
                              shell("mem", "write", "0x40000000", "0", "--mask", "0xff", "--json"),
                              shell("mem", "write", "0x40000008", "0xffffffff", "--mask", "0xff"),
                             shell("--dry-run", "mem", "write", "0x40000000", "0"),
                              shell("mem", "read", "0x40000000", "2")])
        result = self.board("sh", "-c", script, options=self.REGISTERS)
        self.assertEqual(result.out.splitlines(), [
            "0x40000004  wrote 0x12345678",
            '{"schema":1,"kind":"mem_write","address":"0x40000000","before":"0x600DCAFE","value":"0x600DCA00",'
            '"mask":"0x000000FF","written":true}',
            "0x40000008  wrote 0x21676FFF, before 0x21676F64",
            "0x40000000  would write 0x00000000",
            "0x40000000  0x600DCA00",
            "0x40000004  0x12345678"])

    def test_ADumpShowsFourWordsALineWithTheirCharacters(self):
        result = self.on_board("mem", "dump", "0x40000000", "5", options=self.REGISTERS)
        self.assertEqual(result.out.splitlines(), [
            "0x40000000  600DCAFE 00000000 21676F64 00000000  |...`....dog!....|",
            "0x40000010  00000000                             |....|"])
        result = self.on_board("--json", "mem", "dump", "0x40000000", "5", options=self.REGISTERS)
        self.assertEqual([(row["address"], len(row["words"])) for row in result.objects],
                         [("0x40000000", 4), ("0x40000010", 1)])

    def test_AWatchedWordsChangesAreToldWithTheirBitsMarked(self):
        script = (f"{shell('mem', 'watch', '0x40000000', '--every', '1', '--changes', '1')} > seen & "
                  "until grep -q 600DCAFE seen; do sleep 0.3; done; "
                  f"{shell('--quiet', 'mem', 'write', '0x40000000', '0x600dcafd')}; wait $!; cat seen")
        lines = self.board("sh", "-c", script, options=self.REGISTERS).out.splitlines()
        time = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
        self.assertEqual(len(lines), 4, lines)
        self.assertEqual(lines[0], "0x40000000  wrote 0x600DCAFD")
        self.assertRegex(lines[1], rf"^{time}  0x600DCAFE  0110 0000 0000 1101 1100 1010 1111 1110$")
        self.assertRegex(lines[2], rf"^{time}  0x600DCAFD  0110 0000 0000 1101 1100 1010 1111 1101$")
        self.assertEqual(lines[3].index("^"), lines[2].rindex("0"))
        self.assertTrue(lines[3].endswith("^^  bits 0 1"), lines[3])

    def test_AWatchTellsAtOnceWhatItSeesAndEndsWithASignalHoweverRarelyItLooks(self):
        for number, every in (signal.SIGINT, "1"), (signal.SIGTERM, "3600000"):
            with self.subTest(number=number):
                watch = shell("mem", "watch", "0x40000000", "--every", every)
                process = self.start_board("sh", "-c", f"echo $$ > pid; exec {watch}")
                self.wait_until(lambda: os.path.exists("pid") and os.path.getsize("pid") > 0, "the start")
                self.assertTrue(process.stdout.readline())
                process.send_signal(number)
                self.assertEqual(finish(process).status, 128 + number)
                os.remove("pid")

    def test_AWatchEndsWhenNobodyReadsAlsoWhereNothingChanges(self):
        script = (f"{{ {shell('mem', 'watch', '0x40000000', '--every', '3600000')}; echo $? > status; }} | head -n 1; "
                  "until test -s status; do sleep 0.3; done")
        result = self.board("sh", "-c", script)
        self.assertEqual((result.status, result.err, pathlib.Path("status").read_text()), (0, "", "1\n"))
        self.assertIn("0x00000000", result.out)

    def test_ASignalThatIsIgnoredFromTheStartStaysSo(self):
        # As under nohup, or after a shell's &.
        script = (f"(trap '' INT; exec {shell('mem', 'watch', '0x40000000', '--every', '1')}) > seen & "
                  "until test -s seen; do sleep 0.3; done; kill -INT $!; "
                  f"{shell('--quiet', 'mem', 'write', '0x40000000', '1')} > wrote; "
                  "until grep -q 0x00000001 seen; do sleep 0.3; done; kill -TERM $!; wait $!; echo $?")
        result = self.board("sh", "-c", script)
        self.assertEqual((result.status, result.out), (0, "143\n"), result.err)

    def test_MemoryThatIsNotThereIsToldWithCauseAndRemedy(self):
        result = self.on_board("mem", "read", "0", options=["--mem", "none"])
        self.assertEqual(result.status, 1)
        self.assertEqual(result.out, "")
        self.assertTrue(result.err.startswith(
            f"boardctl: mem read: {MEMORY_NOT_OPENED}: No such file or directory\n  cause    ENOENT"))
        self.assertIn("\n  remedy   Build the kernel with CONFIG_DEVMEM; run the program outside of containers.\n", result.err)

    def test_AnAddressWhereNothingAnswersIsToldWithCauseAndRemedy(self):
        # A simulated board's addresses all answer: what the kernel would send comes from the test.
        for words in ("read", "0", "1000000000"), ("dump", "0", "1000000000"), ("watch", "0"):
            with self.subTest(words=words):
                script = (f"rm -f read; {shell('mem', *words)} > read & until test -s read; do sleep 0.3; done; "
                          "kill -BUS $!; wait $!; echo $?")
                result = self.board("sh", "-c", script)
                self.assertEqual((result.status, result.out), (0, "1\n"))
                self.assertEqual(result.err, bus_error(f"mem {words[0]}"))
        failing = self.before_the_c_library("""
            #include <signal.h>
            #include <stddef.h>
            #include <unistd.h>
            int munmap(void* address, size_t size) {
              (void)address;
              (void)size;
              return kill(getpid(), SIGBUS);
            }""")
        result = self.board("sh", "-c", f"{failing} {shell('mem', 'write', '0x80011000', '1')}")
        self.assertEqual((result.status, result.out, result.err), (1, "", bus_error("mem write")))

    def test_MemoryThatTheUserMayNotOpenIsToldWithCauseAndRemedy(self):
        verbs = ["read", "0"], ["write", "0", "1"], ["watch", "0"], ["dump", "0"]
        script = "; ".join(["chmod 000 /dev/mem", *(f"{without_rights('mem', *words)}; echo $?" for words in verbs)])
        result = self.board("sh", "-c", script)
        self.assertEqual((result.status, result.out), (0, "1\n" * len(verbs)))
        for words in verbs:
            self.assertIn(f"boardctl: mem {words[0]}: {MEMORY_NOT_OPENED}: Permission denied\n"
                          "  cause    EACCES: The user may not open /dev/mem.\n  remedy   Run as root.\n"
                          if words[0] != "write" else f"boardctl: mem {words[0]}: ", result.err)
        self.assertEqual(result.err.count(" failed: Permission denied\n  cause    EACCES"), len(verbs))


class MemoryAsAnOrdinaryUser(Memory):
    user = "ordinary"


if __name__ == "__main__":
    main()

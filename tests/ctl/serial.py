#!/usr/bin/env python3
"""The group serial, on a simulated board."""
import fcntl
import os
import pathlib
import pty
import re
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import termios
import xml.etree.ElementTree

from ctl import (BOARDCTL, DISK_FULL, NOT_WRITTEN, PATIENCE, bus_error, ctl, finish, main, port_not_opened, shell, strict, TestCase,
                 without_rights)

PORT = "/dev/ttyS1"


class OnALine(TestCase):
    network = "none"

    def command(self, line):
        """Gives the simulator a command on the socket of that name."""
        with socket.socket(socket.AF_UNIX) as control:
            # It is there a moment before somebody listens.
            self.wait_until(lambda: control.connect_ex("socket") == 0, "a connection to the control socket")
            control.sendall(line.encode() + b"\n")
            self.assertTrue(control.recv(99).startswith(b"ok"), line)

    def loop_events(self):
        return any("TIOCMSET 0xc" in line for line in pathlib.Path("log").read_text().splitlines())


class Serial(OnALine):
    def events(self):
        """The log's events of the port, without times and flags."""
        lines = pathlib.Path("log").read_text().splitlines()
        return [re.sub(r" flags=.*", "", line.split(PORT + " ", 1)[1]) for line in lines if f" {PORT} " in line]

    def expect_put_back(self):
        """The last settings are those that the port had before."""
        settings = [event for event in self.events() if event.startswith("settings ")]
        self.assertEqual(settings[-1], "settings speed=9600")
        self.assertGreater(len(settings), 2)

    def test_EveryPortIsListedWithDriverAndHolder(self):
        script = f"exec 3<>{PORT}; {shell('serial', 'list')}; {shell('serial', 'list', '--json')}; true"
        result = self.board("bash", "-c", script, options=["--tty", PORT, "--tty", "/dev/ttyS10=none"])
        self.assertEqual((result.status, result.err), (0, ""))
        lines = result.out.splitlines()
        self.assertRegex(lines[0], rf"^{PORT}      serial8250, open by bash \(\d+\)$")
        self.assertEqual(lines[1], "/dev/ttyS10     serial8250, open by nobody that this user may see")
        self.assertRegex(lines[2], rf'^{{"schema":1,"kind":"serial_port","device":"{PORT}","driver":"serial8250",'
                                   r'"has_uart":true,"held_by":\[{"pid":\d+,"name":"bash"}\],"held_by_complete":false}$')
        self.assertEqual(len(lines), 4)

    def test_TheDriverOfTheDeviceIsToldNotThoseThatNewKernelsPutBetween(self):
        script = f"""number=$(cat /sys/class/tty/ttyS1/dev); mount -t tmpfs none /sys/class/tty; cd /sys/class/tty
            mkdir -p ttyS1 soc/uart/ctrl/port drivers/imx-uart drivers/ctrl drivers/port serial-base platform
            ln -s ../soc/uart/ctrl/port ttyS1/device; echo $number > ttyS1/dev; cd soc/uart
            ln -s ../../drivers/imx-uart driver; ln -s ../../drivers/ctrl ctrl/driver; ln -s ../../drivers/port ctrl/port/driver
            ln -s ../../platform subsystem; ln -s ../../serial-base ctrl/subsystem; ln -s ../../serial-base ctrl/port/subsystem
            {shell('--json', 'serial', 'list')}"""
        self.need_mounts_of_its_own()
        result = self.board("unshare", "--map-root-user", "--mount", "sh", "-c", script)
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual([port["driver"] for port in result.objects], ["imx-uart"])

    def test_AWholeSetOfSettingsIsShownAndNothingIsChanged(self):
        show = shell("--json", "serial", "show", PORT)
        script = (f"stty -F {PORT} 57600 cs7 parenb parodd cstopb crtscts raw -echo; {show}; "
                  f"stty -F {PORT} cmspar ixon; {show}; stty -F {PORT} -parodd -crtscts; {show}")
        result = self.board("sh", "-c", script, log="log")
        self.assertEqual(result.status, 0, result.err)
        shown = result.objects[0]
        self.assertEqual(shown["held_by"], [])  # not even by itself
        self.assertEqual([(other["parity"], other["flow"]) for other in result.objects[1:]],
                         [("mark", "both"), ("space", "software")])
        self.assertEqual((shown["speed_bps"], shown["input_speed_bps"], shown["data_bits"], shown["parity"],
                          shown["stop_bits"], shown["flow"], shown["raw"]), (57600, 57600, 7, "odd", 2, "hardware", True))
        self.assertEqual(shown["lines"], {"DTR": True, "RTS": True, "CTS": True, "DSR": True, "CD": True, "RI": False,
                                          "LOOP": False})
        self.assertEqual(shown["uart"], {"baud_base_bps": 3906250, "fifo_bytes": 64, "irq": 42})
        self.assertEqual(set(shown["counters"].values()), {0})
        settings = [event for event in self.events() if event.startswith("settings ")]
        self.assertEqual(set(settings), {"settings speed=57600"})

    def test_TheSettingsAreShownOnAPageWithWhatTheDriverHasCounted(self):
        show = shell("serial", "show", PORT)
        script = (f"{show}; {shell('--quiet', 'serial', 'test', PORT, '--speeds', '9600', '--size', '300', '--turns', '1')} > tested; "
                  f"stty -F {PORT} 1200 cs7 parenb cstopb crtscts raw -echo; {show}; {shell('--json', 'serial', 'show', PORT)}")
        result = self.board("sh", "-c", script)
        self.assertEqual((result.status, result.err), (0, ""))
        page = ("{0}\n  speed        {1}\n  format       {2}\n  flow         {3}\n  lines up     DTR RTS CTS DSR CD\n"
                "  counted      rx={4} tx={4} frame=0 parity=0 overrun=0 break=0 lost=0\n"
                "  UART         baud_base_bps=3906250 fifo_bytes=64 irq=42\n  open by      nobody that this user may see\n")
        *pages, last = result.out.splitlines(keepends=True)
        self.assertEqual("".join(pages),
                         page.format(PORT, "9600 bit/s", "8 data bits, parity none, 1 stop bit, not raw: lines are edited and "
                                     "echoed by the kernel", "software", 0) +
                         page.format(PORT, "1200 bit/s", "7 data bits, parity even, 2 stop bits, raw", "hardware", 301))
        self.assertEqual(strict(last)["counters"],
                         {"rx": 301, "tx": 301, "frame": 0, "parity": 0, "overrun": 0, "break": 0, "lost": 0})
        # On a line without all that.
        far, near = pty.openpty()
        self.addCleanup(os.close, near)
        self.addCleanup(os.close, far)
        words = "=4I20B2I"  # of the kernel's own settings, whose input may have another speed
        tcgets2, tcsets2, any_speed = 0x802C542A, 0x402C542B, 0x10001000
        settings = list(struct.unpack(words, fcntl.ioctl(near, tcgets2, bytes(struct.calcsize(words)))))
        settings[2] = settings[2] & ~0x100F100F | any_speed
        settings[-2:] = 1200, 9600
        fcntl.ioctl(near, tcsets2, struct.pack(words, *settings))
        shown = ctl("serial", "show", os.ttyname(near)).out
        self.assertIn("\n  speed        9600 bit/s out, 1200 in\n", shown)
        self.assertIn("\n  lines up     unknown\n  counted      unknown\n  UART         unknown\n  open by      ", shown)

    def test_AWatchdogIsRefusedAsAPortAndNeverOpened(self):
        dog = "/dev/watchdog"
        for verb in "show", "report", "send", "receive", "test":
            with self.subTest(verb=verb):
                result = self.on_board("serial", verb, dog, log="log")
                self.assertEqual((result.status, result.err), (1, f"boardctl: serial {verb}: {dog} is not a serial port\n"))
                self.assertNotIn(f" {dog} open", pathlib.Path("log").read_text())
        # These have the major number of a real one, or the kernel says that they are something else; opening them
        # harms nothing.
        for other in "/dev/fuse", "/dev/zero":
            if os.path.exists(other):
                result = ctl("serial", "show", other)
                self.assertEqual((result.status, result.err), (1, f"boardctl: serial show: {other} is not a serial port\n"))

    def test_TheLibrarysReportIsPrintedAndTheLineIsPutBack(self):
        result = self.on_board("serial", "report", PORT, log="log")
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertRegex(result.out, rf"^Device:    {PORT}\nOutput Baudrate: 115200\n")
        self.assertIn("\nReal baud rate: 114890\n", result.out)
        self.expect_put_back()

    def test_WhereTheUartDoesNotAnswerTheReportTellsCauseAndRemedyAndTheLineIsPutBack(self):
        # A simulated board's addresses all answer: what the kernel would send comes from the test.
        silent = self.driver_that("if (request == TIOCGSERIAL) { syscall(SYS_kill, getpid(), SIGBUS); }")
        result = self.board("sh", "-c", f"{silent} {shell('serial', 'report', PORT)}", log="log")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertEqual(result.err, bus_error("serial report"))
        self.expect_put_back()

    def send(self, *words, got, redirected="", **keywords):
        """Runs serial send on a board that waits for its far end before and after it, and checks what has come there."""
        pathlib.Path("got").unlink(missing_ok=True)
        script = (f"until test -e got; do sleep 0.3; done; {shell(*words)} {redirected}; status=$?; "
                  f"until test $(wc -c < got) -ge {len(got)}; do sleep 0.3; done; exit $status")
        result = self.board("sh", "-c", script, options=["--tty", PORT + "=exec:cat > got"], **keywords)
        self.assertEqual(pathlib.Path("got").read_bytes(), got)
        return result

    def test_AFileIsSentWholeWithEverySettingAskedForAndTheLineIsPutBack(self):
        sent = os.urandom(20000)
        pathlib.Path("file").write_bytes(sent)
        result = self.send("serial", "send", PORT, "file", "--speed", "57600", "--parity", "even", "--stop", "2", got=sent,
                           log="log")
        self.assertEqual(result.status, 0, result.err)
        self.assertRegex(result.out, r"^sent 20000 bytes in \d+\.\d\d s, \d+ B/s\n$")
        self.assertIn("settings speed=57600", self.events())
        self.expect_put_back()

    def test_TheFormatThatIsAskedForIsSet(self):
        size_mask, two_stops, parity, odd, rts_cts = 0x30, 0x40, 0x100, 0x200, 0x80000000
        for words, flags in [((), 0x30), (("--bits", "7", "--parity", "odd", "--stop", "2"), 0x20 | parity | odd | two_stops),
                             (("--bits", "5", "--parity", "even", "--flow", "hardware"), parity | rts_cts),
                             (("--bits", "6", "--stop", "2", "--flow", "none"), 0x10 | two_stops)]:
            with self.subTest(words=words):
                self.assertEqual(self.on_board("serial", "send", PORT, *words, given=b"x", log="log").status, 0)
                set_up = re.findall(rf" {PORT} settings speed=115200 flags=(0x\w+)", pathlib.Path("log").read_text())
                self.assertEqual(int(set_up[-1], 16) & (size_mask | two_stops | parity | odd | rts_cts), flags)

    def test_StandardInputIsSentToItsEndAlsoInHexadecimal(self):
        for words, given, got in [((), b"plain", b"plain"), (("--hex",), b"48 65\n6C6c 6F", b"Hello"),
                                  (("--hex",), b" " * 5000 + b"4a", b"J")]:
            with self.subTest(words=words):
                result = self.send("--json", "serial", "send", PORT, *words, given=given, got=got)
                self.assertEqual((result.status, result.objects[0]["size_bytes"], result.objects[0]["ended"]),
                                 (0, len(got), "whole"), result.err)
        for given in (b"4 8", b"xy", b"486"):
            with self.subTest(given=given):
                result = self.on_board("serial", "send", PORT, "--hex", given=given)
                self.assertEqual(result.status, 1)
                self.assertIn("boardctl: serial send: The input is not hexadecimal", result.err)

    def test_TheHelpNamesTerminalProgramsAndWhichVerbHasTimes(self):
        for verb in "send", "receive", "report":
            with self.subTest(verb=verb):
                self.assertIn("are restored", ctl("serial", verb, "--help").out)
        for verb in "send", "receive", "test":
            with self.subTest(verb=verb):
                self.assertIn("also by SIGINT, SIGTERM, SIGHUP or SIGQUIT.", " ".join(ctl("serial", verb, "--help").out.split()))
        for verb in "send", "receive":
            with self.subTest(verb=verb):
                said = " ".join(ctl("serial", verb, "--help").out.split())
                self.assertIn("For a conversation by keyboard, use a terminal program such as picocom or tio.", said)
        self.assertIn("Only what is received gets time stamps: see serial receive --timestamps.",
                      " ".join(ctl("serial", "send", "--help").out.split()))

    def test_TheDeviceDoesNotTakeThePlaceOfAClosedStandardDescriptorAndUsingOneFails(self):
        # Else the far end would get the words as bytes.
        pathlib.Path("file").write_bytes(b"plain\n")
        for closed, words, status, err in [
                ("<&- 2>&-", [PORT, "file"], 0, ""),
                (">&-", [PORT, "file"], 1, "boardctl: serial send: Standard output can't be written: Bad file descriptor\n"),
                ("<&-", [PORT], 1, "boardctl: serial send: Standard input can't be read: Bad file descriptor\n")]:
            with self.subTest(closed=closed):
                result = self.send("serial", "send", *words, got=b"plain\n" if "file" in words else b"", redirected=closed)
                self.assertEqual((result.status, result.err), (status, err))

    def test_InputThatTurnsOutNotToBeHexadecimalIsToldWithWhatWasSentBefore(self):
        # A piece of what is read is sent as a whole, or not at all.
        given = b"41" * 512 + b"4x"
        result = self.on_board("serial", "send", PORT, "--hex", given=given)
        self.assertEqual(result.status, 1)
        self.assertRegex(result.out, r"^failed: sent at most 512 bytes in \d+\.\d\d s, \d+ B/s\n$")
        self.assertIn("boardctl: serial send: The input is not hexadecimal", result.err)
        result = self.on_board("--json", "serial", "send", PORT, "--hex", given=given)
        self.assertEqual((result.objects[0]["size_bytes"], result.objects[0]["ended"]), (512, "failure"))

    def test_ASpeedThatTheUartCannotMakeIsRefusedAndAnyOtherIsTaken(self):
        result = self.on_board("serial", "send", PORT, "--speed", "123456", given=b"x", log="log")
        self.assertEqual(result.status, 0, result.err)
        self.assertIn("settings speed=123456", self.events())
        result = self.on_board("serial", "send", PORT, "--speed", "3000000", given=b"x", log="log",
                               options=["--serial-info", "115200,16,0,4,0"])
        self.assertEqual(result.status, 1)
        self.assertEqual(result.err, "boardctl: serial send: The port cannot run at 3000000 bits per second\n")
        self.expect_put_back()
        # A receiver tolerates a few hundredths.
        for runs_at, status, err in ((112500, 0, ""),
                                     (110000, 1, "boardctl: serial send: The port cannot run at 115200 bits per second, but at 110000\n")):
            with self.subTest(runs_at=runs_at):
                driver = self.driver_that(f"if (request == 0x802C542A /* TCGETS2 */) {{ ((unsigned int*)argument)[10] = {runs_at}; }}")
                result = self.board("sh", "-c", f"{driver} {shell('serial', 'send', PORT)}", given=b"x")
                self.assertEqual((result.status, result.err), (status, err))

    def test_AnOpeningThatFailsAtItsLastStepPutsTheLineBack(self):
        failing = self.before_the_c_library("""
            #include <errno.h>
            int tcflush(int fd, int queue) {
              (void)fd;
              (void)queue;
              errno = EIO;
              return -1;
            }""")
        result = self.board("sh", "-c", f"stty -F {PORT} -g; {failing} {shell('serial', 'report', PORT)}; echo $?; stty -F {PORT} -g")
        before, status, after = result.out.splitlines()
        self.assertEqual((status, after), ("1", before), result.err)
        self.assertIn("Flush of the input buffer failed?", result.err)

    def receive(self, *words, sent=b"", options=()):
        """Runs serial receive, and lets the far end send when the port is set up."""
        pathlib.Path("far-end").write_text("#!/bin/sh\nuntil grep -q speed=115200 log; do sleep 0.3; done\n"
                                           "cat to-send\nexec cat > rest\n")
        pathlib.Path("far-end").chmod(0o755)
        pathlib.Path("to-send").write_bytes(sent)
        pathlib.Path("log").unlink(missing_ok=True)
        return self.on_board("serial", "receive", PORT, *words, log="log",
                             options=["--tty", PORT + "=exec:./far-end", *options])

    def test_ReceivingEndsAtTheCountAtTheTextOrWhenTheFarEndIsSilentAndSaysAtWhich(self):
        sent = b"one\ntwo login: three"
        cases = [(("--idle", "5000"), sent, "the far end was silent for 5000 ms"),
                 (("--count", "5"), b"one\nt", "all bytes have come"),
                 (("--until", "login:"), b"one\ntwo login:", "the text has arrived")]
        for words, out, why in self.some_of(cases):
            with self.subTest(words=words):
                result = self.receive(*words, sent=sent)
                self.assertEqual((result.status, result.raw), (0, out), result.err)
                self.assertRegex(result.err, rf"^boardctl: received {len(out)} bytes in \d+\.\d\d s: {why}\n$")
                self.expect_put_back()

    def test_ATextThatComesInPiecesIsFound(self):
        far_end = "until grep -q speed=115200 log; do sleep 0.3; done; for c in a l o l o g i n : x; do sleep 0.03; printf $c; done"
        result = self.on_board("serial", "receive", PORT, "--until", "login:", log="log",
                               options=["--tty", f"{PORT}=exec:{far_end}; cat > rest"])
        self.assertEqual((result.status, result.out), (0, "alologin:"), result.err)

    def test_ASilentPeerIsAFailureWhereSomethingWasWaitedFor(self):
        cases = [(("--count", "5"), "after 3 bytes of 5"), (("--until", "x"), "after 3 bytes, and the text did not arrive")]
        for words, told in self.some_of(cases):
            with self.subTest(words=words):
                result = self.receive(*words, "--idle", "5000", sent=b"abc")
                self.assertEqual((result.status, result.raw), (1, b"abc"))
                self.assertIn(f"boardctl: serial receive: the far end was silent for 5000 ms {told}", result.err)
                self.expect_put_back()

    def test_WhatComesIsShownInHexadecimalWithTimesAndAsJson(self):
        result = self.receive("--hex", "--count", "18", sent=bytes(range(18)))
        self.assertEqual(result.out, "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F\n10 11\n")
        result = self.receive("--timestamps", "relative", "--count", "8", sent=b"one\ntwo\n")
        self.assertRegex(result.out, r"^\+\d+\.\d{6}  one\n\+\d+\.\d{6}  two\n$")
        result = self.receive("--timestamps", "absolute", "--count", "8", sent=b"one\ntwo\n")
        self.assertRegex(result.out, r"^\d{4}-\d\d-\d\dT[\d:.]+Z  one\n\d{4}-[\dT:.-]+Z  two\n$")
        result = self.receive("--json", "--count", "3", sent=b"\xffab")
        self.assertEqual("".join(piece.get("hex", "") for piece in result.objects), "FF6162")
        self.assertEqual((result.objects[-1]["kind"], result.objects[-1]["ended"]), ("serial_receive", "count"))

    def test_AFullDiskBehindReceivePutsTheLineBackAndIsTold(self):
        process = self.start_board("sh", "-c", f"{shell('serial', 'receive', PORT)} > /dev/full", log="log",
                                   options=["--tty", PORT + "=exec:until grep -q speed=115200 log; do sleep 0.3; done; echo x; cat > rest"])
        result = finish(process)
        self.assertEqual(result.status, 1)
        self.assertIn(DISK_FULL, result.err)
        self.expect_put_back()

    def test_AFileThatMayNotGrowFurtherBehindReceivePutsTheLineBackAndIsTold(self):
        far_end = "until grep -q speed=115200 log; do sleep 0.3; done; head -c 2000000 /dev/zero 2> said; cat > rest 2> said"
        # The counters of a build for coverage, which are written at the end, are smaller files.
        result = self.board("sh", "-c", f"ulimit -f 1000; exec {shell('serial', 'receive', PORT)} > got", log="log",
                            options=["--tty", f"{PORT}=exec:{far_end}"])
        self.assertEqual(result.status, 1)
        self.assertTrue(result.err.endswith("boardctl: serial receive: Standard output can't be written: File too large\n"), result.err)
        self.expect_put_back()

    def test_APortThatIsUnpluggedInTheMiddleIsAFailureWithItsCause(self):
        # It is in the middle when a byte has come through.
        far_end = PORT + "=exec:until grep -q speed=115200 log; do sleep 0.3; done; printf x; cat > came"
        for words, seen in ((["receive", PORT], "said"), (["send", PORT, "/dev/zero"], "came"),
                            (["test", PORT, "--speeds", "115200", "--size", "16777216"], "came")):
            with self.subTest(words=words):
                process = self.start_board("sh", "-c", f"{shell('serial', *words)} > said; echo status $?; cat said", log="log",
                                           options=["--tty", far_end, "--control", "socket"])
                self.wait_until(lambda: os.path.exists(seen) and os.path.getsize(seen) > 0, "a byte")
                self.command(f"hangup {PORT}")
                result = finish(process)
                self.assertIn("status 1\n", result.out)
                told = {"receive": (result.err, r"^boardctl: received 1 bytes in \d+\.\d\d s: receiving failed\n"),
                        "send": (result.out, r"\nfailed: sent at most \d+ bytes in \d+\.\d\d s, "),
                        "test": (result.out, r"\n  115200 .*  failed\nVerdict: failed, good at 0 of 1 speeds\n")}
                self.assertRegex(*told[words[0]])
                self.assertRegex(result.err, rf"boardctl: serial {words[0]}: ")
                self.assertRegex(result.err, r"\n  cause    [^\n]*unplugged[^\n]*\n  remedy   Plug the adapter in, and start the program again\.\n")
                self.assertNotIn("  remains  ", result.err)
                for name in "log", "came", "said":
                    os.remove(name)

    def test_APortThatIsUnpluggedWhileBytesWaitToBeSentIsAFailure(self):
        # All is written by then, and three seconds of it wait in the driver.
        pathlib.Path("file").write_bytes(bytes(3000))
        before = ["--json"] if self.user == "ordinary" else []
        process = self.start_board(BOARDCTL, *before, "serial", "send", PORT, "file", "--speed", "9600", log="log",
                                   options=["--pace", "--tty", PORT + "=exec:cat > came", "--control", "socket"])
        self.wait_until(lambda: os.path.exists("came") and os.path.getsize("came") > 0, "a byte")
        self.command(f"hangup {PORT}")
        result = finish(process)
        self.assertEqual(result.status, 1, result.out)
        if before:
            self.assertEqual(result.objects[0]["ended"], "failure")
        else:
            self.assertRegex(result.out, r"^failed: sent at most \d+ bytes of 3000 in ")
        self.assertIn(f"boardctl: serial send: {NOT_WRITTEN}: : Input/output error\n  cause    EIO: ", result.err)
        self.assertIn("unplugged", result.err)

    def test_NobodyReadingWhatIsReceivedEndsItAlsoWhereNothingComes(self):
        script = f"{{ {shell('serial', 'receive', PORT)}; echo $? > status; }} | head -n 1; until test -s status; do sleep 0.3; done"
        result = self.board("sh", "-c", script, log="log",
                            options=["--tty", PORT + "=exec:until grep -q speed=115200 log; do sleep 0.3; done; echo x; exec cat"])
        self.assertEqual((result.out, result.err, pathlib.Path("status").read_text()), ("x\n", "", "1\n"))
        self.expect_put_back()

    def test_AHoldersNameDoesNotReachTheTerminalAsItIs(self):
        name = "a\x1b[2J\x07\x7f"
        shutil.copy(shutil.which("sleep"), name)
        pathlib.Path(name).chmod(0o755)
        script = f"./{name} 100 3<>{PORT} & until {shell('serial', 'list')} | grep -q 'open by a'; do :; done; {shell('serial', 'list')}; kill $!"
        result = self.board("bash", "-c", script)
        self.assertIn(", open by a?[2J?? (", result.out)

    def test_ASignalWhileReceivingPutsTheLineBack(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(number=number):
                process = self.start_board("sh", "-c", f"echo $$ > pid; exec {shell('serial', 'receive', PORT)}", log="log")
                self.wait_for_text("log", "speed=115200")
                process.send_signal(number)
                result = finish(process)
                self.assertEqual(result.status, 128 + number)
                self.assertIn("a signal came; the line's settings are restored", result.err)
                self.expect_put_back()
                os.remove("log")

    def test_ASignalWhereNobodyReadsWhatIsReceivedPutsTheLineBack(self):
        unread, write = os.pipe()
        process = self.start_board(BOARDCTL, "serial", "receive", PORT, log="log", output=write,
                                   options=["--tty", PORT + "=exec:until grep -q speed=115200 log; do sleep 0.3; done; head -c 300000 /dev/zero 2> said; cat > rest 2> said"])
        self.wait_until_full(write)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(PATIENCE), 143)
        self.assertEqual(process.communicate()[1], b"")
        self.expect_put_back()
        os.close(write)
        os.close(unread)

    def test_ASignalEndsTheWaitingForANamedPipesWriter(self):
        os.mkfifo("pipe")
        os.chmod("pipe", 0o666)
        process = self.start_board(BOARDCTL, "serial", "send", PORT, "./pipe", log="log")
        self.wait_for_text("log", "speed=115200")
        process.send_signal(signal.SIGTERM)
        result = finish(process)
        self.assertEqual((result.status, result.err),
                         (143, "boardctl: what was not sent yet was discarded; the line's settings are restored\n"))
        self.expect_put_back()

    def test_ASignalWhileSendingWaitsForInputPutsTheLineBack(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                process = self.start_board(BOARDCTL, "serial", "send", PORT, given=b"", log="log")
                self.wait_for_text("log", "speed=115200")
                process.send_signal(number)
                result = finish(process)
                self.assertEqual(result.status, 128 + number)
                self.expect_put_back()
                os.remove("log")

    def test_ASignalAtAnyStageFromTheOpeningToTheTidyingLeavesNothingHalfSet(self):
        pathlib.Path("file").write_bytes(bytes(3000))
        signalling = self.signalling()
        # All settings, and all that it shows of the line but what has been counted.
        look = f"$(stty -F {PORT} -g) $({shell('--json', 'serial', 'show', PORT)})"
        for words in self.some_of([["send", PORT, "file"], ["receive", PORT, "--idle", "1"], ["report", PORT],
                                   ["test", PORT, "--loop", "--speeds", "9600", "--size", "10", "--turns", "1"]]):
            for goes_on in "", "ON=1":
                with self.subTest(words=words, goes_on=goes_on):
                    run = f"{goes_on} {signalling} {shell('serial', *words)}"
                    # The shell's own means, since another program at each of hundreds of stages takes longer than all else.
                    script = (f"look() {{ seen=\"{look}\"; seen=${{seen%%'\"counters\"'*}}${{seen#*'\"counters\"'*'}}'}}; }}; "
                              f"stty -F {PORT} sane 19200 cs7 parenb; look; before=$seen; at=1; "
                              f"while :; do AT=$at {run} > got 2> said; status=$?; look; "
                              "test \"$seen\" = \"$before\" || { echo $at; cat got said; }; test $status = 143 || break; "
                              "at=$((at + 1)); done; echo $at $status; printf '%s' \"$before\" > before")
                    result = self.board("sh", "-c", script, options=["--tty", PORT + "=none"])
                    self.assertEqual(result.out.count("\n"), 1, result.out)
                    stages, status = map(int, result.out.split())
                    self.assertEqual(status, 0, result.err)
                    self.assertGreater(stages, 10)
                    self.assertRegex(pathlib.Path("before").read_text(), r'^\w+(:\w+)+ {.*"speed_bps":19200,.*"LOOP":false},,"uart":.*}$')

    def test_AFarEndThatHoldsTheLineIsNamedAndASignalGivesUpAndTellsWhatWasDiscarded(self):
        pathlib.Path("file").write_bytes(bytes(3000))
        # As JSON for one of the two users.
        before = ["--json"] if self.user == "ordinary" else []
        script = (f"until test -e go; do sleep 0.3; done; "
                  f"exec {shell(*before, 'serial', 'send', PORT, 'file', '--flow', 'hardware')} 2> said")
        process = self.start_board("sh", "-c", script, log="log", options=["--tty", PORT + "=none", "--control", "socket"])
        self.wait_until(lambda: os.path.exists("socket"), "the control socket")
        self.command(f"clear {PORT} CTS")
        pathlib.Path("go").touch()
        self.wait_for_text("said", "boardctl: nothing has gone out for 2 s: the far end may hold the line (flow control); a signal ends it\n")
        process.send_signal(signal.SIGINT)
        result = finish(process)
        self.assertEqual(result.status, 130)
        if before:
            self.assertEqual((result.objects[0]["size_bytes"], result.objects[0]["ended"]), (0, "signal"))
        else:
            self.assertRegex(result.out, r"^stopped: sent at most 0 bytes of 3000 in \d+\.\d\d s, 0 B/s\n$")
        said = pathlib.Path("said").read_text()
        self.assertEqual(said.count("nothing has gone out"), 1)
        self.assertTrue(said.endswith(
            "boardctl: what was not sent yet was discarded; the line's settings are restored\n"))
        self.expect_put_back()

    def test_ASignalFreesAWriterThatTheFarEndHolds(self):
        # More than the driver's queue holds.
        pathlib.Path("file").write_bytes(bytes(200000))
        send = shell("serial", "send", PORT, "file", "--flow", "hardware")
        script = f"until test -e go; do sleep 0.3; done; exec {send} 2> said"
        process = self.start_board("sh", "-c", script, log="log", options=["--tty", PORT + "=none", "--control", "socket"])
        self.wait_until(lambda: os.path.exists("socket"), "the control socket")
        self.command(f"clear {PORT} CTS")
        pathlib.Path("go").touch()
        self.wait_for_text("said", "boardctl: nothing has gone out for 2 s: the far end may hold the line (flow control); a signal ends it\n")
        process.send_signal(signal.SIGTERM)
        result = finish(process)
        self.assertEqual(result.status, 143)
        self.assertRegex(result.out, r"^stopped: sent at most \d{1,5} bytes of 200000 in ")
        self.expect_put_back()

    def test_ASignalEndsTheOpeningOfALineThatTheFarEndHoldsAndNothingIsEchoedMeanwhile(self):
        # What another program has written waits; a flood that the kernel echoed would be more and more.
        pathlib.Path("holder").write_text(f"""if True:
            import os, termios, time
            line = os.open("{PORT}", os.O_RDWR | os.O_NOCTTY)
            termios.tcflow(line, termios.TCOOFF)
            os.write(line, b"x" * 100)
            open("held", "w").close()
            time.sleep(600)""")
        echo = f"stty -a -F {PORT} | grep -ow -e -echo -e echo -e -clocal -e clocal | tr '\\n' ' '"
        for number, words in self.some_of([(signal.SIGTERM, ["test", PORT]), (signal.SIGINT, ["send", PORT, "/etc/passwd"]),
                                           (signal.SIGHUP, ["receive", PORT]), (signal.SIGTERM, ["report", PORT])]):
            with self.subTest(number=number, words=words):
                script = (f"rm -f held said; stty -F {PORT} sane -clocal; {sys.executable} -S holder & holder=$!; "
                          f"until test -e held; do sleep 0.3; done; set -m; {shell('serial', *words)} > got 2> said & "
                          "until grep -qs 'nothing has gone out' said; do sleep 0.3; done; "
                          f"{echo}; kill -{number:d} $!; wait $!; echo $?; {echo}; kill $holder")
                result = self.board("bash", "-c", script)
                self.assertEqual(result.out, f"clocal -echo {128 + number}\n-clocal echo ", result.err)
                self.assertEqual(pathlib.Path("said").read_text().count("nothing has gone out"), 1)

    def test_AnotherProgramThatTakesTheBytesHoldsUpNeitherItsEndNorASignal(self):
        # As a login on the same port does.
        far_end = (PORT + "=exec:until grep -q speed=115200 log; do sleep 0.3; done; "
                   "for i in 1 2 3 4 5 6 7 8 9 10; do printf 0123456789; sleep 0.02; done; cat > came")
        script = f"cat {PORT} > taken & {shell('serial', 'receive', PORT, '--idle', '2000')} > got; echo $?; kill $!"
        result = self.board("bash", "-c", script, log="log", options=["--tty", far_end])
        self.assertEqual(result.out, "0\n", result.err)
        self.assertIn(": the far end was silent for 2000 ms\n", result.err)
        self.assertEqual(pathlib.Path("taken").stat().st_size + pathlib.Path("got").stat().st_size, 100)
        script = (f"cat {PORT} > taken & taking=$!; set -m; {shell('serial', 'test', PORT, '--turns', '100000')} > got 2> said & "
                  "until grep -qs '19200 bit/s' said; do sleep 0.3; done; kill -TERM $!; wait $!; echo $?; kill $taking")
        result = self.board("bash", "-c", script)
        self.assertEqual(result.out, "143\n", result.err)
        self.assertIn("\nVerdict: failed, good at 0 of ", pathlib.Path("got").read_text())

    def test_WhatCannotBeOpenedIsToldWithCauseAndRemedy(self):
        result = self.on_board("serial", "show", "/dev/ttyS7")
        self.assertEqual(result.status, 1)
        self.assertEqual(result.err.splitlines()[:3], [
            f"boardctl: serial show: {port_not_opened('/dev/ttyS7')}: No such file or directory",
            "  cause    ENOENT: There is no such device.",
            "  remedy   Look at what is there: boardctl serial list."])
        for verb in ("send", "receive", "test", "report"):
            with self.subTest(verb=verb):
                result = self.on_board("serial", verb, "/dev/ttyS7")
                self.assertEqual(result.status, 1)
                self.assertIn(port_not_opened("/dev/ttyS7") + ": No such file or directory\n  cause", result.err)
                result = self.on_board("serial", verb, "/dev/null")
                self.assertEqual(result.status, 1)
                self.assertEqual(result.err, f"boardctl: serial {verb}: /dev/null is not a serial port\n")
        result = self.on_board("serial", "send", PORT, "missing")
        self.assertEqual((result.status, result.err),
                         (1, "boardctl: serial send: missing can't be read: No such file or directory\n"))

    def test_APortThatTheUserMayNotOpenIsToldWithCauseAndRemedy(self):
        verbs = "show", "report", "send", "receive", "test"
        script = "; ".join([f"chmod 000 {PORT}", *(f"{without_rights('serial', verb, PORT)}; echo $?" for verb in verbs)])
        result = self.board("sh", "-c", script, log="log")
        self.assertEqual((result.status, result.out), (0, "1\n" * len(verbs)))
        told = result.err.split("boardctl: ")[1:]
        self.assertEqual(len(told), len(verbs))
        for verb, words in zip(verbs, told):
            self.assertTrue(words.startswith(f"serial {verb}: {port_not_opened(PORT)}: Permission denied\n"
                                             "  cause    EACCES, EPERM: "), words)
            self.assertIn("\n  remedy   Add the user to that group (adduser USER dialout", words)
        self.assertEqual([event for event in self.events() if event.startswith("settings ")], [])

    def test_APortWithoutModemLinesIsPutBackAllTheSame(self):
        far, near = pty.openpty()
        before = termios.tcgetattr(near)
        result = ctl("serial", "send", os.ttyname(near), given=b"bytes")
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(termios.tcgetattr(near), before)
        # Nor does such a line know of other formats.
        result = ctl("serial", "send", os.ttyname(near), "--parity", "even", given=b"bytes")
        self.assertEqual((result.status, result.err), (
            0, "boardctl: the driver does not support these data bits or this parity, and keeps its own\n"))
        self.assertEqual(termios.tcgetattr(near), before)
        os.close(near)
        os.close(far)


class SerialAsAnOrdinaryUser(Serial):
    user = "ordinary"


class LineTest(OnALine):
    def test_AGoodLineIsFoundGoodOverTheLoopAndAnEcho(self):
        for words, options in ((["--loop"], ["--tty", PORT + "=none"]), ([], ["--tty", PORT + "=echo"])):
            with self.subTest(words=words):
                result = self.on_board("--json", "--quiet", "serial", "test", PORT, "--speeds", "9600,250000,115200",
                                       "--size", "3000", "--turns", "10", *words, options=options, log="log")
                self.assertEqual((result.status, result.err), (0, ""), result.out)
                for measured, speed in zip(result.objects, (9600, 250000, 115200)):
                    self.assertEqual(measured["runs_at_bps"], speed)
                    self.assertEqual((measured["speed_bps"], measured["verdict"], measured["sent_bytes"],
                                      measured["received_bytes"], measured["bit_errors"], measured["lost_bytes"],
                                      measured["doubled_bytes"], measured["turnaround_us"]["count"]),
                                     (speed, "good", 3000, 3000, 0, 0, 0, 10))
                verdict = result.objects[-1]
                self.assertEqual((verdict["passed"], verdict["speeds_good"], verdict["fastest_good_bps"]), (True, 3, 250000))
                self.assertEqual(self.loop_events(), words != [])

    def test_AThroughputThatNoRealLineCanHaveIsRemarked(self):
        remark = "boardctl: bytes came faster than a real line could carry them\n"
        for options, holds in ([], self.assertIn), (["--pace"], self.assertNotIn):
            with self.subTest(options=options):
                result = self.on_board("serial", "test", PORT, "--loop", "--speeds", "9600", "--size", "500", "--turns", "1",
                                       options=options)
                self.assertEqual(result.status, 0, result.err)
                holds(remark, result.err)

    def test_AllStandardSpeedsFrom9600OnAreTriedAndThoseThatTheUartLacksArePassedOver(self):
        result = self.on_board("--json", "--quiet", "serial", "test", PORT, "--size", "100", "--turns", "1",
                               options=["--serial-info", "1843200,64,0,4,0"])
        self.assertEqual(result.status, 0, result.out)
        speeds = [measured["speed_bps"] for measured in result.objects[:-1]]
        self.assertEqual(speeds, [9600, 19200, 38400, 57600, 115200, 230400, 460800, 500000, 576000, 921600, 1000000,
                                  1152000, 1500000, 2000000, 2500000, 3000000])
        # One that is asked for is missed.
        missed = self.on_board("--json", "--quiet", "serial", "test", PORT, "--size", "100", "--turns", "1", "--speeds",
                               "9600,3000000", options=["--serial-info", "1843200,64,0,4,0"])
        self.assertEqual((missed.status, missed.objects[-1]["speeds_good"], missed.objects[-1]["speeds_tried"]), (1, 1, 2))
        verdicts = {measured["speed_bps"]: measured["verdict"] for measured in result.objects[:-1]}
        self.assertEqual((verdicts[9600], verdicts[115200], verdicts[3000000]), ("good", "good", "not possible"))
        # What it runs at instead is reported, too.
        self.assertEqual((missed.objects[1]["speed_bps"], missed.objects[1]["runs_at_bps"]), (3000000, 9600))

    def test_BitErrorsLostAndDoubledBytesAreToldApart(self):
        far_end = ("import os\n"
                   "open('ready', 'w').close()\n"
                   "n = 0\n"
                   "while True:\n"
                   "    data = os.read(0, 1)\n"
                   "    if not data: break\n"
                   "    n += 1\n"
                   "    if n in {lost}: continue\n"
                   "    if n == {changed}: data = bytes([data[0] ^ 5])\n"
                   "    if n == {doubled}: data = data * 2\n"
                   "    os.write(1, data)\n")
        cases = [(dict(lost=[300], changed=100, doubled=200), (2, 1, 1)), (dict(lost=[100], changed=0, doubled=0), (0, 1, 0)),
                 (dict(lost=[], changed=100, doubled=0), (2, 0, 0)), (dict(lost=[], changed=0, doubled=100), (0, 0, 1)),
                 # A single byte, after the block, that comes back as another one.
                 (dict(lost=[], changed=3001, doubled=0), (0, 0, 0)),
                 # More than may be under way: without an answer, it goes on.
                 (dict(lost=[*range(100, 500), *range(600, 1000), *range(1100, 1500)], changed=0, doubled=0), (0, 1200, 0))]
        for faults, counted in cases:
            with self.subTest(faults=faults):
                pathlib.Path("far.py").write_text(far_end.format(**faults))
                pathlib.Path("ready").unlink(missing_ok=True)
                test = shell("--json", "--quiet", "serial", "test", PORT, "--speeds", "115200", "--size", "3000", "--turns", "2")
                result = self.board("sh", "-c", "until [ -e ready ]; do sleep 0.3; done; " + test,
                                    options=["--tty", f"{PORT}=exec:{shlex.quote(sys.executable)} far.py"])
                measured = result.objects[0]
                self.assertEqual((measured["bit_errors"], measured["lost_bytes"], measured["doubled_bytes"]), counted)
                self.assertEqual((result.status, measured["verdict"], result.objects[-1]["passed"]), (1, "errors", False))

    def test_SingleBytesThatDoNotComeBackAreErrors(self):
        test = shell("--json", "--quiet", "serial", "test", PORT, "--speeds", "115200", "--size", "100")
        result = self.board("sh", "-c", "until test -e ready; do sleep 0.3; done; " + test,
                            options=["--tty", PORT + "=exec:touch ready; head -c 100; exec cat > rest"])
        measured = result.objects[0]
        self.assertEqual((result.status, measured["verdict"], measured["received_bytes"], measured["turnaround_us"]),
                         (1, "errors", 100, None))

    def test_ASilentFarEndIsFoundSilentWithTheRemedy(self):
        result = self.on_board("serial", "test", PORT, "--speeds", "115200", "--size", "50",
                               options=["--tty", PORT + "=none"])
        self.assertEqual(result.status, 1)
        self.assertIn("silent", result.out)
        self.assertIn("\nVerdict: failed, good at 0 of 1 speeds\n", result.out)
        self.assertIn("boardctl: nothing came back intact: connect TX to RX, or a far end that echoes at that speed\n", result.err)
        # It gives up before all is sent, and counts no more than that.
        measured = self.on_board("--json", "--quiet", "serial", "test", PORT, "--speeds", "3000000",
                                 options=["--tty", PORT + "=none"]).objects[0]
        self.assertEqual((measured["verdict"], measured["sent_bytes"], measured["lost_bytes"]), ("silent", 6144, 6144))

    def test_TheTableAndTheHistogramStandInTheTextAndThePictureIsWellFormed(self):
        name = "./<a&b>\"'"
        test = shell("serial", "test", name, "--speeds", "9600,115200", "--size", "1000", "--svg", "line.svg")
        pathlib.Path("line.svg").write_bytes(bytes(100000))
        os.chmod("line.svg", 0o666)
        result = self.board("sh", "-c", f"ln -s {PORT} {shlex.quote(name)}; {test}")
        self.assertEqual(result.status, 0, result.err)
        self.assertRegex(result.out, r"(?m)^115200 bit/s: turn-around of 50 single bytes\n +\d+ to \d+ us  #+ \d+$")
        self.assertRegex(result.out, r"(?m)^   bit/s   bytes  bits  lost doubled      B/s  limit  turn us   max us")
        self.assertRegex(result.out, r"(?m)^  115200    1000     0     0       0 +\d+ +\d+ % +\d+ +\d+  good$")
        self.assertTrue(result.out.endswith("Verdict: good at 2 of 2 speeds, the fastest good one is 115200 bit/s\n"))
        picture = xml.etree.ElementTree.parse("line.svg").getroot()
        self.assertEqual(picture.tag, "{http://www.w3.org/2000/svg}svg")
        words = "".join(picture.itertext())
        for expected in ("Line test of " + name, "Throughput", "Turn-around", "9600", "115200", "the line's own limit"):
            self.assertIn(expected, words)

    def test_APictureThatCannotBeWrittenIsToldAfterTheVerdict(self):
        os.mkfifo("pipe")
        os.chmod("pipe", 0o666)
        for path, why in (("/dev/full", "No space left on device"), ("./nowhere/line.svg", "No such file or directory"),
                          ("./pipe", "No such device or address")):  # nobody reads it
            with self.subTest(path=path):
                result = self.on_board("serial", "test", PORT, "--loop", "--speeds", "9600", "--size", "100", "--turns", "1",
                                       "--svg", path)
                self.assertEqual(result.status, 1)
                self.assertIn("\nVerdict: good at 1 of 1 speeds", result.out)
                self.assertTrue(result.err.endswith(f"boardctl: serial test: The picture {path} can't be written: {why}\n"), result.err)

    def test_WhatWasMeasuredIsToldAndDrawnAlsoWhereALaterSpeedFails(self):
        # At the second speed, the far end takes so long that the line is hung up before the block is through.
        test = shell("serial", "test", PORT, "--speeds", "9600,115200,19200", "--size", "1000", "--turns", "1", "--svg", "line.svg")
        far_end = (PORT + "=exec:touch ready; head -c 1000; head -c 1; until grep -q speed=115200 log; do sleep 0.3; done; "
                   "while printf x; do sleep 0.1; done")
        process = self.start_board("sh", "-c", f"until test -e ready; do sleep 0.3; done; {test}; echo status $?", log="log",
                                   options=["--tty", far_end, "--control", "socket"])
        self.wait_for_text("log", "speed=115200 flags")
        self.command(f"hangup {PORT}")
        result = finish(process)
        self.assertRegex(result.out, r"(?s)\n    9600 +1000 [^\n]*  good\n  115200 [^\n]*  failed\nVerdict: failed, good at 1 of 2 speeds, [^\n]*\nstatus 1\n$")
        self.assertIn("unplugged", result.err)
        self.assertIn("115200", "".join(xml.etree.ElementTree.parse("line.svg").getroot().itertext()))

    def test_ASignalEndsTheTestWithTheLoopOffAndTheLinePutBack(self):
        process = self.start_board(BOARDCTL, "--json", "serial", "test", PORT, "--loop", "--size", "16777216", log="log")
        self.wait_for_text("log", "TIOCMSET 0xc")
        process.send_signal(signal.SIGTERM)
        result = finish(process)
        self.assertEqual(result.status, 143)
        *measured, verdict = result.objects
        for found in measured:
            with self.subTest(speed=found["speed_bps"]):
                self.assertEqual(found["verdict"], "stopped")
                self.assertLess(found["received_bytes"], 16777216)
        self.assertFalse(verdict["passed"])
        lines = pathlib.Path("log").read_text().splitlines()
        self.assertIn("settings speed=9600", [line for line in lines if "settings" in line][-1])
        self.assertIn("TIOCMSET 0x4006", [line for line in lines if "TIOCMSET" in line][-1])


    def test_ASignalBehindAGoodSpeedLetsTheTestFail(self):
        signalling = self.before_the_c_library("""
            #define _GNU_SOURCE
            #include <signal.h>
            #include <string.h>
            #include <sys/syscall.h>
            #include <unistd.h>
            ssize_t write(int fd, const void* bytes, size_t size) {
              ssize_t written = syscall(SYS_write, fd, bytes, size);
              if (memmem(bytes, size, "\\"verdict\\"", strlen("\\"verdict\\"")) != 0) {
                kill(getpid(), SIGTERM);
              }
              return written;
            }""")
        test = shell("--json", "serial", "test", PORT, "--loop", "--speeds", "9600,19200", "--size", "10", "--turns", "1")
        result = self.board("sh", "-c", f"{signalling} {test}")
        self.assertEqual((result.status, len(result.objects)), (143, 2), result.err)
        self.assertEqual((result.objects[0]["verdict"], result.objects[1]["speeds_good"], result.objects[1]["passed"]), ("good", 1, False))

    def test_WhatComesBackAsSomethingElseIsComparedWithLittleWork(self):
        pathlib.Path("far.py").write_text('import os\nwhile data := os.read(0, 65536): os.write(1, b"x" * len(data))\n')
        test = shell("--json", "--quiet", "serial", "test", PORT, "--speeds", "3000000", "--size", "524288", "--turns", "1")
        # Seconds of the processor.
        result = self.board("sh", "-c", f"ulimit -t 2; exec {test}",
                            options=["--tty", f"{PORT}=exec:{shlex.quote(sys.executable)} -S far.py"])
        self.assertEqual((result.status, result.objects[0]["verdict"]), (1, "errors"), result.err)
        self.assertGreater(result.objects[0]["bit_errors"], 524288)


class LineTestAsAnOrdinaryUser(OnALine):
    """Rights count when the line is opened and restored, not for what comes through it."""
    user = "ordinary"
    test_AGoodLineIsFoundGoodOverTheLoopAndAnEcho = LineTest.test_AGoodLineIsFoundGoodOverTheLoopAndAnEcho
    test_ASignalEndsTheTestWithTheLoopOffAndTheLinePutBack = LineTest.test_ASignalEndsTheTestWithTheLoopOffAndTheLinePutBack


if __name__ == "__main__":
    main()

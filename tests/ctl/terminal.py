#!/usr/bin/env python3
"""boardctl in a real terminal, and what it leaves out where there is none."""
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

from ctl import BOARDCTL, BOARDSIM, PATIENCE, main, TestCase

PORT = "/dev/ttyS1"


class Terminal(TestCase):
    def setUp(self):
        super().setUp()
        self.need("tmux")
        # A server of its own, without other sessions; its path must be short.
        place = tempfile.TemporaryDirectory(prefix="tmux")
        self.addCleanup(place.cleanup)
        self.server = ["tmux", "-f", "/dev/null", "-S", f"{place.name}/s"]
        self.tmux("new-session", "-d", "-x", "100", "-y", "40", "-s", "it", "env PS1='> ' bash --norc --noprofile -i")
        self.addCleanup(lambda: self.tmux("kill-server"))
        self.wait_until(lambda: ">" in self.screen(), "the shell's prompt")

    def tmux(self, *words):
        return subprocess.run([*self.server, *words], capture_output=True, text=True, check=True).stdout

    def type(self, text, end="Enter"):
        self.tmux("send-keys", "-t", "it", "-l", "--", text)
        if end:
            self.tmux("send-keys", "-t", "it", end)

    def screen(self, *options):
        return self.tmux("capture-pane", "-p", "-t", "it", *options)

    def wait_for_screen(self, pattern, *options):
        self.wait_until(lambda: re.search(pattern, self.screen(*options), re.M), f"{pattern} on the screen")

    def on_board(self, *words, options=()):
        return shlex.join([BOARDSIM, *options, "--", BOARDCTL, *words])

    def test_TheProgressIsShownWithRateAndTimeLeftAndIsGoneAtTheEnd(self):
        far_end = PORT + "=exec:while :; do head -c 500 /dev/zero; sleep 0.1; done"
        command = self.on_board("serial", "receive", PORT, "--count", "200000", options=["--tty", far_end])
        self.type(f"clear; {command} > got; echo status $?")
        self.wait_for_screen(r"^\[#+\.+\] \d+ %  [\d.]+ KiB of 195\.3 KiB  [\d.]+ (?:KiB|B)/s  \d+ s left")
        self.tmux("send-keys", "-t", "it", "C-c")
        self.wait_for_screen(r"boardctl: received \d+ bytes in [\d.]+ s: a signal came")
        self.wait_for_screen(r"\nstatus 130")
        self.assertNotRegex(self.screen(), r"\[#*\.*\]")

    def test_TheHistogramAndTheTableStandOnTheScreenAndTheHeadIsBoldUnlessNoColorIsSet(self):
        words = ("serial", "test", PORT, "--speeds", "115200", "--turns", "20", "--size", "500")
        self.type("clear; NO_COLOR= " + self.on_board(*words))
        self.wait_for_screen(r"\nVerdict: good at 1 of 1 speeds")
        screen = self.screen("-e")
        self.assertRegex(screen, r"\n +\d+ to \d+ us  #+ \d+\n")
        self.assertRegex(screen, r"\x1b\[1m +bit/s   bytes")
        self.type("clear; NO_COLOR=1 " + self.on_board(*words) + "; echo again")
        self.wait_for_screen(r"\nagain")
        self.assertNotIn("\x1b[1m", self.screen("-e"))

    def test_WhatTheTerminalSendsItselfIsNotHandedOnOnceMore(self):
        # The tool stands still until the command has taken the terminal's own, so that a second one is not lost after it.
        pathlib.Path("command.py").write_text(
            "import os, pathlib, re, signal\n"
            "signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])\n"
            "tool = os.getppid()\n"
            "while (status := pathlib.Path(f'/proc/{tool}/status').read_text()) and 'Name:\\tboardctl' not in status:\n"
            "    tool = int(re.search(r'PPid:\\t(\\d+)', status)[1])\n"
            "os.kill(tool, signal.SIGSTOP)\n"
            "pathlib.Path('ready').touch()\n"
            "senders = [signal.sigwaitinfo([signal.SIGINT]).si_pid]\n"
            "os.kill(tool, signal.SIGCONT)\n"
            "while more := signal.sigtimedwait([signal.SIGINT], 0.5): senders.append(more.si_pid)\n"
            "pathlib.Path('senders').write_text(str(senders))\n")
        command = shlex.join(["--", sys.executable, f"{self.folder}/command.py"])
        for words in (shlex.join([BOARDCTL, "run"]), self.on_board("watchdog", "run", "/dev/watchdog")):
            with self.subTest(words=words):
                # The terminal's own shell would see it stand still, and take the terminal back.
                script = shlex.quote(f"cd {shlex.quote(self.folder)}; {words} {command}; echo status $?")
                self.type(f"clear; sh -c {script}")
                self.wait_until(pathlib.Path("ready").exists, "the command's start")
                self.tmux("send-keys", "-t", "it", "C-c")
                self.wait_until(lambda: pathlib.Path("senders").exists() and pathlib.Path("senders").read_text(), "the command's end")
                self.assertEqual(pathlib.Path("senders").read_text(), "[0]")
                pathlib.Path("ready").unlink()
                pathlib.Path("senders").unlink()

    def complete_by_tab(self, start_shell, read_completion):
        folder = shlex.quote(str(pathlib.Path(BOARDCTL).parent))
        # Now and then, a shell hangs for ever when its terminal has gone.
        limited = f"timeout --foreground -s KILL {2 * PATIENCE} {shlex.quote(BOARDSIM)}"
        self.type(f"PATH={folder}:$PATH; clear; {limited} -- {start_shell}")
        self.type(read_completion + "; clear")
        self.wait_for_screen(r"^board\s*$")
        for typed, shown in [("boardctl ser", "boardctl serial"), ("sh", "boardctl serial show"),
                             ("", "boardctl serial show /dev/ttyS1"), ("--js", "boardctl serial show /dev/ttyS1 --json")]:
            self.type(typed, "Tab")
            self.wait_for_screen(rf"^board {shown}\s*$")
        self.type("")
        self.wait_for_screen('"kind":"serial_settings"')
        self.type("clear")
        self.wait_for_screen(r"^board\s*$")
        for typed, shown in [("boardctl watchdog sh", "boardctl watchdog show"), ("", "boardctl watchdog show /dev/watchdog")]:
            self.type(typed, "Tab")
            self.wait_for_screen(rf"^board {shown}\s*$")
        self.tmux("send-keys", "-t", "it", "C-c")
        self.wait_for_screen(r"^board\s*\Z")
        self.type("clear")
        self.wait_for_screen(r"\A\s*board\s*\Z")
        self.type("boardctl net address et", "Tab")
        self.wait_for_screen(r"^board boardctl net address eth[01]?\s*")

    def test_ATabCompletesVerbsDevicesOptionsAndInterfacesInBash(self):
        self.complete_by_tab("bash --norc --noprofile -i", "PS1='board '; . <(boardctl completion bash)")

    def test_ATabCompletesVerbsDevicesOptionsAndInterfacesInZsh(self):
        self.need("zsh")
        self.complete_by_tab("zsh -f -i", "PS1='board '; autoload -Uz compinit; compinit -u -D; . <(boardctl completion zsh)")

    def test_ATabCompletesVerbsDevicesOptionsAndInterfacesInFish(self):
        self.need("fish")
        self.complete_by_tab(f"env HOME={self.folder} fish --no-config --private",
                             "function fish_prompt; echo -n 'board '; end; boardctl completion fish | source")


class WithoutTerminal(TestCase):
    def test_NeitherProgressNorColourGoesIntoAFile(self):
        pathlib.Path("file").write_bytes(bytes(60000))
        for words in (["serial", "send", PORT, "file"], ["serial", "test", PORT, "--speeds", "9600", "--size", "500"]):
            with self.subTest(words=words):
                result = self.on_board(*words)
                self.assertEqual(result.status, 0)
                self.assertNotIn("\x1b", result.out + result.err)
                self.assertNotIn("\r", result.out + result.err)

    def test_AFilesProgressIsShownOnATerminalButNotOnADumbOne(self):
        pathlib.Path("file").write_bytes(b"00" * 150000)
        # Of hexadecimal digits, too, the bar is as long as the file.
        for terminal, words, shows in (("dumb", [], False), ("vt100", ["--quiet"], False), ("vt100", [], True),
                                       ("vt100", ["--hex"], True)):
            with self.subTest(terminal=terminal, words=words):
                command = self.shell_on_board(*words)
                result = subprocess.run(["script", "-qec", f"TERM={terminal} {command}", "/dev/null"], capture_output=True,
                                        stdin=subprocess.DEVNULL, check=True)
                self.assertEqual(b"\x1b[K" in result.stdout, shows, result.stdout)
                bar = rb"\r\[\.{30}\] 0 %  1.0 KiB of 293.0 KiB  .*\r\[#{30}\] 100 %  293.0 KiB of 293.0 KiB  .*/s  0 s left"
                self.assertEqual(re.search(bar, result.stdout, re.S) is not None, shows, result.stdout)

    def shell_on_board(self, *words):
        return shlex.join([BOARDSIM, "--", BOARDCTL, "serial", "send", PORT, "file", *words])


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""The watchdog: show, feed, run."""
import os
import pathlib
import re
import shlex
import signal
import sys

from ctl import BOARDCTL, SOURCE, WATCHDOG_NOT_OPENED, ctl, finish, main, shell, start, strict, TestCase, without_rights, works

DEVICE = "/dev/watchdog"
DISARMED = "boardctl: /dev/watchdog is disarmed."
# A check that does not end, and the words of a shell that wait until what it has started is gone.
HANGING = "sleep 600 & echo $! > checking; wait"
GONE = "while grep -qs '^State:[^Z]*$' /proc/$(cat checking)/status; do sleep 0.3; done; echo it is gone"
RESET = 86  # boardsim's status when the watchdog has reset the board
SOON = "6"  # the time-out that tests live to see the end of: a busy machine still feeds in time


def sees_all():
    """Whether the user may see what every process here has open."""
    first = 0xEFFFFFFC  # the number of the namespace of processes that the kernel starts with
    if os.stat("/proc/self/ns/pid").st_ino != first or not os.path.exists("/proc/1"):
        return False
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            for descriptor in (process / "fd").iterdir():
                descriptor.stat()
        except PermissionError:
            return False
        except OSError:
            pass  # it has ended
    return True


class Watchdog(TestCase):
    network = "none"

    def run_under_it(self, *arguments, **keywords):
        return self.on_board("watchdog", "run", DEVICE, *arguments, log="log", **keywords)

    def events(self):
        """What the watchdog has seen, without the feedings."""
        lines = [line.split(" ", 2)[1:] for line in pathlib.Path("log").read_text().splitlines()]
        return [event for device, event in lines if device == DEVICE and event != "feed"]

    def fed(self, times):
        """The words of a shell that wait until it was fed so often."""
        return f"until [ $(grep -sc ' feed$' log) -ge {times} ]; do sleep 0.3; done"

    def fed_longer_than_the_time_out(self):
        """Four thirds of it. Rights make no difference to that."""
        return self.fed(4 if self.user == "root" else 1)

    def test_ShowTellsWhoHasItOpenAndOpensNothing(self):
        script = f"{shell('--json', 'watchdog', 'show', DEVICE)}; {shell('watchdog', 'show', DEVICE)}"
        result = self.board("sh", "-c", script, log="log")
        self.assertEqual(self.events(), [])
        self.assertEqual(result.status, 0)
        first, *text = result.out.splitlines()
        self.assertEqual(first, '{"schema":1,"kind":"watchdog","device":"/dev/watchdog","identity":"boardsim",'
                                '"state":"inactive","timeout_s":60,"time_left_s":0,"min_timeout_s":1,"max_timeout_s":65535,'
                                '"nowayout":false,"reset_the_board":false,"held_by":[],"held_by_complete":false}')
        # Nobody on the board, but it may not see the simulator's processes.
        self.assertEqual(text, [DEVICE, "  identity   boardsim", "  state      inactive",
                                "  time-out   60 s (from 1 s to 65535 s)", "  time left  0 s", "  nowayout   no",
                                "  open by    nobody that this user may see"])
        self.assertEqual(result.err, "")

    def test_ShowTellsOfTheNodeThatItIsGivenAlone(self):
        os.mkfifo("dog")
        os.chmod("dog", 0o666)
        script = "; ".join(shell("--json", "watchdog", "show", device) for device in ("/dev/dog", "./dog"))
        simulated, other = self.board("sh", "-c", script, options=["--watchdog", "/dev/dog"]).objects
        self.assertEqual((simulated["identity"], other["identity"]), ("boardsim", None))

    def without_sys(self, script):
        """The words of a shell for a script for which /sys has no watchdog."""
        self.need_mounts_of_its_own()
        return shlex.join(["unshare", "--map-root-user", "--mount", "bash", "-c", f"mount -t tmpfs none /sys/class/watchdog && {script}"])

    def test_WhatSysDoesNotTellIsUnknown(self):
        show = f"{shell('--json', 'watchdog', 'show', DEVICE)}; {shell('watchdog', 'show', DEVICE)} 2> said"
        result = self.board("sh", "-c", self.without_sys(show), log="log")
        self.assertEqual((result.status, self.events()), (0, []), result.err)
        first, *text = result.out.splitlines()
        self.assertEqual(first, '{"schema":1,"kind":"watchdog","device":"/dev/watchdog","identity":null,"state":null,'
                                '"timeout_s":null,"time_left_s":null,"min_timeout_s":null,"max_timeout_s":null,'
                                '"nowayout":null,"reset_the_board":null,"held_by":[],"held_by_complete":false}')
        self.assertEqual(text, [DEVICE, "  identity   unknown", "  state      unknown", "  time-out   unknown",
                                "  time left  unknown", "  nowayout   unknown", "  open by    nobody that this user may see"])
        self.assertEqual(pathlib.Path("said").read_text(),
                         "Its settings are unknown without opening it, and opening it would arm it.\n")
        result = self.board("sh", "-c", self.without_sys(shell("watchdog", "run", DEVICE, "--", "true")))
        self.assertEqual(result.err.splitlines()[-1],
                         "boardctl: /dev/watchdog is disarmed, unless its driver has nowayout set, which is unknown here.")

    def test_OneThatWasLeftCountingIsRemarkedWithTheWayOut(self):
        script = (f"{shell('watchdog', 'feed', DEVICE)} & until grep -qs 'timeout 30' log; do sleep 0.3; done; kill -KILL $!; "
                  f"until grep -q 'close: not stopped' log; do sleep 0.3; done; {shell('watchdog', 'show', DEVICE)}; "
                  f"{shell('--json', 'report')}")
        result = self.board("sh", "-c", script, log="log")
        self.assertIn("\n  state      active\n  time-out   30 s (", result.out)
        self.assertRegex(result.out, r"\n  time left  \d\d s\n")
        words = ("{0} counts, and no program that /proc shows has it open. Unless a hidden one does, it was left armed, "
                 "and THE BOARD WILL RESET.")
        remedy = "Take over at once: boardctl watchdog feed {0}."
        self.assertIn(f"{words} {remedy}\n".format(DEVICE), result.err)
        unusual = strict(result.out.splitlines()[-1])["unusual"]
        self.assertIn({"what": words.format("/dev/watchdog0"), "remedy": remedy.format("/dev/watchdog0")}, unusual)

    def test_AfterAResetOfTheWatchdogThatIsRemarked(self):
        script = (f"if test -e before; then {shell('watchdog', 'show', DEVICE)}; exit 0; fi; touch before; "
                  f"{shell('watchdog', 'run', DEVICE, '--interval', '1', '--', 'false')}; sleep 60")
        result = self.board("sh", "-c", script, options=["--restart", "1"], log="log")
        self.assertEqual(result.status, 0, result.err)
        self.assertIn("The board was last started by a reset of /dev/watchdog. Look for what stopped feeding it: the log "
                      "before that start.\n", result.err)

    def test_NobodyIsSaidOfThoseWhomTheUserMaySee(self):
        os.mkfifo("dog", 0o644)  # looked at like the simulated one
        pathlib.Path(self.folder).chmod(0o755)
        # What another user's processes have open, only root sees.
        hidden = "nobody that this user may see"
        cases = [(["setpriv", "--reuid=65534", "--clear-groups"], hidden)] if os.geteuid() == 0 else []
        cases.append(([], "nobody" if sees_all() else hidden))
        # Root of a namespace of users is nobody to the processes outside of it; in one of processes, those do not show.
        for words in (["unshare", "--map-root-user"], ["unshare", "--map-root-user", "--pid", "--fork", "--mount-proc"]):
            if works(*words, "true"):
                cases.append((words, hidden))
        place = self.programs_for_all()
        environment = {**os.environ, "LD_LIBRARY_PATH": str(place), "GCOV_PREFIX": self.folder}
        for lower, words in cases:
            with self.subTest(lower=lower):
                result = finish(start([*lower, place / "boardctl", "watchdog", "show", "./dog"], env=environment))
                self.assertIn(f"\n  open by    {words}\n", result.out, result.err)
                result = finish(start([*lower, place / "boardctl", "--json", "watchdog", "show", "./dog"], env=environment))
                self.assertEqual(result.objects[0]["held_by_complete"], words == "nobody")

    def test_ADeviceInUseIsToldWithWhoHasItAndNothingIsArmed(self):
        script = (f"{shell('watchdog', 'feed', DEVICE)} 2> fed & "
                  "until grep -qs 'is armed' fed; do sleep 0.3; done; "
                  f"{shell('--json', 'watchdog', 'show', DEVICE)}; "
                  f"{shell('watchdog', 'run', DEVICE, '--', 'touch', 'ran')}; echo $?; kill -TERM $!; wait $!; echo $?")
        result = self.board("sh", "-c", script, log="log")
        self.assertRegex(result.out, r'"held_by":\[\{"pid":\d+,"name":"boardctl"\}\],"held_by_complete":false\}\n1\n143\n$')
        self.assertRegex(result.err, r"boardctl: /dev/watchdog is in use, by boardctl \(\d+\)\. Nothing was armed\.\n"
                                     rf"boardctl: watchdog run: {re.escape(WATCHDOG_NOT_OPENED)}: Device or resource busy\n"
                                     r"  cause    EBUSY: ")
        self.assertNotIn("no program that /proc shows has it open", result.err)
        self.assertFalse(os.path.exists("ran"))
        self.assertEqual(self.events(), ["open", "timeout 30", "open refused: busy", "write magic", "close: stopped"])

    def test_WhatIsNoWatchdogIsNotOpened(self):
        for device in "/dev/null", "/etc/passwd":
            for verb in "show", "feed", "run":
                with self.subTest(device=device, verb=verb):
                    result = ctl("watchdog", verb, device, *(["--", "true"] if verb == "run" else []))
                    self.assertEqual((result.status, result.out), (1, ""))
                    self.assertEqual(result.err, f"boardctl: watchdog {verb}: {device} is not a watchdog\n")

    def test_OneThatIsNotThereIsToldWithCauseAndRemedyAloneAndThatNothingWasArmed(self):
        for verb in "show", "feed", "run":
            with self.subTest(verb=verb):
                result = ctl("watchdog", verb, "/dev/nope", *(["--", "true"] if verb == "run" else []))
                self.assertEqual((result.status, result.out), (1, ""))
                before = "" if verb == "show" else "boardctl: /dev/nope could not be opened. Nothing was armed.\n"
                self.assertEqual(result.err, before + f"boardctl: watchdog {verb}: {WATCHDOG_NOT_OPENED}: No such file or directory\n"
                                 "  cause    ENOENT, ENXIO, ENODEV: There is no watchdog driver.\n"
                                 "  remedy   Load the driver (for trials: modprobe softdog).\n")

    def test_AWatchdogThatTheUserMayNotOpenIsToldWithCauseAndRemedyAndNothingRuns(self):
        # Made by the test: what the kernel refuses, the simulated one would not get to see.
        os.mkfifo("dog", 0)
        run = without_rights if os.geteuid() == 0 else shell
        for words in (["feed", "./dog"], ["run", "./dog", "--", "touch", "ran"]):
            with self.subTest(words=words):
                result = finish(start(["sh", "-c", run("watchdog", *words)]))
                self.assertEqual((result.status, result.out), (1, ""))
                self.assertTrue(result.err.startswith(
                    "boardctl: ./dog could not be opened. Nothing was armed.\n"
                    f"boardctl: watchdog {words[0]}: {WATCHDOG_NOT_OPENED}: Permission denied\n"
                    "  cause    EACCES, EPERM: The user may not open it.\n  remedy   Run as root, or give the user the right"), result.err)
        self.assertFalse(os.path.exists("ran"))

    def test_FedUntilASignalItIsDisarmedAndSaysSo(self):
        for number, is_fed in ((signal.SIGINT, self.fed_longer_than_the_time_out()), (signal.SIGTERM, self.fed(1)),
                               (signal.SIGHUP, self.fed(1)), (signal.SIGQUIT, self.fed(1))):
            with self.subTest(number=number):
                script = (f"set -m; {shell('watchdog', 'feed', DEVICE, '--interval', SOON)} 2> said & {is_fed}; "
                          f"kill -{number:d} $!; wait $!")
                result = self.board("bash", "-c", script, log="log")
                self.assertEqual((result.status, result.out), (128 + number, ""))
                self.assertEqual(pathlib.Path("said").read_text().splitlines(), [
                    "boardctl: /dev/watchdog is armed: the board resets when it is not fed for 6 s; it is fed every 2 s.",
                    DISARMED])
                self.assertEqual(self.events(), ["open", f"timeout {SOON}", "write magic", "close: stopped"])

    def test_OfASignalsStatusThatLeavesItCountingTheWordsSaySo(self):
        script = f"set -m; {shell('watchdog', 'feed', DEVICE)} 2> said & {self.fed(1)}; kill -TERM $!; wait $!; echo $?"
        result = self.board("bash", "-c", script.replace("feed$", "timeout 30$"), options=["--nowayout"], log="log")
        self.assertEqual((result.status, result.out), (RESET, "143\n"))
        self.assertEqual(pathlib.Path("said").read_text().splitlines(), [
            "boardctl: nowayout is set: once armed, nothing disarms /dev/watchdog, and the board resets after the last feeding.",
            "boardctl: /dev/watchdog is armed: the board resets when it is not fed for 30 s; it is fed every 10 s.",
            "boardctl: closed properly, but /dev/watchdog still counts (nowayout): THE BOARD RESETS within 30 s "
            "unless another program opens and feeds it."])
        # A command that is slow to end, and a check that does not hold meanwhile.
        command = "trap 'touch asked' TERM; touch ready; while :; do sleep 0.3; done"
        run = shell("watchdog", "run", DEVICE, "--interval", "15", "--check", "until test -e asked; do sleep 0.3; done; exit 3",
                    "--", "sh", "-c", command)
        script = f"set -m; {run} 2> said & until test -e ready; do sleep 0.3; done; kill -TERM $!; wait $!; echo $?"
        result = self.board("bash", "-c", script, log="log")
        self.assertEqual((result.status, result.out), (RESET, "143\n"))
        self.assertRegex(pathlib.Path("said").read_text().splitlines()[-1],
                         r"^boardctl: --check ended with status 3; .*: no more feeding, THE BOARD RESETS within 15 s\.$")

    def test_TheTerminalsStopKeyDoesNotStopTheFeeding(self):
        script = (f"set -m; {shell('--quiet', 'watchdog', 'feed', DEVICE, '--interval', SOON)} 2> said & "
                  f"until grep -qs 'timeout {SOON}' log; do sleep 0.3; done; "
                  f"for i in TSTP TTIN TTOU; do kill -$i $!; done; {self.fed_longer_than_the_time_out()}; kill -INT $!; wait $!")
        result = self.board("bash", "-c", script, log="log")
        self.assertEqual((result.status, result.out, pathlib.Path("said").read_text()), (130, "", ""))

    def test_ASignalAtAnyStageFromTheStartToTheEndLeavesNothingArmed(self):
        signalling = self.signalling()
        # One signal, or one after the other from there on: also while it is armed and disarmed.
        for goes_on in "", "ON=1":
            with self.subTest(goes_on=goes_on):
                run = f"{goes_on} {signalling} {shell('watchdog', 'run', DEVICE, '--', 'true')}"
                script = (f"at=1; while :; do AT=$at {run} 2> said; status=$?; test $status = 143 || break; at=$((at + 1)); done; "
                          "echo $at $status; cat said")
                result = self.board("sh", "-c", script, log="log")
                end, *said = result.out.splitlines()
                stages, status = map(int, end.split())
                # After the last stage, it ends as without a signal.
                self.assertEqual((status, said[-1]), (0, DISARMED), result.err)
                self.assertGreater(stages, 20)
                whole = ["open", "timeout 30", "write magic", "close: stopped"]
                events = self.events()
                self.assertEqual(events, whole * (len(events) // len(whole)))
                self.assertGreater(len(events), 10 * len(whole))
                os.remove("log")

    def test_ACommandThatEndsWellIsFedWhileItLivesThenItIsDisarmed(self):
        result = self.run_under_it("--interval", SOON, "--", "sh", "-c", f"{self.fed_longer_than_the_time_out()}; echo it ran")
        self.assertEqual((result.status, result.out), (0, "it ran\n"))
        self.assertEqual(result.err.splitlines()[-1], DISARMED)
        self.assertEqual(self.events(), ["open", f"timeout {SOON}", "write magic", "close: stopped"])

    def test_TheUnitForSystemdFeedsItWhileTheProgramLives(self):
        unit = (SOURCE / "packaging/systemd/watched@.service").read_text()
        program, *words = shlex.split(re.search("(?m)^ExecStart=(.*/boardctl .* /usr/local/bin/%i)$", unit)[1])
        self.assertEqual(program, "/usr/bin/boardctl")
        result = self.on_board(*words[:-1], "true", log="log")
        self.assertEqual((result.status, result.err.splitlines()[-1]), (0, DISARMED))
        self.assertEqual(self.events(), ["open", "timeout 30", "write magic", "close: stopped"])

    def test_ACommandThatFailsLeavesTheBoardToItsReset(self):
        for command, how in self.some_of([("exit 3", "ended with status 3"), ("kill -9 $$", "was ended by signal 9")]):
            with self.subTest(command=command):
                script = f"{shell('watchdog', 'run', DEVICE, '--interval', SOON, '--', 'sh', '-c', command)}; echo $?; sleep 60"
                result = self.board("sh", "-c", script, log="log")
                self.assertEqual((result.status, result.out), (RESET, "1\n"))
                self.assertIn(f"boardctl: the command {how}: no more feeding, THE BOARD RESETS within {SOON} s.\n", result.err)
                self.assertEqual(self.events()[:3], ["open", f"timeout {SOON}", "close: not stopped"])

    def test_ACommandThatCannotBeStartedLeavesNothingArmed(self):
        result = self.run_under_it("--", "./nope")
        self.assertEqual(result.status, 1)
        self.assertEqual(result.err.splitlines()[1:], [
            DISARMED,
            "boardctl: watchdog run: './nope' can't be started: No such file or directory"])
        self.assertEqual(self.events(), ["open", "timeout 30", "write magic", "close: stopped"])

    def test_TheCommandGetsItsWordsAndNoDescriptorAboveTwo(self):
        code = "import os, sys; print(sys.argv[1:], [fd for fd in range(3, 256) if os.path.exists(f'/proc/self/fd/{fd}')])"
        words = ["a b", "$(touch x)", "--interval", "--", ""]
        result = self.board("bash", "-c", f"exec 7</dev/null; exec {shell('watchdog', 'run', DEVICE, '--', sys.executable, '-c', code, *words)}")
        self.assertEqual((result.status, result.out), (0, f"{words} []\n"), result.err)
        self.assertFalse(os.path.exists("x"))

    def test_TheCommandStartsWithNoSignalBlockedOrIgnored(self):
        result = self.run_under_it("--", "grep", "^Sig[BI]", "/proc/self/status")
        blocked, ignored = (int(line.split()[1], 16) for line in result.out.splitlines())
        self.assertEqual((blocked, ignored & 0x7fffffff), (0, 0))  # the C library has some of its own above

    def test_TheCommandsStatusIsKnownAlsoWhereTheCallerIgnoresTheEndOfChildren(self):
        result = self.board("env", "--ignore-signal=CHLD", BOARDCTL, "watchdog", "run", DEVICE, "--interval", SOON, "--", "true", log="log")
        self.assertEqual(result.status, 0, result.err)
        self.assertEqual(self.events()[-1], "close: stopped")

    def test_AChildThatOutlivesTheCommandDoesNotKeepItCounting(self):
        script = (f"{shell('watchdog', 'run', DEVICE, '--interval', SOON, '--', 'sh', '-c', 'sleep 60 > quiet 2>&1 &')}; sleep {SOON}.5")
        result = self.board("sh", "-c", script, log="log")
        self.assertEqual(result.status, 0, result.err)
        self.assertEqual(self.events()[-1], "close: stopped")

    def test_ASignalIsHandedOnAndItIsFedUntilTheCommandHasEnded(self):
        for number, is_fed in (signal.SIGINT, self.fed_longer_than_the_time_out()), (signal.SIGTERM, ":"):
            with self.subTest(number=number):
                command = f"tidy() {{ {is_fed}; echo tidy; exit 5; }}; trap tidy INT TERM; echo $$ > pid; while :; do sleep 0.3; done"
                script = (f"set -m; {shell('watchdog', 'run', DEVICE, '--interval', SOON, '--', 'sh', '-c', command)} & "
                          f"until test -s pid; do sleep 0.3; done; kill -{number:d} $!; wait $!")
                result = self.board("bash", "-c", script, log="log")
                self.assertEqual((result.status, result.out), (128 + number, "tidy\n"), result.err)
                self.assertEqual(self.events(), ["open", f"timeout {SOON}", "write magic", "close: stopped"])
                os.remove("pid")

    def test_ItIsFedOnlyWhileTheCheckSucceeds(self):
        run = shell("watchdog", "run", DEVICE, "--interval", SOON, "--check", "test -e well", "--", "sleep", "90")
        result = self.board("sh", "-c", f"touch well; ({self.fed_longer_than_the_time_out()}; rm well) & {run}; sleep 60", log="log")
        self.assertEqual(result.status, RESET)
        self.assertRegex(result.err, r"\nboardctl: --check ended with status 1; the command \(process \d+\) is left running: "
                                     rf"no more feeding, THE BOARD RESETS within {SOON} s\.\n")

    def test_ACheckThatHangsIsEndedWithAllItStartedAndFailed(self):
        script = (f"{shell('watchdog', 'run', DEVICE, '--interval', '12', '--check', HANGING, '--', 'sleep', '90')}; "
                  f"{GONE}; sleep 60")
        result = self.board("sh", "-c", script, log="log")
        self.assertEqual((result.status, result.out), (RESET, "it is gone\n"))
        self.assertIn("boardctl: --check did not end within 4.0 s, a third of the time-out; the command", result.err)

    def test_ASignalWhileTheCheckRunsEndsTheCheckToo(self):
        command = "trap 'echo tidy; exit 5' HUP; touch ready; while :; do sleep 0.3; done"
        script = (f"{shell('watchdog', 'run', DEVICE, '--interval', '15', '--check', HANGING, '--', 'sh', '-c', command)} & "
                  "until test -s checking && test -e ready; do sleep 0.3; done; kill -HUP $!; wait $!; echo $?; "
                  f"{GONE}")
        result = self.board("bash", "-c", script, log="log")
        self.assertEqual((result.status, result.out), (0, f"tidy\n{128 + signal.SIGHUP}\nit is gone\n"), result.err)
        self.assertEqual(self.events(), ["open", "timeout 15", "write magic", "close: stopped"])

    def test_ItIsFedOnlyWhileTheFileIsTouched(self):
        arguments = ["watchdog", "run", DEVICE, "--interval", SOON, "--alive", "alive", "--", "sleep", "45"]
        result = self.on_board(*arguments, log="log")
        self.assertEqual(result.status, RESET)
        self.assertRegex(result.err, r"\nboardctl: --alive: alive was not touched for 6 s; the command \(process \d+\) is left running")
        os.remove("log")
        script = f"(while :; do touch alive; sleep 0.1; done) & {shell(*arguments[:-2], 'sh', '-c', self.fed(4))}"
        result = self.board("sh", "-c", script, log="log")
        self.assertEqual(result.status, 0, result.err)
        self.assertEqual(self.events()[-1], "close: stopped")

    def test_AnIntervalThatTheDriverRefusesIsToldWithTheWayOut(self):
        for verb in ["feed"], ["run"]:
            with self.subTest(verb=verb):
                script = f"{shell('watchdog', *verb, DEVICE, '--interval', '65536', *(['--', 'touch', 'ran'] if verb == ['run'] else []))}; echo $?"
                # The way out that it names works.
                script += (f"; set -m; {shell('watchdog', 'feed', DEVICE)} & until grep -q 'timeout 30' log; do sleep 0.3; done; "
                           "kill -INT $!; wait $!")
                result = self.board("sh", "-c", self.without_sys(script), log="log")
                self.assertEqual((result.status, result.out), (130, "1\n"), result.err)
                self.assertIn("the driver refuses 65536 s, and /dev/watchdog was opened to ask it: it counts with its old "
                              "time-out (a driver without the magic close does not), and THE BOARD RESETS unless you take over now: boardctl watchdog feed /dev/watchdog",
                              result.err)
                self.assertIn(": Could not set watchdog interval\n  cause    The driver refuses the value", result.err)
                self.assertFalse(os.path.exists("ran"))
                self.assertEqual(self.events(), ["open", "timeout refused: 65536", "close: not stopped", "open", "timeout 30",
                                                 "write magic", "close: stopped"])

    def test_AnIntervalThatSysRulesOutIsRefusedBeforeTheDeviceIsOpened(self):
        for verb in ["feed"], ["run"]:
            with self.subTest(verb=verb):
                result = self.on_board("watchdog", *verb, DEVICE, "--interval", "65536",
                                       *(["--", "touch", "ran"] if verb == ["run"] else []), log="log")
                self.assertEqual((result.status, result.err), (2, f"boardctl: watchdog {verb[0]}: --interval: the driver takes "
                                 f"1 to 65535 s, not 65536 s (see boardctl watchdog {verb[0]} --help)\n"))
                self.assertFalse(os.path.exists("ran"))
                self.assertEqual(self.events(), [])

        # A driver with other limits.
        for most, words in (("0", "10 s or more, not 9 s"), ("20", "10 to 20 s, not 9 s")):
            with self.subTest(most=most):
                script = (f"cd /sys/class/watchdog && mkdir watchdog0 && cd watchdog0 && echo 0:0 > dev && echo 10 > min_timeout && "
                          f"echo {most} > max_timeout && {shell('watchdog', 'feed', DEVICE, '--interval', '9')}")
                result = self.board("sh", "-c", self.without_sys(script), log="log")
                self.assertEqual((result.status, result.err), (2, f"boardctl: watchdog feed: --interval: the driver takes {words} "
                                                                  "(see boardctl watchdog feed --help)\n"))
                self.assertEqual(self.events(), [])

    def test_OfADriverThatRoundsTheTimeOutThatIsToldAndFeedingTooRarelyIsRefused(self):
        driver = self.driver_that("if (request == WDIOC_GETTIMEOUT) { *(int*)argument = 3; }")
        result = self.board("sh", "-c", f"{driver} {shell('watchdog', 'feed', DEVICE, '--interval', '10', '--every', '5')}", log="log")
        self.assertEqual((result.status, result.err), (1, "boardctl: the driver changed 10 s to 3 s.\n"
                                                          f"{DISARMED}\n"
                                                          "boardctl: watchdog feed: Feeding every 5 s is too rare for a time-out of 3 s\n"))
        self.assertEqual(self.events(), ["open", "timeout 10", "write magic", "close: stopped"])
        result = self.board("sh", "-c", f"{driver} {shell('watchdog', 'feed', DEVICE, '--interval', '10', '--every', '3')}")
        self.assertEqual((result.status, result.err.splitlines()[-1]),
                         (1, "boardctl: watchdog feed: Feeding every 3 s is too rare for a time-out of 3 s"))

    def test_ASignalThatComesWhileItIsBeingArmedStartsNothingAndLeavesNothingArmed(self):
        driver = self.driver_that("if (request == WDIOC_SETTIMEOUT) { syscall(SYS_kill, getpid(), 15); }")
        result = self.board("sh", "-c", f"{driver} {shell('watchdog', 'run', DEVICE, '--', 'touch', 'ran')}; echo $?", log="log")
        self.assertEqual((result.status, result.out), (0, "143\n"))
        self.assertEqual(result.err.splitlines()[-1], DISARMED)
        self.assertFalse(os.path.exists("ran"))
        self.assertEqual(self.events(), ["open", "timeout 30", "write magic", "close: stopped"])

    def test_OfADriverWithoutMagicCloseTheDeviceIsKeptOpenUntilTheReset(self):
        # Any close would stop such a driver.
        driver = self.driver_that("if (request == WDIOC_GETSUPPORT) {"
                                  " ((struct watchdog_info*)argument)->options &= ~(unsigned)WDIOF_MAGICCLOSE; }")
        command = shell("watchdog", "run", DEVICE, "--interval", SOON, "--")
        # Also when a signal has come before, or comes then.
        slow = "trap : TERM; touch trapped; while :; do sleep 0.3; done"
        signalled = (f"set -m; {driver} {command} false & until grep -q 'is kept open' said; do sleep 0.3; done; "
                     f"kill -TERM $!; wait $!")
        earlier = (f"set -m; {driver} {shell('watchdog', 'run', DEVICE, '--interval', SOON, '--check', 'test ! -e trapped', '--')} "
                   f"sh -c '{slow}' & until test -e trapped; do sleep 0.3; done; kill -TERM $!; wait $!")
        for name, script in (("none", f"{driver} {command} false"), ("then", signalled), ("before", earlier)):
            with self.subTest(signal=name):
                result = self.board("bash", "-c", f"exec 2> said; {script}; echo it has ended", log="log")
                self.assertEqual((result.status, result.out), (RESET, ""))
                self.assertIn("boardctl: this driver has no magic close and would stop at any close: /dev/watchdog is "
                              "kept open until the reset.\n", pathlib.Path("said").read_text())
                self.assertNotIn("close: not stopped", self.events()[:-1])
                os.remove("log")

    def test_AFeedingThatFailsIsToldAndWithoutMagicCloseTheDeviceIsKeptOpenUntilTheReset(self):
        driver = self.driver_that("if (request == WDIOC_GETSUPPORT) {"
                                  " ((struct watchdog_info*)argument)->options &= ~(unsigned)WDIOF_MAGICCLOSE; }"
                                  " if (request == WDIOC_KEEPALIVE) { result = -1; }")
        feed = shell("watchdog", "feed", DEVICE, "--interval", SOON)
        result = self.board("sh", "-c", f"{driver} {feed}; echo it has ended", log="log")
        self.assertEqual((result.status, result.out), (RESET, ""))
        self.assertIn(f"boardctl: Feeding failed: THE BOARD RESETS within {SOON} s.\n", result.err)
        self.assertNotIn("close: not stopped", self.events()[:-1])

    def test_KilledOtherwiseTheBoardResetsAsTheHelpSays(self):
        script = f"{shell('watchdog', 'feed', DEVICE, '--interval', '1')} & until grep -qs 'timeout 1' log; do sleep 0.3; done; kill -KILL $!; sleep 60"
        self.assertEqual(self.board("sh", "-c", script, log="log").status, RESET)
        for verb in "feed", "run":
            with self.subTest(verb=verb):
                self.assertIn(" killed", ctl("watchdog", verb, "--help").out)

    def test_FedRarelyItIsDisarmedAtOnceByASignal(self):
        feed = shell("watchdog", "feed", DEVICE, "--interval", "65535", "--every", "60000")
        script = f"set -m; {feed} 2> said & until grep -qs 'is armed' said; do sleep 0.3; done; kill -INT $!; wait $!"
        result = self.board("bash", "-c", script, log="log")
        self.assertEqual((result.status, result.out), (130, ""))
        self.assertEqual(pathlib.Path("said").read_text().splitlines(), [
            "boardctl: /dev/watchdog is armed: the board resets when it is not fed for 65535 s; it is fed every 60000 s.", DISARMED])
        self.assertEqual(self.events(), ["open", "timeout 65535", "write magic", "close: stopped"])

    def test_NobodyReadingItsWordsItFeedsOn(self):
        feed = f"echo $$ > pid; exec {shell('watchdog', 'feed', DEVICE, '--interval', SOON)} 2>&1"
        script = (f"set -m; {{ sh -c {shlex.quote(feed)}; echo $? > status; }} | head -n 0 & {self.fed_longer_than_the_time_out()}; "
                  "kill -INT $(cat pid); until test -s status; do sleep 0.3; done")
        result = self.board("bash", "-c", script, log="log")
        self.assertEqual((result.status, pathlib.Path("status").read_text()), (0, "130\n"), result.err)
        self.assertEqual(self.events()[-1], "close: stopped")

    def test_NobodyTakingItsWordsItIsFedOnAndASignalDisarmsIt(self):
        os.mkfifo("words")
        os.chmod("words", 0o666)
        end = os.open("words", os.O_RDWR | os.O_NONBLOCK)
        self.addCleanup(os.close, end)
        while True:
            try:
                os.write(end, b"x")
            except BlockingIOError:
                break
        script = (f"set -m; {shell('watchdog', 'feed', DEVICE, '--interval', SOON)} 2> words & {self.fed_longer_than_the_time_out()}; "
                  "kill -INT $!; wait $!")
        result = self.board("bash", "-c", script, log="log")
        self.assertEqual(result.status, 130, result.err)
        self.assertEqual(self.events(), ["open", f"timeout {SOON}", "write magic", "close: stopped"])

    def test_TheHelpOfShowSaysWhoFeedsInWhichState(self):
        said = " ".join(ctl("watchdog", "show", "--help").out.split())
        self.assertIn("active: a program has armed it, and it counts. If nobody has it open, the board will reset.", said)
        self.assertIn("inactive: no program has armed it. The kernel may be feeding one that the boot loader started.", said)

    def test_TheFirstLineOfTheHelpSaysThatTheBoardResets(self):
        for verb in "feed", "run":
            with self.subTest(verb=verb):
                self.assertEqual(ctl("watchdog", verb, "--help").out.splitlines()[0], "If feeding stops, THE BOARD RESETS.")


class WatchdogAsAnOrdinaryUser(Watchdog):
    user = "ordinary"
    # These wait for resets, and rights make no difference to them.
    test_ACheckThatHangsIsEndedWithAllItStartedAndFailed = None
    test_AChildThatOutlivesTheCommandDoesNotKeepItCounting = None
    test_ItIsFedOnlyWhileTheFileIsTouched = None


if __name__ == "__main__":
    main()

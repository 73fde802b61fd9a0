#!/usr/bin/env python3
"""The report: the board on one page."""
import gzip
import os
import pathlib
import platform
import re
import shlex

from ctl import BOARDCTL, WATCHDOG_NOT_OPENED, finish, main, shell, start, TestCase, without_rights, works

SECTIONS = ["versions", "load and memory", "serial ports", "watchdogs", "physical memory", "network", "unusual"]


HIDDEN = "Not all processes are visible: one that is not may have a device open."


class Report(TestCase):
    def report(self, *steps, options=()):
        result = self.board("sh", "-c", "; ".join([*steps, shell("--json", "report")]), options=options)
        self.assertEqual((result.status, result.err), (0, ""))
        self.assertEqual(len(result.objects), 1)
        return result.objects[0]

    def unusual(self, report):
        for remark in report["unusual"]:
            self.assertTrue(remark["what"] and remark["remedy"], remark)
        return " ".join(remark["what"] for remark in report["unusual"])

    def test_ThePageHasEverySectionAndFitsTheScreenOfAnEditor(self):
        result = self.on_board("report")
        self.assertEqual((result.status, result.err), (0, ""))
        lines = result.out.splitlines()
        self.assertEqual([line for line in lines if not line.startswith(" ")], SECTIONS)
        self.assertLessEqual(len(lines), 60)
        self.assertIn(f"  kernel      {platform.system()} {platform.release()}, {platform.machine()}", lines)
        self.assertTrue(any(line.startswith("  library     /") and "libboardkit.so." in line for line in lines), result.out)
        # No remark without its remedy.
        whats = lines[lines.index("unusual") + 1:]
        self.assertEqual(len(whats) % 2, 0)
        self.assertTrue(all(line.startswith("    remedy: ") for line in whats[1::2]), whats)

    def test_JsonHasAllOfItInOneObject(self):
        report = self.report("ip addr add 192.0.2.10/24 dev eth0", "ip route add default via 192.0.2.1 dev eth0")
        self.assertEqual(list(report), ["schema", "kind", "time", "versions", "load", "memory", "serial_ports", "watchdogs",
                                        "physical_memory", "interfaces", "gateways", "unusual"])
        versions = report["versions"]
        self.assertEqual(versions["kernel"], f"{platform.system()} {platform.release()}")
        self.assertRegex(versions["library_file"], r"^/.*/libboardkit\.so\.\d+")
        self.assertRegex(versions["ip"], r"^ip utility, iproute2-|^BusyBox v")
        self.assertTrue(os.access(versions["ip_file"], os.X_OK))
        self.assertEqual(report["memory"]["total_bytes"] // 2**20, os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") // 2**20)
        self.assertEqual([port["device"] for port in report["serial_ports"]], ["/dev/ttyS1"])
        self.assertEqual([dog["device"] for dog in report["watchdogs"]], ["/dev/watchdog0"])
        self.assertTrue(report["physical_memory"]["usable"])
        self.assertEqual([(each["interface"], each["up"]) for each in report["interfaces"]],
                         [("lo", True), ("eth0", True), ("eth1", False)])
        self.assertIn("192.0.2.10/24", report["interfaces"][1]["addresses"])
        self.assertEqual(report["gateways"], [{"family": "ipv4", "gateway": "192.0.2.1", "interface": "eth0"}])
        self.assertNotIn("gateway", self.unusual(report))
        self.assertNotIn("has an address", self.unusual(report))

    def test_WhoHasADeviceOpenIsTold(self):
        report = self.report("exec 5<>/dev/ttyS1",
                             f"{shell('watchdog', 'feed', '/dev/watchdog')} 2> fed & until grep -qs armed fed; do sleep 0.3; done",
                             "trap 'kill -TERM $!; wait $!' EXIT")
        self.assertIn("sh", [holder["name"] for holder in report["serial_ports"][0]["held_by"]])
        self.assertEqual([holder["name"] for holder in report["watchdogs"][0]["held_by"]], ["boardctl"])

    def test_TheWatchdogIsNotOpened(self):
        self.board(BOARDCTL, "report", log="log")
        self.assertNotIn("/dev/watchdog", pathlib.Path("log").read_text())

    def test_WhatIsUnusualIsToldWithItsRemedy(self):
        for steps, options, what in [
                (["ip addr flush dev eth0"], [], "No interface but lo has more than a link-local address."),
                ([], [], "No interface but lo has more than a link-local address."),  # the link-local one reaches nobody else's network
                ([], [], "There is no default gateway."),
                ([], ["--watchdog", "none"], "There is no watchdog."),
                ([], ["--mem", "none"], "Registers can't be read: the kernel has no such device (CONFIG_DEVMEM)."),
                (["rm /dev/watchdog0"], [], f"/dev/watchdog0 can't be examined:{WATCHDOG_NOT_OPENED}: No such file"),
                (["export PATH=/nowhere"], [], "There is no working ip: "),
                (["export PATH=/nowhere"], [], "The gateway of ipv4 is not known: ")]:
            with self.subTest(what=what):
                self.assertIn(what, self.unusual(self.report(*steps, options=options)))

    def test_ADefaultRouteWithoutAGatewayIsToldWithTheWayToOne(self):
        steps = ["ip addr add 192.0.2.10/24 dev eth0", "ip route add default dev eth0"]
        result = self.board("sh", "-c", "; ".join([*steps, shell("report"), shell("net", "show")]))
        self.assertIn("\n  gateway     none, but a default route of ipv4\n", result.out)
        self.assertIn("\n  The default route of ipv4 has no gateway, or several.\n"
                      "    remedy: If it should: ip -4 route del default, then boardctl net gateway.\n", result.out)
        self.assertNotIn("There is no default gateway.", result.out)
        self.assertIn("\ngateway ipv4  none, but a default route\ngateway ipv6  none\n", result.out)
        # The remedy works.
        report = self.report(*steps, "ip -4 route del default", shell("net", "gateway", "eth0", "192.0.2.1") + " > set")
        self.assertNotIn("gateway", self.unusual(report))

    def test_ABoardWithoutASerialPortIsUnusual(self):
        report = self.elsewhere("echo no device > file; mount --bind file /dev/ttyS1", "--json").objects[0]
        self.assertEqual(report["serial_ports"], [])
        self.assertIn({"what": "There is no serial port.", "remedy": "Load its driver, or check the device tree."},
                      report["unusual"])

    def test_ABusyBoardAndAWrongClockAreUnusual(self):
        other = self.before_the_c_library("""
            #include <stdlib.h>
            #include <sys/syscall.h>
            #include <sys/sysinfo.h>
            #include <time.h>
            #include <unistd.h>
            static int is_over(void) {
              return getenv("OVER") != 0;
            }
            int sysinfo(struct sysinfo* information) {
              int result = (int)syscall(SYS_sysinfo, information);
              information->loads[0] = 2UL * (unsigned long)sysconf(_SC_NPROCESSORS_ONLN) * 65536 + is_over();
              return result;
            }
            int clock_gettime(clockid_t clock, struct timespec* time) {
              int result = (int)syscall(SYS_clock_gettime, clock, time);
              time->tv_sec = clock == CLOCK_REALTIME ? 1577836799 + is_over() : time->tv_sec;
              return result;
            }""")
        over, at = (result.objects[0] for result in (
            self.board("sh", "-c", f"{before} {other} {shell('--json', 'report')}") for before in ("OVER=1", "")))
        busy = {"what": "More is running than the processors can handle.", "remedy": "Find out what is running: top."}
        wrong = {"what": "The clock is wrong.", "remedy": "Set it: date -s, or a time service."}
        self.assertEqual([remark in over["unusual"] for remark in (busy, wrong)], [True, False])
        self.assertEqual([remark in at["unusual"] for remark in (busy, wrong)], [False, True])
        self.assertEqual(at["load"]["load_1min"], 2 * os.sysconf("SC_NPROCESSORS_ONLN"))
        self.assertEqual((at["time"][:19], over["time"][:19]), ("2019-12-31T23:59:59", "2020-01-01T00:00:00"))

    def test_WhatTheUserMayNotDoIsToldWithItsRemedy(self):
        result = self.board("sh", "-c", f"chmod 000 /dev/ttyS1 /dev/mem; {without_rights('--json', 'report')}")
        self.assertEqual((result.status, result.err), (0, ""))
        report = result.objects[0]
        remedies = {remark["what"]: remark["remedy"] for remark in report["unusual"]}
        self.assertEqual(remedies["/dev/ttyS1 may not be opened: Permission denied."],
                         "Run as root, or join the device's group (dialout).")
        self.assertEqual(remedies["Registers can't be read: the user may not open it."], "Run as root.")
        self.assertFalse(report["physical_memory"]["usable"])

    def test_ARootWhoMayNotLookIntoAllProcessesIsToldSo(self):
        remark = {"what": HIDDEN, "remedy": "Run the report as root with all capabilities, not in a container."}
        self.assertIn(remark, self.report()["unusual"])  # the simulator's are not visible on its board
        cases = [["unshare", "--map-root-user", "--net"],  # those of the users outside
                 ["unshare", "--map-root-user", "--net", "--pid", "--fork", "--mount-proc"],
                 ["unshare", "--net", "--pid", "--fork", "--mount-proc"]]  # /proc shows none from outside
        if os.geteuid() == 0:
            # Others have no rights to lose, and some versions of the command do not mind.
            cases.append(["setpriv", "--bounding-set=-all", "--inh-caps=-all"])
        for words in cases:
            if works(*words, "true"):
                with self.subTest(words=words):
                    self.assertIn(remark, finish(start([*words, BOARDCTL, "--json", "report"])).objects[0]["unusual"])

    def elsewhere(self, script, *words):
        """A report on a board whose kernel reports other things, which the script puts in the place of what there is."""
        self.need_mounts_of_its_own()
        result = self.board("unshare", "--map-root-user", "--mount", "sh", "-ec", f"{script}\n{without_rights(*words, 'report')}")
        self.assertEqual((result.status, result.err), (0, ""))
        return result

    def test_ScarceMemoryIsUnusual(self):
        for kib, is_scarce in (1000, True), (2**40, False):
            with self.subTest(kib=kib):
                report = self.elsewhere(f"echo 'MemAvailable: {kib} kB' > told; mount --bind told /proc/meminfo", "--json").objects[0]
                self.assertEqual(report["memory"]["available_bytes"], kib * 1024)
                self.assertEqual("Less than a tenth of the memory is available." in self.unusual(report), is_scarce)

    def test_WhyMemoryMayNotBeUsedIsToldByKernelOptionLockdownAndCapability(self):
        locked = "mount -t tmpfs none /sys/kernel/security; echo 'none [integrity] confidentiality' > /sys/kernel/security/lockdown"
        if os.path.isdir("/sys/kernel/security"):
            report = self.elsewhere(f"{locked}; chmod 000 /dev/mem", "--json").objects[0]
            self.assertEqual(report["physical_memory"]["why_not"], "the kernel is locked down: none [integrity] confidentiality")
            self.assertIn({"what": "Registers can't be read: the kernel is locked down: none [integrity] confidentiality.",
                           "remedy": "Boot without lockdown=, and with Secure Boot off."}, report["unusual"])
            # It is no reason where it lets the device be opened.
            self.assertTrue(self.elsewhere(locked, "--json").objects[0]["physical_memory"]["usable"])
        if os.path.isdir("/boot"):
            guarded = "mount -t tmpfs none /boot; echo CONFIG_STRICT_DEVMEM=y > /boot/config-$(uname -r)"
            self.assertIn("  /dev/mem    may be used, but not for memory that the kernel itself uses (CONFIG_STRICT_DEVMEM)\n",
                          self.elsewhere(guarded).out)
            self.assertEqual(self.elsewhere(guarded, "--json").objects[0]["physical_memory"]["strict_devmem"], True)

    def test_OfAllCapabilitiesOneDecidesWhetherMemoryMayBeUsed(self):
        if not works("unshare", "--map-root-user", "true"):
            self.skipTest("user namespaces are forbidden here")
        for capability in "sys_module", "sys_rawio":
            with self.subTest(capability=capability):
                without = [f"--bounding-set=-{capability}", f"--inh-caps=-{capability}"]
                result = self.board("unshare", "--map-root-user", "setpriv", *without, BOARDCTL, "--json", "report")
                self.assertEqual(result.objects[0]["physical_memory"]["cap_sys_rawio"], capability != "sys_rawio")

    def test_TheKernelsOptionsAreItsOwnWhereNoFileHasThem(self):
        pathlib.Path("tools").mkdir()
        zcat = pathlib.Path("tools/zcat")
        for told, strict in (("CONFIG_STRICT_DEVMEM=y", True), ("# CONFIG_STRICT_DEVMEM is not set", False),
                             ("CONFIG_IO_STRICT_DEVMEM=y", False), ("CONFIG_SMP=y", None)):
            with self.subTest(told=told):
                zcat.write_text(f'#!/bin/sh\ntest "$*" = /proc/config.gz && echo "CONFIG_X=y\n{told}\nCONFIG_Y=y"\n')
                zcat.chmod(0o755)
                report = self.elsewhere(f"if test -d /boot; then mount -t tmpfs none /boot; fi; PATH={self.folder}/tools:$PATH", "--json")
                self.assertEqual(report.objects[0]["physical_memory"]["strict_devmem"], strict)
        if os.path.exists("/proc/config.gz"):
            with gzip.open("/proc/config.gz", "rt") as options:
                is_strict = "CONFIG_STRICT_DEVMEM=y\n" in options
            report = self.elsewhere("if test -d /boot; then mount -t tmpfs none /boot; fi", "--json")
            self.assertEqual(report.objects[0]["physical_memory"]["strict_devmem"], is_strict)

    def test_TheIpThatTheLibraryRunsIsNamed(self):
        pathlib.Path("tools").mkdir()
        pathlib.Path("tools/ip").write_text("#!/bin/sh\necho 'BusyBox v9.8.7 (built today) multi-call binary.' >&2; exit 1\n")
        pathlib.Path("tools/ip").chmod(0o755)
        report = self.report(f"PATH={shlex.quote(self.folder)}/tools:$PATH")
        versions = report["versions"]
        self.assertEqual((versions["ip"], versions["ip_file"]), ("BusyBox v9.8.7", os.path.realpath("tools/ip")))
        self.assertIn(f"The shell runs its own ip, not {os.path.realpath('tools/ip')}.", self.unusual(report))

    def test_NoSecretsAreNamed(self):
        os.environ["BOARD_PASSWORD"] = "topsecret1"
        self.addCleanup(os.environ.pop, "BOARD_PASSWORD")
        script = ("sh -c 'exec 5<>/dev/ttyS1; sleep 100; :' topsecret2 & "
                  f"until {shell('serial', 'list')} | grep -q 'open by sh'; do :; done; {shell('--json', 'report')}; {shell('report')}; kill $!")
        result = self.board("sh", "-c", script)
        self.assertNotIn("topsecret", result.out + result.err)


class ReportAsAnOrdinaryUser(Report):
    user = "ordinary"

    def test_ProcessesThatAreNotVisibleAreRemarked(self):
        # On the simulated board everybody is root.
        place = self.programs_for_all()
        lower = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
        environment = {**os.environ, "LD_LIBRARY_PATH": str(place), "GCOV_PREFIX": self.folder}
        cases = [lower]
        # Before Linux 5.8, the option would be that of the machine's /proc, too.
        if tuple(int(part) for part in platform.release().split(".")[:2]) >= (5, 8):
            # The files of others may not be listed; and it does not even show that there are others.
            cases.extend(["unshare", "--mount", "sh", "-c", f"mount -t proc -o hidepid={kind} proc /proc && exec \"$0\" \"$@\"", *lower]
                         for kind in (1, 2))
        for words in cases:
            if not words or works(*words, "true"):
                with self.subTest(words=words):
                    report = finish(start([*words, place / "boardctl", "--json", "report"], env=environment)).objects[0]
                    self.assertIn({"what": HIDDEN, "remedy": "Run the report as root."}, report["unusual"])
                    self.assertNotIn(True, [device["held_by_complete"] for device in report["serial_ports"] + report["watchdogs"]])


class OnAnotherNetwork(TestCase):
    def test_AHostileNameIsToldAndRunsNothing(self):
        for name in ("e0;touch trapped", "$(x)", "e0;reboot"):
            with self.subTest(name=name):
                name = name.replace(" ", "")
                script = f"ip link add '{name}' type veth peer name v1; {shell('--json', 'report')}"
                result = finish(start([*self.own_network(), "sh", "-c", script]))
                self.assertEqual(result.status, 0, result.err)
                self.assertIn(f'the name of the interface "{name}"', result.objects[0]["unusual"].__repr__())
                self.assertIn(name, [each["interface"] for each in result.objects[0]["interfaces"]])
                self.assertEqual(os.listdir("."), [])


if __name__ == "__main__":
    main()

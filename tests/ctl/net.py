#!/usr/bin/env python3
"""IP addresses and gateways, on the simulated board's network or in a network namespace of the test's own."""
import os
import pathlib
import shutil
import signal

from ctl import BOARDCTL, NO_IP, finish, main, shell, start, TestCase

ADDRESS = "192.0.2.10/24"
# The kernel gives it its link-local address a moment later, and must not do so after what the test does.
ETH1_UP = "ip link set eth1 up; until ip -6 addr show dev eth1 | grep -q fe80; do sleep 0.3; done"


class OnANetwork(TestCase):
    def script(self, *steps):
        """Steps of a shell on a board; what ip is called with stands in the file asked."""
        # It notes the calls and hands them on.
        real = shutil.which("ip")
        path = pathlib.Path("tools")
        if not path.exists():
            path.mkdir()
            (path / "ip").write_text(f'#!/bin/sh\necho "ip $*" >> "{self.folder}/calls"\nexec {real} "$@"\n')
            (path / "ip").chmod(0o755)
        pathlib.Path("calls").write_text("")
        pathlib.Path("calls").chmod(0o666)
        return self.board("sh", "-c", "; ".join([f"PATH={self.folder}/tools:$PATH", *steps]))

    def calls(self):
        return pathlib.Path("calls").read_text().splitlines()


class Net(OnANetwork):
    def test_ShowTellsInterfacesAddressesAndGateways(self):
        result = self.script(f"ip addr add {ADDRESS} dev eth0", "ip route add default via 192.0.2.1 dev eth0",
                             shell("--json", "net", "show"), shell("net", "show", "eth0"))
        self.assertEqual((result.status, result.err), (0, ""))
        lines = result.out.splitlines()
        objects = [line for line in lines if line.startswith("{")]
        self.assertEqual(len(objects), 5)
        self.assertEqual(objects[1], '{"schema":1,"kind":"net_interface","interface":"eth0","up":true,'
                         '"link":"02:00:00:00:00:01","ipv4":"192.0.2.10","ipv4_prefix_length":24,'
                         '"ipv6":"fe80::ff:fe00:1","ipv6_prefix_length":64,'
                         '"addresses":["192.0.2.10/24","fe80::ff:fe00:1/64"]}')
        self.assertEqual(objects[2], '{"schema":1,"kind":"net_interface","interface":"eth1","up":false,'
                         '"link":"02:00:00:00:00:02","ipv4":null,"ipv4_prefix_length":null,'
                         '"ipv6":null,"ipv6_prefix_length":null,"addresses":[]}')
        self.assertEqual(objects[3:], [
            '{"schema":1,"kind":"net_gateway","family":"ipv4","gateway":"192.0.2.1","interface":"eth0"}',
            '{"schema":1,"kind":"net_gateway","family":"ipv6","gateway":null,"interface":null}'])
        self.assertEqual(lines[5:], ["eth0  up, hardware address 02:00:00:00:00:01", "  192.0.2.10/24, fe80::ff:fe00:1/64",
                                     "gateway ipv4  192.0.2.1 on eth0", "gateway ipv6  none"])

    def test_AnAddressWithALabelIsOneOfItsInterface(self):
        result = self.script(f"ip addr add {ADDRESS} dev eth0 label eth0:1", shell("net", "show"))
        self.assertEqual([line.split()[0] for line in result.out.splitlines() if line[0] != " "],
                         ["lo", "eth0", "eth1", "gateway", "gateway"])
        self.assertIn("  192.0.2.10/24, ", result.out)

    def test_AnAddressIsSetReplacedAndLeftAlone(self):
        result = self.script(shell("net", "address", "eth0", ADDRESS),
                             shell("net", "address", "eth0", "192.0.2.11/25"),
                             shell("net", "address", "eth0", "192.0.2.11/25") + "; echo $?",
                             shell("net", "address", "--changed", "eth0", "192.0.2.11/25") + "; echo $?",
                             shell("net", "address", "--changed", "eth0", "192.0.2.12/25") + "; echo $?",
                             "ip -4 addr show dev eth0 | grep inet")
        self.assertEqual(result.out.splitlines()[:8], [
            "eth0  was none, now 192.0.2.10/24: changed",
            "eth0  was 192.0.2.10/24, now 192.0.2.11/25: changed",
            "eth0  is 192.0.2.11/25: nothing had to be changed", "0",
            "eth0  is 192.0.2.11/25: nothing had to be changed", "3",
            "eth0  was 192.0.2.11/25, now 192.0.2.12/25: changed", "0"])
        self.assertEqual(result.out.splitlines()[8].split()[:2], ["inet", "192.0.2.12/25"])

    def test_AnIpv6AddressIsTakenInAnySpellingAndComparedInItsShortOne(self):
        result = self.script(shell("--json", "net", "address", "eth1", "2001:0DB8:0::0010/64"),
                             shell("net", "address", "--changed", "eth1", "2001:db8::0:10/64") + "; echo $?",
                             shell("net", "address", "eth1", "2001:db8::10/48"))
        first, *rest = result.out.splitlines()
        self.assertEqual(first, '{"schema":1,"kind":"net_change","what":"address","interface":"eth1","family":"ipv6","before":null,'
                         '"wanted":"2001:db8::10/64","after":"2001:db8::10/64","changed":true,"dry_run":false,'
                         '"commands":["ip -6 addr add 2001:db8::10/64 dev eth1"]}')
        self.assertEqual(rest, ["eth1  is 2001:db8::10/64: nothing had to be changed", "3",
                                "eth1  was 2001:db8::10/64, now 2001:db8::10/48: changed"])

    def test_ADryRunPrintsWhatTheRealRunRunsAndRunsOnlyQueries(self):
        # The commands of a real run are the library's own account of it.
        changing = (["address", "eth0", "192.0.2.20/24"], ["address", "eth0", "192.0.2.20/24", "--flush"],
                    ["address", "eth0", "2001:db8::20/64"], ["address", "eth1", "192.0.2.20/24"],
                    ["link-local", "eth1"], ["link-local", "eth1", "--flush"],
                    ["gateway", "eth0", "192.0.2.2"], ["gateway", "eth0", "2001:db8::2"],
                    ["clear", "address", "eth0"], ["clear", "address", "eth0", "--flush"],
                    ["clear", "address", "eth0", "--ipv6"], ["clear", "gateway"], ["clear", "gateway", "eth0"])
        for words in (*changing, ["clear", "gateway", "--ipv6"], ["clear", "address", "eth1"]):
            with self.subTest(words=words):
                setup = ["set -e; printf '%s\\n' 'addr add 192.0.2.10/24 dev eth0' 'addr add 192.0.2.30/24 dev eth0' "
                         "'addr add 2001:db8::10/64 dev eth0 nodad' 'route add default via 192.0.2.1 dev eth0' | ip -batch -"]
                if "eth1" in words:
                    setup += [ETH1_UP, "ip addr flush dev eth1"]
                result = self.script(*setup, "> calls", shell("--dry-run", "net", *words), "cp calls dry; > calls",
                                     shell("--dry-run", "--json", "net", *words), shell("--json", "net", *words),
                                     f"cp calls real; > calls; {shell('--json', 'net', *words)} > /dev/null")
                *told, dry, real = result.out.splitlines()
                commands = dry[dry.index('"commands"'):]
                self.assertEqual(commands, real[real.index('"commands"'):], result.err)
                # And only one of them changed something, where there was something to change.
                is_needed = words in changing
                self.assertEqual('"commands":[]' not in real, is_needed)
                self.assertIn('"changed":false,"dry_run":true', dry)
                self.assertIn(f'"changed":{str(is_needed).lower()},"dry_run":false', real)
                asked = [line[11:] for line in told if line[:11] in ("asked      ", "           ")]
                would = []
                if any(line.startswith("would run  ") for line in told):
                    first = [line.startswith("would run  ") for line in told].index(True)
                    would = [line[11:] for line in told[first:]]
                    asked = [line[11:] for line in told[:first]]
                else:
                    self.assertEqual(told[-1], "nothing has to be changed")
                    asked = [line[11:] for line in told[:-1]]
                # What is shown was run, and what was run is shown.
                self.assertEqual(pathlib.Path("dry").read_text().splitlines(), asked)
                self.assertEqual([line for line in pathlib.Path("real").read_text().splitlines() if " show" not in line], would)
                self.assertTrue(all(" show" in line for line in asked), asked)

    def test_WhatIsNotThereToBeRemovedIsToldInWords(self):
        result = self.script("ip addr flush dev eth0", *(shell("net", "clear", *words) for words in [
            ("address", "eth0"), ("address", "eth0", "--ipv6"), ("gateway",), ("gateway", "eth0", "--ipv6")]))
        self.assertEqual(result.out.splitlines(), [there + ": nothing had to be changed" for there in [
            "eth0 has no IPv4 address", "eth0 has no IPv6 address", "there is no IPv4 default route",
            "there is no IPv6 default route"]], result.err)

    def test_AFailureThatChangesNothingIsToldSo(self):
        result = self.script(f"ip addr add {ADDRESS} dev eth0", shell("net", "gateway", "eth0", "198.51.100.1"))
        self.assertIn("boardctl: that failed: nothing has changed.\nboardctl: net gateway: ", result.err)

    def test_TheLossOfTheDefaultRouteIsTold(self):
        setup = [f"ip addr add {ADDRESS} dev eth0", "ip route add default via 192.0.2.1 dev eth0"]
        result = self.script(*setup, shell("--dry-run", "net", "address", "eth0", "192.0.2.11/24"),
                             shell("net", "address", "eth0", "192.0.2.11/24"), "ip -4 route show")
        self.assertEqual(result.err.splitlines(), [
            "boardctl: the default route will be removed too; set it again then with: boardctl net gateway eth0 192.0.2.1",
            "boardctl: the default route was removed too; set it again with: boardctl net gateway eth0 192.0.2.1"])
        self.assertNotIn("default", result.out.splitlines()[-1])
        # With another address left it stays.
        result = self.script(*setup, "ip addr add 198.51.100.9/24 dev eth0", shell("--dry-run", "net", "address", "eth0", "192.0.2.11/24"),
                             shell("net", "address", "eth0", "192.0.2.11/24"), "ip -4 route show default")
        self.assertEqual(result.err, "")
        self.assertIn("default via 192.0.2.1", result.out)
        # Unless that one goes as well.
        result = self.script(*setup, "ip addr add 198.51.100.9/24 dev eth0",
                             shell("--dry-run", "net", "address", "eth0", "192.0.2.11/24", "--flush"))
        self.assertEqual(result.err, "boardctl: the default route will be removed too; set it again then with: boardctl net gateway eth0 192.0.2.1\n")
        # As one of the same network with another length does, of which it is no secondary one.
        result = self.script(*setup, "ip addr add 192.0.2.9/25 dev eth0", shell("--dry-run", "net", "address", "eth0", "192.0.2.11/24"),
                             shell("net", "address", "eth0", "192.0.2.11/24"), "ip -4 route show default")
        self.assertEqual(result.err, "")
        self.assertIn("default via 192.0.2.1", result.out)
        # Where no address goes, because it is right or because there is none, it stays.
        for steps in setup, ["ip route add default via 192.0.2.1 dev eth0 onlink"]:
            with self.subTest(steps=steps):
                result = self.script(*steps, shell("--dry-run", "net", "address", "eth0", ADDRESS),
                                     shell("net", "address", "eth0", ADDRESS), "ip -4 route show default")
                self.assertEqual(result.err, "")
                self.assertIn("default via 192.0.2.1", result.out)
        # By another interface it stays.
        result = self.script("ip link set eth1 up", *(step.replace("eth0", "eth1") for step in setup),
                             "ip addr add 198.51.100.9/24 dev eth0",
                             shell("--dry-run", "net", "address", "eth0", "198.51.100.10/24"))
        self.assertEqual((result.status, result.err), (0, ""))

    def test_AnAddressThatIsThereButNotFirstIsLeftAndSaidSo(self):
        result = self.script("ip addr add 192.0.2.10/24 dev eth0", "ip addr add 192.0.2.11/24 dev eth0", "> calls",
                             shell("net", "address", "eth0", "192.0.2.11/24") + "; echo $?; cp calls first",
                             shell("net", "address", "eth0", "192.0.2.11/24", "--flush"))
        self.assertEqual(result.out.splitlines(), ["1", "eth0  was 192.0.2.10/24, now 192.0.2.11/24: changed"])
        self.assertIn("eth0 has 192.0.2.11/24 already, but not as its first address", result.err)
        self.assertTrue(all(" show" in line for line in pathlib.Path("first").read_text().splitlines()))
        result = self.script("ip -6 addr add 2001:db8::10/64 dev eth0 nodad", "> calls", shell("net", "link-local", "eth0"))
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertIn("eth0 has fe80::ff:fe00:1/64 already, but not as its first address", result.err)
        self.assertTrue(all(" show" in line for line in self.calls()))

    def test_TheLinkLocalAddressIsSetOnceAndLeftAlone(self):
        result = self.script(shell("net", "link-local", "--changed", "eth0") + "; echo $?",
                             ETH1_UP, "ip -6 addr flush dev eth1", shell("net", "link-local", "eth1"),
                             shell("net", "link-local", "--changed", "eth1") + "; echo $?",
                             shell("net", "link-local", "lo") + "; echo $?")
        self.assertIn("boardctl: net link-local: lo has no usable hardware address\n", result.err)
        self.assertEqual(result.out.splitlines(), [
            "eth0  is fe80::ff:fe00:1/64: nothing had to be changed", "3",
            "eth1  was none, now fe80::ff:fe00:2/64: changed",
            "eth1  is fe80::ff:fe00:2/64: nothing had to be changed", "3", "1"])

    def test_AGatewayIsSetReplacedClearedAndLeftAlone(self):
        result = self.script(f"ip addr add {ADDRESS} dev eth0", shell("net", "gateway", "eth0", "192.0.2.1"),
                             shell("net", "gateway", "--changed", "eth0", "192.0.2.1") + "; echo $?",
                             shell("--json", "net", "gateway", "eth0", "192.0.2.2"),
                             shell("net", "clear", "gateway", "eth1") + "; echo $?",
                             shell("net", "clear", "gateway"), shell("net", "clear", "gateway", "--changed") + "; echo $?",
                             shell("--json", "net", "clear", "gateway"), shell("net", "show", "eth0"))
        self.assertEqual(result.out.splitlines()[:9], [
            "eth0  was none, now 192.0.2.1 on eth0: changed",
            "eth0  is 192.0.2.1 on eth0: nothing had to be changed", "3",
            '{"schema":1,"kind":"net_change","what":"gateway","interface":"eth0","family":"ipv4","before":"192.0.2.1 on eth0",'
            '"wanted":"192.0.2.2 on eth0","after":"192.0.2.2 on eth0","changed":true,"dry_run":false,"commands":'
            '["ip -4 route del default via 192.0.2.1 dev eth0","ip -4 route add default via 192.0.2.2 dev eth0"]}',
            "1", "was 192.0.2.2 on eth0, now none: changed", "there is no IPv4 default route: nothing had to be changed", "3",
            '{"schema":1,"kind":"net_change","what":"gateway","interface":null,"family":"ipv4","before":null,"wanted":null,'
            '"after":null,"changed":false,"dry_run":false,"commands":[]}'])
        self.assertIn("the default route goes via 192.0.2.2 on eth0, not via eth1: nothing is changed", result.err)
        self.assertIn("gateway ipv4  none", result.out)

    def test_WhatAFailedChangeLeavesIsTold(self):
        result = self.script(f"ip addr add {ADDRESS} dev eth0", "ip route add default via 192.0.2.1 dev eth0",
                             shell("net", "gateway", "eth0", "203.0.113.1") + "; echo $?", "ip -4 route show default")
        self.assertEqual(result.out, "1\n")
        self.assertIn("boardctl: that failed: it was 192.0.2.1 on eth0, now none.\n"
                      "boardctl: net gateway: Error: Nexthop has invalid gateway.\n  cause    ", result.err)

    def test_AGatewayThatIpRefusesIsToldWithCauseAndRemedy(self):
        lost = "The gateway lies in no network of the interface, or the interface is down."
        ipv6_lost = lost.replace("gateway", "IPv6 gateway", 1)
        for gateway, cause in [("203.0.113.1", lost), ("2001:db8:1::1", ipv6_lost),
                               ("2001:db8::1", "The gateway is an address of the board itself.")]:
            with self.subTest(gateway=gateway):
                result = self.script(f"ip addr add {ADDRESS} dev eth0", "ip addr add 2001:db8::1/64 dev eth0 nodad",
                                     shell("net", "gateway", "eth0", gateway))
                self.assertEqual((result.status, result.out), (1, ""))
                self.assertIn(f"\n  cause    {cause}\n  remedy   ", result.err)
        result = self.script("ip link add v1 type veth peer name v2; echo 1 > /proc/sys/net/ipv6/conf/v1/disable_ipv6",
                             shell("net", "address", "v1", "2001:db8::1/64"))
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertIn("\n  cause    IPv6 is switched off for the interface.\n  remedy   sysctl net.ipv6", result.err)

    def test_ASignalInTheMiddleOfAChangeLetsItBeCompletedAndTold(self):
        # Between the old address and the new one, ip waits until the signal has been sent: to all, as a terminal does.
        tools = pathlib.Path("tools")
        tools.mkdir()
        (tools / "ip").write_text('#!/bin/sh\ncase "$*" in *" add "*) touch adding; until test -e sent; do sleep 0.3; done;; esac\n'
                                  f'exec {shutil.which("ip")} "$@"\n')
        (tools / "ip").chmod(0o755)
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                steps = ["ip link set lo up", "ip addr add 192.0.2.9/24 dev lo", "ip addr del 127.0.0.1/8 dev lo", f"PATH={self.folder}/tools:$PATH",
                         "exec " + shell("net", "address", "lo", ADDRESS)]
                process = start([*self.own_network(), "sh", "-c", "; ".join(steps)], start_new_session=True)
                self.wait_until(lambda: os.path.exists("adding"), "the second half of the change")
                os.killpg(process.pid, number)
                pathlib.Path("sent").touch()
                result = finish(process)
                os.remove("adding")
                os.remove("sent")
                self.assertEqual((result.status, result.out, result.err),
                                 (128 + number, f"lo  was 192.0.2.9/24, now {ADDRESS}: changed\n", ""))

    def test_ASignalWhileIpIsAskedEndsItWithoutAFalseResult(self):
        # As a terminal's key sends it: to all.
        tools = pathlib.Path("tools")
        tools.mkdir()
        (tools / "ip").write_text("#!/bin/sh\n: > asked; exec sleep 600\n")
        (tools / "ip").chmod(0o755)
        for words, err in (["net", "show"], "boardctl: net show: a signal ended the command that it ran\n"), (["report"], ""):
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(words=words, number=number):
                    process = start(["sh", "-c", f"PATH={self.folder}/tools:$PATH; exec {shell(*words)}"], start_new_session=True)
                    self.wait_until(lambda: os.path.exists("asked"), "ip")
                    os.killpg(process.pid, number)
                    result = finish(process)
                    os.remove("asked")
                    self.assertEqual((result.status, result.out, result.err), (128 + number, "", err))

    def test_AnIpThatFailsWithoutAWordIsToldSo(self):
        result = self.board("sh", "-c", f"printf '#!/bin/sh\\nexit 1\\n' > ip; chmod 755 ip; PATH=.:$PATH; {shell('net', 'show')}")
        self.assertEqual((result.status, result.out), (1, ""))
        self.assertEqual(result.err, "boardctl: net show: the command that it ran failed and printed nothing\n")

    def test_ADefaultRouteWithoutAGatewayIsLeft(self):
        result = self.script(f"ip addr add {ADDRESS} dev eth0", "ip route add default dev eth0", "> calls",
                             shell("net", "gateway", "eth0", "192.0.2.1") + "; echo $?")
        self.assertEqual(result.out, "1\n")
        self.assertIn("the default route does not have exactly one gateway", result.err)
        self.assertEqual(self.calls(), ["ip -4 route show"])

    def test_AnInterfaceThatIsNotThereIsToldWithCauseAndRemedy(self):
        for words in (["show", "eth7"], ["address", "eth7", ADDRESS], ["link-local", "eth7"], ["clear", "address", "eth7"],
                      ["gateway", "eth7", "192.0.2.1"], ["clear", "gateway", "eth7"]):
            with self.subTest(words=words):
                result = self.on_board("net", *words)
                self.assertEqual((result.status, result.out), (1, ""))
                self.assertTrue(result.err.startswith(f'boardctl: net {words[0]}: Device "eth7" does not exist.\n  cause    There is '),
                                result.err)

    def test_AnotherNameOfAnInterfaceIsRefusedAndItsOwnNameTold(self):
        own = "is another name of eth0: use that one"
        names = {"front": own, "eth0:1": own, "if2": "is not the name of an interface: see boardctl net show"}
        setup = ["ip link property add dev eth0 altname front", f"ip addr add {ADDRESS} dev eth0 label eth0:1",
                 "ip route add default via 192.0.2.1 dev eth0"]
        for name, why in names.items():
            verbs = (["show", name], ["address", name, "192.0.2.12/24"], ["address", name, ADDRESS, "--flush"], ["link-local", name],
                     ["gateway", name, "192.0.2.1", "--changed"], ["gateway", name, "192.0.2.2"], ["clear", "address", name],
                     ["clear", "gateway", name])
            steps = [shell(*options, "net", *words) + "; echo $?" for words in verbs for options in ([], ["--dry-run"])
                     if not options or words[0] != "show"]
            with self.subTest(name=name):
                result = self.script(*setup, "> calls", *steps, "cp calls asked", "ip -4 route show default")
                *statuses, route = result.out.splitlines()
                self.assertEqual(statuses, ["1"] * len(steps), result.err)
                self.assertTrue(route.startswith("default via 192.0.2.1 dev eth0"), route)
                self.assertEqual(len(result.err.splitlines()), len(steps))
                for line in result.err.splitlines():
                    self.assertTrue(line.endswith(f": {name} {why}"), line)
                # Where the kernel itself does not know the name, ip is asked whether there is such an interface.
                self.assertEqual(set(pathlib.Path("asked").read_text().splitlines()),
                                 {"ip addr show dev if2"} if name == "if2" else set())

    def test_AnAddressWithAPeerIsLeftUnlessAllAreFlushedAndWhatWasThereIsTold(self):
        setup = ["ip addr add 10.9.9.9 peer 10.9.9.8/32 dev eth0", "ip addr add 10.9.9.7/32 dev eth0", "> calls"]
        there = "eth0 has 10.9.9.9/32 first, which can't be replaced or removed alone because ip does not list it as usual " \
                "(it may have a peer): nothing is changed; --flush removes all\n"
        for words in ["address", "eth0", "10.9.9.10/32"], ["address", "eth0", "10.9.9.9/32"], ["clear", "address", "eth0"]:
            with self.subTest(words=words):
                result = self.script(*setup, shell("net", *words))
                self.assertEqual((result.status, result.out, result.err), (1, "", f"boardctl: net {words[0]}: {there}"))
                self.assertEqual(self.calls(), ["ip addr show dev eth0"])
        for wanted in "10.9.9.10/32", "10.9.9.9/32":
            result = self.script(*setup, shell("--json", "net", "address", "eth0", wanted, "--flush"), "ip -4 -o addr show dev eth0")
            change, *left = result.out.splitlines()
            self.assertIn(f'"before":"10.9.9.9/32","wanted":"{wanted}","after":"{wanted}","changed":true,', change)
            self.assertEqual([line.split()[3] for line in left], [wanted])
        result = self.script(*setup, shell("net", "clear", "address", "eth0", "--flush"),
                             shell("net", "clear", "address", "eth0", "--flush"), "ip -4 addr show dev eth0")
        self.assertEqual(result.out, "eth0  was 10.9.9.9/32, now none: changed\neth0 has no IPv4 address: nothing had to be changed\n")
        # One after an ordinary address is what is left then, and is reported.
        result = self.script(f"ip addr add {ADDRESS} dev eth0", setup[0], shell("net", "clear", "address", "eth0"))
        self.assertEqual(result.out, f"eth0  was {ADDRESS}, now 10.9.9.9/32: changed\n")

    def test_ADefaultRouteThatRemainsIsTold(self):
        setup = [f"ip addr add {ADDRESS} dev eth0", "ip route add default via 192.0.2.1 dev eth0 metric 100"]
        clear = shell("net", "clear", "gateway") + "; echo $?"
        remains = "boardctl: another default route remains: see ip -4 route show default\n"
        result = self.script(*setup, "ip route add default via 192.0.2.2 dev eth0 metric 200", clear, clear)
        self.assertEqual((result.out, result.err), ("was 192.0.2.1 on eth0, now 192.0.2.2 on eth0: changed\n0\n"
                                                    "was 192.0.2.2 on eth0, now none: changed\n0\n", remains))
        result = self.script(*setup, "ip route add default dev eth0 metric 200", shell("--json", "net", "clear", "gateway"))
        self.assertEqual((result.status, result.err), (0, remains))
        self.assertIn('"before":"192.0.2.1 on eth0","wanted":null,"after":"none, but a default route","changed":true,', result.out)
        # It is not said of one that is to be there.
        result = self.script(*setup, "ip route add default via 192.0.2.2 dev eth0 metric 200", shell("net", "gateway", "eth0", "192.0.2.3"))
        self.assertEqual((result.out, result.err), ("eth0  was 192.0.2.1 on eth0, now 192.0.2.3 on eth0: changed\n", ""))

    def test_InterfacesOfTheNetworkThatItIsInAreCompleted(self):
        # Which the folder in /sys need not be of.
        result = finish(start([*self.own_network(), BOARDCTL, "__complete", "net", "show", "lo"]))
        self.assertEqual((result.status, result.out.split()), (0, ["lo"]), result.err)
        script = f"ip link add v1 type veth peer name v2; exec {shell('__complete', 'net', 'show', 'v')}"
        result = finish(start([*self.own_network(), "sh", "-c", script]))
        self.assertEqual((result.status, sorted(result.out.split())), (0, ["v1", "v2"]), result.err)

    def test_AnInterfaceWhoseNameWouldBeRefusedIsNotCompleted(self):
        result = self.board("sh", "-c", "ip link add name 'e;x' type veth peer name v1; " + shell("__complete", "net", "show", ""))
        self.assertEqual((result.status, result.out.split()), (0, ["lo", "eth0", "eth1", "v1"]), result.err)

    def test_WithoutIpItIsToldWithCauseAndRemedy(self):
        result = self.board("sh", "-c", f"PATH=/nowhere; {shell('net', 'show', 'eth0')}")
        self.assertEqual(result.status, 1)
        self.assertIn(NO_IP + "\n  cause    There is no ip in PATH", result.err)


class NetAsAnOrdinaryUser(OnANetwork):
    """Whoever starts a board is root of its network: one test of each verb shows that this user is, too."""
    user = "ordinary"
    test_ShowTellsInterfacesAddressesAndGateways = Net.test_ShowTellsInterfacesAddressesAndGateways
    test_AnAddressIsSetReplacedAndLeftAlone = Net.test_AnAddressIsSetReplacedAndLeftAlone
    test_TheLinkLocalAddressIsSetOnceAndLeftAlone = Net.test_TheLinkLocalAddressIsSetOnceAndLeftAlone
    test_AGatewayIsSetReplacedClearedAndLeftAlone = Net.test_AGatewayIsSetReplacedClearedAndLeftAlone
    test_AnIpv6AddressIsTakenInAnySpellingAndComparedInItsShortOne = Net.test_AnIpv6AddressIsTakenInAnySpellingAndComparedInItsShortOne
    test_AnAddressWithAPeerIsLeftUnlessAllAreFlushedAndWhatWasThereIsTold = \
        Net.test_AnAddressWithAPeerIsLeftUnlessAllAreFlushedAndWhatWasThereIsTold
    test_WhatAFailedChangeLeavesIsTold = Net.test_WhatAFailedChangeLeavesIsTold


class HostileNames(TestCase):
    """In a network namespace with interfaces that the kernel allows and a shell would interpret."""

    NAMES = ["e0;reboot", "$(x)", "`x`", "a|x", "a&x", "a>x", "a'b", "\x1b[2J"]

    def in_namespace(self, *steps):
        # What a shell would find if it interpreted such a name.
        tools = pathlib.Path("tools")
        tools.mkdir(exist_ok=True)
        for trap in "reboot", "x":
            (tools / trap).write_text(f"#!/bin/sh\ntouch {self.folder}/trapped\n")
            (tools / trap).chmod(0o755)
        return finish(start([*self.own_network(), "sh", "-c", "; ".join([f"PATH={self.folder}/tools:$PATH", "ip link set lo up > /dev/null", *steps])]))

    def check_nothing_ran(self):
        self.assertFalse(os.path.exists("trapped"))
        self.assertEqual(sorted(os.listdir(".")), ["tools"])

    def test_AnInterfaceWithAHostileNameIsNotAskedAboutAndRunsNothing(self):
        for name in [*self.NAMES, "-x"]:
            with self.subTest(name=name):
                result = self.in_namespace(f"ip link add name \"$(printf '%b' {shell_word(name)})\" type veth peer name v1",
                                           shell("net", "show"))
                self.assertEqual(result.status, 1, result.err)
                self.assertIn(f'boardctl: the interface "{name.replace(chr(27), "?")}" is skipped', result.err)
                self.assertIn("lo  up", result.out)
                self.check_nothing_ran()

    def test_AHostileNameAsArgumentIsRefusedWithStatus2(self):
        for name in [*self.NAMES, "a b", "a/b", "..", "", "a" * 16]:
            for words in (["show", name], ["address", name, ADDRESS], ["link-local", name], ["gateway", name, "192.0.2.1"],
                          ["clear", "address", name]):
                with self.subTest(words=words):
                    result = finish(start([*self.away_from_the_network(), BOARDCTL, "net", *words]))
                    self.assertEqual((result.status, result.out), (2, ""))
                    self.assertIn("is not the name of an interface", result.err)

    def test_WhatIpReportsGoesIntoNoCommandUnchecked(self):
        for name in ("e0;reboot", "$(x)"):
            quoted = shell_word(name)
            with self.subTest(name=name):
                # The default route that would be deleted goes through it.
                steps = [f"ip link add {quoted} type veth peer name v1", f"ip link set {quoted} up", "ip link set v1 up",
                         f"ip addr add {ADDRESS} dev {quoted}", f"ip route add default via 192.0.2.1 dev {quoted}"]
                for words in (["gateway", "v1", "192.0.2.2"], ["clear", "gateway"]):
                    with self.subTest(words=words):
                        result = self.in_namespace(*steps, shell("net", *words) + "; echo $?", "ip -4 route show default")
                        self.assertEqual(result.out.splitlines()[0], "1", result.err)
                        self.assertIn("default via 192.0.2.1", result.out)
                        self.assertIn(f'ip reports a default route via "192.0.2.1" on "{name}", which a shell could misunderstand',
                                      result.err)
                        self.check_nothing_ran()

    def test_AnAddressThatIsNoneGoesIntoNoCommand(self):
        # A lying ip: no kernel reports such a thing.
        (pathlib.Path("tools")).mkdir()
        ip = pathlib.Path("tools/ip")
        ip.write_text(f"#!/bin/sh\necho '2: v0: <UP>'; echo '    link/ether 02:00:00:00:00:01 brd x'; echo '    inet 1.2.3.4;x/24 scope global v0'\n")
        ip.chmod(0o755)
        for words in (["address", "lo", ADDRESS], ["clear", "address", "lo"]):
            with self.subTest(words=words):
                result = self.in_namespace(shell("net", *words))
                self.assertEqual((result.status, result.out), (1, ""))
                self.assertIn('ip reports the address "1.2.3.4;x/24", which is not an address', result.err)
                self.check_nothing_ran()
        ip.write_text("#!/bin/sh\necho 'default via 1.2.3.4;x dev v0 '\n")
        for words in (["gateway", "lo", "192.0.2.2"], ["clear", "gateway"]):
            with self.subTest(words=words):
                result = self.in_namespace(shell("net", *words))
                self.assertEqual((result.status, result.out), (1, ""))
                self.assertIn('ip reports a default route via "1.2.3.4;x" on "v0", which a shell could misunderstand', result.err)
                self.check_nothing_ran()


def shell_word(text):
    return "'" + text.replace("'", "'\\''").replace("\x1b", "\\033") + "'"


if __name__ == "__main__":
    main()

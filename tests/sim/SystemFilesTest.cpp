#include <sys/stat.h>

#include <string>

#include "Board.h"
#include "Probes.h"
#include "Sockets.h"

namespace {

class SystemFiles : public BoardTest {};

class SystemFilesOfEveryNetwork : public SystemFiles, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Each, SystemFilesOfEveryNetwork, testing::Values("private", "none", "host"),
                         [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

TEST_P(SystemFilesOfEveryNetwork, AllPortsAreInTheClassOfTerminalsAndNoOthers) {
  EXPECT_EQ(InShell({"--net", GetParam(), "--tty", "/dev/ttyAMA0", "--tty", "/dev/bus/serial/1=none"},
                    "ls /sys/class/tty; readlink -f /sys/class/tty/*"),
            "bus!serial!1\nttyAMA0\n"
            "/sys/devices/platform/1.serial/tty/bus!serial!1\n"
            "/sys/devices/platform/80011000.serial/tty/ttyAMA0\n");
}

TEST_P(SystemFilesOfEveryNetwork, TheWatchdogIsInTheClassOfWatchdogs) {
  EXPECT_EQ(InShell({"--net", GetParam()},
                    "ls /sys/class/watchdog; cd /sys/class/watchdog/watchdog0 && cat identity state timeout timeleft "
                    "bootstatus pretimeout nowayout min_timeout max_timeout options dev"),
            "watchdog0\nboardsim\ninactive\n60\n0\n0\n0\n0\n1\n65535\n0x8380\n0:0\n");
}

TEST_F(SystemFiles, WithoutAWatchdogThatOfTheMachineIsNotListedEither) {
  Start start;
  start.options = {"--net", "host", "--watchdog", "none"};
  start.command = {"ls", "-A", "/sys/class/watchdog"};
  start.prepare = [] {
    HideFolder("/sys/class/watchdog");
    ::mkdir("/sys/class/watchdog/watchdog0", 0755);
  };
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "");
}

TEST_P(SystemFilesOfEveryNetwork, WhatElseIsThereStaysAndItsLinksLeadOn) {
  const std::string look =
      "ls /sys/class /sys/devices /sys/bus/platform; readlink -e /sys/class/mem/null /sys/class/net/lo; "
      "cat /sys/class/net/lo/address; for part in /sys/devices/platform/*; do [ -e $part/tty ] || [ -e $part/watchdog "
      "] "
      "|| ls $part; done";
  EXPECT_EQ(InShell({"--net", GetParam()}, look), Shell(look));
}

TEST_P(SystemFilesOfEveryNetwork, NobodyOnTheBoardCanWriteThem) {
  EXPECT_EQ(
      InShell({"--net", GetParam()},
              "cd /sys/class/watchdog/watchdog0; for file in timeout state dev; do chmod 666 $file; echo 7 >$file; "
              "rm -f $file; done 2>/dev/null; touch /sys/class/tty/x /sys/class/watchdog/x "
              "/sys/devices/platform/x /sys/class/tty/ttyS1/x 2>/dev/null; for place in /sys/class/tty "
              "/sys/class/watchdog /sys/devices/platform; do umount $place; mount -o remount,bind,rw $place; "
              "done 2>/dev/null; touch /sys/class/tty/x 2>/dev/null; cat timeout; stat -c %A timeout .; "
              "ls -d /sys/class/tty/* /sys/devices/platform/x 2>/dev/null || true"),
      "60\n-r--r--r--\ndrwxr-xr-x\n/sys/class/tty/ttyS1\n");
}

TEST_F(SystemFiles, APortLeadsToItsPartOfTheBoardAndItsDriverByLinks) {
  // In this way libraries list ports, and rules of udev find what these belong to.
  EXPECT_EQ(InShell({},
                    "cd /sys/class/tty/ttyS1/ && readlink device && readlink -e device subsystem device/subsystem && "
                    "basename $(readlink device/driver) && cat device/uevent && stat -c %F device/."),
            "../../../80011000.serial\n/sys/devices/platform/80011000.serial\n/sys/class/tty\n/sys/bus/platform\n"
            "serial8250\nDRIVER=serial8250\ndirectory\n");
}

TEST_F(SystemFiles, APortHasTheNumberOfItsNode) {
  EXPECT_EQ(InShell({"--tty", "/dev/ttyS1", "--tty", "/dev/ttyS2"},
                    "for port in ttyS1 ttyS2; do numbers=$(stat -c '%t %T' /dev/$port); set -- $numbers; "
                    "[ $(cat /sys/class/tty/$port/dev) = $((0x$1)):$((0x$2)) ] && cat /sys/class/tty/$port/uevent | "
                    "grep -x -e MAJOR=$((0x$1)) -e MINOR=$((0x$2)) -e DEVNAME=$port | wc -l; done"),
            "3\n3\n");
}

TEST_F(SystemFiles, APortTellsWhatItsRequestsTell) {
  EXPECT_EQ(
      InShell({"--serial-info", "3000000,16,0x30,4,5", "--tty", "/dev/ttyS1", "--tty", "/dev/ttyS2"},
              "cd /sys/class/tty/ttyS2 && cat type line irq flags uartclk xmit_fifo_size custom_divisor close_delay "
              "closing_wait"),
      "4\n1\n4\n0x30\n48000000\n16\n5\n50\n3000\n");
  EXPECT_EQ(InShell({}, "\"" + std::string(kProbe) +
                            "\" changed-info && cat /sys/class/tty/ttyS1/custom_divisor "
                            "/sys/class/tty/ttyS1/flags"),
            "17\n0x10000030\n");
}

TEST_F(SystemFiles, APortThatIsPluggedInAgainHasItsNewNumber) {
  const auto board = Boot({"--control", Path("control")}, {kProbe, "talk"});
  ASSERT_EQ(board->Ask("open rw /dev/ttyS1"), "3");
  Connection client(Path("control"));
  EXPECT_EQ(client.Ask("hangup /dev/ttyS1"), "ok");
  EXPECT_EQ(client.Ask("plug /dev/ttyS1"), "ok");
  EXPECT_EQ(board->Ask("run grep -qx 136:$((0x$(stat -c %T /dev/ttyS1))) /sys/class/tty/ttyS1/dev"), "0");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(SystemFiles, TheWatchdogsFollowItsLife) {
  const auto board = Boot({"--control", Path("control")}, {kProbe, "talk"});
  const auto tells = [&board](const char* file, const char* text) {
    return board->Ask(std::string("run grep -qx '") + text + "' /sys/class/watchdog/watchdog0/" + file);
  };
  EXPECT_EQ(board->Ask("open w /dev/watchdog"), "3");
  EXPECT_EQ(tells("state", "active"), "0");
  EXPECT_EQ(tells("timeleft", "60\\|[1-5][0-9]"), "0");
  EXPECT_EQ(board->Ask("set-timeout 3 30000"), "ok");
  EXPECT_EQ(tells("timeout", "30000"), "0");
  // It goes down by itself.
  EXPECT_TRUE(Eventually([&] { return tells("timeleft", "299[0-9][0-9]") == "0"; }));
  // And up again, for a second.
  EXPECT_TRUE(Eventually([&] { return board->Ask("feed 3") == "ok" && tells("timeleft", "30000") == "0"; }));
  EXPECT_EQ(board->Ask("write 3 V"), "ok");
  EXPECT_EQ(board->Ask("close 3"), "ok");
  Connection client(Path("control"));
  EXPECT_EQ(client.Ask("watchdog"), "ok stopped closed timeout=30000");
  EXPECT_EQ(tells("state", "inactive"), "0");
  EXPECT_EQ(tells("timeleft", "0"), "0");
  EXPECT_EQ(board->Finish().status, 0);
}

TEST_F(SystemFiles, AfterAResetTheWatchdogsTellOfIt) {
  EXPECT_EQ(Run({"--restart", "1", "--nowayout"},
                {"sh", "-c",
                 "cat /sys/class/watchdog/watchdog0/bootstatus /sys/class/watchdog/watchdog0/nowayout; "
                 ": >/dev/watchdog"})
                .output,
            "0\n1\n32\n1\n");
}

TEST_F(SystemFiles, WhereTheMachineHasNoneTheyAreMadeAllTheSame) {
  // As in a chroot whose /sys is an empty folder.
  Start start;
  start.options = {"--net", "host"};
  start.command = {"sh", "-c",
                   "find /sys -name watchdog0 -o -name ttyS1 -type l | sort; cat /sys/class/watchdog/watchdog0/state"};
  start.prepare = [] { HideFolder("/sys"); };
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.output,
            "/sys/class/tty/ttyS1\n/sys/class/watchdog/watchdog0\n/sys/devices/platform/watchdog/watchdog/watchdog0\n"
            "inactive\n")
      << outcome.errors;
}

}  // namespace

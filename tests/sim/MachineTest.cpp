// What the board must not do to the machine, also where root runs it. Each of these would harm nobody if it failed:
// what could be changed is a folder, a namespace or a limit of the test's own, and settings are opened, but not
// written.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <string>

#include "Board.h"
#include "ExpectText.h"
#include "Probes.h"
#include "Sockets.h"

namespace {

class Machine : public BoardTest {
 protected:
  /// Runs a shell script of the machine, in mount, network and host-name namespaces of its own, as root of these.
  /// @param arguments from $1 on.
  Outcome InPrivate(const std::string& script, const Words& arguments) {
    const std::string users = ::geteuid() == 0 ? "" : "--user --map-root-user ";
    Start start;
    start.bare = true;
    start.command =
        Words{"/bin/sh", "-c",
              "exec unshare " + users + "--mount --net --uts --propagation private sh -c \"$0\" sh \"$@\"", script} +
        arguments;
    return Run(start);
  }
  /// The same where there can be no further user namespace.
  Outcome WithoutUserNamespaces(const std::string& script, const Words& arguments) {
    return InPrivate(
        "exec unshare --user --map-root-user --net sh -c 'echo 0 >/proc/sys/user/max_user_namespaces; exec sh -c "
        "\"$@\"' sh "
        "\"$@\"",
        Words{script, "sh"} + arguments);
  }
};

constexpr const char* kNodes = "null zero full random urandom tty";

TEST_F(Machine, TheNodesThatTheBoardSharesWithItKeepTheirOwnersRightsAndTimes) {
  // A /dev whose nodes are plain files, so that nothing can be harmed.
  const std::string script =
      "mount -t tmpfs nodes /dev && cd /dev && for node in $2; do echo >$node; chmod 640 $node; "
      "touch -d @1000000 $node; done; stat -c '%n %a %u %g %Y %s' * >\"$3/before\"; "
      "\"$1\" --net none --watchdog none --mem none -- sh -c 'cd /dev; for node in '\"'$2'\"'; do chmod 600 $node; "
      "touch $node; chown 1 $node; done' 2>\"$3/errors\"; stat -c '%n %a %u %g %Y %s' * >\"$3/after\"";
  const Outcome outcome = InPrivate(script, {kSimulator, kNodes, Folder()});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_CONTAINS(Contents(Path("before")), "null 640 0 0 1000000 1\n");
  EXPECT_EQ(Contents(Path("after")), Contents(Path("before")));
  std::istringstream errors(Contents(Path("errors")));
  int refused = 0;
  for (std::string line; std::getline(errors, line); ++refused) {
    EXPECT_CONTAINS(line, "Read-only file system");
  }
  EXPECT_EQ(refused, 6 * 3);
}

TEST_F(Machine, ItsOwnNodesCanBeWrittenAllTheSame) {
  const Outcome outcome =
      Run({}, {"sh", "-c", "echo x >/dev/null; echo x >>/dev/zero; : <>/dev/null; head -c 1 /dev/zero >/dev/full"});
  EXPECT_CONTAINS(outcome.errors, "No space left on device");
  EXPECT_LACKS(outcome.errors, "Read-only");
}

/// Prints those of the files that can be opened for writing, without writing.
constexpr const char* kWritable =
    "for file in /proc/sys/fs/file-max /proc/sys/kernel/hostname /proc/sys/vm/swappiness /proc/sysrq-trigger "
    "/proc/mtrr "
    "/proc/irq/default_smp_affinity /proc/bus/pci/* /proc/acpi/wakeup /sys/power/state /sys/kernel/mm/ksm/run "
    "/sys/module/printk/parameters/time /sys/class/net/lo/mtu; do (: >>\"$file\") 2>/dev/null && echo $file; done; ";

class EveryNetwork : public Machine, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(With, EveryNetwork, testing::Values("private", "none", "host"),
                         [](const testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

TEST_P(EveryNetwork, NoSettingOfTheMachinesCanBeWrittenNorMadeWritableAgain) {
  const std::string script =
      std::string(kWritable) +
      "for place in /proc/sys /proc/irq /proc/bus /proc /sys /dev/null /dev; do umount $place; umount -l $place; "
      "mount -o remount,bind,rw $place; done 2>/dev/null; " +
      kWritable + "unshare --user --mount sh -c 'mount -o remount,bind,rw /proc/sys; umount /proc/sys' 2>/dev/null; " +
      kWritable +
      "mkdir /run/there; mount -t proc proc /run/there 2>/dev/null && echo proc; "
      "mount -t sysfs sysfs /run/there 2>/dev/null && echo sysfs; mount --bind / /run/there 2>/dev/null && echo root; "
      "nsenter --target 1 --mount true 2>/dev/null && echo entered; "
      "nsenter --target 1 --user --mount true 2>/dev/null && echo entered; echo end";
  const Outcome outcome = InPrivate("exec \"$1\" --net \"$2\" -- sh -c \"$3\"", {kSimulator, GetParam(), script});
  EXPECT_EQ(outcome.output, "end\n");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
}

TEST_P(EveryNetwork, TheSettingsOfTheNetworkCanBeWrittenIfItIsTheBoards) {
  const Outcome outcome =
      InPrivate("exec \"$1\" --net \"$2\" -- sh -c '(: >>/proc/sys/net/ipv4/ip_forward) 2>/dev/null && echo yes'",
                {kSimulator, GetParam()});
  EXPECT_EQ(outcome.output, std::string(GetParam()) == "host" ? "" : "yes\n");
}

TEST_F(Machine, WhatTheKernelTellsRootAloneIsHidden) {
  EXPECT_EQ(Run({}, {"sh", "-c",
                     "for file in kallsyms keys kcore kpagecount timer_list; do [ ! -e /proc/$file ] || "
                     "head -c 1 /proc/$file; done; ls /proc/acpi 2>/dev/null; head -n 1 /proc/meminfo | cut -c 1-8"})
                .output,
            "MemTotal\n");
}

TEST_F(Machine, ItsNetworkIsNotTheBoardsToChange) {
  const std::string script =
      "ip link set lo mtu 12345; \"$1\" --net host -- sh -c 'ip link set lo mtu 1280; ip link add other type dummy; "
      "ip address add 192.0.2.77/24 dev lo' 2>/dev/null; cat /proc/net/dev | grep -c other; ip -o link show lo | grep "
      "-c "
      "\"mtu 12345 \"; ip -o address | grep -c 192.0.2.77";
  EXPECT_EQ(InPrivate(script, {kSimulator}).output, "0\n1\n0\n");
  if (AreUserNamespacesAllowed()) {
    EXPECT_EQ(WithoutUserNamespaces(script, {kSimulator}).output, "0\n1\n0\n");
  }
}

/// The capabilities, by number, over what all share: sys_admin, sys_module, sys_rawio, sys_time, mknod.
constexpr unsigned long kOverMachine = 1UL << 21 | 1UL << 16 | 1UL << 17 | 1UL << 25 | 1UL << 27;
constexpr unsigned long kOverNetwork = 1UL << 12;

TEST_F(Machine, WithoutAUserNamespaceTheProgramHasNoRightsOverIt) {
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  struct Case {
    Words options;
    unsigned long lost;
    unsigned long kept;
  };
  constexpr unsigned long kChown = 1;
  for (const Case& each : {Case{{"--net", "host"}, kOverMachine | kOverNetwork, kChown},
                           Case{{"--net", "none"}, kOverMachine, kChown | kOverNetwork},
                           Case{{"--no-namespaces", "--net", "host"}, kOverMachine | kOverNetwork, kChown}}) {
    SCOPED_TRACE(testing::PrintToString(each.options));
    const Outcome outcome = WithoutUserNamespaces(
        "exec \"$@\"", Words{kSimulator} + each.options +
                           Words{"--", "sh", "-c", "sed -n \"s/^Cap\\(Prm\\|Bnd\\):.//p\" /proc/self/status"});
    std::istringstream sets(outcome.output);
    unsigned long permitted = 0;
    unsigned long bounding = 0;
    ASSERT_TRUE(sets >> std::hex >> permitted >> bounding) << outcome.output << outcome.errors;
    EXPECT_EQ(bounding & each.lost, 0U) << outcome.output;
    EXPECT_EQ(permitted & each.lost, 0U) << outcome.output;
    EXPECT_EQ(permitted & each.kept, each.kept) << outcome.output;
  }
}

TEST_F(Machine, WithoutNamespacesCreatAndOpenat2AreAnsweredAndIoUringIsNotThere) {
  // An ordinary user, who could not make a file in /dev.
  Start start;
  start.options = kWithoutNamespaces;
  start.command = {kProbe, "other-opens"};
  start.user = User::kOrdinary;
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Machine, OpenedByOpenat2ThePortRaisesItsLines) {
  ExpectSteps({}, {kProbe, "raised-by-openat2"});
}

TEST_F(Machine, TheBoardHasItsOwnRunAndLocks) {
  const std::string name = "boardsim-test-" + std::to_string(::getpid());
  const std::string make = "cd /run/lock && echo > '" + name + "' && ls /run/lock /var/lock/ | grep -c '" + name +
                           "'; echo >/run/'" + name + "' && ls /run | grep -c '" + name + "'";
  EXPECT_EQ(Run({}, {"sh", "-c", make}).output, "2\n1\n");
  const std::string look = "ls /run/lock /run /var/lock/ 2>/dev/null | grep -c '" + name + "'";
  EXPECT_EQ(Run({}, {"sh", "-c", look}).output, "0\n") << "the next board";
  EXPECT_EQ(Shell(look), "0\n") << "the machine";
  EXPECT_EQ(Run({}, {"stat", "-c", "%a", "/run", "/run/lock"}).output, "755\n1777\n");
}

TEST_F(Machine, SharedMemoryIsTheBoardsOwn) {
  const std::string name = "boardsim-test-" + std::to_string(::getpid());
  EXPECT_EQ(Run({}, {"sh", "-c", "echo >/dev/shm/" + name + " && stat -c %a /dev/shm"}).output, "1777\n");
  EXPECT_NE(::access(("/dev/shm/" + name).c_str(), F_OK), 0);
}

TEST_F(Machine, TheBoardHasAHostNameOfItsOwn) {
  // Without one, root has the rights over it no more.
  if (!AreUserNamespacesAllowed()) {
    GTEST_SKIP() << kNoUserNamespaces;
  }
  const Outcome outcome =
      InPrivate("hostname machine; \"$1\" -- sh -c 'hostname; hostname other; hostname'; hostname", {kSimulator});
  EXPECT_EQ(outcome.output, "board\nother\nmachine\n") << outcome.errors;
}

TEST_F(Machine, WhereTheRootFolderIsNoMountThePortIsPluggedInAgain) {
  // A chroot, where no user namespace can be made, and whose folders are the machine's.
  const std::string script =
      "mount -t tmpfs root \"$3\" && mkdir \"$3/root\" && cd \"$3/root\" && for folder in bin etc lib lib32 lib64 proc "
      "sbin sys usr tmp run dev var \"${1%/*}\" \"$2\" \"${4%/*}\"; do [ ! -d \"/$folder\" ] || { mkdir -p "
      "\"./$folder\" "
      "&& mount --rbind \"/$folder\" \"./$folder\"; }; done; "
      "exec chroot . \"$1\" --net none --control \"$2/control\" -- \"$4\" talk";
  ASSERT_EQ(::mkdir(Path("chroot").c_str(), 0777), 0);
  const std::string users = ::geteuid() == 0 ? "" : "--user --map-root-user ";
  Start start;
  start.bare = true;
  start.command = {"/bin/sh",
                   "-c",
                   "exec unshare " + users + "--mount --propagation private sh -c '" + script + "' sh \"$@\"",
                   "sh",
                   kSimulator,
                   Folder(),
                   Path("chroot"),
                   kProbe};
  const auto board = Boot(start);
  ASSERT_EQ(board->Ask("open rw /dev/ttyS1"), "3") << board->Errors();
  Connection client(Path("control"));
  EXPECT_EQ(client.Ask("hangup /dev/ttyS1"), "ok");
  EXPECT_EQ(client.Ask("plug /dev/ttyS1"), "ok");
  EXPECT_EQ(board->Ask("open rw /dev/ttyS1"), "4");
  EXPECT_EQ(board->Ask("write 4 hello"), "ok");
  EXPECT_EQ(board->Ask("read 4"), "got hello");
  const Outcome outcome = board->Finish();
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Machine, RootsOtherUsersExistOnTheBoard) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "Only root has other users.";
  }
  EXPECT_EQ(Run({}, {"sh", "-c",
                     "touch \"$0\" && chown 1234:1235 \"$0\" && stat -c %u:%g \"$0\" && "
                     "setpriv --reuid=1234 --regid=1235 --clear-groups sh -c 'id -u; id -g'; "
                     "su -s /bin/sh nobody -c 'id -u'",
                     Path("file")})
                .output,
            "1234:1235\n1234\n1235\n65534\n");
}

TEST_F(Machine, AnOrdinaryUserHasThoseOfSubuid) {
  if (Shell("command -v newuidmap").empty() || ::geteuid() != 0 || ::access("/etc/subuid", F_OK) != 0 ||
      !AreUserNamespacesAllowed()) {
    GTEST_SKIP() << "It takes root to give somebody subordinate users for once, newuidmap, and user namespaces.";
  }
  Shell("echo 65534:200000:65536 >" + Path("ranges"));
  Shared(kSimulator);
  const Outcome outcome = InPrivate(
      "mount --bind \"$1/ranges\" /etc/subuid && mount --bind \"$1/ranges\" /etc/subgid && cd / && exec setpriv "
      "--reuid=65534 --regid=65534 --clear-groups \"$1/boardsim\" --net none -- sh -c 'cd \"$0\"; touch file; "
      "chown 33:34 file; stat -c %u:%g file; setpriv --reuid=33 --regid=34 --clear-groups id -u; rm file' \"$1\"",
      {Folder()});
  EXPECT_EQ(outcome.output, "33:34\n33\n") << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Machine, WhoIsNotRootOnTheBoardGetsNeitherMemoryNorTheWatchdogNorThePort) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "Only root has other users.";
  }
  const Outcome outcome = Run(
      {"--log", Path("log")},
      {"setpriv", "--reuid=1234", "--regid=1235", "--clear-groups", "sh", "-c",
       "for device in mem watchdog watchdog0 ttyS1; do ! true <>/dev/$device && ! true >/dev/$device || exit 1; done"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_LACKS(Contents(Path("log")), " open");
}

TEST_F(Machine, ThePortIsOpenToTheGroupOfSerialPortsAlsoWhenItIsPluggedInAgain) {
  if (::geteuid() != 0 || Shell("getent group dialout").empty()) {
    GTEST_SKIP() << "Only root has other users, and there must be the group.";
  }
  const auto board =
      Boot({"--net", "none", "--control", Path("control")},
           {"setpriv", "--reuid=1234", "--regid=1235", "--groups=dialout", "sh", "-c",
            "while read line; do stat -c '%U %G %a' /dev/ttyS1; true <>/dev/ttyS1 && ! (true <>/dev/mem) "
            "2>/dev/null && echo opened; done"});
  Connection client(Path("control"));
  EXPECT_EQ(board->Ask("now"), "root dialout 660");
  EXPECT_EQ(board->Listen(), "opened");
  EXPECT_EQ(client.Ask("hangup /dev/ttyS1"), "ok");
  EXPECT_EQ(client.Ask("plug /dev/ttyS1"), "ok");
  EXPECT_EQ(board->Ask("now"), "root dialout 660");
  EXPECT_EQ(board->Listen(), "opened");
  board->EndInput();
  EXPECT_EQ(board->Finish().errors, "");
}

TEST_F(Machine, TheProgramMayHaveAsMuchOfALimitedResourceAsTheCallerMay) {
  Start start;
  start.command = {"sh", "-c",
                   "for limit in l r e; do [ $(ulimit -S -$limit) = $(ulimit -H -$limit) ] || echo $limit; done"};
  start.command.front() = "/bin/bash";
  start.prepare = [] {
    for (const auto resource : {RLIMIT_MEMLOCK, RLIMIT_RTPRIO, RLIMIT_NICE}) {
      rlimit limit{};
      ::getrlimit(resource, &limit);
      limit.rlim_cur = 0;
      ::setrlimit(resource, &limit);
    }
  };
  const Outcome outcome = Run(start);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(Machine, ProgramsWithTheSetUserIdBitChangeUsersOnlyWithinTheBoard) {
  EXPECT_EQ(Run({}, {"grep", "-c", "NoNewPrivs:.0", "/proc/self/status"}).output, "1\n");
  Start start;
  start.options = kWithoutNamespaces;
  start.command = {"grep", "-c", "NoNewPrivs:.1", "/proc/self/status"};
  start.user = User::kOrdinary;
  EXPECT_EQ(Run(start).output, "1\n");
}

TEST_F(Machine, AProgramOf32BitsIsToldOnceThatItIsNotSupervised) {
#ifndef __x86_64__
  GTEST_SKIP() << "This machine has no calls of 32 bits.";
#endif
  const Outcome outcome = Run({}, {kProbe, "foreign-request", "foreign-request"});
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors,
            "boardsim: sim-probe is a 32-bit program, which can't be supervised: its requests to the devices "
            "fail.\n");
}

TEST_F(Machine, AKeyDuringTheStartEndsItWith130AndLeavesNothing) {
  Shell("printf '#!/bin/sh\\necho >\"$0.started\"\\nexec sleep 60\\n' >" + Path("ip") + "; chmod +x " + Path("ip"));
  Start start;
  start.command = {"touch", Path("ran")};
  start.environment = {"PATH=" + Folder() + ":" + std::getenv("PATH")};
  start.prepare = [] { ::setpgid(0, 0); };
  const auto board = Boot(start);
  ASSERT_TRUE(Eventually([this] { return ::access(Path("ip.started").c_str(), F_OK) == 0; }));
  EXPECT_EQ(::kill(-board->Process(), SIGINT), 0);
  const Outcome outcome = board->Finish();
  EXPECT_EQ(outcome.status, 130) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  EXPECT_NE(::access(Path("ran").c_str(), F_OK), 0);
}

TEST_F(Machine, AKeyDuringTheStartIsIgnoredWhereTheCallerIgnoresIt) {
  Shell(
      "printf '#!/bin/sh\\necho >\"$0.started\"\\nwhile ! test -e \"$0.go\"; do sleep 0.01; done\\n"
      "PATH=${PATH#*:} exec ip \"$@\"\\n' >" +
      Path("ip") + "; chmod +x " + Path("ip"));
  Start start;
  start.command = {"touch", Path("ran")};
  start.environment = {"PATH=" + Folder() + ":" + std::getenv("PATH")};
  start.prepare = [] {
    ::setpgid(0, 0);
    std::signal(SIGINT, SIG_IGN);
  };
  const auto board = Boot(start);
  ASSERT_TRUE(Eventually([this] { return ::access(Path("ip.started").c_str(), F_OK) == 0; }));
  EXPECT_EQ(::kill(-board->Process(), SIGINT), 0);
  Shell("touch " + Path("ip.go"));
  const Outcome outcome = board->Finish();
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(::access(Path("ran").c_str(), F_OK), 0);
}

}  // namespace

#include "Check.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "sandbox/Filter.h"
#include "sandbox/Sandbox.h"

namespace {

struct Result {
  std::string why;  // empty: it is allowed
  std::string remedy;
};

Result IfAllowed(bool allowed, const char* why, const char* remedy) {
  return allowed ? Result() : Result{why, remedy};
}

void Print(const char* what, const Result& result) {
  std::printf("  %s  %s\n", result.why.empty() ? "yes" : "no ", what);
  if (!result.why.empty()) {
    std::printf("       %s\n       Remedy: %s\n", result.why.c_str(), result.remedy.c_str());
  }
}

/// The number in a file of the kernel's settings; none if this kernel has no such setting.
std::optional<long> Setting(const char* name) {
  std::ifstream file(std::string("/proc/sys/") + name);
  long value = 0;
  return file >> value ? std::make_optional(value) : std::nullopt;
}

std::string RemedyForNamespaces() {
  if (Setting("user/max_user_namespaces") == 0) {
    return "as root, sysctl user.max_user_namespaces=15000";
  }
  if (Setting("kernel/unprivileged_userns_clone") == 0) {
    return "as root, sysctl kernel.unprivileged_userns_clone=1";
  }
  if (Setting("kernel/apparmor_restrict_unprivileged_userns") == 1) {
    return "an AppArmor profile that allows boardsim userns; boardsim(1) has one";
  }
  return "a container has to allow unshare, mount and a fresh /proc; or run it outside";
}

std::string RemedyForNetwork(const std::string& why) {
  if (why.find("install iproute2") != std::string::npos) {
    return "as root, apt-get install iproute2";
  }
  return "as root, modprobe veth; where there is no such module, --net none";
}

/// Prepares a board, up to the start of an application, and gives it up again.
Result Try(bool namespaces, Net net, const Signals::State& signals, std::unique_ptr<Sandbox>& sandbox) {
  Plan plan;
  plan.command = {"true"};
  // No FIFO, which takes a temporary file where there is no /dev of its own.
  plan.nodes = {{"/dev/ttyS1", Node::Kind::kTerminal}, {"/dev/mem", Node::Kind::kFile}};
  plan.net = net;
  plan.namespaces = namespaces;
  try {
    sandbox = std::make_unique<Sandbox>(plan, signals);
    return {};
  } catch (const SetupError& error) {
    return {error.what(), ""};
  }
}

}  // namespace

bool PrintCheck(const Signals::State& signals) {
  std::puts("What this machine allows boardsim:\n");
  std::unique_ptr<Sandbox> sandbox;
  Result supervision = Try(false, Net::kHost, signals, sandbox);
  supervision.remedy = "Linux 5.5 or newer with CONFIG_SECCOMP_FILTER, and no other supervisor";
  Print("to answer system calls that a terminal or a pipe would refuse", supervision);
  if (!supervision.why.empty()) {
    std::puts("\nThe board can't be simulated here.");
    return false;
  }
  const Result quiet = IfAllowed(CanKeepSignalsBack(), "This kernel lets signals interrupt them, if only rarely.",
                                 "Linux 5.19 or newer, or handlers with SA_RESTART");
  Print("to keep signals from interrupting these calls", quiet);
  const Result injection = IfAllowed(CanHandOverDescriptors(sandbox->TakeListener()),
                                     "This kernel can't do it in one step.", "Linux 5.14 or newer");
  Print("to answer opens with devices, where it gets no /dev of its own", injection);

  Result names = Try(true, Net::kHost, signals, sandbox);
  names.remedy = RemedyForNamespaces();
  Print("devices under their names, in a /dev of its own", names);
  Result network = Try(true, Net::kPrivate, signals, sandbox);
  network.remedy = names.why.empty() ? RemedyForNetwork(network.why) : "the one above";
  Print("a network of its own", network);

  if (!names.why.empty()) {
    std::puts(injection.why.empty() ? "\nThe board can be simulated without a network: see --no-namespaces."
                                    : "\nThe board can't be simulated here.");
  } else {
    std::puts(network.why.empty() ? "\nThe whole board can be simulated."
                                  : "\nThe board can be simulated without a network: see --net.");
  }
  return names.why.empty() && network.why.empty();
}

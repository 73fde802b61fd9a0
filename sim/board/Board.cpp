#include "board/Board.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <vector>

#include "ExitStatus.h"
#include "SetupError.h"

Board::Board(const Options& options)
    : m_options(options), m_log(options.log.empty() ? EventLog() : EventLog(options.log)) {
  const Backplane backplane{m_log, m_loop, m_commands,
                            [this](const std::string& path) { return m_sandbox->Renew(path); },
                            [this](const std::string& path, const std::string& circumstance,
                                   const std::string& account) { Reset(path, circumstance, account); }};
  for (const auto& kind : m_options.devices) {
    for (auto& device : kind->Make(backplane)) {
      m_devices.push_back(std::move(device));
    }
  }
  m_commands.Add("link INTERFACE up|down", [this](const Commands::Words& words) {
    SetLink(words[0], words[1]);
    return std::string();
  });
  if (!m_options.control.empty()) {
    m_control.emplace(m_options.control, m_commands, m_loop);
  }
  Start();
}

/// Makes the application's surroundings, and connects the devices with them.
void Board::Start() {
  m_isReset = false;
  m_supervisor.reset();
  m_sandbox.reset();
  MakeSandbox();
  for (const auto& device : m_devices) {
    device->Attach(m_sandbox->TakeNode(device->Path()));
    device->Tell(SystemFolder(m_sandbox->TakeEntry(device->Path())));
  }
  for (const auto& device : m_devices) {
    device->Connect(m_devices);
  }
  m_answers.emplace(m_devices, m_sandbox->HasNamespaces());
  m_supervisor.emplace(m_sandbox->TakeListener());
}

int Board::Run() {
  int status = RunOnce();
  for (unsigned int restart = 0; m_isReset && restart < m_options.restarts; ++restart) {
    Start();
    m_log.Write("board", "restart");
    status = RunOnce();
  }
  m_log.Write("board", "end status=" + std::to_string(status));
  return status;
}

int Board::RunOnce() {
  // A key pressed while all this was set up has not reached the application.
  if (Signals::IsInterruptPending()) {
    return kStatusSignal + SIGINT;
  }
  bool hasEnded = false;
  bool isCutShort = false;
  const auto signals = m_loop.Watch(
      [this] {
        return pollfd{m_signals.Get(), POLLIN, 0};
      },
      [this, &hasEnded, &isCutShort](short) {
        const bool isSignalled = HandOnSignals();
        isCutShort = isCutShort || (hasEnded && isSignalled);
        hasEnded = m_sandbox->HasEnded();
      });
  EventLoop::Registration calls;
  calls = m_loop.Watch(
      [this] {
        return pollfd{m_supervisor->Get(), POLLIN, 0};
      },
      [this, &calls](short events) {
        if ((events & POLLIN) != 0) {
          AnswerCall();
        } else {
          // No supervised process is left; poll() would report that again and again until the first process ends.
          calls = {};
        }
      });
  m_sandbox->Go();
  while (!m_isReset && !hasEnded) {
    m_loop.Turn();
  }
  calls = {};
  for (auto device = m_devices.begin(); !m_isReset && device != m_devices.end(); ++device) {
    (*device)->Finish();
  }
  const auto isBusy = [](auto& device) { return device->IsBusy(); };
  while (!m_isReset && !isCutShort && std::any_of(m_devices.begin(), m_devices.end(), isBusy)) {
    m_loop.Turn();
  }
  return m_isReset ? kStatusReset : ApplicationStatus();
}

Plan Board::MakePlan() const {
  Plan plan;
  plan.command = m_options.command;
  plan.net = m_options.net.value_or(Net::kPrivate);
  for (const auto& kind : m_options.devices) {
    for (const Node& node : kind->Nodes()) {
      plan.nodes.push_back(node);
    }
    if (!kind->Class().empty()) {
      plan.classes.push_back(kind->Class());
    }
    const TrappedRequests requests = kind->Requests();
    plan.requests.insert(plan.requests.end(), requests.begin(), requests.end());
  }
  return plan;
}

void Board::MakeSandbox() {
  Plan plan = MakePlan();
  std::string forbidden;
  if (m_options.namespaces) {
    try {
      m_sandbox = std::make_unique<Sandbox>(plan, m_signals.Before());
      return;
    } catch (const NamespacesForbidden& error) {
      if (m_options.net && *m_options.net != Net::kHost) {
        throw SetupError(std::string(error.what()) + ", so there can be no network of its own.");
      }
      forbidden = error.what();
    }
  } else if (m_options.net && *m_options.net != Net::kHost) {
    throw SetupError("Without namespaces there is only --net host.");
  }
  plan.namespaces = false;
  plan.net = Net::kHost;
  // Checked first: where calls can't be supervised, that is why namespaces were forbidden.
  m_sandbox = std::make_unique<Sandbox>(plan, m_signals.Before());
  RefuseRootOnThisNetwork();
  if (!forbidden.empty()) {
    std::fprintf(stderr,
                 "boardsim: %s, so no device is visible in /dev, and the network is this machine's. See --check.\n",
                 forbidden.c_str());
  }
}

void Board::RefuseRootOnThisNetwork() const {
  if (::geteuid() == 0 && m_options.net != Net::kHost) {
    throw SetupError(
        "As root, and without namespaces, the application could change this machine's network: use --net host if that "
        "is intended.");
  }
}

void Board::AnswerCall() {
  if (const auto call = m_supervisor->Receive()) {
    m_answers->Give(*call);
  }
}

/// @returns whether there was one that is meant for the application.
bool Board::HandOnSignals() {
  bool isSignalled = false;
  signalfd_siginfo signal{};
  while (::read(m_signals.Get(), &signal, sizeof signal) == sizeof signal) {
    // What comes from the terminal has reached the application as well.
    if (signal.ssi_signo != SIGCHLD && signal.ssi_code != SI_KERNEL) {
      m_sandbox->Signal(static_cast<int>(signal.ssi_signo));
    }
    isSignalled = isSignalled || signal.ssi_signo != SIGCHLD;
  }
  return isSignalled;
}

void Board::SetLink(const std::string& interface, const std::string& state) {
  m_sandbox->SetLink(interface, state == "up");
  m_log.Write(interface, "link " + state);
}

void Board::Reset(const std::string& path, const std::string& circumstance, const std::string& account) {
  m_sandbox->Kill();
  m_isReset = true;
  m_log.Write(path, "reset " + account);
  std::fprintf(stderr, "boardsim: %s%s has reset the board: %s\n", path.c_str(), circumstance.c_str(), account.c_str());
}

int Board::ApplicationStatus() const {
  const std::optional<int> ended = m_sandbox->ApplicationStatus();
  return !ended                ? kStatusSignal + SIGKILL
         : WIFSIGNALED(*ended) ? kStatusSignal + WTERMSIG(*ended)
                               : WEXITSTATUS(*ended);
}

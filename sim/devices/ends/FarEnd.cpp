#include "devices/ends/FarEnd.h"

#include <algorithm>
#include <iterator>

#include "SetupError.h"
#include "Text.h"
#include "devices/ends/CommandEnd.h"
#include "devices/ends/PlainEnds.h"
#include "devices/ends/PtyEnd.h"
#include "devices/ends/SocketEnds.h"

namespace {

/// A far end by its word, and what follows that after a colon.
struct Kind {
  enum class Target { kNone, kOptional, kNeeded };

  std::string_view word;
  std::string_view form;  // of the target
  Target target;
  bool (*isTarget)(const std::string& target);  // null: every text
  std::unique_ptr<FarEnd> (*make)(const std::string& device, const std::string& target, EventLog& log);
};

template <typename End>
std::unique_ptr<FarEnd> Make(const std::string& device, const std::string& target, EventLog& log) {
  return std::make_unique<End>(device, target, log);
}

constexpr Kind kKinds[] = {{"echo", "", Kind::Target::kNone, nullptr, Make<EchoEnd>},
                           {"plug", "", Kind::Target::kNone, nullptr, Make<PlugEnd>},
                           {"none", "", Kind::Target::kNone, nullptr, Make<NoEnd>},
                           {"pty", "LINK", Kind::Target::kOptional, nullptr, Make<PtyEnd>},
                           {"tcp", "HOST:PORT", Kind::Target::kNeeded, TcpEnd::IsTarget, Make<TcpEnd>},
                           {"tcp-listen", "PORT", Kind::Target::kNeeded, TcpListenEnd::IsTarget, Make<TcpListenEnd>},
                           {"unix", "PATH", Kind::Target::kNeeded, nullptr, Make<UnixEnd>},
                           {"unix-listen", "PATH", Kind::Target::kNeeded, nullptr, Make<UnixListenEnd>},
                           {"exec", "COMMAND", Kind::Target::kNeeded, nullptr, Make<CommandEnd>}};

bool Fits(const Kind& kind, const std::string& text, const std::string& word, const std::string& target) {
  return kind.word == word && (kind.target != Kind::Target::kNone || text == word) &&
         (kind.target != Kind::Target::kNeeded || !target.empty()) &&
         (kind.isTarget == nullptr || kind.isTarget(target));
}

std::string Form(const Kind& kind) {
  const std::string target = ':' + std::string(kind.form);
  return std::string(kind.word) + (kind.target == Kind::Target::kNone       ? ""
                                   : kind.target == Kind::Target::kOptional ? '[' + target + ']'
                                                                            : target);
}

}  // namespace

FarEndMaker ParseFarEnd(const std::string& text) {
  const auto [word, target] = Cut(text, ':');
  for (const Kind& kind : kKinds) {
    if (Fits(kind, text, word, target)) {
      return [make = kind.make, target = target](const std::string& device, EventLog& log) {
        return make(device, target, log);
      };
    }
  }
  throw SetupError("The far end of a --tty is " + FarEndForms() + ", not \"" + text + "\".");
}

std::string FarEndForms() {
  std::string forms;
  for (const Kind& kind : kKinds) {
    const char* separator = &kind == std::begin(kKinds) ? "" : &kind == std::end(kKinds) - 1 ? " or " : ", ";
    forms += separator + Form(kind);
  }
  return forms;
}

#include "Catalogue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

// Made from docs/errors.json by the build.
extern const char* const kCatalogueText;

namespace {

// The error numbers that the catalogue covers.
struct Number {
  int value;
  const char* name;
};
constexpr Number kNumbers[] = {{EPERM, "EPERM"},   {ENOENT, "ENOENT"},      {EINTR, "EINTR"},   {EIO, "EIO"},
                               {ENXIO, "ENXIO"},   {EBADF, "EBADF"},        {ECHILD, "ECHILD"}, {EAGAIN, "EAGAIN"},
                               {ENOMEM, "ENOMEM"}, {EACCES, "EACCES"},      {EFAULT, "EFAULT"}, {EBUSY, "EBUSY"},
                               {ENODEV, "ENODEV"}, {EISDIR, "EISDIR"},      {EINVAL, "EINVAL"}, {ENFILE, "ENFILE"},
                               {EMFILE, "EMFILE"}, {ENOTTY, "ENOTTY"},      {ENOSPC, "ENOSPC"}, {ESPIPE, "ESPIPE"},
                               {EPIPE, "EPIPE"},   {EOVERFLOW, "EOVERFLOW"}};

struct Span {
  std::size_t begin;
  std::size_t end;
};

/// Where the pieces of an entry's text stand in a message.
struct Match {
  const Json* error;
  std::vector<Span> pieces;
  std::size_t size = 0;  // of the pieces together
  bool isExact = true;   // with the blanks around it and the colon at its end
};

const Json& Errors() {
  static const Json kCatalogue = Json::parse(kCatalogueText);
  return kCatalogue["errors"];
}

std::vector<std::string> PiecesOf(const std::string& text) {
  constexpr std::string_view kVaries = "...";
  std::vector<std::string> pieces;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const std::size_t end = std::min(text.find(kVaries, begin), text.size());
    if (end != begin) {
      pieces.push_back(text.substr(begin, end - begin));
    }
    begin = end + kVaries.size();
  }
  return pieces;
}

/// A text that was copied may have lost the blanks around it and the colon at its end.
std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(' ');
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" :") + 1 - begin);
}

std::optional<Match> Find(const Json& error, const std::string& text, std::string_view message) {
  Match match{&error, {}};
  std::size_t from = 0;
  for (const std::string& piece : PiecesOf(text)) {
    const std::size_t at = message.find(piece, from);
    if (at == std::string_view::npos) {
      return std::nullopt;
    }
    from = at + piece.size();
    match.pieces.push_back({at, from});
    match.size += piece.size();
  }
  return match;
}

/// The name of the error number whose text follows a colon after @p from; the longest, as some begin alike.
std::string NumberBehind(std::string_view message, std::size_t from) {
  std::string name;
  std::size_t longest = 0;
  for (const Number& number : kNumbers) {
    const std::string text = std::string(": ") + std::strerror(number.value);
    if (text.size() > longest && message.find(text, from) != std::string_view::npos) {
      name = number.name;
      longest = text.size();
    }
  }
  return name;
}

std::optional<Match> MatchOf(const Json& error, std::string_view message) {
  const auto text = error["text"].get<std::string>();
  if (text.empty()) {
    // What is left of a message without a text: the colon and the words for the error number.
    const bool isAlone = message.substr(0, 2) == ": " && !NumberBehind(message, 0).empty();
    return isAlone ? std::make_optional(Match{&error, {{0, 0}}}) : std::nullopt;
  }
  std::optional<Match> match = Find(error, text, message);
  if (!match && Trimmed(text) != text) {
    match = Find(error, Trimmed(text), message);
    if (match) {
      match->isExact = false;
    }
  }
  return match;
}

/// Whether all of @p inner lies within pieces of @p outer, which then says more. If two differ only in blanks and
/// colons, a text that has lost these may be either.
bool IsWithin(const Match& inner, const Match& outer) {
  if (!inner.isExact && !outer.isExact && inner.size == outer.size) {
    return false;
  }
  return std::all_of(inner.pieces.begin(), inner.pieces.end(), [&](const Span& piece) {
    return std::any_of(outer.pieces.begin(), outer.pieces.end(),
                       [&](const Span& around) { return around.begin <= piece.begin && piece.end <= around.end; });
  });
}

std::vector<const Json*> CausesOf(const Json& error, const std::string& name) {
  std::vector<const Json*> named;
  std::vector<const Json*> others;
  std::vector<const Json*> all;
  for (const Json& cause : error["causes"]) {
    all.push_back(&cause);
    if (cause["errno"].empty()) {
      others.push_back(&cause);
    } else if (std::find(cause["errno"].begin(), cause["errno"].end(), name) != cause["errno"].end()) {
      named.push_back(&cause);
    }
  }
  if (name.empty()) {
    return all;
  }
  if (!named.empty()) {
    return named;
  }
  return others.empty() ? all : others;
}

std::string CausesInWords(const catalogue::Explanation& explanation) {
  std::string words;
  for (const Json* const cause : explanation.causes) {
    std::string names;
    for (const Json& name : (*cause)["errno"]) {
      names += (names.empty() ? "" : ", ") + name.get<std::string>();
    }
    words += "  cause    " + (names.empty() ? "" : names + ": ") + (*cause)["cause"].get<std::string>() + '\n';
    words += "  remedy   " + (*cause)["remedy"].get<std::string>() + '\n';
  }
  return words;
}

}  // namespace

namespace catalogue {

std::vector<Explanation> Explain(std::string_view message) {
  std::vector<Match> matches;
  for (const Json& error : Errors()) {
    if (std::optional<Match> match = MatchOf(error, message)) {
      matches.push_back(*match);
    }
  }
  std::stable_sort(matches.begin(), matches.end(), [](const Match& left, const Match& right) {
    return left.size != right.size ? left.size > right.size : left.isExact > right.isExact;
  });

  std::vector<Explanation> explanations;
  std::vector<Match> kept;
  for (const Match& match : matches) {
    const bool isTold =
        std::any_of(kept.begin(), kept.end(), [&](const Match& before) { return IsWithin(match, before); });
    if (!isTold) {
      kept.push_back(match);
      const std::string name = NumberBehind(message, match.pieces.back().end);
      explanations.push_back({match.error, name, CausesOf(*match.error, name)});
    }
  }
  return explanations;
}

std::string InWords(const Explanation& explanation) {
  std::string words = CausesInWords(explanation);
  words += "  remains  " + (*explanation.error)["remains"].get<std::string>() + '\n';
  return words;
}

std::string FailureInWords(const std::string& verb, const std::string& message) {
  std::string explained;
  for (const Explanation& explanation : Explain(message)) {
    explained += CausesInWords(explanation);
  }
  return "boardctl: " + verb + ": " + message +
         (explained.empty() ? "" : '\n' + explained.substr(0, explained.size() - 1));
}

}  // namespace catalogue

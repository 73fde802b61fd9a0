#include <memory>
#include <nlohmann/json.hpp>

#include "Catalogue.h"
#include "Groups.h"
#include "Program.h"
#include "Source.h"
#include "Status.h"

namespace {

/// Shows what the catalogue has for @p line, the @p number th of a log; 0 stands for a text that is no log.
std::size_t ExplainLine(const std::string& line, std::size_t number, Output& out) {
  const auto explanations = catalogue::Explain(line);
  if (!explanations.empty()) {
    out.Line((number == 0 ? "" : std::to_string(number) + ": ") + line, Output::kBold);
  }
  for (const catalogue::Explanation& explanation : explanations) {
    Json causes = Json::array();
    for (const Json* const cause : explanation.causes) {
      causes.push_back(*cause);
    }
    const Json& error = *explanation.error;
    out.Object("explanation", {{"line", number == 0 ? Json() : Json(number)},
                               {"message", line},
                               {"id", error["id"]},
                               {"text", error["text"]},
                               {"errno", explanation.name.empty() ? Json() : Json(explanation.name)},
                               {"exception", error["exception"]},
                               {"operations", error["operations"]},
                               {"causes", causes},
                               {"remains", error["remains"]}});
    std::string operations;
    for (const Json& operation : error["operations"]) {
      operations += (operations.empty() ? "" : ", ") + operation.get<std::string>();
    }
    out.Line("  from     " + operations);
    const std::string words = catalogue::InWords(explanation);
    out.Line(words.substr(0, words.size() - 1));
  }
  return explanations.size();
}

int Explain(const std::string& text, Output& out) {
  std::size_t lines = 0;
  std::size_t found = 0;
  if (text == "-") {
    Source source(text);
    std::string rest;
    for (std::vector<unsigned char> bytes = source.Read(); !bytes.empty(); bytes = source.Read()) {
      rest.append(bytes.begin(), bytes.end());
      std::size_t begin = 0;
      for (std::size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n', begin)) {
        found += ExplainLine(rest.substr(begin, end - begin), ++lines, out);
        begin = end + 1;
      }
      rest.erase(0, begin);
    }
    if (!rest.empty()) {
      found += ExplainLine(rest, ++lines, out);
    }
  } else {
    lines = 1;
    found = ExplainLine(text, 0, out);
  }
  out.Object("explained", {{"lines", lines}, {"explanations", found}});
  if (found == 0) {
    out.Say("boardctl: No known error text found.");
  }
  return kStatusDone;
}

}  // namespace

void AddExplain(Program& program) {
  const auto text = std::make_shared<std::string>();
  CLI::App& verb =
      program.AddVerb(nullptr,
                      {"explain", "Explains error texts: their causes and remedies", "TEXT|-", "",
                       "The catalogue is built in: no file is needed. Unknown lines are skipped. Pass the whole "
                       "message: with the words after the fixed text, only the cause that applies is shown.",
                       "explain \"popen failed: Cannot allocate memory\"", "nothing; no device is opened."},
                      [text](Call& call) { return Explain(*text, call.out); });
  AddArgument(verb, "TEXT", "", *text, AnyText, "the text as it was printed; - reads a log from standard input",
              kRequired);
}

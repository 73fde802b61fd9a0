#ifndef BOARDKIT_CTL_CATALOGUE_H
#define BOARDKIT_CTL_CATALOGUE_H

#include <string>
#include <string_view>
#include <vector>

#include "Output.h"

/// The error catalogue: docs/errors.json, built into the program.
namespace catalogue {

struct Explanation {
  const Json* error;  // the whole entry
  std::string name;   // of the error number that follows the text, "EBUSY"; empty for none, or one it does not tell of
  std::vector<const Json*> causes;  // those that hold for that error number, or all
};

/// What the catalogue has for a message, or for a line of a log with messages in it; the most telling first.
std::vector<Explanation> Explain(std::string_view message);

/// Cause and remedy of all explanations in lines for the reader; empty if there is none.
std::string InWords(const std::vector<Explanation>& explanations);

/// What a verb that failed says: the message, and below it what the catalogue has for it.
std::string FailureInWords(const std::string& verb, const std::string& message);

}  // namespace catalogue

#endif

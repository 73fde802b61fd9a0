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
  std::string name;   // of the error number that follows the text, "EBUSY"; empty for none, or one it does not cover
  std::vector<const Json*> causes;  // those that hold for that error number, or all
};

/// What the catalogue has for a message, or for a line of a log with messages in it; the most specific first.
std::vector<Explanation> Explain(std::string_view message);

/// Causes, remedies and what remains, in lines for the reader.
std::string InWords(const Explanation& explanation);

/// What a verb that failed says: the message, and below it the causes and remedies that the catalogue has for it. What
/// remains after a call of the library concerns its programs; a verb's help says what the verb leaves.
std::string FailureInWords(const std::string& verb, const std::string& message);

}  // namespace catalogue

#endif

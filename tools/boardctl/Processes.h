#ifndef BOARDKIT_CTL_PROCESSES_H
#define BOARDKIT_CTL_PROCESSES_H

#include <string>
#include <vector>

#include "Output.h"

/// Who has a device open, from /proc: only root sees what other users' processes have open.
namespace processes {

struct Holder {
  int process;
  std::string name;
};

/// The other processes that have @p device open, in the order of their numbers.
std::vector<Holder> HoldersOf(const std::string& device);

/// Whether this user sees what every process of the board has open. Not even root does in a container, nor in a user
/// namespace.
bool SeesAll();

/// The members "held_by":[{"pid":1,"name":"init"}] and "held_by_complete":true, after those of @p object.
void AddTo(Json& object, const std::vector<Holder>& holders);
/// "init (1), getty (812)"; for none, "nobody", and if this user may not see all, that too.
std::string InWords(const std::vector<Holder>& holders);

}  // namespace processes

#endif

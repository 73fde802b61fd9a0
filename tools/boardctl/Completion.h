#ifndef BOARDKIT_CTL_COMPLETION_H
#define BOARDKIT_CTL_COMPLETION_H

#include <string>
#include <vector>

class Program;

/// The word by which a shell's script asks for completions, in the place of the group.
constexpr const char* kCompletionWord = "__complete";

/// What may stand in the place of the last of @p words, or begin like it; ":files" stands for names of files. Looks at
/// the command line's own tree, /dev and the kernel's list of interfaces, and opens no device.
std::vector<std::string> Complete(const Program& program, const std::vector<std::string>& words);

#endif

#ifndef BOARDKIT_TESTS_SCRIPTEDIP_H
#define BOARDKIT_TESTS_SCRIPTEDIP_H

#include <string>
#include <vector>

#include "TemporaryFolder.h"

/// Puts an `ip` of its own first in PATH while it lives: one that notes how it is called and prints what it was given.
class ScriptedIp {
 public:
  ScriptedIp();
  ~ScriptedIp();
  ScriptedIp(const ScriptedIp&) = delete;
  ScriptedIp& operator=(const ScriptedIp&) = delete;

  /// Makes `ip ARGUMENTS` print @p output and end with @p status; other arguments print nothing and end with 0.
  void Answer(const std::string& arguments, const std::string& output, int status = 0);

  /// The arguments of every call so far, in order, joined by blanks.
  std::vector<std::string> Calls() const;

 private:
  TemporaryFolder m_folder{"scripted-ip"};
  std::string m_oldPath;
  std::string m_cases;
  int m_answers = 0;
};

#endif

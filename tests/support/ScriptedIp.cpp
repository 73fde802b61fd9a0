#include "ScriptedIp.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

ScriptedIp::ScriptedIp() : m_oldPath(std::getenv("PATH")) {
  ::setenv("PATH", (m_folder.Path().string() + ":" + m_oldPath).c_str(), 1);
  Answer("", "");
}

ScriptedIp::~ScriptedIp() {
  ::setenv("PATH", m_oldPath.c_str(), 1);
}

void ScriptedIp::Answer(const std::string& arguments, const std::string& output, int status) {
  const std::string file = m_folder.Path() / ("output" + std::to_string(m_answers++));
  std::ofstream(file, std::ios::binary) << output;
  m_cases += "'" + arguments + "') cat '" + file + "'; exit " + std::to_string(status) + ";;\n";

  const std::filesystem::path script = m_folder.Path() / "ip";
  std::ofstream(script) << "#!/bin/sh\n"
                        << "printf '%s\\n' \"$*\" >> '" << (m_folder.Path() / "calls").string() << "'\n"
                        << "case \"$*\" in\n"
                        << m_cases << "esac\n";
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
}

std::vector<std::string> ScriptedIp::Calls() const {
  std::ifstream file(m_folder.Path() / "calls");
  std::vector<std::string> calls;
  for (std::string line; std::getline(file, line);) {
    calls.push_back(line);
  }
  return calls;
}

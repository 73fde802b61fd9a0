#include "ScriptedIp.h"

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>

ScriptedIp::ScriptedIp() : m_oldPath(std::getenv("PATH")) {
  std::string folder = std::filesystem::temp_directory_path() / "scripted-ip-XXXXXX";
  EXPECT_NE(::mkdtemp(folder.data()), nullptr);
  m_folder = folder;
  ::setenv("PATH", (folder + ":" + m_oldPath).c_str(), 1);
  Answer("", "");
}

ScriptedIp::~ScriptedIp() {
  ::setenv("PATH", m_oldPath.c_str(), 1);
  std::filesystem::remove_all(m_folder);
}

void ScriptedIp::Answer(const std::string& arguments, const std::string& output, int status) {
  const std::string file = m_folder / ("output" + std::to_string(m_answers++));
  std::ofstream(file, std::ios::binary) << output;
  m_cases += "'" + arguments + "') cat '" + file + "'; exit " + std::to_string(status) + ";;\n";

  const std::filesystem::path script = m_folder / "ip";
  std::ofstream(script) << "#!/bin/sh\n"
                        << "printf '%s\\n' \"$*\" >> '" << (m_folder / "calls").string() << "'\n"
                        << "case \"$*\" in\n"
                        << m_cases << "esac\n";
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
}

std::vector<std::string> ScriptedIp::Calls() const {
  std::ifstream file(m_folder / "calls");
  std::vector<std::string> calls;
  for (std::string line; std::getline(file, line);) {
    calls.push_back(line);
  }
  return calls;
}

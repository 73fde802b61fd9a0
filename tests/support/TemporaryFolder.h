#ifndef BOARDKIT_TESTS_TEMPORARYFOLDER_H
#define BOARDKIT_TESTS_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

/// A folder of the test's own, removed with all that is in it.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::string& name) {
    std::string folder = std::filesystem::temp_directory_path() / (name + "-XXXXXX");
    EXPECT_NE(::mkdtemp(folder.data()), nullptr) << folder;
    // The kernel's name for it, in case there is a link in the path.
    m_path = std::filesystem::canonical(folder);
  }
  ~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(m_path, error);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const {
    return m_path;
  }

 private:
  std::filesystem::path m_path;
};

#endif

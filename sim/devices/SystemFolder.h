#ifndef BOARDKIT_SIM_DEVICES_SYSTEMFOLDER_H
#define BOARDKIT_SIM_DEVICES_SYSTEMFOLDER_H

#include <map>
#include <string>

#include "Descriptor.h"

/// What /sys shows of a device: files of a line each, which only the simulator writes.
class SystemFolder {
 public:
  /// Keeps nothing.
  SystemFolder() = default;
  explicit SystemFolder(Descriptor folder) : m_folder(std::move(folder)) {}

  /// Makes the file, or changes what is in it.
  void Write(const std::string& name, const std::string& text);

 private:
  struct File {
    Descriptor descriptor;
    std::string text;
  };

  Descriptor m_folder;
  std::map<std::string, File> m_files;  // by their names
};

#endif

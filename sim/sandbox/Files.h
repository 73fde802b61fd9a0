#ifndef BOARDKIT_SIM_SANDBOX_FILES_H
#define BOARDKIT_SIM_SANDBOX_FILES_H

#include <sys/types.h>

#include <string>

constexpr mode_t kNodeMode = 0666;
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSharedFolderMode = 01777;

/// Makes the folders that a path leads through.
void MakeFoldersFor(const std::string& path);
/// @throws SetupError
void MakeEmptyFile(const std::string& path);
/// Shows a file or folder in another place.
/// @returns false with errno.
bool Bind(const std::string& source, const std::string& target);

#endif

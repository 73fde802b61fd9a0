#ifndef BOARDKIT_SIM_SANDBOX_MOUNTS_H
#define BOARDKIT_SIM_SANDBOX_MOUNTS_H

#include <sys/types.h>

#include <string>

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSharedFolderMode = 01777;

/// Makes the folders that a path leads through.
void MakeFoldersFor(const std::string& path);
/// @throws SetupError
void MakeEmptyFile(const std::string& path);

/// Keeps the mounts of the calling process to itself, also where its root is not a mount.
/// @throws NamespacesForbidden
void MakeMountsPrivate();
/// Shows a file or folder in another place, with what is mounted below it.
/// @returns false with errno.
bool Bind(const std::string& source, const std::string& target);
/// What is there can't be changed through this place any more: neither a file's contents nor its owner, rights and
/// times. Devices can be written all the same.
/// @returns false with errno.
bool MakeReadOnly(const std::string& path);
/// The same for a place that is not itself a mount.
bool BindReadOnly(const std::string& path);
/// An empty folder that vanishes with the board.
/// @param options as "mode=755".
/// @throws NamespacesForbidden
void MountEmptyFolder(const std::string& path, const char* options);

#endif

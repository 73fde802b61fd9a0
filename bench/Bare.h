#ifndef BOARDKIT_BENCH_BARE_H
#define BOARDKIT_BENCH_BARE_H

#include <cstddef>
#include <string>
#include <string_view>

/// @file
/// What a program would write that does without the library: the contenders that set the pace.

/// One `write`, and whether it wrote everything: no caller can do without this question.
bool BareWrite(int fd, const void* data, std::size_t length);

/// One `read`, and whether it filled the buffer.
bool BareRead(int fd, void* buffer, std::size_t length);

/// What @p command prints, collected with `popen`, `fgets` and `pclose`; @p command redirects its own standard error.
/// @throws std::runtime_error if it cannot be run or fails.
std::string BareExec(const char* command);

/// The position of @p key in @p text, which comes as a copy because the library's functions take theirs so.
std::size_t BareFind(std::string text, std::string_view key);

#endif

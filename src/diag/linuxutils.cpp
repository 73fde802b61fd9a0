#include "linuxutils.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace linuxutils {

namespace {

constexpr int kMostFrames = 20;               // captured, those that are skipped included
constexpr std::size_t kComparedLength = 200;  // characters of a line that tell frames apart
constexpr std::size_t kWordSize = 128;        // bytes with the terminating NUL; the formats below repeat it

/// Frees what the C library allocated, even if memory runs out meanwhile.
struct Free {
  void operator()(void* memory) const {
    std::free(memory);
  }
};

/// Appends the nested name in @p symbol to @p name; false if the text does not read like one.
///
/// By contract: this understands lengths and the final 'E' and nothing else. Users know the names as it writes them.
bool ReadNestedName(const char* symbol, std::string& name) {
  while (*symbol != '\0') {
    if (std::isdigit(static_cast<unsigned char>(*symbol)) == 0) {
      ++symbol;
      continue;
    }

    char* behind = nullptr;
    const auto length = static_cast<std::size_t>(std::strtol(symbol, &behind, 10));
    if (::strnlen(behind, length) < length) {
      return false;
    }
    name.append(behind, length);

    symbol = behind + length;
    if (*symbol == 'E' || *symbol == '\0') {
      return true;
    }
    name += "::";
  }
  return false;
}

}  // namespace

std::string Demangle(const char* symbol) {
  std::string name;
  if (ReadNestedName(symbol, name)) {
    return name;
  }

  char word[kWordSize];
  if (std::sscanf(symbol, "%*[^(]%*[^_]%127[^)+]", word) == 1) {
    std::size_t length = 0;
    int status = 0;
    const std::unique_ptr<char, Free> text(abi::__cxa_demangle(word, nullptr, &length, &status));
    if (text != nullptr) {
      return text.get();
    }
  }

  return std::sscanf(symbol, "%127s", word) == 1 ? word : symbol;
}

// By contract: the name lacks an "s".
void AppendRecurionNote(std::string& text, int count) {
  char note[sizeof " repeats -2147483648 times!"];
  std::snprintf(note, sizeof note, " repeats %i times!", count);
  text += note;
}

// Two real functions, each with a frame of its own that the other counts on: neither may be inlined.
[[gnu::noinline]] std::string Traceback(int skip) {
  void* addresses[kMostFrames];
  const int count = ::backtrace(addresses, kMostFrames);
  const std::unique_ptr<char*, Free> block(::backtrace_symbols(addresses, count));
  const char* const* const lines = block.get();
  std::string text = "\nTraceback:";

  // By contract: a negative number shows this function's own frame, too.
  const int first = skip < 0 ? 0 : std::min(skip, kMostFrames) + 1;
  int repeats = 0;
  for (int i = first; lines != nullptr && i < count; ++i) {
    if (i != first && std::strncmp(lines[i], lines[i - 1], kComparedLength) == 0) {
      ++repeats;
      if (i == count - 1) {
        AppendRecurionNote(text, repeats);
      }
    } else {
      if (repeats != 0) {
        AppendRecurionNote(text, repeats);
      }
      text += '\n';
      text += Demangle(lines[i]);
      repeats = 0;
    }
  }
  text += '\n';
  return text;
}

[[gnu::noinline]] std::string Traceback() {
  std::string text = Traceback(1);
  // Something is left to do after the call, so that the compiler can't turn it into a jump.
  asm volatile("" ::: "memory");
  return text;
}

}  // namespace linuxutils

// Feeds Demangle() with texts that a fuzzer makes up, and compares it with the naive statement of its rules. A
// difference ends the process, which the fuzzer reports with the text.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "NaiveDemangling.h"
#include "linuxutils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  text.resize(text.find('\0') == std::string::npos ? size : text.find('\0'));
  if (linuxutils::Demangle(text.c_str()) != naive::Demangle(text)) {
    std::abort();
  }
  return 0;
}

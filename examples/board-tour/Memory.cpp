// A word of physical memory, and a mapping.
#include <sys/mman.h>

#include <SystemCalls.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Chapters.h"
#include "Page.h"

namespace {

unsigned int ParseAddress(const std::string& text) {
  char* end = nullptr;
  const unsigned long long address = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || text.find_first_of("0123456789") != 0 || address > 0xFFFFFFFF || address % 4 != 0) {
    throw std::invalid_argument(page::Quoted(text) + " is no address of a word in the first 4 GiB.");
  }
  return static_cast<unsigned int>(address);
}

void WriteWord(unsigned int address, unsigned int value) {
  page::Call("WriteToPhysicalMemoryAddress(" + page::Hex(address) + ", " + page::Hex(value) + ")");
  WriteToPhysicalMemoryAddress(address, value);
}

unsigned int ReadWord(unsigned int address) {
  page::Call("ReadFromPhysicalMemoryAddress(" + page::Hex(address) + ")");
  const unsigned int value = ReadFromPhysicalMemoryAddress(address);
  page::Row("result", page::Hex(value));
  return value;
}

void ShowWord(unsigned int address) {
  page::Step("A word of physical memory: read, changed, and put back");
  const unsigned int former = ReadWord(address);
  WriteWord(address, ~former);
  const bool hasChanged = ReadWord(address) == ~former;
  WriteWord(address, former);
  const bool isBack = ReadWord(address) == former;
  if (!hasChanged || !isBack) {
    throw std::runtime_error("What was written is not what is read: there is no memory at this address.");
  }
}

void ShowMapping() {
  constexpr unsigned int kSize = 4096;
  page::Step("Map memory, use it, and give it back");
  page::Call("mmap_e(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)");
  void* const memory = mmap_e(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const std::string text = "written to the mapping";
  std::memcpy(memory, text.data(), text.size());
  page::Row("holds", page::Quoted(static_cast<const char*>(memory)));
  page::Call("munmap_a(memory, 4096)");
  page::Row("result", std::to_string(munmap_a(memory, kSize)));

  page::Step("A mapping that cannot be");
  page::Call("mmap_e(nullptr, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)");
  try {
    mmap_e(nullptr, 0, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  } catch (const std::exception& e) {
    page::Row("throws", page::Quoted(e.what()));
  }
}

}  // namespace

void ShowMemory(const std::string& address) {
  ShowMapping();
  if (!address.empty()) {
    ShowWord(ParseAddress(address));
  }
}

#include <SystemCalls.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "BusError.h"
#include "Check.h"
#include "Groups.h"
#include "Program.h"
#include "Signals.h"
#include "Status.h"

namespace {

constexpr std::uint32_t kWordSize = sizeof(std::uint32_t);
constexpr std::uint32_t kBits = 32;

constexpr const char* kDetails =
    "All accesses are to 32-bit words. It needs root and /dev/mem, and kernels "
    "may guard it. Reading some registers changes the device: a receive buffer loses "
    "what is read.";

struct MemoryArguments {
  std::uint32_t address = 0;
  std::uint64_t count = 1;
  std::uint32_t value = 0;
  std::optional<std::uint32_t> mask;
  std::uint64_t everyMs = 100;
  std::uint64_t changes = 0;
};

/// The address of the word @p index words after the first one.
std::uint32_t AddressOf(const MemoryArguments& arguments, std::uint64_t index) {
  return arguments.address + static_cast<std::uint32_t>(index) * kWordSize;
}

void CheckEnd(const MemoryArguments& arguments) {
  const std::uint64_t end = arguments.address + arguments.count * kWordSize;
  if (end > std::uint64_t{std::numeric_limits<std::uint32_t>::max()} + 1) {
    throw UsageError("COUNT: " + std::to_string(arguments.count) + " words from " + Hexadecimal(arguments.address) +
                     " on reach beyond 32-bit addresses");
  }
}

int Read(const MemoryArguments& arguments, Call& call) {
  CheckEnd(arguments);
  TellBusErrors("mem read");
  for (std::uint64_t i = 0; i < arguments.count && signals::Caught() == 0; ++i) {
    const std::uint32_t address = AddressOf(arguments, i);
    const std::uint32_t value = ReadFromPhysicalMemoryAddress(address);
    call.out.Line(Hexadecimal(address) + "  " + Hexadecimal(value));
    call.out.Object("mem_word", {{"address", Hexadecimal(address)}, {"value", Hexadecimal(value)}});
  }
  return kStatusDone;
}

int Write(const MemoryArguments& arguments, Call& call) {
  TellBusErrors("mem write");
  Json before;
  std::uint32_t value = arguments.value;
  if (arguments.mask) {
    const std::uint32_t read = ReadFromPhysicalMemoryAddress(arguments.address);
    value = (read & ~*arguments.mask) | (arguments.value & *arguments.mask);
    before = Hexadecimal(read);
  }
  if (!call.dryRun) {
    WriteToPhysicalMemoryAddress(arguments.address, value);
  }
  call.out.Line(Hexadecimal(arguments.address) + (call.dryRun ? "  would write " : "  wrote ") + Hexadecimal(value) +
                (before.is_null() ? "" : ", before " + before.get<std::string>()));
  call.out.Object("mem_write", {{"address", Hexadecimal(arguments.address)},
                                {"before", before},
                                {"value", Hexadecimal(value)},
                                {"mask", arguments.mask ? Json(Hexadecimal(*arguments.mask)) : Json()},
                                {"written", !call.dryRun}});
  return kStatusDone;
}

/// "0000 0000 0000 0000 0000 0000 0110 0001", from bit 31 on.
std::string Binary(std::uint32_t word, char set, char clear) {
  std::string text;
  for (std::uint32_t bit = kBits; bit-- != 0;) {
    text += (word >> bit & 1U) != 0 ? set : clear;
    if (bit % 4 == 0 && bit != 0) {
      text += ' ';
    }
  }
  return text;
}

int Watch(const MemoryArguments& arguments, Call& call) {
  TellBusErrors("mem watch");
  const auto start = std::chrono::steady_clock::now();
  std::optional<std::uint32_t> last;
  std::uint64_t changes = 0;
  do {
    const std::uint32_t value = ReadFromPhysicalMemoryAddress(arguments.address);
    if (value == last) {
      continue;
    }
    const std::uint32_t changed = last ? value ^ *last : 0;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::string bits;
    Json changedBits = Json::array();
    for (std::uint32_t bit = 0; bit < kBits; ++bit) {
      if ((changed >> bit & 1U) != 0) {
        bits += ' ' + std::to_string(bit);
        changedBits.push_back(bit);
      }
    }
    const std::string time = Timestamp(std::chrono::system_clock::now());
    const std::string front = time + "  " + Hexadecimal(value) + "  ";
    call.out.Line(front + Binary(value, '1', '0'));
    if (changed != 0) {
      call.out.Line(std::string(front.size(), ' ') + Binary(changed, '^', ' ') + "  bits" + bits, Output::kBold);
    }
    call.out.Object("mem_watch", {{"time", time},
                                  {"t_s", seconds},
                                  {"address", Hexadecimal(arguments.address)},
                                  {"value", Hexadecimal(value)},
                                  {"before", last ? Json(Hexadecimal(*last)) : Json()},
                                  {"changed_bits", changedBits}});
    changes += last ? 1U : 0U;
    last = value;
  } while ((arguments.changes == 0 || changes < arguments.changes) &&
           Output::WaitWhileRead(static_cast<int>(arguments.everyMs)));
  return kStatusDone;
}

int Dump(const MemoryArguments& arguments, Call& call) {
  constexpr std::uint64_t kWordsInRow = 4;
  CheckEnd(arguments);
  TellBusErrors("mem dump");
  for (std::uint64_t i = 0; i < arguments.count && signals::Caught() == 0; i += kWordsInRow) {
    std::string row = Hexadecimal(AddressOf(arguments, i)) + ' ';
    std::string characters;
    Json words = Json::array();
    for (std::uint64_t j = i; j < i + kWordsInRow; ++j) {
      if (j >= arguments.count) {
        row += std::string(sizeof "01234567", ' ');
        continue;
      }
      const std::uint32_t word = ReadFromPhysicalMemoryAddress(AddressOf(arguments, j));
      unsigned char bytes[kWordSize];
      std::memcpy(bytes, &word, sizeof bytes);
      for (const unsigned char byte : bytes) {
        characters += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
      }
      words.push_back(Hexadecimal(word));
      row += ' ' + Hexadecimal(word).substr(2);
    }
    call.out.Line(row + "  |" + characters + '|');
    call.out.Object("mem_dump", {{"address", Hexadecimal(AddressOf(arguments, i))}, {"words", words}});
  }
  return kStatusDone;
}

/// Adds a verb that has an address, and gives its arguments a home.
CLI::App& AddAddressVerb(Program& program, CLI::App& group, const Verb& verb, int (*run)(const MemoryArguments&, Call&),
                         MemoryArguments*& arguments) {
  const auto kept = std::make_shared<MemoryArguments>();
  CLI::App& app = program.AddVerb(&group, verb, [kept, run](Call& call) { return run(*kept, call); });
  AddArgument(app, "ADDRESS", "", kept->address, check::WordAddress,
              "the first byte's physical address, a multiple of 4, as devmem takes it: 0x80011000, decimal, or octal "
              "with a leading 0",
              kRequired);
  arguments = kept.get();
  return app;
}

void AddCount(CLI::App& app, MemoryArguments& arguments, std::uint64_t standard) {
  constexpr std::uint64_t kMost = 0x40000000;  // the words of all memory
  arguments.count = standard;
  AddArgument(
      app, "COUNT", "", arguments.count, [](const std::string& text) { return check::Decimal(text, 1, kMost); },
      "how many words (default " + std::to_string(standard) + ')');
}

}  // namespace

void AddMemory(Program& program) {
  constexpr const char* kNothing = "nothing but what reading changes in a device.";
  CLI::App& group = program.AddGroup("mem", "physical memory and registers: read, write, watch, dump");
  MemoryArguments* arguments = nullptr;

  CLI::App& read = AddAddressVerb(program, group,
                                  {"read", "Reads 32-bit words, one per line", "ADDRESS [COUNT] [OPTION]...", "",
                                   kDetails, "mem read 0x80011000 4", kNothing},
                                  Read, arguments);
  AddCount(read, *arguments, 1);

  CLI::App& write =
      AddAddressVerb(program, group,
                     {"write", "Writes a 32-bit word", "ADDRESS VALUE [OPTION]...",
                      "A WRONG ADDRESS CAN STOP OR DAMAGE THE BOARD: nothing checks what is there.",
                      "All accesses are to 32-bit words. It needs root and /dev/mem, and kernels may "
                      "guard it. With --mask the word is read first, also with --dry-run: that changes some "
                      "registers. Without it the word is not read, before or afterwards.",
                      "mem write 0x80011010 0x10 --mask 0x10",
                      "the word as written, until the device or a driver changes it.", true, true},
                     Write, arguments);
  AddArgument(write, "VALUE", "", arguments->value, check::Word, "the word, in the same notation", kRequired);
  AddArgument(
      write, "--mask", "M", arguments->mask,
      [](const std::string& text) { return std::make_optional(check::Word(text)); },
      "read the word first and change only the bits that are set in M");

  CLI::App& watch = AddAddressVerb(program, group,
                                   {"watch", "Reads a 32-bit word, and reports its changes", "ADDRESS [OPTION]...", "",
                                    kDetails, "mem watch 0x80011018 --every 10", kNothing},
                                   Watch, arguments);
  constexpr std::uint64_t kLongestMs = std::uint64_t{3600} * 1000;
  AddArgument(
      watch, "--every", "MS", arguments->everyMs,
      [](const std::string& text) { return check::Decimal(text, 1, kLongestMs); },
      "milliseconds between two readings (default 100)");
  AddArgument(
      watch, "--changes", "N", arguments->changes,
      [](const std::string& text) { return check::Decimal(text, 1, std::numeric_limits<std::uint32_t>::max()); },
      "end after N changes (default: at SIGINT or SIGTERM)");

  CLI::App& dump = AddAddressVerb(program, group,
                                  {"dump", "Shows 32-bit words, four per line, with characters",
                                   "ADDRESS [COUNT] [OPTION]...", "", kDetails, "mem dump 0x80011000 16", kNothing},
                                  Dump, arguments);
  constexpr std::uint64_t kStandardDump = 64;
  AddCount(dump, *arguments, kStandardDump);
}

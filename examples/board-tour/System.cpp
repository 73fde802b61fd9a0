// A symbol looked up, and the system's memory and load.
#include <dlfcn.h>
#include <sys/sysinfo.h>

#include <SystemCalls.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "Chapters.h"
#include "Page.h"

namespace {

void ShowSymbol() {
  page::Step("Look up a function by its name, and call it");
  void* const program = ::dlopen(nullptr, RTLD_NOW);
  page::Call("program = dlopen(nullptr, RTLD_NOW)");
  page::Call(R"(length = dlsym_e(program, "strlen"))");
  auto* const length = reinterpret_cast<std::size_t (*)(const char*)>(dlsym_e(program, "strlen"));
  page::Call(R"(length("board"))");
  page::Row("result", std::to_string(length("board")));

  page::Step("One that does not exist");
  page::Call(R"(dlsym_e(program, "no_such_function"))");
  try {
    dlsym_e(program, "no_such_function");
  } catch (const std::exception& e) {
    page::Row("throws", page::Quoted(e.what()));
  }
  ::dlclose(program);
}

std::string MebiBytes(unsigned long units, unsigned int unit) {
  return std::to_string(static_cast<unsigned long long>(units) * unit / (1024ULL * 1024)) + " MiB";
}

void ShowMemoryAndLoad() {
  page::Step("Memory and load");
  page::Call("sysinfo_e(&info)");
  struct sysinfo info {};
  sysinfo_e(&info);
  constexpr double kLoadUnit = 1U << SI_LOAD_SHIFT;
  char load[80];
  std::snprintf(load, sizeof load, "%.2f, %.2f and %.2f in the last 1, 5 and 15 minutes",
                static_cast<double>(info.loads[0]) / kLoadUnit, static_cast<double>(info.loads[1]) / kLoadUnit,
                static_cast<double>(info.loads[2]) / kLoadUnit);
  page::Row("memory", MebiBytes(info.totalram, info.mem_unit) + ", of which " + MebiBytes(info.freeram, info.mem_unit) +
                          " are free");
  page::Row("load", load);
  page::Row("running", std::to_string(info.uptime / 60) + " minutes, with " + std::to_string(info.procs) + " tasks");
}

}  // namespace

void ShowSystem() {
  ShowSymbol();
  ShowMemoryAndLoad();
}

// Shell commands: their whole output, or an exception that carries it.
#include <OpSystem.h>

#include <stdexcept>
#include <string>

#include "Chapters.h"
#include "Page.h"

void ShowCommands() {
  OpSystem system;
  page::Step("Run a command: its standard output and standard error in one text");
  const std::string command = "{ echo to output; echo to error >&2; }";
  page::Call("system.ExecCmd(" + page::Quoted(command) + ", false)");
  page::Row("result", page::SplitLines(system.ExecCmd(command, false)));

  page::Step("A command that fails: the exception's text is its whole output");
  page::Call(R"(system.ExecCmd("ls /no/such/file", false))");
  try {
    system.ExecCmd("ls /no/such/file", false);
  } catch (const std::logic_error& e) {
    page::Row("throws", page::SplitLines(e.what()));
  }
}

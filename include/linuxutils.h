#ifndef BOARDKIT_LINUXUTILS_H
#define BOARDKIT_LINUXUTILS_H

/// @file
/// The calling thread's stack as text.
///
/// @code{.cpp}
/// std::cout << "here:" << linuxutils::Traceback();
/// @endcode
/// This is a part of `examples/tracebacks.cpp`. The handbook has more: @ref tracebacks.

#include <string>

#pragma GCC visibility push(default)

/// The calling thread's stack as text, for logs and exception messages.
///
/// @snippet tracebacks.cpp use
///
/// A function has a frame if its code has unwind tables (on ARM, compile with `-fasynchronous-unwind-tables`) and if it
/// was really called: an inlined function has no frame, and neither has one that ended in a jump to the next
/// (`-fno-optimize-sibling-calls` keeps the call).
///
/// A function has a name if the program exports it to the dynamic linker (link with `-rdynamic`; static functions are
/// never exported) and if it continues after its call. Where it ends in a call that never returns, the address after
/// that call belongs to another function or to nobody, except on ARM. With g++, `-fno-reorder-blocks-and-partition` and
/// `-fno-ipa-pure-const` keep code after such calls, unless the called function is declared `[[noreturn]]`; with
/// clang++, `-mllvm -trap-unreachable` does.
///
/// The CMake target boardkit::traceback has all of these flags.
///
/// Take the traceback where something happens. A terminate handler is too late: on 32-bit ARM, the stack that it sees
/// ends inside the C++ library. The example traceback-on-terminate records the stack of each throw.
///
/// Any thread may call these functions; none of them is safe in a signal handler, since all allocate memory. They throw
/// nothing but `std::bad_alloc`, if memory runs out; nothing has changed then.
namespace linuxutils {

/// A readable name for one line of `backtrace_symbols`, or for any text.
///
/// Nested names are read in a simple way, as runs of length and name up to the 'E' that ends them, without parameters:
/// "(_ZN8OpSystem7ExecCmdE..." gives "OpSystem::ExecCmd". All digits of the line count, so a path with digits in it
/// ("/lib/libc.so.6") either puts stray text in front or makes this reading fail; an ABI tag reads like one more name
/// ("SerialPort::ToString::cxx11"). Where the reading fails, the language's own demangler is asked for the full
/// signature, and where that fails too, the result is the first word of the text. These two read no more than 127
/// characters.
std::string Demangle(const char* symbol);

/// Appends " repeats <count> times!" to @p text.
void AppendRecurionNote(std::string& text, int count);

/// The calling thread's stack: "\nTraceback:", then each frame on a line of its own, and a final newline.
///
/// At most 20 frames are captured, this function's own and the @p skip callers left out included; with a negative
/// @p skip, this function's own is shown, too. Of neighbouring frames that are equal (a recursion from one place; of
/// their lines, 200 characters are compared), the first is shown and the others are counted after it.
std::string Traceback(int skip);

/// The stack from the caller on, as Traceback(0) shows it; of a deep one, a frame less, since this function's own is
/// captured too.
std::string Traceback();

}  // namespace linuxutils

#pragma GCC visibility pop

#endif

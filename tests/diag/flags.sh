#!/bin/sh
# Builds a program with all of the flags for whole tracebacks, and then without each of them, and looks whether the frames
# are missing that the handbook says are missing then.
# Usage: flags.sh SOURCE_DIR CXX [EMULATOR...]
set -eu
tree=$1 cxx=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
cp "$tree/src/diag/linuxutils.cpp" library.cpp
cp "$tree/include/linuxutils.h" .
"$cxx" -std=c++17 -O2 -fasynchronous-unwind-tables -c library.cpp

cat > program.cpp <<'END'
#include <cstdio>
#include <stdexcept>

#include "linuxutils.h"

#define KEPT __attribute__((noinline))

namespace station {

[[noreturn]] KEPT void Never() {
  std::fputs(linuxutils::Traceback().c_str(), stdout);
  throw 1;
}
KEPT void CallsNever() {
  std::puts("in");
  Never();
  std::puts("never here");
}
KEPT void Show() {
  std::fputs(linuxutils::Traceback().c_str(), stdout);
  std::puts("end");
}
KEPT void LastCall() {
  Show();
}
KEPT void AlwaysThrows() {
  std::fputs(linuxutils::Traceback().c_str(), stdout);
  throw std::runtime_error("always");
}
KEPT void CallsIt() {
  std::puts("in");
  AlwaysThrows();
}

}  // namespace station

int main(int argc, char**) {
  if (argc == 2) {
    try {
      station::CallsNever();
    } catch (int) {
      return 0;
    }
  }
  station::LastCall();
  try {
    station::CallsIt();
  } catch (const std::exception&) {
    std::puts("caught");
  }
}
END

failed=0
# expect NAMES FLAG...: built with the flags, the program shows these of its own names, and no others.
expect() {
  wanted=$1
  shift
  # Static but for the language's own libraries, and with a path without digits, which would count.
  "$cxx" -std=c++17 "$@" program.cpp library.o -o app
  "$emulated" ./app | sed -n 's/^station::\([A-Za-z]*\)$/\1/p' | paste -s -d ' ' - > got
  if [ "$(cat got)" = "$wanted" ]; then
    printf '%s: %s\n' "$*" "${wanted:-no name}"
  else
    printf '%s: the frames are "%s", not "%s".\n' "$*" "$(cat got)" "$wanted"
    failed=1
  fi
}
emulated=$work/emulated
printf '#!/bin/sh\nexec %s "$@"\n' "$*" > "$emulated"
chmod +x "$emulated"

# expect_never NAMES: which of these two are shown by the program as it was built last: a function that is declared never
# to return, and the one that calls it.
expect_never() {
  "$emulated" ./app never | sed -n 's/^station::\([A-Za-z]*Never\)$/\1/p' | paste -s -d ' ' - > got
  if [ "$(cat got)" != "$1" ]; then
    printf 'Where a function never returns, the frames are "%s", not "%s".\n' "$(cat got)" "$1"
    failed=1
  fi
}

tables=-fasynchronous-unwind-tables calls=-fno-optimize-sibling-calls
if "$cxx" --version | grep -q clang; then
  behind='-mllvm -trap-unreachable' never='Never CallsNever' jumps='Show AlwaysThrows CallsIt'
else
  behind='-fno-reorder-blocks-and-partition -fno-ipa-pure-const' never=Never jumps='Show AlwaysThrows'
fi
case $("$cxx" -dumpmachine) in
  arm*) unbroken='Show LastCall AlwaysThrows CallsIt' never='Never CallsNever' ;;
  *) unbroken='Show LastCall AlwaysThrows' ;;
esac
# shellcheck disable=SC2086 # flags are words
{
  expect 'Show LastCall AlwaysThrows CallsIt' -O2 -rdynamic $tables $calls $behind
  expect_never "$never"
  expect '' -O2 $tables $calls $behind
  expect "$unbroken" -O2 -rdynamic $tables $calls
  expect "$jumps" -O2 -rdynamic $tables $behind
  # None of these replaces them.
  for other in -O1 -Og '-O2 -fno-omit-frame-pointer'; do
    expect "$unbroken" $other -rdynamic $tables $calls
  done
  expect "Show AlwaysThrows${unbroken#Show LastCall AlwaysThrows}" -O2 -fno-omit-frame-pointer -rdynamic $tables
}
exit $failed

#!/bin/sh
# Builds the traceback in many ways, and looks whether it begins with the function that asks: Traceback() and
# Traceback(int) must stay two calls, whatever the optimiser and the linker do.
# Usage: two-frames.sh SOURCE_DIR CXX
set -eu
tree=$1 cxx=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
# Copied, since the path to the tree may have blanks in it, which words of flags may not.
cp "$tree/src/diag/linuxutils.cpp" library.cpp
cp "$tree/include/linuxutils.h" .

cat > program.cpp <<'END'
#include <cstdio>

#include "linuxutils.h"

namespace caller {

__attribute__((noinline)) void Show();
__attribute__((noinline)) void Outer();

void Show() {
  // Two lines each: an empty one and the header, and then the first frame.
  std::fputs(linuxutils::Traceback().c_str(), stdout);
  std::fputs(linuxutils::Traceback(0).c_str(), stdout);
  std::fputs(linuxutils::Traceback(1).c_str(), stdout);
}

void Outer() {
  Show();
  std::puts("end");
}

}  // namespace caller

int main() {
  caller::Outer();
  std::puts("end");
}
END
printf '%s\n' caller::Show caller::Show caller::Outer > expected
failed=0

# check WAY: runs the program by a path without digits, which would count.
check() {
  ./program > output
  sed -n '/^Traceback:$/ { n; p; }' output > first
  if cmp -s expected first; then
    printf '%s: two frames\n' "$1"
  else
    printf '%s: the frames shown first are not these:\n' "$1"
    diff expected first || failed=1
  fi
}

levels='-O0 -O1 -O2 -O3 -Os -Og'
# Not every compiler knows this one.
if "$cxx" -Oz -fsyntax-only library.cpp -I. -std=c++17 2> messages; then
  levels="$levels -Oz"
else
  echo '-Oz: this compiler does not know it.'
fi

# How the program is optimised matters only where the linker sees both.
common="-std=c++17 -I. -fPIC -fasynchronous-unwind-tables"
# shellcheck disable=SC2086  # flags are words
{
  "$cxx" $common -O2 -c program.cpp -o compiled.o
  for level in $levels; do
    "$cxx" $common $level -c library.cpp
    "$cxx" -rdynamic compiled.o library.o -o program
    check "$level, static"
    "$cxx" -shared library.o -o libframes.so
    # It takes whatever library lies there then.
    [ -e shared ] || "$cxx" -rdynamic compiled.o ./libframes.so -o shared
    cp shared program
    check "$level, shared"

    # With everything in one piece, the linker could merge the two.
    flags="$common $level -flto"
    if "$cxx" $flags -c library.cpp 2> messages && "$cxx" $flags -rdynamic program.cpp library.o -o program 2>> messages; then
      check "$level, static, at link time"
      "$cxx" $flags -shared library.o -o libframes.so
      cp shared program
      check "$level, shared, at link time"
    else
      printf '%s, at link time: this compiler and linker cannot.\n' "$level"
      cat messages
    fi
  done
}
exit $failed

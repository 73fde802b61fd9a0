#!/bin/sh
# Cross-builds a program with the commands that the handbook shows for names in tracebacks on ARM, runs it in an emulator,
# and turns an address of its traceback into a line of its source as the handbook does.
# Usage: arm_names.sh SOURCE_DIR. Ends with 77 where the compiler or the emulator is not installed.
set -eu
source=$(readlink -f "$1")
for needed in arm-linux-gnueabihf-g++ qemu-arm ninja pkg-config; do
  if ! command -v "$needed" > /dev/null; then
    printf 'There is no %s.\n' "$needed"
    exit 77
  fi
done
# shellcheck source=tests/docs/shown.sh
. "$source/tests/docs/shown.sh"
lay_out "$source" tracebacks

block tracebacks '## Names, on ARM too' sh > commands
follow commands
emulated() {
  qemu-arm -L /usr/arm-linux-gnueabihf -E LD_LIBRARY_PATH="$work/build/arm/stage/lib" "$@"
}
# Without digits in its path: they would be read as lengths of names.
(cd app && emulated ./app) > printed
expect 'station::Measure' printed

# Without -rdynamic, there are addresses instead of names.
sed -n '/^export /,$p' commands | sed 's/ -rdynamic//' > anonymous
follow anonymous
(cd app && emulated ./app) > printed
address=$(sed -n 's/^\.\/app(+\(0x[0-9a-f]*\)).*/\1/p' printed | head -n 1)
if [ -z "$address" ]; then
  printf 'There is no address in this:\n'
  cat printed
  exit 1
fi
block tracebacks '## Names, on ARM too' sh 2 | sed "s/0x[0-9a-f]*/$(printf '%#x' $((address - 1)))/" > look
follow look
expect 'station::Measure()' said
expect 'app.cpp:' said

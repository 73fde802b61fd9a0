#!/bin/sh
# Cross-builds the library and an application with the toolchain file and the commands that the handbook shows for users'
# own toolchains; the compiler is Debian's for armhf.
# Usage: toolchain.sh SOURCE_DIR. Ends with 77 where that compiler is not installed.
set -eu
source=$(readlink -f "$1")
if ! compiler=$(command -v arm-linux-gnueabihf-g++) || ! command -v ninja > /dev/null; then
  printf 'There is no g++-arm-linux-gnueabihf, or no ninja.\n'
  exit 77
fi
# shellcheck source=tests/docs/shown.sh
. "$source/tests/docs/shown.sh"
lay_out "$source" ip-configuration

heading='### With your own toolchain'
block on-the-board "$heading" cmake |
  sed "s|(CMAKE_CXX_COMPILER .*)|(CMAKE_CXX_COMPILER $compiler)|; /CMAKE_SYSROOT/d" > my-toolchain.cmake
block on-the-board "$heading" sh > commands
follow commands
for built in app/build/app build/mine/stage/lib/libboardkit.so.1; do
  arm-linux-gnueabihf-readelf -h "$built" > header
  expect 'Machine:                           ARM' header
done

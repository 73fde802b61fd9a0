#!/bin/sh
# Cross-builds the library and an application with the toolchain file and the commands that the handbook shows for users'
# own toolchains; the compiler is Debian's for armhf.
# Usage: toolchain.sh SOURCE_DIR. Ends with 77 where that compiler is not installed.
set -eu
source=$(readlink -f "$1")
page=$source/docs/on-the-board.md
if ! compiler=$(command -v arm-linux-gnueabihf-g++) || ! command -v ninja > /dev/null; then
  printf 'There is no g++-arm-linux-gnueabihf, or no ninja.\n'
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The top folder, with nothing built yet, and somebody's application in it.
for entry in "$source"/*; do
  [ "${entry##*/}" = build ] || ln -s "$entry" .
done
mkdir app
cp "$source/examples/ip-configuration.cpp" app/app.cpp
sed -n '/^cmake_minimum_required/,/^```/p' docs/install.md | sed '/^```/d' > app/CMakeLists.txt

# block LANGUAGE: the first one of the section.
block() {
  sed -n '/^### With your own toolchain$/,/^## /p' "$page" | awk -v "begin=\`\`\`$1" '
    !inside && $0 == begin { inside = 1; next }
    inside && $0 == "```" { exit }
    inside'
}
block cmake | sed "s|(CMAKE_CXX_COMPILER .*)|(CMAKE_CXX_COMPILER $compiler)|; /CMAKE_SYSROOT/d" > my-toolchain.cmake
block sh > commands
sh -ex commands > said 2>&1 || {
  tail -n 40 said
  exit 1
}
for built in app/build/app build/mine/stage/lib/libboardkit.so.1; do
  arm-linux-gnueabihf-readelf -h "$built" > header
  if ! grep -q 'Machine: *ARM$' header; then
    printf 'This is not for the board: %s\n' "$built"
    cat header
    exit 1
  fi
done

#!/bin/sh
# What installing leaves, and what uninstalling leaves of that.
# Usage: install.sh SOURCE_DIR BUILD_DIR CXX
#
# Both in a build folder of its own, which borrows the library that is built in BUILD_DIR.
set -eu
source=$(readlink -f "$1") build=$2 cxx=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() { printf '== %s\n' "$*"; }
configure() { cmake -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$cxx" "$@"; }
only_library="-DBOARDKIT_TESTS=OFF -DBOARDKIT_EXAMPLES=OFF -DBOARDKIT_SIM=OFF -DBOARDKIT_TOOLS=OFF"

say "install and uninstall"
# A pattern to whoever takes it for one; and files of others in folders that are called like those of the library.
prefix="$work/p[x]/boardkit/a[b"
mkdir -p "$prefix/share/boardkit"
touch "$prefix/of-somebody-else" "$prefix/share/boardkit/of-somebody-else"
# shellcheck disable=SC2086
configure -S "$source" -B "$work/build" $only_library >/dev/null
cp -P "$build"/libboardkit.so* "$work/build/"
cmake --install "$work/build" --prefix "$prefix" >/dev/null
find "$prefix" -name 'libboardkit.so.*.*.*' | grep .
for page in "$source"/docs/man/*; do
  find "$prefix" -path "*/man/*" -name "${page##*/}" | grep .
done
cmake --build "$work/build" --target uninstall >/dev/null
left=$(cd "$prefix" && find . ! -type d -o -name '*boardkit*' | LC_ALL=C sort)
if [ "$left" != './of-somebody-else
./share/boardkit
./share/boardkit/of-somebody-else' ]; then
  printf 'What is left is this:\n%s\n' "$left"
  exit 1
fi

say "nothing is offered to cpack, which would pack the system's paths"
[ ! -e "$work/build/CPackConfig.cmake" ]

say "uninstall, with nothing installed"
if cmake --build "$work/build" --target uninstall >"$work/message" 2>&1; then
  echo 'It should have failed.'
  exit 1
fi
grep 'Nothing was installed from here' "$work/message"

say "a build folder with a character in its path that would not reach the linker"
# refused SOURCE BUILD CHARACTER
refused() {
  # shellcheck disable=SC2086
  if configure -S "$1" -B "$2" $only_library >"$work/message" 2>&1; then
    echo 'It should have been refused.'
    exit 1
  fi
  # Where CMake breaks its lines depends on the path's length.
  tr -s ' \n' ' ' <"$work/message" | grep -oF "great, has \"$3\" in it"
}
refused "$source" "$work/of\$great" "\$"
refused "$source" "$work/of,great" ,
refused "$source" "$work/of[great" [
mkdir "$work/whole"
cat >"$work/whole/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(whole LANGUAGES CXX)
add_subdirectory("$source" "$work/part/of\$great")
END
refused "$work/whole" "$work/whole/build" "\$"

#!/bin/sh
# Builds and runs a consumer project that has the library as its subproject, and two on the installed library.
# Usage: consumers.sh SOURCE_DIR BUILD_DIR CXX SHARED    (SHARED is ON or OFF, as in BUILD_SHARED_LIBS)
#
# The shared library is installed from BUILD_DIR. The static one is not in there, so the subproject's is installed.
set -eu
source=$(readlink -f "$1") build=$2 cxx=$3 shared=$4
here=$source/tests/package
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

say() { printf '== %s\n' "$*"; }
configure() { cmake -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$cxx" "$@" >/dev/null; }

say "add_subdirectory"
set --
if [ "$shared" = OFF ]; then
  build=$work/sub
  set -- -DBOARDKIT_INSTALL=ON
fi
configure -S "$here/add-subdirectory" -B "$work/sub" -DBOARDKIT_SOURCE_DIR="$source" -DBUILD_SHARED_LIBS="$shared" "$@"
cmake --build "$work/sub"
"$work/sub/app"
if [ "$shared" = ON ]; then
  # Somebody else's project installs only what it asks for.
  cmake --install "$work/sub" --prefix "$work/asked" >/dev/null
  installed=$(cd "$work/asked" && find . ! -type d)
  [ "$installed" = ./bin/app ]
fi

say "install, then move the tree"
cmake --install "$build" --prefix "$work/first" >/dev/null
mkdir "$work/with blank"
prefix="$work/with blank/moved"
mv "$work/first" "$prefix"
library=$(find "$prefix" -name 'libboardkit.*' | head -n 1)
libdir=$(dirname "$library")
ls "$prefix/include/boardkit" "$libdir"

say "find_package"
configure -S "$here/find-package" -B "$work/find" -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$work/find"
"$work/find/app"
if [ "$shared" = ON ]; then
  say "a copy of the examples"
  cp -R "$source/examples" "$work/examples"
  configure -S "$work/examples" -B "$work/copied" -DCMAKE_PREFIX_PATH="$prefix"
  # One is a single source, one has several and names in its tracebacks.
  cmake --build "$work/copied" --target commands board-tour
  "$work/copied/commands"
fi

if [ "$shared" = OFF ]; then
  say "internal names are in a class or a namespace, where they clash with no program's"
  nm -g --defined-only "$library" | awk '$2 ~ /[TDBR]/ { print $3 }' | grep -vxFf "$source/src/exported-symbols.txt" >"$work/own"
  [ -s "$work/own" ]
  if grep -v '^_ZN' "$work/own"; then exit 1; fi

  say "the dynamic linker's functions are asked for where the C library keeps them apart"
  PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --static --libs-only-l boardkit | grep -w -- -ldl
  grep -h 'LINK_ONLY:dl' "$libdir"/cmake/boardkit/*.cmake
fi

say "pkg-config and one compiler call"
# A compiler line in the shell's plain words can't have blanks in its paths.
mv "$prefix" "$work/moved"
prefix=$work/moved
libdir=$prefix/${libdir#*/moved/}
export PKG_CONFIG_PATH="$libdir/pkgconfig"
needed=--shared
[ "$shared" = ON ] || needed=--static
# shellcheck disable=SC2046
"$cxx" -std=c++11 "$here/main.cpp" "$here/surface.cpp" $(pkg-config $needed --cflags --libs boardkit) -Wl,-rpath,"$libdir" -o "$work/app"
"$work/app"
[ "$(readlink -f "$(pkg-config --variable=prefix boardkit)")" = "$(readlink -f "$prefix")" ]
if [ "$shared" = ON ]; then
  say "add_subdirectory, in a project that installs the library with itself"
  configure -S "$here/add-subdirectory" -B "$work/sub" -DBOARDKIT_INSTALL=ON -DCMAKE_INSTALL_RPATH="\$ORIGIN/../lib" \
    -DCMAKE_INSTALL_LIBDIR=lib
  cmake --build "$work/sub"
  cmake --install "$work/sub" --prefix "$work/both" >/dev/null
  rm -r "$work/sub"
  mv "$work/both" "$work/moved with its library"
  "$work/moved with its library/bin/app"
fi
say "all of them ran"

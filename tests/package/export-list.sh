#!/bin/sh
# The build must refuse a library that does not export all that the list names, and say which name is missing: one that is
# misspelt, and those with a string in them where the standard library's strings are of another kind.
# Usage: export-list.sh SOURCE_DIR CXX
set -eu
source=$(readlink -f "$1") cxx=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# refused BUILD SOURCE_DIR SYMBOL [FLAGS]: expects that the build fails for want of SYMBOL.
refused() {
  cmake -G Ninja -S "$2" -B "$work/$1" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${4:-}" -DCMAKE_BUILD_TYPE=Debug \
    -DBOARDKIT_TESTS=OFF -DBOARDKIT_EXAMPLES=OFF -DBOARDKIT_SIM=OFF -DBOARDKIT_TOOLS=OFF >"$work/$1.log"
  if cmake --build "$work/$1" --target boardkit >"$work/$1.log" 2>&1; then
    printf 'The build "%s" was not refused.\n' "$1"
    exit 1
  fi
  if ! grep -q "$3" "$work/$1.log"; then
    cat "$work/$1.log"
    printf 'The build "%s" failed without naming %s.\n' "$1" "$3"
    exit 1
  fi
  printf '%s: refused, with the name of what is missing\n' "$1"
}

mkdir "$work/tree"
cp -R "$source/CMakeLists.txt" "$source/cmake" "$source/include" "$source/src" "$work/tree/"
sed -i 's/^_Z9WriteLoopiPKvj$/_Z9WriteLoupiPKvj/' "$work/tree/src/exported-symbols.txt"
refused misspelt "$work/tree" _Z9WriteLoupiPKvj

refused old-string "$source" _ZNK4File9PutStringERKNSt7__cxx1112basic_string -D_GLIBCXX_USE_CXX11_ABI=0

case $("$cxx" --version) in
  *clang*)
    if echo '#include <string>' | "$cxx" -stdlib=libc++ -x c++ -fsyntax-only - 2>"$work/libc++.log"; then
      refused libc++ "$source" _ZNK4File9PutStringERKNSt7__cxx1112basic_string -stdlib=libc++
    else
      echo "libc++: not looked at, as it is not installed"
      exit 77
    fi
    ;;
esac

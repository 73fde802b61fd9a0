#!/bin/sh
# The build must refuse a library that does not export all that the list names, and say which names are missing: one that
# is misspelt, and those with a string in them where the standard library's strings are of another kind.
# Usage: export-list.sh SOURCE_DIR CXX
set -eu
source=$(readlink -f "$1") cxx=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/tree"
cp -R "$source/CMakeLists.txt" "$source/cmake" "$source/include" "$source/src" "$work/tree/"
sed -i 's/^_Z9WriteLoopiPKvj$/_Z9WriteLoupiPKvj/' "$work/tree/src/exported-symbols.txt"

# refused KIND FLAGS: expects that a library with another kind of strings is refused, for want of these and of what is
# misspelt. Everything else must be there.
refused() {
  cmake -G Ninja -S "$work/tree" -B "$work/$1" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$2" -DBOARDKIT_TESTS=OFF \
    -DBOARDKIT_EXAMPLES=OFF -DBOARDKIT_SIM=OFF -DBOARDKIT_TOOLS=OFF >"$work/$1.log" 2>&1 || { cat "$work/$1.log"; exit 1; }
  if cmake --build "$work/$1" --target boardkit >"$work/$1.log" 2>&1; then
    printf 'The build with %s was not refused.\n' "$1"
    exit 1
  fi
  for missing in _Z9WriteLoupiPKvj _ZNK4File9PutStringERKNSt7__cxx1112basic_string; do
    if ! grep -q "$missing" "$work/$1.log"; then
      cat "$work/$1.log"
      printf 'The build with %s failed without naming %s.\n' "$1" "$missing"
      exit 1
    fi
  done
  if grep _Z8ReadLoopiPvj "$work/$1.log"; then exit 1; fi
  printf '%s: refused, with the names of what is missing\n' "$1"
}

refused old-strings -D_GLIBCXX_USE_CXX11_ABI=0
case $("$cxx" --version) in
  *clang*)
    if echo '#include <string>' | "$cxx" -stdlib=libc++ -x c++ -fsyntax-only - 2>"$work/libc++.log"; then
      refused libc++ -stdlib=libc++
    else
      echo "libc++: not looked at, as it is not installed"
      exit 77
    fi
    ;;
esac

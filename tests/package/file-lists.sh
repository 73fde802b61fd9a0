#!/bin/sh
# Compares what is installed with what the Debian packages and the recipes take of it: each file is in one package, and no
# package names a file that is not there.
# Usage: file-lists.sh SOURCE_DIR BUILD_DIR CXX
#
# Installs from a build folder of its own, which borrows what is built in BUILD_DIR.
set -eu
source=$(readlink -f "$1") build=$2 cxx=$3
recipe=$(find "$source/packaging" -name '*.bb')
buildroot=$source/packaging/buildroot/package/boardkit/boardkit.mk
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
LC_ALL=C
export LC_ALL
failed=0
complain() {
  printf '%s\n' "$*"
  failed=1
}

# installed NAME CMAKE_OPTION...: the files that an installation with the options has, in $work/NAME and in the list NAME.
# Configuring once more with other options takes little time.
libdir=usr/lib/of-some-board
installed() {
  name=$1
  shift
  cmake -S "$source" -B "$work/build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR="${libdir#usr/}" -DCMAKE_SKIP_RPATH=ON "$@" >"$work/configure.log"
  cp -P "$build"/libboardkit.so* "$work/build/"
  for program in tools/boardctl/boardctl sim/boardsim; do
    [ ! -d "$work/build/${program%/*}" ] || cp "$build/$program" "$work/build/$program"
  done
  DESTDIR=$work/$name cmake --install "$work/build" >"$work/install.log"
  (cd "$work/$name" && find . ! -type d | sed 's|^\./||' | sort) >"$work/$name.list"
}

# taken NAME: the files of that installation which the patterns on standard input take, or a pattern that takes none.
taken() {
  while IFS= read -r pattern; do
    # shellcheck disable=SC2086  # a pattern
    (cd "$work/$1" && find $pattern ! -type d 2>/dev/null) || printf '%s, which is not installed\n' "$pattern"
  done | sort
}

echo '== The Debian packages'
installed all -DBOARDKIT_TESTS=OFF -DBOARDKIT_EXAMPLES=OFF -DBOARDKIT_SIM=ON -DBOARDKIT_TOOLS=ON
# The static library is from a build of its own.
cat "$source"/debian/*.install | grep -vF /libboardkit.a | taken all | diff "$work/all.list" - ||
  complain 'The packages (>) take other files than are installed (<).'

if [ -n "$recipe" ]; then
  echo '== The recipes'
  sed -n 's/^    \(-DBOARDKIT_[A-Z]*=[A-Z]*\) .*/\1/p' "$recipe" >"$work/options"
  sed -n 's/^\t\(-DBOARDKIT_[A-Z]*=[A-Z]*\).*/\1/p' "$buildroot" | diff "$work/options" - ||
    complain 'Buildroot (>) has other options than the layer for Yocto (<).'
  # shellcheck disable=SC2046  # words
  installed tools $(cat "$work/options") -DBOARDKIT_TOOLS=ON
  # shellcheck disable=SC2046
  installed library $(cat "$work/options") -DBOARDKIT_TOOLS=OFF
  # Manual pages are in a package that each recipe has by itself.
  comm -13 "$work/library.list" "$work/tools.list" | grep -v '^usr/share/man/' >"$work/of-tools"
  # shellcheck disable=SC2016  # the recipe's own variables
  sed -n '/^FILES:${PN}-tools/,/^"$/{ s|${bindir}|usr/bin|; s|${datadir}|usr/share|; s|^    \(.*\) .$|\1|p; }' "$recipe" |
    taken tools | diff "$work/of-tools" - || complain 'The package of the tools in the recipe (>) takes other files than theirs (<).'
  # What the packages have that each recipe has by itself: for programs, for developers, and manual pages.
  if grep -vE "^($libdir/libboardkit\.so(\.|$)|$libdir/(cmake|pkgconfig)/|usr/(include|share/man)/)" "$work/library.list"; then
    complain 'These files are in no package of the recipe.'
  fi
fi

[ "$failed" -eq 0 ] || exit 1
[ -n "$recipe" ] || { echo 'The recipes are not here: this takes a clone.' && exit 77; }

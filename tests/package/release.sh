#!/bin/sh
# Asks scripts/release for releases that are impossible, and checks that it gives every reason; and for one that is
# possible, of the library alone: next-release.sh releases all.
# Usage: release.sh SOURCE_DIR VERSION
set -eu
version=$2
if ! git -C "$1" rev-parse --git-dir > /dev/null 2>&1 || ! command -v arm-linux-gnueabihf-g++ > /dev/null; then
  echo 'This takes a clone, and a compiler for 32-bit ARM (g++-arm-linux-gnueabihf).'
  exit 77
fi
# shellcheck source=tests/package/clone.sh
. "$(dirname "$(readlink -f "$0")")/clone.sh"

# refused VERSION: sets message to what is said.
refused() {
  if scripts/release "$1" > "$work/message" 2>&1; then
    echo "$1 was not refused."
    exit 1
  fi
  cat "$work/message"
}
expect() {
  for text; do
    if ! grep -qF -e "$text" "$work/message"; then
      echo "Nothing says: $text"
      exit 1
    fi
  done
}

echo '== the sum in the recipes is that of the archive of the commit that recorded it'
# A clone without the history does not know which that is.
if [ "$(git rev-parse --is-shallow-repository)" = false ]; then
  git checkout -q "$(git log -1 --format=%H -G'^(SRC_URI\[sha256sum\] =|sha256 .* boardkit-)' -- packaging)"
  scripts/release --sums "$(sed -n 's/^project(boardkit VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)"
  git diff --exit-code
  git checkout -q -
fi

echo '== no version at all'
refused one
expect 'A version is three numbers'

echo '== another version, a tree that is not clean, and a tag that is there'
sed -Ei 's/^(option\(BOARDKIT_(EXAMPLES|SIM|TOOLS) .*) .*\)$/\1 OFF)/' CMakeLists.txt
git tag v9.8.7
refused 9.8.7
expect 'The tree is not clean' 'There is a tag v9.8.7 already' 'CMakeLists.txt does not say 9.8.7' \
  'CHANGELOG.md begins with another version' 'debian/changelog begins with another version' \
  'sim/boardsim.1 does not say 9.8.7' 'docs/man/boardkit.7 does not say 9.8.7' 'There is no packaging/yocto' \
  'debian/ is for another soname than libboardkit.so.9' 'Something says "find_package(boardkit 1.0", not 9.8' \
  'cannot be released as 9.8.7'

echo '== the archive has the same bytes from another clone and at another time'
# Of these contents, no recipe names the sum.
git commit -q -a -m 'Other contents'
refused "$version"
sum=$(sha256sum "build/release-$version/boardkit-$version.tar.gz")
git commit -q --allow-empty -m 'Another commit'
git clone -q . "$work/again"
cd "$work/again"
umask 077
git config tar.umask 0077
git config core.autocrlf true
echo '*.md export-ignore' > "$work/attributes"
git config core.attributesFile "$work/attributes"
refused "$version"
[ "$(sha256sum "build/release-$version/boardkit-$version.tar.gz")" = "$sum" ]
expect "boardkit_$version.bb does not say $version: no line matches ^SRC_URI" \
  "boardkit.hash does not say $version: no line matches ^sha256"

echo '== the sum is written into the recipes, which change nothing in the archive'
cd "$work/tree"
scripts/release --sums "$version"
git commit -q -a -m 'Tell the sum'
tar -tf "build/release-$version/boardkit-$version.tar.gz" | grep -E '/packaging/(systemd|udev)/.'
if tar -tf "build/release-$version/boardkit-$version.tar.gz" | grep -E '/packaging/(yocto|buildroot)'; then
  echo 'The recipes are in the archive.'
  exit 1
fi

echo '== what agrees everywhere is released'
scripts/release "$version" > "$work/message" 2>&1 || {
  cat "$work/message"
  exit 1
}
expect "git tag -s -m \"boardkit $version\" v$version $(git rev-parse HEAD)" "SHA-256: ${sum%% *}"

echo '== ... but not twice'
git tag "v$version"
refused "$version"
expect "There is a tag v$version already"
[ "$(sha256sum "build/release-$version/boardkit-$version.tar.gz")" = "$sum" ]
if grep 'no line matches' "$work/message"; then exit 1; fi

echo '== a next version without the tag of the last one'
next=${version%%.*}.99.0
sed -i "s/^## $version /## $next (2099-01-01)\n\n&/" CHANGELOG.md
git tag -d "v$version"
refused "$next"
expect "The tag v$version of the last release is not here"

echo '== and one that lacks a symbol and has another layout'
git tag "v$version"
sed -i '/^_Z9WriteLoopiPKvj$/d' src/exported-symbols.txt
sed -i 's/^  bool m_active = false;/  long m_added = 0;\n&/' include/WatchDog.h
git diff --quiet include && exit 1
git commit -q -a -m 'Break the promise'
refused "$next"
expect "lacks what $version exports: WriteLoop(int, void const*, unsigned int)" \
  'The layouts are not what tests/package/layout.cpp asserts, says' \
  "The layouts are not those of $version, says arm-linux-gnueabihf-g++"

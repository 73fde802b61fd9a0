#!/bin/sh
# Tells scripts/release to release what cannot be released, and looks whether it says all of why.
# Usage: release.sh SOURCE_DIR VERSION
set -eu
version=$2
if ! git -C "$1" rev-parse --git-dir > /dev/null 2>&1 || ! command -v dpkg-parsechangelog > /dev/null; then
  echo 'This takes a clone, and dpkg-dev.'
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git clone -q --no-hardlinks "$1" "$work/tree"
cd "$work/tree"

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

echo '== another version, a tree that is not clean, and a tag that is there'
echo >> README.md
git tag v9.8.7
refused 9.8.7
expect 'The tree is not clean' 'There is a tag v9.8.7 already' 'CMakeLists.txt does not say 9.8.7' \
  'CHANGELOG.md begins with another version' 'debian/changelog begins with another version' \
  'sim/boardsim.1 does not say 9.8.7' 'docs/man/boardkit.7 does not say 9.8.7' 'There is no packaging/yocto' \
  'debian/ is for another soname than libboardkit.so.9' 'Something says "find_package(boardkit 1.0", not 9.8' \
  'cannot be released as 9.8.7'

echo '== the archive has the same bytes from another clone and at another time'
# Of these contents, no recipe names the sum.
git -c user.name=x -c user.email=x@x commit -q -a -m 'Other contents'
refused "$version"
sum=$(sha256sum "build/release-$version/boardkit-$version.tar.gz")
git -c user.name=x -c user.email=x@x commit -q --allow-empty -m 'Another commit'
git clone -q . "$work/again"
cd "$work/again"
umask 077
refused "$version"
[ "$(sha256sum "build/release-$version/boardkit-$version.tar.gz")" = "$sum" ]
expect 'has another sum of the archive'

echo '== no version at all'
refused one
expect 'A version is three numbers'

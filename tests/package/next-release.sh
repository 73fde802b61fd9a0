#!/bin/sh
# Releases what is committed, in a clone, and then a next version: once with additions, once with virtual functions in
# another order, which neither the list of symbols nor the layouts show.
# Usage: next-release.sh SOURCE_DIR VERSION
set -eu
version=$2
# shellcheck source=tests/package/clone.sh
. "$(dirname "$(readlink -f "$0")")/clone.sh"

# released VERSION: scripts/release has nothing against it, when the recipes have the sum.
released() {
  scripts/release --sums "$1"
  git diff --quiet || git commit -q -a -m "Tell the sum of $1"
  scripts/release "$1" >"$work/message" 2>&1 || {
    cat "$work/message"
    exit 1
  }
  for text in "$PWD/build/release-$1/boardkit-$1.tar.gz" "git tag -s -m \"boardkit $1\" v$1 $(git rev-parse HEAD)" "$2"; do
    grep -F -e "$text" "$work/message" || {
      cat "$work/message"
      echo "Nothing says: $text"
      exit 1
    }
  done
  if git rev-parse -q --verify "refs/tags/v$1"; then
    echo 'It should have tagged nothing.'
    exit 1
  fi
}

# version_is FROM TO: sets it wherever it stands, and commits.
version_is() {
  # shellcheck disable=SC2046  # words
  sed -i "s/\"boardkit $1\"/\"boardkit $2\"/" $(git ls-files '*.1' '*.3boardkit' '*.7')
  sed -i "s/^project(boardkit VERSION $1 /project(boardkit VERSION $2 /" CMakeLists.txt
  sed -i "s/^## $1 \\(.*\\)/## $2 \\1\\n\\n&/" CHANGELOG.md
  sed -i "1s/($1-/($2-/" debian/changelog
  sed -i "s/^BOARDKIT_VERSION = $1$/BOARDKIT_VERSION = $2/" packaging/buildroot/package/boardkit/boardkit.mk
  git mv "packaging/yocto/recipes-support/boardkit/boardkit_$1.bb" "packaging/yocto/recipes-support/boardkit/boardkit_$2.bb"
  git commit -q -a -m "Call it $2"
}

echo "== $version"
released "$version" "There was no release of ${version%%.*}.x before"
git tag "v$version"

next=${version%.*}.99
echo "== $next, with one function more"
version_is "$version" "$next"
sed -i 's/^_Z6mmap_ePvjiiil$/_Z5addedv\n&/' src/exported-symbols.txt
sed -i 's/^int LinuxGetThreadId();/&\nvoid added();/' include/SystemCalls.h
echo 'void added() {}' >>src/sys/SystemCalls.cpp
# What is not the library has been built once.
sed -Ei 's/^(option\(BOARDKIT_(EXAMPLES|SIM|TOOLS) .*) .*\)$/\1 OFF)/' CMakeLists.txt
git commit -q -a -m 'Add a function'
released "$next" "The ABI is that of $version, with additions at most."

echo "== the same with virtual functions in another order"
sed -i '/^  virtual ~OpSystem();/d; s/^  virtual std::string ExecCmd.*/&\n  virtual ~OpSystem();/' include/OpSystem.h
git diff --quiet && exit 1
git commit -q -a -m 'Change the order'
scripts/release --sums "$next"
git commit -q -a -m 'Tell the sum'
if scripts/release "$next" >"$work/message" 2>&1 ||
  ! grep -F "The ABI is not that of $version with additions." "$work/message"; then
  cat "$work/message"
  echo 'It should have been refused for its ABI.'
  exit 1
fi

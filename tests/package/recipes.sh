#!/bin/sh
# Compares what the recipes and the packages repeat with the original.
# Usage: recipes.sh SOURCE_DIR VERSION
set -eu
cd "$1"
version=$2
failed=0
complain() {
  printf '%s\n' "$*"
  failed=1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The symbols of the Debian package are the exported ones.
LC_ALL=C
export LC_ALL
grep -v '^#' src/exported-symbols.txt | c++filt | sort -u > "$work/exported"
sed -n 's/^ (c++)"\(.*\)@Base" [0-9.]*$/\1/p' debian/libboardkit*.symbols | sort -u |
  diff "$work/exported" - || complain 'debian/*.symbols (>) differs from src/exported-symbols.txt (<).'
# The manual page shows the profile that the package installs.
grep -v '^#' sim/boardsim.apparmor > "$work/profile"
sed -n '/^abi </,/^\.EE$/{ /^\.EE$/!p; }' sim/boardsim.1 | diff "$work/profile" - ||
  complain 'sim/boardsim.1 (>) has another profile than sim/boardsim.apparmor (<).'
case $(sed -n '1s/.*(\(.*\)-[^-]*).*/\1/p' debian/changelog) in
  "$version") ;;
  *) complain "debian/changelog begins with another version than $version." ;;
esac

# What is built for another architecture runs no tests.
if command -v dpkg-architecture > /dev/null; then
  other=armhf
  [ "$(dpkg --print-architecture)" != armhf ] || other=arm64
  for architecture in "$(dpkg --print-architecture)" "$other"; do
    checks=$(DEB_BUILD_OPTIONS='' DEB_BUILD_PROFILES='' dpkg-architecture -a "$architecture" -f -c \
      make -f debian/rules -pn 2> /dev/null | sed -n 's/^checks := *//p')
    case $architecture$checks in
      "$other" | "$(dpkg --print-architecture)yes") ;;
      *) complain "debian/rules: the tests for $architecture are \"$checks\"." ;;
    esac
  done
fi

# The source archive has no recipes, for they name its sum.
if [ ! -e packaging/yocto ]; then
  echo 'The recipes are not here: this takes a clone.'
  [ "$failed" -eq 0 ] && exit 77
  exit 1
fi
recipe=packaging/yocto/recipes-support/boardkit/boardkit_$version.bb
[ -e "$recipe" ] || complain "There is no $recipe."
sum=$(md5sum LICENSE | cut -c 1-32)
grep -q "md5=$sum\"" "$recipe" || complain "$recipe has another sum of LICENSE than $sum."
sum=$(sha256sum LICENSE | cut -c 1-64)
grep -q "^sha256  $sum  LICENSE$" packaging/buildroot/package/boardkit/boardkit.hash ||
  complain "boardkit.hash has another sum of LICENSE than $sum."
grep -q "^BOARDKIT_VERSION = $version$" packaging/buildroot/package/boardkit/boardkit.mk ||
  complain "boardkit.mk has another version than $version."
# What either names of options is one.
options=$(grep -ho 'DBOARDKIT_[A-Z]*' "$recipe" packaging/buildroot/package/boardkit/boardkit.mk | sort -u)
for option in $options; do
  grep -q "option(${option#D} " CMakeLists.txt || complain "There is no option ${option#D}."
done
# What Buildroot's own checker complains about first.
if grep -nE '[[:blank:]]$' -r packaging; then complain 'These lines end in blanks.'; fi
grep -vnP '^(\t  \S.{0,61}|\t?\S.*|\t\t\S.*|)$' packaging/buildroot/package/boardkit/Config.in &&
  complain 'These lines are not indented by tabs, or too long for a help text.'
awk 'length($0) > 80 { print FILENAME ": " $0; long = 1 } END { exit long }' packaging/buildroot/package/boardkit/[Cb]*[nk] ||
  complain 'These lines are too long.'
exit $failed

#!/bin/sh
# Looks into the Debian packages: which there are, what is in them, what they depend on, and how they were compiled.
# Usage: debs.sh FOLDER ARCHITECTURE [nodoc]
set -eu
links=$(readlink -f "$(dirname "$0")/../../docs/site/links.py")
cd "$1"
architecture=$2
nodoc=${3:-}
failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
complain() {
  printf '%s\n' "$*"
  failed=1
}

# expect PACKAGE ARCHITECTURE MULTI_ARCH FILE...: the package is there, for the architecture, with that field and (patterns
# of the shell for) these files. Sets deb to its name, and unpacks it into $work/PACKAGE.
expect() {
  package=$1
  deb=$(find . -maxdepth 1 -name "${package}_*_$2.deb")
  if [ -z "$deb" ]; then
    complain "There is no $package for $2."
    return
  fi
  multi_arch=$(dpkg-deb --field "$deb" Multi-Arch)
  [ "$multi_arch" = "$3" ] || complain "$package is Multi-Arch: $multi_arch, not $3."
  shift 3
  mkdir "$work/$package"
  dpkg-deb --extract "$deb" "$work/$package"
  for file; do
    # shellcheck disable=SC2086  # a pattern
    ls -d "$work/$package"$file >"$work/listed" 2>&1 || complain "$package is without $file."
  done
}

# expect_examples FILE...: the package that was expected last has these examples, or none at all with nodoc.
expect_examples() {
  examples=$work/$package/usr/share/doc/$package/examples
  for file; do
    case $nodoc in
      '') [ -e "$examples/$file" ] || complain "$package is without the example $file." ;;
      *) [ ! -e "$examples/$file" ] || complain "$package has the example $file, in spite of nodoc." ;;
    esac
  done
}

# only PACKAGE PATTERN: all its files match the extended regular expression, or are what each package has.
only() {
  if (cd "$work/$1" && find . ! -type d) | grep -vE "^\./usr/share/(doc/$1/(copyright|changelog\..*)|lintian/overrides/$1)$" | grep -vE "$2"; then
    complain "$1 has these files, too."
  fi
}

# hardened PACKAGE FILE: what hardening=+all gives to a program or a library.
hardened() {
  # shellcheck disable=SC2086  # a pattern
  for file in "$work/$1"$2; do
    [ -e "$file" ] || continue  # which was reported
    readelf --wide --dynamic "$file" | grep -q 'BIND_NOW' || complain "$2 is not bound when it starts."
    readelf --wide --segments "$file" | grep -q 'GNU_RELRO' || complain "$2 has tables that stay writable."
    readelf --wide --file-header "$file" | grep -q 'DYN' || complain "$2 lies at a fixed address."
    readelf --wide --symbols --dyn-syms "$file" >"$work/symbols"
    grep -q '__stack_chk_fail' "$work/symbols" || complain "$2 does not protect its stack."
    grep -q '_chk@' "$work/symbols" || complain "$2 is without the C library's checked functions."
  done
}

lib='/usr/lib/*-linux-gnu*'
expect libboardkit1 "$architecture" same "$lib/libboardkit.so.1" "$lib/libboardkit.so.1.*"
only libboardkit1 '/libboardkit\.so\.1(\.|$)|/README'
dpkg-deb --field "$deb" Depends | tr ',' '\n' | sed 's/^ *//; s/ .*//' >"$work/depends"
grep -vE '^(libc6|libgcc-s1|libstdc\+\+6)$' "$work/depends" && complain 'libboardkit1 depends on these, too.'
dpkg-deb --info "$deb" symbols >"$work/symbols" 2>&1 || complain 'libboardkit1 is without a symbols file.'
grep -q '^libboardkit\.so\.1 libboardkit1 #MINVER#' "$work/symbols" || complain 'libboardkit1 has symbols of another library.'
hardened libboardkit1 "$lib/libboardkit.so.1.*"

expect libboardkit1-dbgsym "$architecture" same '/usr/lib/debug/.build-id'
expect libboardkit-dev "$architecture" same "$lib/libboardkit.so" "$lib/libboardkit.a" "$lib/pkgconfig/boardkit.pc" \
  "$lib/cmake/boardkit/boardkitConfig.cmake" "$lib/cmake/boardkit/boardkitConfigVersion.cmake" /usr/include/boardkit/WatchDog.h \
  /usr/share/man/man3/SerialPort.3boardkit.gz /usr/share/man/man7/boardkit.7.gz
expect_examples set-address.cpp CMakeLists.txt
expect boardkit-tools "$architecture" foreign /usr/bin/boardctl /usr/share/man/man1/boardctl.1.gz \
  /usr/share/bash-completion/completions/boardctl /usr/share/zsh/site-functions/_boardctl \
  /usr/share/boardkit/boardctl-schema.json /usr/share/fish/vendor_completions.d/boardctl.fish
expect_examples systemd/watched@.service udev/60-boardkit.rules
hardened boardkit-tools /usr/bin/boardctl
expect boardkit-tools-dbgsym "$architecture" no '/usr/lib/debug/.build-id'
case $architecture in
  armhf)
    [ -z "$(find . -maxdepth 1 -name 'boardsim_*_armhf.deb')" ] || complain 'There is a boardsim for armhf.'
    ;;
  *)
    expect boardsim "$architecture" foreign /usr/bin/boardsim /etc/apparmor.d/boardsim /usr/share/man/man1/boardsim.1.gz \
      /usr/share/bash-completion/completions/boardsim /usr/share/zsh/site-functions/_boardsim \
      /usr/share/fish/vendor_completions.d/boardsim.fish
    hardened boardsim /usr/bin/boardsim
    dpkg-deb --info "$deb" conffiles | grep -qx /etc/apparmor.d/boardsim || complain "The profile of AppArmor is no conffile."
    dpkg-deb --info "$deb" postinst | grep -q apparmor_parser || complain "Nothing loads the profile of AppArmor."
    dpkg-deb --info "$deb" prerm | grep -q 'apparmor_parser --remove' || complain "Nothing unloads the profile of AppArmor."
    ;;
esac
# Documentation is for all architectures, and made with the packages of this machine.
if [ -n "$nodoc" ]; then
  [ -z "$(find . -maxdepth 1 -name 'boardkit-doc_*')" ] || complain 'There is a boardkit-doc, in spite of nodoc.'
elif [ "$architecture" = "$(dpkg --print-architecture)" ]; then
  expect boardkit-doc all foreign /usr/share/doc/boardkit-doc/html/index.html /usr/share/doc-base/boardkit-doc.boardkit
  python3 "$links" "$work/boardkit-doc/usr/share/doc/boardkit-doc/html" || complain 'boardkit-doc has what docs/site/links.py reported.'
fi
[ "$failed" -ne 0 ] || echo "The packages for $architecture have what they should."
exit "$failed"

#!/bin/sh
# Looks at the shared object for 32-bit ARM from outside: what it asks of the board's libraries, and its size.
# Usage: armhf-object.sh LIBRARY OBJDUMP READELF STRIP
set -eu
library=$1 objdump=$2 readelf=$3 strip=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C
failed=0

complain() {
  printf '%s\n' "$*"
  failed=1
}

# The newest versions that symbols may ask for: those of GCC 11 and of glibc 2.34, where dlsym() moved into libc.so.6
# and the functions with 64-bit times appeared. Whoever needs older ones builds with an older toolchain.
cat > "$work/floor" <<'END'
CXXABI 1.3.9
GCC 3.5
GLIBC 2.34
GLIBCXX 3.4.29
END

"$objdump" --dynamic-syms "$library" | grep -F '*UND*' > "$work/undefined"
# All symbols of the C and C++ libraries have versions; weak ones need not exist.
if grep -v -e ' w ' -e '[ (][A-Z]*_[0-9][0-9.]*' "$work/undefined"; then
  complain 'These are neither of the C library nor of the C++ library.'
fi
sed -n 's/.*[ (]\([A-Z]*\)_\([0-9][0-9.]*\))\{0,1\}  *\([^ ]*\)$/\1 \2 \3/p' "$work/undefined" > "$work/needed"
[ -s "$work/needed" ] || complain 'No versioned symbol is needed at all: the list could not be read.'
while read -r name version symbol; do
  floor=$(sed -n "s/^$name //p" "$work/floor")
  newest=$(printf '%s\n%s\n' "$version" "${floor:-0}" | sort -V | tail -n 1)
  [ "$newest" = "${floor:-0}" ] || complain "$symbol needs ${name}_$version; the newest allowed is ${floor:-none}."
done < "$work/needed"
printf 'Newest versions needed:'
while read -r name _; do
  printf ' %s_%s' "$name" "$(sed -n "s/^$name \([^ ]*\) .*/\1/p" "$work/needed" | sort -V | tail -n 1)"
done < "$work/floor"
printf '\n'

"$readelf" --dynamic --wide "$library" > "$work/dynamic"
! grep -q TEXTREL "$work/dynamic" || complain 'There are text relocations: the code could not be shared.'

"$readelf" --section-headers --wide "$library" > "$work/sections"
grep -q '\.ARM\.exidx .*ARM_EXIDX' "$work/sections" || complain 'There are no unwind tables, so no traceback.'

most=51400
"$strip" -o "$work/stripped" "$library"
size=$(wc -c < "$work/stripped")
printf 'Stripped: %s bytes of at most %s, the library\n' "$size" "$most"
[ "$size" -le "$most" ] || complain 'The stripped object has grown too large.'
exit $failed

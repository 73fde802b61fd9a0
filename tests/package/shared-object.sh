#!/bin/sh
# Looks at the built shared object from outside: its soname, what it exports and what it needs.
# Usage: shared-object.sh LIBRARY EXPECTED_SYMBOLS_FILE MAJOR_VERSION
set -eu
library=$1 expected=$2 major=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C
failed=0

readelf --dynamic --wide "$library" > "$work/dynamic"
soname=$(sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p' "$work/dynamic")
if [ "$soname" != "libboardkit.so.$major" ]; then
  printf 'The soname is %s, not libboardkit.so.%s.\n' "$soname" "$major"
  failed=1
fi

grep -v '^#' "$expected" > "$work/expected"
nm --dynamic --defined-only "$library" | awk '{ print $3 }' | sort > "$work/exported"
if ! diff "$work/expected" "$work/exported" > "$work/diff"; then
  printf 'The exported symbols differ from %s (< listed, > exported):\n' "$expected"
  c++filt < "$work/diff"
  failed=1
fi

# What is virtual belongs to the interface: the destructor (two entries) and ExecCmd of OpSystem, the destructor of IpNet,
# each after the two words that every table begins with.
word=8
case $(readelf --file-header "$library") in *ELF32*) word=4 ;; esac
for table in _ZTV8OpSystem:5 _ZTV5IpNet:4; do
  size=$(nm --dynamic --print-size "$library" | awk -v name="${table%:*}" '$4 == name { print $2 }')
  if [ $((0x$size)) -ne $((word * ${table#*:})) ]; then
    printf 'The table of virtual functions %s is %s bytes long.\n' "${table%:*}" "$((0x$size))"
    failed=1
  fi
done

# What it takes on a PC; tests/board/armhf-object.sh has the board's limit.
case $(readelf --file-header "$library") in
  *X86-64*)
    most=$((77 * 1024))
    strip -o "$work/stripped" "$library"
    size=$(wc -c < "$work/stripped")
    if [ "$size" -gt "$most" ]; then
      printf 'The stripped object has grown too large: %s bytes, %s at most.\n' "$size" "$most"
      failed=1
    fi
    ;;
esac

# The standard library and the C library, nothing else.
if sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' "$work/dynamic" | grep -vE '^(libstdc\+\+|libgcc_s|libm|libc)\.so'; then
  printf 'The libraries above are needed, but should not be.\n'
  failed=1
fi
exit $failed

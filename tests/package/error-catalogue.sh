#!/bin/sh
# Checks that every text in the sources that users may meet stands in the README's error catalogue.
# Usage: error-catalogue.sh SOURCE_DIR
#
# A text is a string literal with two words or more in it. What is none, stands here: labels of the serial report, pieces
# of commands, static assertions.
set -eu
cd "$1"
texts=$(mktemp)
trap 'rm -f "$texts"' EXIT
sed -e 's,//.*,,' -e '/^#include/d' -e '/static_assert/d' src/*/*.cpp src/*/*.h |
  grep -oE '"([^"\\]|\\.)*"' | sed -e 's/^"//' -e 's/"$//' -e 's/\\"/"/g' | sort -u |
  grep -E '[^ ] +[^ ]' |
  grep -vE '^(Baud Base|FIFO Size|Flags|IRQ|Line Register|Divisor Latch|Real baud rate|Device): ' |
  grep -vE '^((Custom )?Output|Input|Custom)  ?Baudrate: |^not opened yet|^Terminal Attributes are NOT' |
  grep -vE '^(\\n)?ip | (addr|route) |^ brd |^ repeats ' > "$texts"

failed=0
while IFS= read -r text; do
  if ! grep -qF -- "$text" README.md; then
    printf 'Not in the README: "%s"\n' "$text"
    failed=1
  fi
done < "$texts"
count=$(wc -l < "$texts")
printf '%s texts looked for.\n' "$count"
[ "$count" -gt 50 ] && exit $failed

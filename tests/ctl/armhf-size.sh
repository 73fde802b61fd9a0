#!/bin/sh
# How large boardctl is on a 32-bit ARM board.
# Usage: armhf-size.sh BOARDCTL STRIP
set -eu
most=409600 # what is left for it on a small board: 400 KiB
stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$2" -o "$stripped" "$1"
size=$(wc -c < "$stripped")
printf 'Stripped: %s bytes of at most %s, boardctl\n' "$size" "$most"
[ "$size" -le "$most" ] || {
  echo 'The stripped program has grown too large.'
  exit 1
}

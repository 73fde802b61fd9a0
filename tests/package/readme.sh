#!/bin/sh
# Compares the README's first C++ example with the file that it shows, which is compiled and tested.
# Usage: readme.sh SOURCE_DIR
set -eu
# shellcheck disable=SC2016  # the backticks are the README's own
sed -n '/^```cpp$/,/^```$/{ /^```/d; p; }' "$1/README.md" | diff - "$1/examples/set-address.cpp"

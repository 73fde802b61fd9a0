#!/bin/sh
# Compiles every public header alone, in three language versions, with all warnings as errors.
# Usage: headers.sh INCLUDE_DIR CXX
set -eu
failed=0
for header in "$1"/*.h; do
  for standard in c++11 c++17 c++20; do
    printf '%s as %s\n' "${header##*/}" "$standard"
    printf '#include "%s"\n' "$header" |
      "$2" -std="$standard" -Wall -Wextra -Wpedantic -Werror -fsyntax-only -x c++ - || failed=1
  done
done
exit $failed

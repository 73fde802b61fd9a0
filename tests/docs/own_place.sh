#!/bin/sh
# Installs the library with the commands that the handbook shows for users without root, and builds and runs an
# application on it in the two ways that are shown.
# Usage: own_place.sh SOURCE_DIR
set -eu
source=$(readlink -f "$1")
# shellcheck source=tests/docs/shown.sh
. "$source/tests/docs/shown.sh"
lay_out "$source" ip-configuration
export HOME="$work/home"
mkdir "$HOME"

block install '## In a directory of your own' sh > commands
follow commands
unset LD_LIBRARY_PATH
for program in app/build/app app/app; do
  "$program" lo > printed 2>&1 || true
  expect 'link = 00:00:00:00:00:00' printed
  library=$(ldd "$program" | sed -n 's/.*libboardkit.so.1 => \([^ ]*\) .*/\1/p')
  if [ "$(readlink -f "$library")" != "$(readlink -f "$HOME/boardkit/lib/libboardkit.so.1")" ]; then
    printf '%s takes the library from "%s".\n' "$program" "$library"
    exit 1
  fi
done

# Where the tree has been moved, they find the library only if they are given its place.
mv "$HOME/boardkit" "$HOME/elsewhere"
for program in app/build/app app/app; do
  if "$program" lo > printed 2>&1; then
    printf '%s still runs.\n' "$program"
    exit 1
  fi
  expect 'error while loading shared libraries: libboardkit.so.1' printed
  LD_LIBRARY_PATH=$HOME/elsewhere/lib "$program" lo > printed
  expect 'link = 00:00:00:00:00:00' printed
done

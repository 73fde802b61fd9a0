#!/bin/sh
# Checks that every command of boardctl and every option of boardsim that the README, the handbook and the manual pages
# show is there.
# Usage: verbs.sh SOURCE_DIR BOARDCTL BOARDSIM
set -eu
cd "$1"
boardctl=$2 boardsim=$3
failed=0
count=0
pages=$(mktemp -d)
trap 'rm -rf "$pages"' EXIT
cp README.md docs/*.md "$pages"
for page in sim/boardsim.1 tools/boardctl/boardctl.1 docs/man/*; do
  sed 's/\\-/-/g' "$page" > "$pages/${page##*/}"
done

# "boardctl --dry-run net address eth0 ..." is the group net with the verb address, as long as both are words.
shown=$(grep -ohE 'boardctl( --[a-z-]+)* [a-z][a-z-]*( [a-z][a-z-]*)?' "$pages"/* |
  sed -E 's/^boardctl( --[a-z-]+)* //' | sort -u)
groups=$("$boardctl" --help | sed -nE 's/^  ([a-z][a-z-]*)  .*/\1/p')
while IFS=' ' read -r group verb; do
  # Of a sentence about boardctl, the next word is no group; only the words in code count.
  grep -qE "\`boardctl( --[a-z-]+)* $group|^boardctl( --[a-z-]+)* $group|-- boardctl $group" "$pages"/* || continue
  count=$((count + 1))
  if ! printf '%s\n' "$groups" | grep -qx "$group"; then
    printf 'There is no "boardctl %s".\n' "$group"
    failed=1
  elif [ -n "$verb" ] && "$boardctl" "$group" --help | grep -q 'VERB \[' &&
    ! "$boardctl" "$group" --help | grep -qE "^  $verb  "; then
    printf 'There is no "boardctl %s %s".\n' "$group" "$verb"
    failed=1
  fi
done <<END
$shown
END

# shellcheck disable=SC2013  # options are words
for option in $(grep -ohE 'boardsim( --[a-z-]+)+' "$pages"/* | grep -oE -e '--[a-z][a-z-]*' | sort -u); do
  count=$((count + 1))
  if ! "$boardsim" --help | grep -qE -e "^ .*$option\b"; then
    printf 'There is no "boardsim %s".\n' "$option"
    failed=1
  fi
done

printf '%s commands and options looked for.\n' "$count"
[ "$count" -ge 8 ] && exit "$failed"

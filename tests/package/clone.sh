# shellcheck shell=sh disable=SC2034 # a variable of the scripts that source it
# Sourced by what asks scripts/release: goes into a clone of the tree in $1, with commits and tags of its own. It lies in
# $work, which is removed at the end.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
git clone -q --no-hardlinks "$1" "$work/tree"
cd "$work/tree" || exit
git config user.name x
git config user.email x@x
# Those of the tree are another history.
git tag | xargs -r git tag -d

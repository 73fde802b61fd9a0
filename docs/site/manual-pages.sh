#!/usr/bin/env bash
# Checks the manual pages: by mandoc, by man, and that the pages that they refer to exist. Run from the top folder.
set -euo pipefail

mapfile -t pages < <(find docs/man sim tools -name '*.[137]' -o -name '*.3boardkit' 2>/dev/null | sort)
failed=0
ending=.
# dpkg may be told to leave manual pages out, as in images for containers. The package is then there without its pages.
if ! man -w 2 open >/dev/null 2>&1; then
  if [[ -e /var/lib/dpkg/info/manpages-dev.list ]]; then
    ending='; manpages-dev has no pages here, so that references to sections 2 and 3 are not checked.'
  else
    printf 'References to sections 2 and 3 cannot be checked: install manpages-dev.\n'
    exit 1
  fi
fi
for page in "${pages[@]}"; do
  mandoc -Tlint -W style "$page" || failed=1
  complaints=$(man --warnings -l "$page" 2>&1 >/dev/null)
  if [[ -n $complaints ]]; then
    printf '%s: %s\n' "$page" "$complaints"
    failed=1
  fi
  # "boardsim (1)" in a line of references.
  while read -r name section; do
    if ! compgen -G "docs/man/$name.$section" "sim/$name.$section" >/dev/null &&
      [[ -z $(find tools sim docs/man -name "$name.$section" 2>/dev/null) ]]; then
      printf '%s refers to %s(%s), which is not there.\n' "$page" "$name" "$section"
      failed=1
    fi
  done < <(sed -nE 's/^\.BR (board[a-z]+|[A-Za-z]+) \((1|7|3boardkit)\).*/\1 \2/p' "$page" | grep -E '^board| 3boardkit$')
  if [[ $ending == . ]]; then
    while read -r name section; do
      if ! man -w "$section" "$name" >/dev/null 2>&1; then
        printf '%s refers to %s(%s), which the system does not have.\n' "$page" "$name" "$section"
        failed=1
      fi
    done < <(sed -nE 's/^\.BR ([a-z0-9_]+) \(([23])\).*/\1 \2/p' "$page")
  fi
done
printf '%s manual pages%s\n' "${#pages[@]}" "$ending"
((${#pages[@]} >= 9 && !failed))

#!/usr/bin/env bash
# Checks the manual pages: by mandoc, by man, and that the pages that they and the handbook refer to exist. Run from the
# top folder.
set -euo pipefail

mapfile -t pages < <(find docs/man sim tools -name '*.[137]' -o -name '*.3boardkit' 2>/dev/null | sort)
failed=0
references=0

# Those of the system that belong to packages which need not be here.
declare -A package=([io_uring.7]=liburing-dev [systemd.exec.5]=systemd [systemd.service.5]=systemd
  [systemd-system.conf.5]=systemd)
declare -A unchecked=()

# is_ours NAME SECTION: whether it is one of these pages.
is_ours() {
  [[ " ${pages[*]} " == *"/$1.$2 "* ]]
}

# has_system NAME SECTION: whether the system has that page. dpkg may be configured to leave out manual pages, as in images
# for containers; its lists of the packages' files still have them.
has_system() {
  man -w "$2" "$1" >/dev/null 2>&1 ||
    grep -qsE "^/usr/share/man/man$2/${1//./\\.}\.$2[a-z]*(\.gz)?$" /var/lib/dpkg/info/*.list
}

# check_references PAGE: names and sections come from the standard input.
check_references() {
  local name section owner
  while read -r name section; do
    references=$((references + 1))
    if [[ $name == board* || $section == 3boardkit ]]; then
      is_ours "$name" "$section" && continue
    else
      has_system "$name" "$section" && continue
      owner=${package[$name.$section]:-}
      if [[ -n $owner ]] && ! compgen -G "/var/lib/dpkg/info/$owner*.list" >/dev/null; then
        unchecked[$name"($section)"]=true
        continue
      fi
    fi
    printf '%s refers to %s(%s), which is not there.\n' "$1" "$name" "$section"
    failed=1
  done
}

for page in "${pages[@]}"; do
  mandoc -Tlint -W style "$page" || failed=1
  complaints=$(man --warnings -l "$page" 2>&1 >/dev/null)
  if [[ -n $complaints ]]; then
    printf '%s: %s\n' "$page" "$complaints"
    failed=1
  fi
  # "boardsim (1)", perhaps after a bracket.
  check_references "$page" < <(sed 's/\\-/-/g' "$page" |
    sed -nE 's/^\.(B|BR|RB|IR) (\( )?([A-Za-z][A-Za-z0-9_.-]*) \(([1-8][a-z]*)\).*/\3 \4/p')
done
for page in README.md docs/*.md; do
  check_references "$page" < <(grep -oE '\b[A-Za-z][A-Za-z0-9_.-]*\([1-8][a-z]*\)' "$page" |
    sed -E 's/(.*)\((.*)\)/\1 \2/')
done
printf '%s manual pages, %s references' "${#pages[@]}" "$references"
((${#unchecked[@]} == 0)) || printf '; not checked, for want of their packages: %s' "${!unchecked[*]}"
printf '\n'
((${#pages[@]} >= 9 && references >= 60 && !failed))

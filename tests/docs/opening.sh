#!/bin/sh
# Checks what scripts/docs does around the building of the site: it shows it in the browser, and two calls do not overlap.
# Doxygen, dot and the browser are stand-ins, first in PATH; the tree is a copy.
# Usage: opening.sh SOURCE_DIR
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/tree" "$work/bin"
cp -r "$1/scripts" "$1/docs" "$1/examples" "$work/tree"
cd "$work"

cat > bin/doxygen <<'END_OF_DOXYGEN'
#!/bin/sh
case $1 in
  -l) exit ;;
  -w) echo '$treeview'; exit ;;
esac
echo begins >> "$WORK/builds"
mkdir -p build/docs/html
touch build/docs/html/index.html
while [ -d "$WORK" ] && [ ! -e "$WORK/go" ]; do sleep 0.1; done
echo ends >> "$WORK/builds"
END_OF_DOXYGEN
printf '#!/bin/sh\necho "<svg width=\\"1pt\\" height=\\"1pt\\"></svg>"\n' > bin/dot
# It stays when xdg-open has ended, as browsers do, and keeps what it has inherited.
cat > bin/xdg-open <<'END_OF_BROWSER'
#!/bin/sh
[ -z "${NO_BROWSER:-}" ] || exit 3
echo "$*" >> "$WORK/opened"
[ -e "$1" ] || echo "There is no $1." >> "$WORK/opened"
while [ -d "$WORK" ] && [ ! -e "$WORK/closed" ]; do sleep 0.1; done &
END_OF_BROWSER
chmod +x bin/*
export WORK="$work" PATH="$work/bin:$PATH"

fail() {
  printf '%s\n' "$1"
  shift
  tail -n 20 -v "$@"
  exit 1
}

# wait_for PATTERN FILE: until a line of the file matches, but no longer than 30 seconds.
wait_for() {
  for _ in $(seq 300); do
    ! grep -qs -e "$1" "$2" || return 0
    sleep 0.1
  done
  fail "No \"$1\" in $2." ./*.out
}

# Two calls at once: the second begins when the first has ended.
tree/scripts/docs > first.out 2>&1 &
first=$!
wait_for begins builds
tree/scripts/docs > second.out 2>&1 &
second=$!
wait_for 'Waiting for another scripts/docs' second.out
wait_for "-> FLOCK .*:$(stat -c %i tree/build/docs/lock) " /proc/locks
touch go
wait "$first" || fail "The first call fails." first.out
wait "$second" || fail "The second call fails." second.out
printf 'begins\nends\nbegins\nends\n' | diff - builds || fail "The calls overlapped." builds

# The browser gets the first page, and while it stays open, another call need not wait.
tree/scripts/docs --open > open.out 2>&1 || fail "--open fails." open.out
[ "$(cat opened)" = build/docs/html/index.html ] || fail "The browser does not get the first page." opened
flock --nonblock tree/build/docs/lock true || fail "The open browser keeps the next call waiting." open.out
touch closed

# Without a browser, --open names the file.
status=0
NO_BROWSER=true tree/scripts/docs --open > none.out 2>&1 || status=$?
[ "$status" -eq 1 ] || fail "Without a browser, --open ends with $status." none.out
grep -qF "Open this file with one: $work/tree/build/docs/html/index.html" none.out ||
  fail "Without a browser, --open does not name the file." none.out

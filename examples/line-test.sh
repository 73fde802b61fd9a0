#!/bin/sh
# Tests an application on a simulated board: line-test.sh BOARDSIM APPLICATION
#
# The application here is serial-echo. The test plays the far end, looks at what
# the application did with its line, and pulls the cable.
set -eu
boardsim=$(readlink -f "$1") application=$(readlink -f "$2")
work=$(mktemp -d)
board=
trap 'kill "$board" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"

fail() {
  printf 'FAILED: %s\n' "$1"
  cat output log
  exit 1
}

# wait_for TEXT FILE: until FILE contains TEXT, but no longer than 10 seconds.
wait_for() {
  for _ in $(seq 100); do
    if grep -qs -e "$1" "$2"; then
      return
    fi
    sleep 0.1
  done
  fail "no \"$1\" in $2"
}

# After 60 seconds, timeout ends the board, and its own status is 124.
timeout 60 "$boardsim" --tty /dev/ttyS1=none --log log --control control -- \
  "$application" /dev/ttyS1 115200 > output 2>&1 & # yours
board=$!
wait_for 'ttyS1 settings speed=115200' log # yours

ask() {
  printf '%s\n' "$*" | socat -t 5 - UNIX-CONNECT:control
}

# "one" and a newline
[ "$(ask feed /dev/ttyS1 6f6e650a)" = ok ] || fail "the line is dead" # yours
wait_for one output # yours
[ "$(ask hangup /dev/ttyS1)" = ok ] || fail "the cable can't be pulled"

status=0
wait "$board" || status=$?
[ "$status" -ne 124 ] || fail "the application did not notice the hang-up"
[ "$status" -ne 0 ] || fail "it took the hang-up for success" # yours
wait_for 'serial-echo: ' output # yours: it said why
printf 'passed\n'

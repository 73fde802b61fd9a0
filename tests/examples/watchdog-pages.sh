#!/bin/sh
# Runs what the handbook's pages show and say of watchdogs, on a simulated board.
# Usage: watchdog-pages.sh EXAMPLES_DIR BOARDSIM
set -eu
examples=$1 boardsim=$2
here=$(dirname "$(readlink -f "$0")")
# shellcheck source=tests/examples/expect.sh
. "$here/expect.sh"
need_board "$boardsim"

prints 0 "$boardsim" --log log -- "$examples/watchdog" /dev/watchdog <<'END'
disarmed
END
expect_disarmed log

# The simulated watchdog has the magic close.
sed -n '/^ *echo .*watchdog0\/options/p' "$here/../../docs/watchdog.md" > ask
prints 0 "$boardsim" -- sh ask <<'END'
256
END

# What the pages say of a forgotten watchdog.
# shellcheck disable=SC2016  # the inner shell's own
run 86 printed "$boardsim" -- sh -c '"$0" /dev/watchdog 2 & sleep 1; kill -KILL $!; sleep 9' "$examples/watchdog-feed"
expect printed "has reset the board"

# Of a failure: whatever runs the destructor disarms, and the board lives on.
for way in caught returned; do
  run 1 printed "$boardsim" --log events -- "$examples/failing-watchdog" /dev/watchdog "$way"
  expect events "close: stopped"
done
for way in uncaught exited; do
  run 86 printed "$boardsim" -- "$examples/failing-watchdog" /dev/watchdog "$way"
  expect printed "the work has failed" "has reset the board"
done

# And of its children: the one that closes what it has inherited does not keep it counting.
mkfifo end
for way in '' closefrom; do
  # shellcheck disable=SC2016  # the inner shell's own
  run 0 printed "$boardsim" --log children -- sh -c '
    "$0" /dev/watchdog $1 &
    until grep -q "write magic" children; do sleep 0.3; done
    [ -z "$1" ] || until grep -q "close: stopped" children; do sleep 0.3; done
    sleep 0.5
    echo "the child ends"
    grep "close: " children
    echo . > end
    wait $!' "$examples/child-of-a-watchdog" "$way"
  if [ -n "$way" ]; then
    expect printed "close: stopped"
  else
    ! grep -q "close: " printed || fail "A child does not keep it counting." printed
    expect children "close: stopped"
  fi
done

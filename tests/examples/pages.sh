#!/bin/sh
# Runs the examples that the handbook's pages show, and compares what they print.
# Those on watchdogs and on networks have tests of their own, watchdog-pages.sh and network-pages.sh.
# Usage: pages.sh EXAMPLES_DIR [BOARDSIM]    (without BOARDSIM, only those that need no board)
set -eu
examples=$1 boardsim=${2:-}
here=$(dirname "$(readlink -f "$0")")
# shellcheck source=tests/examples/expect.sh
. "$here/expect.sh"

prints 0 "$examples/descriptors" <<'END'
hello
Error reading from file descriptor. No bytes read:
END

prints 0 "$examples/signals" <<'END'
stop: 1, SIGUSR1 is waiting
policy: other
the first thread has the process's id: yes
END

run 0 printed "$examples/files"
expect printed 21.5 "Error reading from file descriptor. No bytes read:ReadBytes from 'example.txt' failed.: " "exists: no"

printf 21.5 > reading
prints 0 "$examples/failures" reading <<'END'
begins with 21.5
END
prints 0 "$examples/failures" missing <<'END'
create it first: Open for 'missing' failed.: No such file or directory
END

run 0 printed "$examples/commands"
expect printed hello "it said: ls: " "No such file or directory"

run 0 printed "$examples/ip-configuration" lo
expect printed "link = 00:00:00:00:00:00"

# From here, without digits in its path: they would be read as lengths of names.
cp "$examples/tracebacks" app
run 0 printed ./app
expect printed "here:" "Traceback:" "station::Measure" "done"

run 0 printed "$examples/files-by-threads" 2 200
expect printed "of 200 files, "
run 0 printed "$examples/fork-beside-commands"
expect printed "commands waited for a child that was not theirs"

[ -n "$boardsim" ] || exit 0
need_board "$boardsim"

prints 0 "$boardsim" --reg 0x40000000=0x10 -- "$examples/read-register" 0x40000000 <<'END'
0x10
END
prints 0 "$boardsim" --reg 0x40000000=0x10 -- "$examples/memory" 0x40000000 <<'END'
0x10 -> 0x11
some memory is in use
END

prints 0 "$boardsim" --log log -- "$examples/serial-port" /dev/ttyS1 <<'END'
first byte: s
END
expect log "settings speed=115200"

# The test that answers passes if its application asks and takes the answer, and only then.
prints 0 "$here/../../examples/answer-test.sh" "$boardsim" "$examples/serial-port" <<'END'
passed
END
printf '#!/bin/sh\n' > idle
printf '#!/bin/sh\n"%s" "$@" > taken\n' "$examples/serial-port" > mute
chmod +x idle mute
prints 1 "$here/../../examples/answer-test.sh" "$boardsim" idle <<'END'
FAILED: it has not asked
END
prints 1 "$here/../../examples/answer-test.sh" "$boardsim" mute <<'END'
FAILED: it does not know the answer
status?
END
# A far end that can't be started does not change the status.
run 0 printed "$boardsim" --tty /dev/ttyS1=exec:./nothing-there -- "$examples/serial-port" /dev/ttyS1
expect printed "nothing-there"

# What the page on serial ports says of an adapter that is unplugged: the program goes on with a new object, and ends with
# one in the destructor.
ask() {
  printf '%s\n' "$*" | timeout 10 socat -t 5 - UNIX-CONNECT:control > answer
  expect answer ok
}
# lose_the_line COMMAND...: runs it on a board whose cable is pulled, and sets board to its process.
lose_the_line() {
  rm -f events control
  "$boardsim" --tty /dev/ttyS1=none --log events --control control -- "$@" > printed 2>&1 &
  board=$!
  wait_for events 'settings speed=115200'
  ask feed /dev/ttyS1 610a
  wait_for printed a
  ask hangup /dev/ttyS1
}
lose_the_line "$examples/reopen" /dev/ttyS1
wait_for printed 'left behind: SetLoopback TIOCMGET failed!'
: > events
ask plug /dev/ttyS1
wait_for events 'settings speed=115200'
ask feed /dev/ttyS1 71
wait "$board" || fail "It does not go on with a new object." printed
# shellcheck disable=SC2016  # the inner shell's own
lose_the_line sh -c '"$0" /dev/ttyS1 115200; echo "status $?"' "$examples/serial-echo"
wait "$board" || fail "The board ends badly." printed
expect printed 'serial-echo: ' 'status 134'

prints 0 "$here/../../examples/line-test.sh" "$boardsim" "$examples/serial-echo" <<'END'
passed
END
# One that fails leaves nothing running: whatever is left holds the lock.
printf '#!/bin/sh\nexec sleep 1000\n' > silent
chmod +x silent
run 1 printed flock lock "$here/../../examples/line-test.sh" "$boardsim" silent
expect printed "FAILED: no"
flock -w 20 lock true || fail "The board is still running." printed
# One that lives on without its line fails, too. Its minute is shortened.
mkdir -p hasty
printf '#!/bin/sh\nshift\nexec %s 20 "$@"\n' "$(command -v timeout)" > hasty/timeout
printf '#!/bin/sh\n"%s" "$@"\nexec sleep 1000\n' "$examples/serial-echo" > deaf
chmod +x hasty/timeout deaf
run 1 printed env PATH="$PWD/hasty:$PATH" "$here/../../examples/line-test.sh" "$boardsim" deaf
expect printed "FAILED: the application did not notice the hang-up"

# What the pages say of locales.
run 0 printed "$boardsim" -- "$examples/report-in-a-locale" /dev/ttyS1
expect printed "Output Baudrate: 115.200" "Real baud rate: 114.890"

# What the page on porting says of another UART: its clock of 48 MHz is divided by 16, and by the divisor of the line.
run 0 printed "$boardsim" --uart 0x44e09000:4 --serial-info 3000000,64,0x10000040,42,0 -- \
  "$examples/report-of-another-uart" /dev/ttyS1
expect printed "Divisor Latch: 1a" "Real baud rate: 115385"

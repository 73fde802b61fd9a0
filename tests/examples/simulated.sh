#!/bin/sh
# Runs the examples that need a board on a simulated one, and looks at what came of it there.
# Usage: simulated.sh EXAMPLES_DIR BOARDSIM
set -eu
examples=$1 boardsim=$2
# shellcheck source=tests/examples/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"
need_board "$boardsim"

# stop STATUS FILE: has the program in the background end, and expects it to end with STATUS.
stop() {
  kill -TERM "$!"
  status=0
  wait "$!" || status=$?
  [ "$status" -eq "$1" ] || fail "Expected the status $1, not $status." "$2"
}

printf '== watchdog-feed\n'
timeout 100 "$boardsim" --log log -- "$examples/watchdog-feed" /dev/watchdog 30 > feeding 2>&1 &
wait_for feeding "armed: 30 seconds"
stop 0 feeding
expect feeding "disarmed"
expect_disarmed log

printf '== watchdog-feed, killed\n'
# shellcheck disable=SC2016  # the inner shell's own
run 86 reset "$boardsim" --log log -- sh -c \
  '"$0" /dev/watchdog 2 > armed & until grep -q armed armed; do sleep 0.3; done; kill -KILL "$!"; sleep 90' \
  "$examples/watchdog-feed"
expect reset "/dev/watchdog has reset the board: time-out 2 s"
expect_events /dev/watchdog log <<'END'
open
timeout 2
feed
close: not stopped
reset time-out 2 s
END

printf '== serial-echo\n'
# The far end speaks when the port is set up, and ends when its two lines have come back.
cat > far-end <<'END'
#!/bin/sh
until grep -q speed=115200 log; do sleep 0.3; done
printf 'one\ntwo\n'
head -n 2 > answer
END
chmod +x far-end
timeout 100 "$boardsim" --log log --tty /dev/ttyS1=exec:./far-end -- "$examples/serial-echo" /dev/ttyS1 115200 \
  > echoed 2>&1 &
wait_for answer two
stop 143 echoed
printf 'one\ntwo\n' > lines
diff lines answer
diff lines echoed

printf '== serial-report\n'
run 0 report "$boardsim" --log log -- "$examples/serial-report" /dev/ttyS1
diff - report <<'END' || fail "This is not the report." report
Device:    /dev/ttyS1
Output Baudrate: 115200
Input  Baudrate: 115200
Flowcontrol: None
Baud Base:     3906250
FIFO Size:     64
Flags:       0x10000040
IRQ:           2a
Divisor:       0
Line Register: 0x13
Divisor Latch: 22
Real baud rate: 114890
Device:    /dev/ttyS1
not opened yet!
END
expect log "/dev/ttyS1 TIOCGSERIAL"

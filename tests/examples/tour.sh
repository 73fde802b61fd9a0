#!/bin/sh
# Goes on the tour, on a simulated board and without one, and looks at what it shows.
# Usage: tour.sh EXAMPLES_DIR BOARDSIM
set -eu
examples=$1 boardsim=$2
# shellcheck source=tests/examples/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"
need_board "$boardsim"

# Without digits in its path, which would be read as lengths of the traceback's names.
cp "$examples/board-tour" board-tour
escape=$(printf '\033')

# expect_not FILE TEXT: TEXT does not stand in FILE.
expect_not() {
  ! grep -qF -e "$2" "$1" || fail "Not expected: \"$2\"." "$1"
}

# expect_narrow FILE: no line has more than 80 columns.
expect_narrow() {
  ! grep -qE '.{81}' "$1" || fail "A line is too long." "$1"
}

# begin STATUS FILE COMMAND...: like run, beside what follows; the watchdog takes its time. All of them are waited for by
# ended.
begin() {
  (
    run "$@"
    touch "$2.ended"
  ) > "$2.failure" &
}

# ended FILE...: what was begun for each FILE has ended as it should.
ended() {
  wait
  for output; do
    [ -e "$output.ended" ] || fail "It failed." "$output.failure"
  done
}

begin 0 whole "$boardsim" --log log --reg 0x40000000=0x600dcafe -- ./board-tour --serial /dev/ttyS1 \
  --memory 0x40000000 --watchdog /dev/watchdog --interface eth0
begin 86 starved "$boardsim" --log starved-log -- ./board-tour --watchdog /dev/watchdog --starve
begin 0 coloured env TERM=xterm script -qec "'$boardsim' --tty /dev/ttyS1=none -- ./board-tour --serial /dev/ttyS1" /dev/null
ended whole starved coloured

printf '== on a board\n'
expect whole \
  "getters   115200 baud, 8 data bits, no parity, stop bits: 1" \
  "result    false, after" \
  "buffer    \"Nobody else hears this.\"" \
  "sent      1048576 bytes, CRC-32 0xc0f68319" \
  "received  1048576 bytes, CRC-32 0xc0f68319" \
  "the far end echoes" \
  "sent      1048576 bytes, CRC-32 0x8efebb10" \
  "received  1048576 bytes, CRC-32 0x8efebb10" \
  "compared  equal, byte for byte" \
  "mind      this line is not a real one, which would take 91.0 s" \
  "Divisor Latch: 22" \
  "Real baud rate: 114890" \
  "holds     \"written to the mapping\"" \
  "throws    \"Error from mmap: Invalid argument\"" \
  "result    0x600dcafe" \
  "result    0x9ff23501" \
  "result    10 seconds: what the driver uses" \
  "result    2 seconds: what the driver uses" \
  "result    fed 5 times in" \
  "result    not fed for" \
  "throws    \"Watchdog not activated\"" \
  "ran       ip addr show dev eth0" \
  "ip -4 addr add 192.0.2.20/24 brd + dev eth0" \
  "ip says   inet 192.0.2.20/24 brd 192.0.2.255 scope global eth0" \
  "result    false: nothing to change" \
  "ip says   default via 192.0.2.2 dev eth0" \
  "\"via\": \"fe80::1\"" \
  "throws    Device \"nope0\" does not exist." \
  "result    to output" \
  "throws    ls: cannot access '/no/such/file': No such file or directory" \
  "buffer    \"kept in a file\"" \
  "result    \"/tmp/board-tour-" \
  "throws    \"IO Control failed for '/tmp/board-tour-" \
  "result    5" \
  "undefined symbol: no_such_function" \
  "MiB, of which" \
  "in the last 1, 5 and 15 minutes" \
  "handler   got signal 10 (SIGUSR1 is 10) from process" \
  "pending   SIGUSR2" \
  "ms, with a signal on the way" \
  "in the main thread," \
  "result    \"other\" for what the other thread began with" \
  "\"batch\" after it asked for SCHED_BATCH" \
  "valley::LookUp" \
  "valley::Descend repeats 3 times!" \
  "That was all of it, and all went well."
# Control sequences for terminals are noise here, and so are lines wider than a terminal.
expect_not whole "$escape"
expect_not whole "$(printf '\r')"
expect_narrow whole
# The board saw the same.
expect log "speed=115200" "TIOCMSET 0xc006" "TIOCGSERIAL"
expect_not log "overrun"
expect_events /dev/watchdog log <<'END'
open
timeout 10
timeout 2
feed
write magic
close: stopped
END

printf '== a watchdog that is not fed\n'
expect starved "result    fed 5 times in" "not fed   for" "/dev/watchdog has reset the board: time-out 2 s"
expect_events /dev/watchdog starved-log <<'END'
open
timeout 2
feed
reset time-out 2 s
END

printf '== a far end that does not echo\n'
sed "s/$escape\\[[0-9]*m//g" coloured > silent
expect silent "received  1048576 bytes, CRC-32 0xc0f68319" "the far end does not echo" "Divisor Latch: 22"
expect_not silent "0x8efebb10"

printf '== an interface that is in use\n'
cat > in-use <<'END'
state() {
  # Newer tools show which address the kernel has made itself: no more the one that the tour has removed and restored.
  # A new address is tentative for a moment.
  while ip -o addr show dev eth0 tentative | grep -q .; do sleep 0.02; done
  ip -o addr show dev eth0 | sed 's/ proto kernel_ll//'
  ip route show
  ip -6 route show
}
# The kernel adds the link-local address when the line is up.
attempts=100
until ip -6 addr show dev eth0 | grep -q fe80 || [ "$attempts" -eq 0 ]; do
  sleep 0.1
  attempts=$((attempts - 1))
done
ip addr add 198.18.0.5/15 brd + dev eth0
ip addr add 203.0.113.7/24 dev eth0
ip addr add 2001:db8::7/64 dev eth0
ip route add default via 198.18.0.1
ip route add 10.0.0.0/8 via 203.0.113.1
ip -6 route add default via 2001:db8::1
state > before
./board-tour --interface eth0
state > after
END
run 0 page "$boardsim" -- sh -eu in-use
expect page "found     198.18.0.5/15" "ip says   inet 192.0.2.20/24"
expect before "198.18.0.5/15" "default via 198.18.0.1" "default via 2001:db8::1"
diff before after

printf '== an interface that is down, and so can have no gateway\n'
# shellcheck disable=SC2016  # the inner shell's own
run 1 page "$boardsim" -- sh -c './board-tour --interface eth1; status=$?; ip addr show dev eth1 > after; exit "$status"'
expect page "ip says   inet 192.0.2.20/24" "failed    The other steps are left out." "result    to output" "Failed: Network."
expect after "eth1"
expect_not after inet

printf '== devices that are missing\n'
run 1 page ./board-tour --serial /dev/nope --watchdog /dev/nope --interface nope0 --memory 1
expect page \
  "failed    Open Serial Port '/dev/nope' failed?: No such file or directory" \
  "failed    \"1\" is no address of a word" \
  "failed     Could not open watchdog device!: No such file or directory" \
  "failed    There is no network interface \"nope0\"." \
  "result    to output" \
  "valley::Descend repeats 3 times!" \
  "Failed: Serial port, Memory, Watchdog, Network."

printf '== a line that has no modem lines, and so can not be closed\n'
# shellcheck disable=SC2016  # the inner shell's own
run 1 page env TERM=dumb script -qec './board-tour --serial "$(tty)"' /dev/null < /dev/null
expect page "failed     SetLoopback TIOCMGET failed!" "valley::Descend repeats 3 times!" "Failed: Serial port."

printf '== without devices\n'
run 0 page ./board-tour
expect page "Not shown, since nothing was named for it: serial port (--serial)" "ip says   link/loopback"
expect_not page "Watchdog"

printf '== on a terminal\n'
expect coloured "${escape}[1m--- 1. Serial port" "${escape}[36mport.SetLoopback(true)" " of 1024 KiB  [####"
run 0 page env TERM=xterm NO_COLOR=1 script -qec ./board-tour /dev/null < /dev/null
expect_not page "$escape"
run 0 page env TERM=dumb script -qec ./board-tour /dev/null < /dev/null
expect_not page "$escape"

printf '== help\n'
run 0 page ./board-tour --help
expect page "Usage: board-tour"
expect_narrow page

printf '== a wrong call\n'
run 2 page ./board-tour --starve
expect page "Usage: board-tour"
run 2 page ./board-tour eth0
expect page "Usage: board-tour"

#!/bin/sh
# Runs the examples that the handbook's pages show, and compares what they print.
# Usage: pages.sh EXAMPLES_DIR [BOARDSIM [BOARDCTL]]    (without BOARDSIM, only those that need no board)
set -eu
examples=$1 boardsim=${2:-} boardctl=${3:-}
here=$(dirname "$(readlink -f "$0")")
# shellcheck source=tests/examples/expect.sh
. "$here/expect.sh"

# prints STATUS COMMAND...: COMMAND ends with STATUS and prints the standard input.
prints() {
  wanted=$1
  shift
  cat > expected
  run "$wanted" printed "$@"
  diff expected printed || fail "$* prints something else." printed
}

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

prints 0 "$boardsim" --log log -- "$examples/watchdog" /dev/watchdog <<'END'
disarmed
END
expect_events /dev/watchdog log <<'END'
open
timeout 30
feed
write magic
close: stopped
END

# The simulated watchdog has the magic close.
sed -n '/^ *echo .*watchdog0\/options/p' "$here/../../docs/watchdog.md" > ask
prints 0 "$boardsim" -- sh ask <<'END'
256
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

# What the pages say of a forgotten watchdog and of locales.
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
    until grep -q "write magic" children; do sleep 0.1; done
    [ -z "$1" ] || until grep -q "close: stopped" children; do sleep 0.1; done
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

run 0 printed "$boardsim" -- "$examples/report-in-a-locale" /dev/ttyS1
expect printed "Output Baudrate: 115.200" "Real baud rate: 114.890"

# What the page on porting says of another UART: its clock of 48 MHz is divided by 16, and by the divisor of the line.
run 0 printed "$boardsim" --uart 0x44e09000:4 --serial-info 3000000,64,0x10000040,42,0 -- \
  "$examples/report-of-another-uart" /dev/ttyS1
expect printed "Divisor Latch: 1a" "Real baud rate: 115385"

if ! "$boardsim" --net private -- true 2> /dev/null; then
  printf 'Left out, for want of a network of its own: an address that is set over ssh.\n'
  exit 0
fi
# shellcheck disable=SC2016  # the inner shell's own
run 0 printed "$boardsim" -- sh -c '
  ip addr add 192.0.2.10/24 dev eth0
  ip route add default via 192.0.2.1
  "$0" eth0 192.0.2.20 24
  [ -z "$(ip route show default)" ] && echo "the default route has gone"' "$examples/set-address"
expect printed "the default route has gone"

# What the page on IP configuration says of an address that is set over ssh: the rescue survives the session's hang-up and
# takes the new address back, unless its number is killed.
cat > rescue <<'END'
#!/bin/sh
# Usage: rescue BOARDCTL HUP|TERM    (the session hangs up, or somebody confirms)
PATH=${1%/*}:$PATH
ip addr add 192.0.2.10/24 dev eth0
ip route add default via 192.0.2.1
mkfifo minute
nohup sh -c 'read -r _ < minute
  boardctl net address eth0 192.0.2.10/24
  boardctl net gateway eth0 192.0.2.1' </dev/null >/dev/null 2>&1 &
echo $! >undo
rescue=$(cat undo)
boardctl net address eth0 192.0.2.20/24 && boardctl net gateway eth0 192.0.2.1
# Until nohup has become the shell.
until [ "$(cat "/proc/$rescue/comm")" = sh ]; do sleep 0.1; done
kill -s "$2" "$rescue"
[ "$2" = TERM ] || echo over > minute
wait "$rescue"
echo "the rescue: $?"
ip -4 -o addr show dev eth0
ip route show default
END
if [ -n "$boardctl" ]; then
  # What ip refuses is in the catalogue, in the words of this ip and of this kernel.
  run 1 refused "$boardsim" -- "$examples/set-address" eth0 192.0.2.300 24
  run 0 printed "$boardctl" explain - < refused
  expect printed "The address, the prefix length or the gateway is none"
  # shellcheck disable=SC2016  # the inner shell's own
  run 1 refused "$boardsim" -- sh -c 'ip addr add 192.0.2.10 peer 192.0.2.1/24 dev eth0
    "$0" eth0 192.0.2.20 24 && "$0" eth0 192.0.2.20 24' "$examples/set-address"
  run 0 printed "$boardctl" explain - < refused
  expect printed "already, but not"
  run 0 printed "$boardsim" -- sh rescue "$boardctl" HUP
  expect printed "the rescue: 0" "inet 192.0.2.10/24" "default via 192.0.2.1 dev eth0"
  if grep -q "inet 192.0.2.20" printed; then fail "The new address has stayed." printed; fi
  run 0 printed "$boardsim" -- sh rescue "$boardctl" TERM
  expect printed "the rescue: 143" "inet 192.0.2.20/24" "default via 192.0.2.1 dev eth0"
  if grep -q "inet 192.0.2.10" printed; then fail "The old address has come back." printed; fi
fi

# What the page on boards says of capabilities: those of a file are not inherited by ip, ambient ones are.
if [ "$(id -u)" -eq 0 ] && command -v setcap > /dev/null; then
  chmod 755 .
  cp "$examples/set-address" app
  # shellcheck disable=SC2016  # the inner shell's own
  run 0 printed "$boardsim" -- sh -c '
    setcap cap_net_admin+ep app
    lower() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@" ./app eth0 192.0.2.10 24; }
    lower || echo "refused"
    setcap -r app
    lower --inh-caps=+net_admin --ambient-caps=+net_admin'
  expect printed "RTNETLINK answers: Operation not permitted" "refused" "Changed."
else
  printf 'Left out, for want of root or setcap: the capabilities of a file.\n'
fi

# What the page on security says of names that ip reports: the shell runs what stands behind the semicolon.
# shellcheck disable=SC2016  # the inner shell's own
run 0 printed "$boardsim" -- sh -c '
  ip link set eth1 down
  ip link set eth1 name "e;id>x"
  ip link set "e;id>x" up
  ip addr add 198.51.100.10/24 dev "e;id>x"
  ip route add default via 198.51.100.1 dev "e;id>x"
  "$0" eth0 192.0.2.1
  cat x' "$examples/set-gateway"
expect printed "uid="

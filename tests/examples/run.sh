#!/bin/sh
# Runs the examples that need no board, and looks at what they say.
# Usage: run.sh EXAMPLES_DIR WATCHDOG_REQUESTS_LIBRARY
set -eu
examples=$1 requests=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# expect FILE TEXT: TEXT stands in FILE.
expect() {
  if ! grep -qF -- "$2" "$1"; then
    printf 'Expected "%s", but got:\n' "$2"
    cat "$1"
    exit 1
  fi
}

printf '== traceback-on-terminate\n'
# From here, without digits in its path: they would be read as lengths of names.
cp "$examples/traceback-on-terminate" app
./app 2> traceback && exit 1
expect traceback "terminate called: the sensor does not answer"
expect traceback "station::ReadSensor"

printf '== watchdog-feed\n'
# The variable would end at a blank in the path.
cp "$requests" requests.so
mkfifo device
: > feeding
LD_PRELOAD=./requests.so "$examples/watchdog-feed" device 30 > feeding &
feeder=$!
# The FIFO opens for both at once; its content goes where it can be looked at.
exec 3<> device
attempts=100
until grep -q armed feeding || [ "$attempts" -eq 0 ]; do
  sleep 0.1
  attempts=$((attempts - 1))
done
expect feeding "armed: 30 seconds"
kill -TERM "$feeder"
wait "$feeder"
expect feeding "disarmed"
head -c 1 <&3 > written
expect written V

printf '== watchdog-feed, without a device\n'
"$examples/watchdog-feed" no-device 30 2> message && exit 1
expect message "Could not open watchdog device!: No such file or directory"

printf '== watchdog-feed, without a time-out\n'
"$examples/watchdog-feed" device never 2> message && exit 1
expect message "never is no time-out in seconds"

printf '== serial-report, without a device\n'
"$examples/serial-report" no-device 2> message && exit 1
expect message "Open Serial Port 'no-device' failed?: No such file or directory"

printf '== set-address, of an interface that does not exist\n'
"$examples/set-address" nope0 192.0.2.1 24 2> message && exit 1
expect message nope0

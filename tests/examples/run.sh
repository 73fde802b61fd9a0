#!/bin/sh
# Runs the examples that need no board, and looks at what they say.
# Usage: run.sh EXAMPLES_DIR
set -eu
examples=$1
# shellcheck source=tests/examples/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

printf '== traceback-on-terminate\n'
# From here, without digits in its path: they would be read as lengths of names.
cp "$examples/traceback-on-terminate" app
run 134 traceback ./app
expect traceback "terminate called: the sensor does not answer"
# The whole way from the throw to main.
sed -n '/^Traceback:$/,$p' traceback | head -n 4 | sed 's/+0x[0-9a-f]*//' > way
printf '%s\n' 'Traceback:' station::ReadSensor station::Measure './app(main)' | diff - way ||
  fail "The stack at the throw is another one." traceback

printf '== watchdog-feed, without a device\n'
run 1 message "$examples/watchdog-feed" no-device 30
expect message "Could not open watchdog device!: No such file or directory"

printf '== watchdog-feed, without a time-out\n'
run 2 message "$examples/watchdog-feed" no-device never
expect message "never is no time-out in seconds"

printf '== serial-report, without a device\n'
run 1 message "$examples/serial-report" no-device
expect message "Open Serial Port 'no-device' failed?: No such file or directory"

printf '== set-address, of an interface that does not exist\n'
run 1 message "$examples/set-address" nope0 192.0.2.1 24
expect message nope0

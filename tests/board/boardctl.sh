#!/bin/sh
# boardctl on the kernel's own drivers, run on the board: boardctl.sh [reset TIMEOUT]. It needs softdog, a UART, a network
# card and a word of memory at 0x80011000.
# With "reset", it ends by leaving a watchdog behind that nothing disarms any more.
boardctl=/payload/boardctl
failed=0

# expect STATUS PATTERN COMMAND...: the command ends with the status, and a line of what it prints matches each line of the
# pattern.
expect() {
  wanted=$1 patterns=$2
  shift 2
  printed=$("$@" 2>&1)
  status=$?
  said=OK
  if [ "$status" != "$wanted" ]; then
    said="FAILED: status $status, not $wanted"
  fi
  missing=$(echo "$patterns" | while read -r pattern; do
    echo "$printed" | grep -q -e "$pattern" || echo "$pattern"
  done)
  if [ -n "$missing" ]; then
    said="FAILED: nothing like $missing"
  fi
  echo "[ $said ] $*"
  if [ "$said" != OK ]; then
    echo "$printed"
    failed=1
  fi
}

# stopped TIMEOUT: feeds the watchdog until it counts, and ends that by a signal.
# shellcheck disable=SC2317
stopped() {
  "$boardctl" watchdog feed /dev/watchdog --interval "$1" &
  until grep -qx active /sys/class/watchdog/watchdog0/state || ! kill -0 "$!"; do
    sleep 0.1
  done
  kill "$!"
  wait "$!"
}

if [ "${1:-}" = reset ]; then
  echo 1 > /sys/class/watchdog/watchdog0/nowayout
  expect 0 '^  nowayout   yes$' "$boardctl" watchdog show /dev/watchdog
  expect 0 'watchdog0 has nowayout set: once armed, nothing disarms it' "$boardctl" report
  expect 143 "^boardctl: nowayout is set: once armed, nothing disarms /dev/watchdog
^boardctl: closed in good order, and /dev/watchdog still counts (nowayout): THE BOARD RESETS within $2 s " stopped "$2"
  [ "$failed" = 0 ] && echo armed
  exit
fi

expect 0 '^versions$
^  library  .*/libboardkit.so
^  kernel  *Linux .*, armv7l$
^  ip  *ip utility, iproute2-
^  /dev/ttyS0  .*open by
^  /dev/watchdog0 Software Watchdog, inactive, time-out 60 s, open by nobody$
^  /dev/mem  *may be used
^  lo  *up, 127.0.0.1/8
^    remedy: ' "$boardctl" report
expect 0 '"kind":"report".*"identity":"Software Watchdog","state":"inactive"' "$boardctl" --json report

# Looking arms nothing, by either name of the device.
for device in /dev/watchdog /dev/watchdog0; do
  expect 0 '^  identity   Software Watchdog$
^  state      inactive$
^  time-out   60 s (from 1 s to 65535 s)$
^  nowayout   no$
^  open by    nobody$' "$boardctl" watchdog show $device
done
expect 0 'inactive' cat /sys/class/watchdog/watchdog0/state

# What the driver would refuse is refused before.
expect 2 '^boardctl: watchdog run: --interval: the driver takes 1 to 65535 s, not 65536 s' \
  "$boardctl" watchdog run /dev/watchdog --interval 65536 -- true
expect 0 'inactive' cat /sys/class/watchdog/watchdog0/state

# It lives longer than the time-out, and nobody else gets in meanwhile.
expect 0 '^  state      active$
^  time-out   2 s
^  open by    boardctl (
^boardctl: /dev/watchdog0 is in use, by boardctl (
^boardctl: /dev/watchdog is disarmed.$' "$boardctl" watchdog run /dev/watchdog --interval 2 -- \
  sh -c "sleep 4; $boardctl watchdog show /dev/watchdog0; $boardctl watchdog feed /dev/watchdog0; true"
expect 0 'inactive' cat /sys/class/watchdog/watchdog0/state

# A signal disarms it.
expect 143 '^boardctl: /dev/watchdog is disarmed.$' stopped 10
expect 0 'inactive' cat /sys/class/watchdog/watchdog0/state

expect 0 '^0x80011000  0x00000197$' "$boardctl" mem read 0x80011000
expect 0 '^  speed  *[0-9]* bit/s$
^  open by' "$boardctl" serial show /dev/ttyS0

ip link set eth0 up
expect 0 '^eth0  was none, is 192.0.2.10/24: changed$' "$boardctl" net address eth0 192.0.2.10/24
expect 3 'nothing had to be changed' "$boardctl" net address eth0 192.0.2.10/24 --changed
expect 0 '^eth0  was none, is 192.0.2.1 on eth0: changed$' "$boardctl" net gateway eth0 192.0.2.1
expect 0 '^eth0  up, hardware address
192.0.2.10/24
^gateway ipv4  192.0.2.1 on eth0$' "$boardctl" net show
expect 0 '^eth0  was 192.0.2.10/24, is none: changed$
^boardctl: the default route went, too' "$boardctl" net clear address eth0
exit $failed

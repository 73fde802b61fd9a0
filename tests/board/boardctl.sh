#!/bin/sh
# shellcheck disable=SC2317 # functions are called by expect
# boardctl on the kernel's own drivers, run on the board: boardctl.sh [line | reset TIMEOUT]. It needs softdog, a UART, a
# network card and a word of memory at 0x80011000. With "line", it tests a serial line to a far end that sends everything
# back; with "reset", it leaves a watchdog behind that nothing disarms any more.
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
stopped() {
  "$boardctl" watchdog feed /dev/watchdog --interval "$1" &
  until grep -qx active /sys/class/watchdog/watchdog0/state || ! kill -0 "$!"; do
    sleep 0.1
  done
  cut -d ' ' -f 1 /proc/uptime > stopped
  kill "$!"
  wait "$!"
}

# watched: watches a word until another boardctl has changed its last bit.
watched() {
  : > /tmp/seen
  "$boardctl" mem watch 0x80012000 --every 1 --changes 1 > /tmp/seen &
  until [ -s /tmp/seen ] || ! kill -0 "$!"; do
    sleep 0.1
  done
  "$boardctl" --quiet mem write 0x80012000 0x1234567e
  wait "$!"
  watching=$?
  cat /tmp/seen
  return "$watching"
}

if [ "${1:-}" = reset ]; then
  echo 1 > /sys/class/watchdog/watchdog0/nowayout
  expect 0 '^  nowayout   yes$' "$boardctl" watchdog show /dev/watchdog
  expect 0 'watchdog0 has nowayout set: once armed, nothing disarms it' "$boardctl" report
  expect 143 "^boardctl: nowayout is set: once armed, nothing disarms /dev/watchdog
^boardctl: closed properly, but /dev/watchdog still counts (nowayout): THE BOARD RESETS within $2 s " stopped "$2"
  [ "$failed" = 0 ] && awk 'NR == 1 { stopped = $1 } END { print "armed " $1 - stopped " seconds ago" }' stopped /proc/uptime
  exit
fi

port=/dev/ttyS0
# carried COUNT FILE OPTION...: sends FILE, and prints what comes back to a second boardctl.
carried() {
  count=$1 file=$2
  shift 2
  "$boardctl" --quiet serial receive "$port" --count "$count" "$@" &
  receiving=$!
  # Until then it would discard what comes in.
  until stty -a -F "$port" 2> /dev/null | grep -q -e ' -icanon' || ! kill -0 "$receiving"; do
    sleep 0.1
  done
  sleep 1
  "$boardctl" --quiet serial send "$port" "$file" "$@" > /dev/null && wait "$receiving"
}

# carried_whole FILE OPTION...: whether FILE comes back unchanged.
carried_whole() {
  carried "$(wc -c < "$1")" "$@" > /tmp/back
  cmp "$1" /tmp/back
}

# flooded: receives for 3 s on a line that is flooded: the kernel echoes what the far end sends back.
flooded() {
  stty -F "$port" sane
  cat < "$port" > /dev/null &
  taking=$!
  yes | head -n 500 > "$port"
  sleep 1
  "$boardctl" serial receive "$port" > /tmp/flood &
  receiving=$!
  sleep 3
  kill "$taking" "$receiving"
  wait "$receiving"
  stopped=$?
  # Until nothing of it is under way any more.
  "$boardctl" serial receive "$port" --idle 2000 > /dev/null 2>&1
  return "$stopped"
}

if [ "${1:-}" = line ]; then
  expect 0 '^/dev/ttyS0 ' "$boardctl" serial list
  expect 0 '^/dev/ttyS0$
^  speed  *[0-9]* bit/s$
not raw
^  lines up .*CTS
^  counted  *rx=[0-9]* tx=
^  UART  *baud_base_bps=115200 ' "$boardctl" serial show "$port"

  # What is longer than the driver's buffers goes out whole before the sender ends, whoever holds whom up.
  head -c 20000 /dev/urandom > /tmp/sent
  for flow in none hardware; do
    expect 0 '' carried_whole /tmp/sent --flow $flow
  done
  # Of software flow control, the line's own characters stop and start the sender.
  base64 /tmp/sent > /tmp/text
  expect 0 '' carried_whole /tmp/text --flow software
  echo '0d 0a ff 11' > /tmp/sent
  expect 0 '^0D 0A FF 11$' carried 4 /tmp/sent --hex
  # The settings are restored: by the last to leave, of two, to what it found, which may be what the other had set.
  stty -F "$port" sane
  "$boardctl" serial send "$port" /tmp/sent
  expect 0 'not raw' "$boardctl" serial show "$port"

  # Opened all the same, and ended by a signal.
  expect 143 '^boardctl: received [0-9]* bytes in [0-9.]* s: a signal came' flooded
  stty -F "$port" sane

  for loop in '' --loop; do
    # shellcheck disable=SC2086 # an option or nothing
    expect 0 '^Verdict: good at 2 of 2 speeds' \
      "$boardctl" serial test "$port" $loop --speeds 9600,115200 --size 4096 --turns 5
  done
  expect 1 '921600' "$boardctl" serial send "$port" /tmp/sent --speed 921600
  expect 0 'silent for 300 ms' "$boardctl" serial receive "$port" --idle 300
  expect 0 '^Device: */dev/ttyS0$
^Output Baudrate: 115200$
^Baud Base: *115200$
^FIFO Size: *16$
^Real baud rate: ' "$boardctl" serial report "$port"
  expect 0 '^Baud Base: *3906250$
^FIFO Size: *64$' "$boardctl" serial report /dev/ttyS2
  exit $failed
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
# Nor does what is given a watchdog for a serial port: its number is none that watchdogs always have.
for verb in show report send receive test; do
  expect 1 "^boardctl: serial $verb: /dev/watchdog0 is not a serial port$" "$boardctl" serial $verb /dev/watchdog0
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
expect 0 '^0x80012000  ' "$boardctl" mem read 0x80012000
expect 0 '' "$boardctl" mem write 0x80012000 0x12345678
expect 0 '' "$boardctl" mem write 0x80012000 0xff --mask 0x0f
expect 0 '^0x80012000  0x1234567F$' "$boardctl" mem read 0x80012000
expect 0 '^0x80012000  1234567F ' "$boardctl" mem dump 0x80012000 4
expect 0 'Z  0x1234567F  0001 .* 0111 1111$
Z  0x1234567E  0001 .* 0111 1110$
^ *\^  bits 0$' watched
# The kernel's own memory is refused.
expect 1 'Operation not permitted' "$boardctl" mem read 0x40008000
expect 0 '^  speed  *[0-9]* bit/s$
^  open by' "$boardctl" serial show /dev/ttyS0

ip link set eth0 up
expect 0 '^eth0  was none, now 192.0.2.10/24: changed$' "$boardctl" net address eth0 192.0.2.10/24
expect 3 'nothing had to be changed' "$boardctl" net address eth0 192.0.2.10/24 --changed
expect 0 '^eth0  was none, now 192.0.2.1 on eth0: changed$' "$boardctl" net gateway eth0 192.0.2.1
expect 0 '^eth0  up, hardware address
192.0.2.10/24
^gateway ipv4  192.0.2.1 on eth0$' "$boardctl" net show
expect 0 '^was 192.0.2.1 on eth0, now none: changed$' "$boardctl" net clear gateway
expect 0 'changed$' "$boardctl" net gateway eth0 192.0.2.1
ip -6 addr flush dev eth0
expect 0 '^eth0  was none, now fe80::.*/64: changed$' "$boardctl" net link-local eth0
expect 3 '^eth0  is fe80::.*/64: nothing had to be changed$' "$boardctl" net link-local eth0 --changed
expect 0 '^eth0  was fe80::.*/64, now none: changed$' "$boardctl" net clear address eth0 --ipv6
expect 0 '^eth0  was 192.0.2.10/24, now none: changed$
^boardctl: the default route was removed too' "$boardctl" net clear address eth0

expect 1 '^out$
^boardctl: status 3$' "$boardctl" run 'echo out; exit 3'
expect 0 '^  cause  ' "$boardctl" explain 'popen failed: Cannot allocate memory'
expect 0 '^/dev/ttyS0$' "$boardctl" __complete serial show ''
expect 0 '^_boardctl' "$boardctl" completion bash
exit $failed

#!/usr/bin/env bash
# Runs other projects' programs, unchanged, on the simulated board: foreign-programs.sh BOARDSIM
#
# Each line of the output is a program that works there. The first one that does not ends it.
# shellcheck disable=SC2016 # what stands in quotes is for the board's own shell
set -euo pipefail

boardsim=$(readlink -f "$1")
rules=$(readlink -f "$(dirname "$0")/../../packaging/udev/60-boardkit.rules")
folder=$(mktemp -d)
trap 'rm -rf -- "$folder"' EXIT
cd "$folder"

# check NAME COMMAND...: passes if the command does, within a minute.
check() {
  local name=$1
  shift
  if ! timeout 60 "$@" >"$folder/output" 2>&1 </dev/null; then
    echo "$name fails:" >&2
    cat "$folder/output" >&2
    exit 1
  fi
  echo "$name"
}

board=("$boardsim" --net none)

head -c 1000000 /dev/urandom >sent

check "busybox stty and cat" "${board[@]}" --tty /dev/ttyS1=exec:'cat >heard' -- \
  sh -c 'busybox stty -F /dev/ttyS1 raw -echo && busybox cat sent >/dev/ttyS1'
cmp sent heard

# It feeds it for longer than its time-out, and then is asked to end, which stops it.
check "busybox watchdog" "${board[@]}" --log events -- \
  sh -c 'timeout 3 busybox watchdog -F -T 2 -t 500ms /dev/watchdog; test $? -eq 124'
check "busybox watchdog, as the log shows" grep 'close: stopped$' events

check "busybox devmem" "${board[@]}" --reg 0x40000000=0x600dcafe -- \
  sh -c 'test "$(busybox devmem 0x40000000 32)" = 0x600DCAFE'

check "wdctl" "${board[@]}" -- sh -c 'wdctl /dev/watchdog | grep -q boardsim && echo V >/dev/watchdog'

check "setserial" "${board[@]}" -- sh -c '
  setserial /dev/ttyS1 spd_cust divisor 17 && setserial -a /dev/ttyS1 | grep -q "divisor: 17" &&
  setserial -a /dev/ttyS1 | grep -q spd_cust'

mkdir received
check "sz" "${board[@]}" --tty /dev/ttyS1=exec:'cd received && exec rz -q -y' -- \
  sh -c 'stty -F /dev/ttyS1 raw -echo && exec sz -q sent </dev/ttyS1 >/dev/ttyS1'
cmp sent received/sent

check "python3-serial" "${board[@]}" --tty /dev/ttyS1=plug -- /usr/bin/python3 -c '
import serial
with serial.Serial("/dev/ttyS1", 115200, timeout=5, rtscts=True) as port:
    port.write(b"hello")
    port.flush()
    assert port.read(5) == b"hello"
    port.rts = False
    assert not port.cts
    assert port.out_waiting == 0
'

check "python3-serial, whose writing takes too long" "${board[@]}" --pace -- /usr/bin/python3 -c '
import serial
with serial.Serial("/dev/ttyS1", 9600, write_timeout=0.2) as port:
    try:
        port.write(bytes(100000))
        raise SystemExit("it was all written")
    except serial.SerialTimeoutException:
        port.reset_output_buffer()
'

# It wants to see a file system of the kernel, unless configured otherwise.
check "udevadm" env SYSTEMD_DEVICE_VERIFY_SYSFS=0 "${board[@]}" -- sh -c '
  udevadm info --attribute-walk --path=/sys/class/tty/ttyS1 >walk &&
  grep -q "KERNEL==\"ttyS1\"" walk && grep -q "KERNELS==\"80011000.serial\"" walk &&
  udevadm info --query=property --path=/sys/class/watchdog/watchdog0 | grep -qx SUBSYSTEM=watchdog'

# The rules of this tree. Groups that this machine lacks would be ignored, and so be complained of. The events of the
# simulated watchdog have no number of a node, without which udev passes over lines that set nothing but a node's rights.
sed 's/GROUP="watchdog"/GROUP="dialout"/; /^SUBSYSTEM/s/$/, ENV{BY_A_LINE}="yes"/' "$rules" >60-boardkit.rules
check "udev, with the rules for boards" env SYSTEMD_DEVICE_VERIFY_SYSFS=0 SYSTEMD_LOG_LEVEL=debug "${board[@]}" -- sh -c '
  mkdir -p /run/udev/rules.d && cp 60-boardkit.rules /run/udev/rules.d/ &&
  udevadm test --action=add /sys/class/tty/ttyS1 >test 2>&1; grep 60-boardkit test
  ! grep -q "60-boardkit.rules:.*ignoring" test && grep -q "^ttyS1: .*60-boardkit.rules:[0-9]* MODE 0660$" test &&
  udevadm test --action=add /sys/class/watchdog/watchdog0 >test 2>&1; grep 60-boardkit test
  grep -q "^watchdog0: .*60-boardkit.rules:[0-9]* MODE 0660$" test &&
  udevadm test --action=add /sys/class/net/lo >test 2>&1
  ! grep "60-boardkit.rules:[0-9]* MODE" test'

check "picocom" "${board[@]}" -- sh -c 'printf hello | picocom -q -b 115200 -x 500 /dev/ttyS1 | grep -q hello'

check "screen" "${board[@]}" -- sh -c '
  export SCREENDIR=$PWD/screens; mkdir -m 700 screens
  screen -dmS line /dev/ttyS1 115200
  until screen -S line -X quit >/dev/null; do sleep 0.1; done
  for i in $(seq 200); do stty -F /dev/ttyS1 raw && exec 3<>/dev/ttyS1 && exit 0; sleep 0.1; done; exit 1'

check "agetty" "${board[@]}" --tty /dev/ttyS1=exec:'cat >asked' -- sh -c '
  setsid agetty -L 115200 ttyS1 vt100 & for i in $(seq 200); do grep -q login: asked && exit 0; sleep 0.1; done; exit 1'

check "tcpdump" "$boardsim" -- sh -c '
  ip address add 192.0.2.77/24 dev eth0; tcpdump -i lo -c 1 -w packet >/dev/null 2>&1 &
  while kill -0 $! 2>/dev/null; do bash -c "echo >/dev/udp/127.0.0.1/9"; sleep 0.1; done
  wait $!'

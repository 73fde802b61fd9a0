# shellcheck shell=bash disable=SC2154,SC2034 # one program in several files, which share these variables
# A boot of the virtual board, and its verdict. Sourced after image.sh.

# More memory than the address of the UART takes, at 1 GiB.
memory_start=0x40000000
memory_size=1088M
virt=(-machine "virt,highmem=off" -cpu cortex-a15)
semihosting=(-semihosting-config "enable=on,userspace=on,target=native")
# A panic ends the board at once. The kernel's tests of its ciphers would take half of the time to boot.
kernel_options='panic=-1 loglevel=4 cryptomgr.notests'
no_verdict=125

network_card=(-netdev "hubport,id=net,hubid=0" -device "virtio-net-pci,netdev=net,romfile=")

# quote WORD...: as the board's shell reads them back.
quote() {
  local word
  for word in "$@"; do
    printf " '%s'" "${word//\'/\'\\\'\'}"
  done
}

# make_run FOLDER COMMAND: FOLDER, and in FOLDER/root what the board runs. COMMAND is a text for its shell.
make_run() {
  mkdir -p "$1/root/payload"
  # shellcheck disable=SC2016
  printf '#!/bin/sh\n%s\n' "$2" >"$1/root/payload/run"
  chmod +x "$1/root/payload/run"
}

# emulate FOLDER LIMIT QEMU_OPTION...: the emulator, with FOLDER/root after the rest of the image, for at most LIMIT
# seconds (0: for ever). Leaves the emulator's events and status in FOLDER. Reads standard input.
emulate() {
  local run=$1 limit=$2 began=$SECONDS commands status=0
  shift 2
  { cat -- "$mine/${kernel:=bookworm}.image"; archive "$run/root"; } >"$run/initramfs"
  # It reports events only after a command on the other pipe, which has to stay open.
  mkfifo "$run/monitor.in" "$run/monitor.out"
  exec {commands}<>"$run/monitor.in"
  printf '{"execute":"qmp_capabilities"}\n' >&"$commands"
  cat -- "$run/monitor.out" >"$run/events" &
  # In the foreground, where the keys of a terminal reach it.
  timeout --foreground -k 5 "$limit" qemu-system-arm "$@" -kernel "$cache/kernel-$kernel/vmlinuz" \
    -initrd "$run/initramfs" -display none -monitor none -no-reboot -nic none "${semihosting[@]}" -qmp "pipe:$run/monitor" \
    2>"$run/complaints" || status=$?
  # timeout ends with 137, too, if it had to kill the emulator; one that somebody else kills ends before the limit.
  if ((status == 137 && limit != 0 && SECONDS - began >= limit)); then
    status=124
  fi
  exec {commands}>&-
  # Its writer has gone, or has never come.
  : <>"$run/monitor.out"
  wait $! || true
  rm -- "$run/initramfs"
  printf '%s\n' "$status" >"$run/emulator-status"
}

# verdict FOLDER: the status that the board itself ended with, if it did.
verdict() {
  local verdict
  verdict=$(sed -n 's/^BOARD-EXIT \([0-9]*\).*/\1/p' "$1/console")
  # The emulator ends well after a reset or a panic too.
  [[ -n $verdict && $verdict == "$(cat "$1/emulator-status")" ]] && printf '%s\n' "$verdict"
}

# boot FOLDER COMMAND LIMIT MACHINE [QEMU_OPTION]...: runs COMMAND on the MACHINE (virt or evk) for at most LIMIT seconds.
# Leaves in FOLDER the console, the output and the emulator's events, and ends with the board's verdict or with
# $no_verdict. BOARD_APPEND is added to the kernel's command line.
boot() {
  local run=$1 command=$2 limit=$3 machine=$4 options=() append="$kernel_options ${BOARD_APPEND:-}"
  shift 4
  make_run "$run" "export GTEST_COLOR=no
$command"
  : >"$run/output"
  : >"$run/console"
  case $machine in
    virt)
      options=("${virt[@]}" -m "$memory_size" -chardev "${uart_peer:-null,id=uart}" -device "pci-serial,chardev=uart"
        -chardev "file,id=output,path=$run/output" -device "pci-serial,chardev=output" -serial "file:$run/console")
      append+=" console=ttyAMA0 BOARD_OUTPUT=/dev/ttyS1 BOARD_MODULES=${BOARD_MODULES:-softdog}"
      ;;
    evk)
      options=(-machine mcimx6ul-evk -m 512 -dtb "$cache/kernel-${kernel:=bookworm}/evk.dtb"
        -serial "file:$run/console" -serial "file:$run/output")
      append+=" console=ttymxc0 clk_ignore_unused BOARD_OUTPUT=/dev/ttymxc1 BOARD_MODULES=imx2_wdt"
      ;;
  esac
  local started=$EPOCHREALTIME status
  emulate "$run" "$limit" "${options[@]}" -append "$append" "$@" </dev/null
  printf 'seconds %s\n' "$(awk "BEGIN { printf \"%.1f\", $EPOCHREALTIME - $started }")" >"$run/summary"
  sed -n 's/^BOARD-\(READY\|DONE\) \([0-9.]*\).*/\L\1 \2/p' "$run/console" >>"$run/summary"
  status=$(verdict "$run") || return "$no_verdict"
  return "$status"
}

# boots KERNEL: whether the board comes up with it.
boots() (
  folder=$cache/trial
  rm -rf -- "$folder"
  mkdir -p "$folder" || exit
  kernel=$1 mine=$folder
  cat -- "$cache/base.gz" "$cache/kernel-$kernel/modules.gz" >"$mine/$kernel.image" || exit
  boot "$folder/boot" true 300 virt
)

# how_it_ended FOLDER: says what ended a board without a verdict. A panic and a reset end the emulator alike, so it looks at
# the console first.
how_it_ended() {
  local run=$1 status
  status=$(cat "$run/emulator-status")
  if grep -q 'Kernel panic' "$run/console"; then
    printf 'a panic\n'
  elif ((status == 124)); then
    printf 'a hang\n'
  elif grep '"event": "SHUTDOWN"' "$run/events" | grep -q '"guest-reset"'; then
    printf 'a reset\n'
  elif grep '"event": "SHUTDOWN"' "$run/events" | grep -q '"host-signal"'; then
    printf 'a signal from outside\n'
  elif ((status != 0)); then
    printf 'a failure of the emulator (status %s)\n' "$status"
  else
    printf 'a power-off\n'
  fi
}

# show_end FOLDER: what a board without a verdict left.
show_end() {
  local run=$1
  printf '%s: the board ended without a verdict, by %s. The last lines of %s/console:\n' "${run##*/}" \
    "$(how_it_ended "$run")" "${run#"$PWD/"}" >&2
  tail -n 25 -- "$run/console" | tr -d '\r' >&2
  grep -h '"event"' "$run/events" >&2 || true
  cat -- "$run/complaints" >&2
}

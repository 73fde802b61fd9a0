# shellcheck shell=bash disable=SC2154,SC2034 # one program in several files, which share these variables
# The boots that the board's tests take, a few at a time. Sourced after scripts/virtual-board/boot.sh.

# add_tests: to the payload, the tests and the library with 64-bit file offsets and times, in a folder of their own; and
# what tests the examples and boardctl.
add_tests() {
  local root=$folder/tests added=$folder/tests/payload/time64
  rm -rf -- "$root"
  mkdir -p "$added"
  cp -a -- "$folder"/armhf-time64/stage/lib/libboardkit.so.* "$folder/armhf-time64/tests/board-tests" "$added/"
  "$target-strip" "$added/board-tests" "$added"/libboardkit.so.*.*
  cp -- tests/examples/{run,expect}.sh tests/board/boardctl.sh "$root/payload/"
  archive "$root" >>"$folder/payload.gz"
}

# test_board: files, memory and the serial port, with a line to a peer and memory that this machine sees too.
test_board() {
  local run=$1 peer=$1.peer status=0 command received
  mkdir -p "$peer"
  mkfifo "$peer/line.in"
  # The peer keeps what it gets, and sends it back. That is a file, at which it looks from time to time: woken by each byte,
  # it would take most of the time of the test.
  : >"$peer/line.out"
  tail -c +1 -f ---disable-inotify -s 0.005 -- "$peer/line.out" >"$peer/line.in" &
  local echoing=$!
  answer_in_memory "$peer/memory" &
  local answering=$!

  # shellcheck disable=SC2016
  command='
    export BOARD_RX_TRIGGER=/sys/class/tty/ttyS0/rx_trig_bytes BOARD_SENT=/tmp/sent
    others=Presets.*:Guarded.*:*Network*:WatchDog*
    ./board-tests --gtest_filter="-$others" || status=1
    echo "The same with 64-bit file offsets and times, but for what needs the machine outside:"
    LD_LIBRARY_PATH=time64 time64/board-tests --gtest_filter="-$others:*Mebibyte*:*TheMachineOutside*" || status=1
    echo "BOARD-SENT $(sha256sum </tmp/sent)"
    echo "The examples that need no device:"
    ./run.sh /payload || status=1
    ./boardctl.sh line || status=1
    [ -z "$status" ]'
  uart_peer=pipe,id=uart,path=$peer/line BOARD_APPEND=iomem=relaxed \
    reset_behind "$run" virt "$command" "./board-starve starve /dev/watchdog $reset_timeout" -dtb "$device_tree" \
    -device loader,addr=0x80011014,data=0x60,data-len=4 \
    -object "memory-backend-file,id=ram,size=$memory_size,mem-path=$peer/memory,share=on" -machine memory-backend=ram ||
    status=$?
  kill "$echoing" "$answering" 2>/dev/null || true
  wait "$echoing" "$answering" 2>/dev/null || true
  rm -f -- "$peer/memory"

  # Of what came, the first mebibyte: that of the tests. The rest is boardctl's.
  received=$(head -c 1048576 "$peer/line.out" | sha256sum)
  if ((status == 0)) && ! tr -d '\r' <"$run/output" | grep -q "^BOARD-SENT $received\$"; then
    printf 'FAILED: the peer received %s, which is not what the board sent.\n' "$received" >>"$run/output"
    status=1
  fi
  return "$status"
}

# answer_in_memory FILE: waits for the tests' word in the board's memory, and writes another one beside it.
answer_in_memory() {
  local offset=$((0x80020000 - memory_start)) _
  for _ in {1..1200}; do
    if [[ -e $1 && $(od -A n -t x4 -j $offset -N 4 -- "$1" 2>/dev/null) == ' 5eed1e55' ]]; then
      printf '\x15\xa1\xdb\x0d' | dd of="$1" bs=1 seek=$((offset + 4)) conv=notrunc status=none
      return
    fi
    sleep 0.1
  done
}

# test_network: IP configuration, with the tool that boards with a full system have and with BusyBox's.
test_network() {
  # What happens when memory runs out has to do with no kernel, and takes long.
  local tests='Network*'
  [[ $kernel != bookworm ]] || tests='*Network*'
  BOARD_MODULES=softdog,veth,virtio_pci,virtio_net reset_behind "$1" virt "
    ./board-tests --gtest_filter='$tests' && PATH=/busybox:\$PATH ./board-tests --gtest_filter='Network*'" \
    "./board-starve die /dev/watchdog $reset_timeout" "${network_card[@]}"
}

# test_small: a small board: boardctl, the watchdog that the kernel makes of a timer, no driver on the UART's registers,
# which keep what they are given, and a kernel that guards more memory.
test_small() {
  BOARD_MODULES=softdog,veth,virtio_pci,virtio_net BOARD_APPEND=mem=1024M reset_behind "$1" virt '
    ./boardctl.sh && ./board-tests --gtest_filter="WatchDog*:Presets.*:Guarded.*"' \
    "./boardctl.sh reset $reset_timeout" "${network_card[@]}" \
    -device loader,addr=0x80011000,data=0x197,data-len=4 -device loader,addr=0x80011004,data=0,data-len=4 \
    -device loader,addr=0x8001100c,data=0x3,data-len=4
}

# test_evk: another machine, with a watchdog in hardware.
test_evk() {
  reset_behind "$1" evk 'BOARD_HARDWARE_WATCHDOG=1 ./board-tests --gtest_filter="WatchDogDriver.*"' \
    "./board-starve starve /dev/watchdog $reset_timeout"
}

# reset_behind FOLDER MACHINE TESTS ARMING [QEMU_OPTION]...: runs TESTS, whose status it ends with if they fail; then ARMING,
# which says "armed: N seconds" or, with how long ago that was, "armed N seconds ago", when it has left a watchdog behind
# that nobody feeds: that has to reset the board, and in time.
reset_timeout=4
reset_margin=3
reset_behind() {
  local run=$1 machine=$2 tests=$3 arming=$4 status=0
  shift 4
  boot "$run" "{ $tests
} || exit
$arming
sleep 60" 600 "$machine" "$@" &
  local booting=$! armed='' ago
  while kill -0 "$booting" 2>/dev/null; do
    if [[ -z $armed ]] && grep -q '^armed.* seconds' "$run/output" 2>/dev/null; then
      ago=$(sed -n 's/^armed \([0-9.]*\) seconds ago.*/\1/p' "$run/output")
      armed=$(awk "BEGIN { printf \"%.3f\", $EPOCHREALTIME - ${ago:-0} }")
    fi
    sleep 0.1
  done
  wait "$booting" || status=$?
  ((status == 0 || status == no_verdict)) || return "$status"

  local event end reset
  end=$(how_it_ended "$run")
  if [[ $end != 'a reset' ]]; then
    ((status == 0)) || return "$status"
    printf 'FAILED: the board ended by itself instead of a reset.\n' >>"$run/output"
    return 1
  fi
  # The one in hardware is the emulator's, the other one the kernel's. Newer kernels reset before the console has this.
  if [[ -z $armed ]] || ! case $machine in
    virt) [[ $kernel != bookworm ]] || grep -q 'softdog: Initiating system reboot' "$run/console" ;;
    evk) grep -q '"event": "WATCHDOG"' "$run/events" ;;
  esac then
    printf 'FAILED: the reset did not come from the watchdog.\n' >>"$run/output"
    return 1
  fi
  event=$(grep '"event": "SHUTDOWN"' "$run/events")
  [[ $event =~ \"seconds\":\ ([0-9]+),\ \"microseconds\":\ ([0-9]+) ]]
  reset=$(awk "BEGIN { printf \"%.1f\", ${BASH_REMATCH[1]} + ${BASH_REMATCH[2]} / 1e6 - $armed }")
  printf 'Reset %s s after arming, with a time-out of %s s.\n' "$reset" "$reset_timeout" >>"$run/output"
  awk "BEGIN { exit !($reset > $reset_timeout - 1 && $reset < $reset_timeout + $reset_margin) }" || {
    printf 'FAILED: that is not the time-out.\n' >>"$run/output"
    return 1
  }
}

# Each in a way of its own, all end with a reset. The longest ones come first.
at_once=2
boots=(
  'board test_board'
  'network test_network'
  'small test_small'
  'evk test_evk'
)

# test_kernels KERNEL...: all boots with each of them, a few at a time; prints each one's output when it has ended. Ends
# with the status of one that failed.
test_kernels() {
  local kernel entry name test arguments running=0 status failed=0
  for entry in "${boots[@]}"; do
    for kernel; do
      if ((running == at_once)); then
        wait -n || true
        running=$((running - 1))
      fi
      mkdir -p "$mine/$kernel"
      read -r name test arguments <<<"$entry"
      # shellcheck disable=SC2086
      run_one "$mine/$kernel/$name" $test $arguments &
      running=$((running + 1))
    done
  done
  wait

  for entry in "${boots[@]}"; do
    for kernel; do
      name=$kernel/${entry%% *}
      status=$(cat "$mine/$name.status" 2>/dev/null) || status=$no_verdict
      if ((status != 0)); then
        failed=$status
        printf '%s with %s: FAILED with status %s\n' "${entry%% *}" "$(title "$kernel")" "$status" >&2
        if ((status == no_verdict)); then
          show_end "$mine/$name"
        else
          grep -e '^\[  FAILED  \] [^0-9]' -e '^FAILED' "$mine/$name.shown" >&2 || true
        fi
      fi
    done
  done
  return "$failed"
}

title() {
  printf 'Linux %s (%s)' "$(cat "$cache/kernel-$1/complete")" "$1"
}

# run_one FOLDER TEST [ARGUMENT]...: a boot of test_kernels.
run_one() {
  local run=$1 status=0
  "$2" "$run" "${@:3}" || status=$?
  {
    printf '=== %s with %s: %s\n' "${run##*/}" "$(title "$kernel")" "$(tr '\n' ' ' <"$run/summary")"
    tr -d '\r' <"$run/output"
    if grep '^BOARD-COMPLAINT' "$run/console"; then
      status=1
    fi
    # A test that did not run proves nothing.
    if grep -q -e '^\[  SKIPPED \]' -e '^\[==========\] Running 0 tests' "$run/output"; then
      printf 'FAILED: not all tests ran.\n'
      status=1
    fi
  } >"$run.shown"
  cat -- "$run.shown"
  printf '%s\n' "$status" >"$run.status"
}

# prepare_tests: all that the boots need.
prepare_tests() {
  prepare "${kernels[@]}"
  cross_build armhf-time64 '-DBOARDKIT_EXAMPLES=OFF -DBOARDKIT_TOOLS=OFF' \
    -DCMAKE_CXX_FLAGS='-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64'
  add_tests
}

# run_tests [--kernel NAME] [BOOT]...: the tests with a kernel, or with all of them; all boots, or only the named ones.
run_tests() {
  local kernel entry named='' chosen=()
  while (($#)); do
    case $1 in
      --kernel)
        check_kernel "${2:-}"
        kernels=("$2")
        shift
        ;;
      *)
        [[ $'\n'$(printf '%s\n' "${boots[@]%% *}")$'\n' == *$'\n'"$1"$'\n'* ]] || die_of_usage "Unknown: $1."
        named+=" $1 "
        ;;
    esac
    shift
  done
  for entry in "${boots[@]}"; do
    [[ -n $named && $named != *" ${entry%% *} "* ]] || chosen+=("$entry")
  done
  boots=("${chosen[@]}")

  prepare_tests
  prepared "${kernels[@]}"
  test_kernels "${kernels[@]}"
  printf 'All boots passed, in %s s.\n' "$SECONDS"
}

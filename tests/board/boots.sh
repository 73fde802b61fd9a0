# shellcheck shell=bash disable=SC2154,SC2034 # one program in several files, which share these variables
# The boots that the board's tests take, a few at a time. Sourced behind
# scripts/virtual-board/boot.sh.

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

# test_board: all that one boot can show, with a line to a peer and memory that this machine sees too.
test_board() {
  local run=$1 peer=$1.peer status=0 command
  mkdir -p "$peer"
  mkfifo "$peer/line.in" "$peer/line.out"
  # The peer keeps what it gets and sends it back, in chunks: each arrival costs the emulator time.
  dd bs=2048 iflag=fullblock status=none <"$peer/line.out" | tee "$peer/received" >"$peer/line.in" &
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
    exit ${status:-0}'
  uart_peer=pipe,id=uart,path=$peer/line BOARD_APPEND=iomem=relaxed boot "$run" "$command" 600 virt -dtb "$device_tree" \
    -device loader,addr=0x80011014,data=0x60,data-len=4 \
    -object "memory-backend-file,id=ram,size=$memory_size,mem-path=$peer/memory,share=on" -machine memory-backend=ram ||
    status=$?
  kill "$echoing" "$answering" 2>/dev/null || true
  wait "$echoing" "$answering" 2>/dev/null || true
  rm -f -- "$peer/memory"

  if ((status == 0)) && ! tr -d '\r' <"$run/output" | grep -q "^BOARD-SENT $(sha256sum <"$peer/received")\$"; then
    printf 'The peer received %s, which is not what the board sent.\n' "$(sha256sum <"$peer/received")" >>"$run/output"
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

# test_network: IP configuration with the tool that boards with a full system have.
test_network() {
  BOARD_MODULES=veth,virtio_pci,virtio_net \
    boot "$1" './board-tests --gtest_filter="*Network*"' 400 virt "${network_card[@]}"
}

# test_small: a small board: IP configuration with BusyBox, the watchdog that the kernel makes of a timer, no driver on
# the UART's registers, which keep what they are given, and a kernel that guards more memory.
test_small() {
  local command
  # shellcheck disable=SC2016
  command='
    PATH=/busybox:$PATH ./board-tests --gtest_filter="*Network*" || status=1
    ./board-tests --gtest_filter="WatchDog*:Presets.*:Guarded.*" || status=1
    exit ${status:-0}'
  BOARD_MODULES=softdog,veth,virtio_pci,virtio_net BOARD_APPEND=mem=1024M \
    boot "$1" "$command" 400 virt "${network_card[@]}" \
    -device loader,addr=0x80011000,data=0x197,data-len=4 -device loader,addr=0x80011004,data=0,data-len=4 \
    -device loader,addr=0x8001100c,data=0x3,data-len=4
}

# test_tools: boardctl with the kernel's own drivers, and none on the UART's registers.
test_tools() {
  BOARD_MODULES=softdog,veth,virtio_pci,virtio_net BOARD_APPEND=mem=1024M \
    boot "$1" ./boardctl.sh 200 virt "${network_card[@]}" -device loader,addr=0x80011000,data=0x197,data-len=4
}

# test_evk: another machine, with a watchdog in hardware.
test_evk() {
  boot "$1" 'BOARD_HARDWARE_WATCHDOG=1 ./board-tests --gtest_filter="WatchDogDriver.*"' 400 evk
}

# test_reset FOLDER MACHINE WAY: leaves a watchdog armed in the WAY, and expects a reset by it and in time.
reset_timeout=4
reset_margin=3
test_reset() {
  local run=$1 machine=$2 way=$3 status=0
  boot "$run" "./board-starve $way /dev/watchdog $reset_timeout; sleep 60" 300 "$machine" &
  local booting=$! armed=''
  while kill -0 "$booting" 2>/dev/null; do
    if [[ -z $armed ]] && grep -q '^armed' "$run/output" 2>/dev/null; then
      armed=$EPOCHREALTIME
    fi
    sleep 0.1
  done
  wait "$booting" || status=$?

  local event end reset
  end=$(how_it_ended "$run")
  if ((status != no_verdict)) || [[ -z $armed || $end != 'a reset' ]]; then
    printf 'FAILED: the board ended with status %s, by %s, instead of a reset.\n' "$status" "$end" >>"$run/output"
    return 1
  fi
  # The one in hardware is the emulator's, the other one the kernel's.
  if ! case $machine in
    virt) grep -q 'softdog: Initiating system reboot' "$run/console" ;;
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

# Those for watchdogs are mostly waiting, so they stand between those that keep a processor busy.
at_once=3
boots=(
  'board test_board'
  'small test_small'
  'evk test_evk'
  'starved-evk test_reset evk starve'
  'starved test_reset virt starve'
  'network test_network'
  'tools test_tools'
  'died test_reset virt die'
)

# test_kernel KERNEL: all boots with it, a few at a time; prints each one's output when it has ended. Ends with the status
# of one that failed.
test_kernel() {
  local kernel=$1 runs=$mine/$1 entry name test arguments running=0 status failed=0
  mkdir -p "$runs"
  printf '##### %s\n' "$(title "$kernel")"
  for entry in "${boots[@]}"; do
    if ((running == at_once)); then
      wait -n || true
      running=$((running - 1))
    fi
    read -r name test arguments <<<"$entry"
    # shellcheck disable=SC2086
    run_one "$runs/$name" $test $arguments &
    running=$((running + 1))
  done
  wait

  for entry in "${boots[@]}"; do
    name=${entry%% *}
    status=$(cat "$runs/$name.status" 2>/dev/null) || status=$no_verdict
    if ((status != 0)); then
      failed=$status
      printf '%s with %s: FAILED with status %s\n' "$name" "$(title "$kernel")" "$status" >&2
      if ((status == no_verdict)); then
        show_end "$runs/$name"
      else
        grep -e '^\[  FAILED  \] [^0-9]' -e '^FAILED' "$runs/$name.shown" >&2 || true
      fi
    fi
  done
  return "$failed"
}

title() {
  printf 'Linux %s (%s)' "$(cat "$cache/kernel-$1/complete")" "$1"
}

# run_one FOLDER TEST [ARGUMENT]...: a boot of test_kernel.
run_one() {
  local run=$1 status=0
  "$2" "$run" "${@:3}" || status=$?
  {
    printf '=== %s (%s)\n' "${run##*/}" "$(tr '\n' ' ' <"$run/summary")"
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

run_tests() {
  prepare bookworm
  cross_build armhf-time64 -DCMAKE_CXX_FLAGS='-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64'
  add_tests
  prepared bookworm
  test_kernel bookworm
  printf 'All %s boots passed in %s s.\n' "${#boots[@]}" "$SECONDS"
}

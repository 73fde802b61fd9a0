#!/usr/bin/env bash
# The virtual board as a workbench: each use of "scripts/board run" as its help describes it.
# Usage: workbench.sh
set -euo pipefail
tree=$(readlink -f "$(dirname "$(readlink -f "$0")")/../..")
board=$tree/scripts/board
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
cd "$work"

fail() {
  printf 'FAILED: %s\n' "$*"
  for file in out err; do
    printf -- '--- %s\n' "$file"
    cat -- "$file" 2>/dev/null || true
  done
  exit 1
}

# expect FILE TEXT...: each TEXT is a line of FILE.
expect() {
  local text
  for text in "${@:2}"; do
    grep -qxF -e "$text" "$1" || fail "\"$text\" is no line of $1."
  done
}

# run STATUS ARGUMENT...: scripts/board run ARGUMENT..., which ends with STATUS.
run() {
  local status=0
  "$board" run "${@:2}" >out 2>err || status=$?
  ((status == $1)) || fail "The status is $status, not $1."
}

# program NAME: makes one for the board of the text on standard input.
program() {
  { printf '#!/bin/sh\n' && cat; } >"$1"
  chmod +x "$1"
}

echo '== A program for another machine is refused before anything is booted'
run 1 /bin/true </dev/null
grep -q 'for another machine' err || fail 'It is not reported.'
! grep -q 'Building' out err || fail 'Something was built for it.'
program taking <<'END'
echo taken
END
run 1 --with /bin/true -- ./taking </dev/null
grep -q '/bin/true is a program for another machine' err || fail 'It is not reported for what comes along.'

echo '== A program of the own folder goes before an example, with files, input, a shared folder and settings of the board'
mkdir shared
echo 'from here' >shared/there
echo 'beside it' >note
echo 'and this' >'another note'
program serial-report <<'END'
echo "arguments: $1, $2"
echo 'this is an error' >&2
sed 's/^/input: /'
cat /payload/note '/payload/another note' there
echo 'from there' > back
grep -o quiet_here /proc/cmdline
awk '/MemTotal/ { print ($2 < 520000 ? "little memory" : "much memory") }' /proc/meminfo
for command in dd cmp mkfifo ls timeout; do command -v $command > /dev/null || echo "no $command"; done
[ -c /dev/pts/ptmx ] && echo 'terminals'
exit 7
END
printf 'one\ntwo\n' | run 7 --with note 'another note' --share shared --append quiet_here --memory 512M --timeout 90 -- \
  serial-report 'a b' "it's"
expect out "arguments: a b, it's" 'input: one' 'input: two' 'beside it' 'and this' 'from here' quiet_here 'little memory' terminals
! grep -q '^no ' out || fail 'Commands are missing.'
expect err 'this is an error'
! grep -q 'this is an error' out || fail 'Errors come out with the output.'
expect shared/back 'from there'

echo '== Libraries come along from where the loader would find them: beside a given file, by a run path, by the environment'
mkdir given beside elsewhere
compile() { arm-linux-gnueabihf-g++ -x c++ - "$@" -Wl,-rpath-link,elsewhere; }
echo 'int Two() { return 2; }' | compile -shared -fPIC -o elsewhere/libtwo.so
echo 'int Two(); int One() { return Two() - 1; }' | compile -shared -fPIC -Lelsewhere -ltwo -o given/libone.so
echo 'int Forty() { return 40; }' | compile -shared -fPIC -o beside/libforty.so
# shellcheck disable=SC2016  # the loader's own
echo 'int One(); int Forty(); int main() { return One() + Forty(); }' |
  compile -Lgiven -lone -Lbeside -lforty -Wl,-rpath,'$ORIGIN/beside' -o adding
LD_LIBRARY_PATH=$work/elsewhere run 41 --with given/libone.so -- ./adding </dev/null
run 1 --with given/libone.so -- ./adding </dev/null
grep -q 'given/libone.so needs libtwo.so, which is neither on the board nor here' err || fail 'What is missing is not reported.'

echo '== Output comes as it is written, and input is read as it comes'
program answer <<'END'
echo ready
read -r word
echo "heard $word"
END
mkfifo question
"$board" run ./answer <question >out 2>err &
running=$!
exec {asking}>question
until grep -qx ready out; do
  kill -0 "$running" || fail 'It ended without a word.'
  sleep 0.2
done
echo something >&"$asking"
exec {asking}>&-
wait "$running" || fail "Its status is $?."
expect out 'heard something'

echo '== Two at once, with two kernels, do not disturb each other'
program first <<'END'
echo first; uname -r; sleep 2; exit 11
END
program second <<'END'
echo second; uname -r; sleep 2; exit 12
END
"$board" run ./first >out 2>err </dev/null &
one=$!
"$board" run --kernel newest ./second >out2 2>err2 </dev/null &
two=$!
status=0
wait "$one" || status=$?
((status == 11)) || fail "The first one ended with status $status."
status=0
wait "$two" || status=$?
((status == 12)) || fail "The second one ended with status $status."
expect out first "$(cat "$tree/.cache/board/kernel-bookworm/complete")"
expect out2 second "$(cat "$tree/.cache/board/kernel-newest/complete")"

echo '== A board that hangs is ended, and that is reported'
program hanging <<'END'
sleep 1000
END
run 125 --timeout 15 ./hanging </dev/null
grep -q 'without a verdict, by a hang' err || fail 'It is not reported.'

echo '== An emulator that somebody kills is distinguished from a board that hangs'
"$board" run ./hanging </dev/null >out 2>err &
running=$! emulator=''
until [[ $emulator ]]; do
  sleep 0.2
  kill -0 "$running" || fail 'It has ended by itself.'
  while IFS= read -r process; do
    [[ $(readlink "${process%cmdline}exe") != */qemu-system-arm ]] || emulator=$(cut -d / -f 3 <<<"$process")
  done < <(grep -lzs "/run\.$running/" /proc/[0-9]*/cmdline)
done
kill -KILL "$emulator"
status=0
wait "$running" || status=$?
((status == 125)) || fail "The status is $status, not 125."
grep -q 'without a verdict, by a failure of the emulator (status 137)' err || fail 'It is not reported.'

echo '== A board that resets is distinguished from one that hangs'
program resetting <<'END'
reboot -f
sleep 100
END
run 125 ./resetting </dev/null
grep -q 'without a verdict, by a reset' err || fail 'It is not reported.'

echo '== ... and so are one that panics, and an emulator that does not even start'
program panicking <<'END'
echo c > /proc/sysrq-trigger
END
run 125 ./panicking </dev/null
grep -q 'without a verdict, by a panic' err || fail 'It is not reported.'
run 125 --memory 1000000G ./panicking </dev/null
grep -q 'without a verdict, by a failure of the emulator (status 1)' err || fail 'It is not reported.'

echo '== A shell says how to leave it, and is left so'
mkfifo keys
"$board" shell --with note <keys >out 2>err &
running=$!
exec {typing}>keys
# press_at TEXT KEYS: presses the keys when the text is there.
press_at() {
  until grep -q "$1" out; do
    kill -0 "$running" || fail 'It ended without a word.'
    sleep 0.2
  done
  printf '%b' "$2" >&"$typing"
}
press_at 'Ctrl-A x' 'cat /payload/note\n'
press_at '^beside it' '\001x'
exec {typing}>&-
wait "$running" || fail "Its status is $?."

echo '== A port of this machine leads to the board, and the board reaches this machine'
port=$((21000 + $$ % 10000)) here=$((31000 + $$ % 10000))
timeout 300 socat -u EXEC:'echo hello from this machine' "TCP-LISTEN:$here,bind=127.0.0.1" &
program serving <<'END'
nc 10.0.2.2 "$1" </dev/null
echo 'hello from the board' | nc -l -p 7000
END
"$board" run --net "user,$port:7000" ./serving "$here" </dev/null >out 2>err &
running=$!
heard=''
while kill -0 "$running" 2>/dev/null && [[ -z $heard ]]; do
  # What is connected before the program listens is closed again without a word.
  heard=$( (exec 3<>"/dev/tcp/127.0.0.1/$port" && timeout 5 head -n 1 <&3) 2>/dev/null) || true
  sleep 0.3
done
wait "$running" || fail "Its status is $?."
[[ $heard == 'hello from the board' ]] || fail "What was heard is \"$heard\"."
expect out 'hello from this machine'

echo '== A debugger stops in the library, whose names and lines it knows'
# The first stop is in the program, at its way into the library.
"$board" run --gdb watchdog-feed /dev/nothing 5 </dev/null >out 2>err &
running=$!
until grep -q 'Listening on port' err; do
  kill -0 "$running" || fail 'gdbserver did not come.'
  sleep 0.2
done
line=$(sed -n 's/^ *\(gdb-multiarch .*\)/\1/p' err)
breaking="gdb-multiarch -batch -nx -ex 'set breakpoint pending on' -ex 'break WatchDog::Activate'"
eval "$breaking ${line#gdb-multiarch} -ex continue -ex continue -ex backtrace \
  -ex 'info line WatchDog::Feed' -ex kill" </dev/null >debugged 2>&1 || true
wait "$running" || true
cp debugged out
grep -q 'Breakpoint 1.*, WatchDog::Activate (this=' out || fail 'The debugger did not stop there.'
grep -q '^Line [0-9]* of .*WatchDog.cpp"' out || fail 'It knows no lines.'

echo '== Of the tests, one that merely fails ends the run with its status and its text'
(
  cd "$tree"
  set --
  # shellcheck source=scripts/setup.sh
  source scripts/setup.sh
  # shellcheck source=scripts/virtual-board/image.sh
  source scripts/virtual-board/image.sh
  # shellcheck source=scripts/virtual-board/boot.sh
  source scripts/virtual-board/boot.sh
  # shellcheck source=tests/board/boots.sh
  source tests/board/boots.sh
  # shellcheck disable=SC2317
  test_failing() { boot "$1" 'echo "[  FAILED  ] Some.Test"; exit 3' 90 virt; }
  # shellcheck disable=SC2317
  test_passing() { boot "$1" 'echo passing' 90 virt; }
  boots=('failing test_failing' 'passing test_passing')
  prepare bookworm
  prepared bookworm
  test_kernels bookworm
) >out 2>err && status=0 || status=$?
((status == 3)) || fail "The status is $status, not 3."
grep -q 'failing .*FAILED with status 3' err || fail 'Its status is not reported.'
expect err '[  FAILED  ] Some.Test'
expect out passing
echo 'The workbench does what its help says.'

#!/usr/bin/env bash
# Runs the board's tests on a simulated board: simulated.sh BOARDSIM PROGRAM [ARGUMENT]...
#
# With BOARD_USER=ordinary, root runs them as a user without any rights; everybody else is one already.
set -euo pipefail
simulator=$1
program=$2
shift 2

if [[ ${1:-} == --gtest_list_tests ]]; then
  exec "$program" "$@"
fi

# Not in an ordinary user's PATH, but where some systems have `ip`.
export PATH="$PATH:/usr/sbin:/sbin"
as_user=()
if [[ ${BOARD_USER:-} == ordinary ]] && ((EUID == 0)); then
  # Copied to where this user may read them, and run from a folder that this user may enter.
  folder=$(mktemp -d)
  trap 'rm -rf -- "$folder"' EXIT
  chmod 755 "$folder"
  cp -- "$simulator" "$program" "$folder/"
  # As ldd does it, which starts several programs more.
  LD_TRACE_LOADED_OBJECTS=1 "$program" | sed -n 's/^[[:blank:]]*libboardkit.* => \(.*\) (0x.*/\1/p' | while IFS= read -r library; do
    cp -- "$library" "$folder/"
  done
  simulator=$folder/${simulator##*/}
  program=$folder/${program##*/}
  export LD_LIBRARY_PATH=$folder
  as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
  # Where this user may write the counters of a build for coverage.
  export GCOV_PREFIX=$folder/counts
  install -d -m 777 "$GCOV_PREFIX"
  cd /
fi

# The first port is on the board's UART, the other one leads to a peer that sends everything back.
# shellcheck disable=SC2206 # an option or nothing
board=(${BOARD_PACE:-} --tty /dev/ttyS2=none --tty /dev/ttyS0=echo)
case "$*" in
  # No driver on the registers, which keep what they are given.
  *--gtest_filter=Presets.*)
    board+=(--uart 0x90000000 --reg 0x80011000=0x197 --reg 0x8001100c=0x3)
    ;;
esac

net=private
if [[ $* == *Network.* && ! -e /proc/sys/net/ipv6 ]]; then
  printf '[  SKIPPED ] This machine has no IPv6.\n'
  exit
elif [[ $* == *--gtest_filter=[!*-]* && $* != *Network* ]]; then
  # Making one takes half of the board's start.
  net=none
fi
not_set_up=125
status=0
"${as_user[@]}" "$simulator" --net "$net" "${board[@]}" -- "$program" "$@" || status=$?
if ((status == not_set_up)); then
  printf "[  SKIPPED ] The board can't be simulated here, for the reason above.\n"
  exit
fi
exit "$status"

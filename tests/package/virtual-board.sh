#!/usr/bin/env bash
# The parts of the virtual board that nothing has to be booted for: its help is shown, a fetch that fails at any step is
# reported and begun anew the next time, and a boot's folder is empty when it begins. What would fetch is a stand-in.
# Usage: virtual-board.sh SOURCE_DIR
set -euo pipefail
if [[ ! -e /etc/apt/sources.list.d/debian.sources && ! -e /etc/apt/sources.list ]]; then
  echo 'This takes a system that gets its packages with apt-get.'
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
mkdir -p "$work/tree/tests/board" "$work/bin"
cp -R -- "$1/scripts" "$work/tree/"
cp -- "$1/tests/board/boots.sh" "$work/tree/tests/board/"

# stand_in NAME: a stand-in that does what standard input says; the calls that begin with $FAILING fail.
stand_in() {
  # shellcheck disable=SC2016
  { printf '#!/bin/sh\n[ -z "$FAILING" ] || case "%s $*" in "$FAILING"*) exit 1 ;; esac\n' "$1" && cat; } >"$work/bin/$1"
  chmod +x "$work/bin/$1"
}
stand_in apt-get <<'END'
[ "$1" != download ] || touch package.deb
END
stand_in apt-cache <<'END'
echo linux-image-6.1.0-9-armmp
END
stand_in dpkg-deb <<'END'
[ "$1" = -x ] || exit 0
mkdir -p "$3/lib/modules/6.1.0-9-armmp" "$3/boot"
[ "$FAILING" = vmlinuz ] || echo kernel > "$3/boot/vmlinuz-6.1.0-9-armmp"
[ "$FAILING" = dtb ] || echo tree > "$3/boot/imx6ul-14x14-evk.dtb"
END
for name in depmod fdtget fdtput; do
  stand_in "$name" </dev/null
done

# board COMMAND: runs it as scripts/board would, in a tree of its own.
board() {
  PATH=$work/bin:$PATH bash -c 'set -euo pipefail
    source scripts/setup.sh; source scripts/virtual-board/image.sh; source scripts/virtual-board/boot.sh
    mkdir -p "$cache" "$folder"
    '"$1" >"$work/said" 2>&1
}
fail() {
  cat -- "$work/said"
  printf '%s\n' "$*"
  exit 1
}

cd "$work/tree"
for use in run shell; do
  scripts/board "$use" --help >"$work/said" 2>&1 || fail "scripts/board $use --help is refused."
  scripts/board --help | diff - "$work/said" || fail "scripts/board $use --help shows something else than the help."
done
# What is wrong is reported before anything is fetched.
# refused STATUS COMPLAINT WORD...
refused() {
  local wanted=$1 complaint=$2 status=0
  shift 2
  scripts/board run "$@" >"$work/said" 2>&1 || status=$?
  [[ $status -eq $wanted && $(cat "$work/said") == *"$complaint"* ]] || fail "scripts/board run $*: status $status."
}
refused 1 "There is no file $PWD/./none." ./none
refused 2 '--memory takes a size as 512M or 2G, not 08G.' --memory 08G true
refused 2 'there is no port 99999.' --net user,99999:22 true
refused 2 'there is no port 0.' --net user,2222:0 true
refused 2 'Unknown: --none.' --none true
for FAILING in 'apt-get update' 'apt-get download' 'dpkg-deb -x' 'dpkg-deb -f'; do
  export FAILING
  ! board 'fetch root dash' || fail "With a failing $FAILING, fetching packages succeeds."
  [[ ! -e .cache/board/root.complete ]] || fail "With a failing $FAILING, the packages count as complete."
done
for FAILING in 'apt-get update' apt-cache 'apt-get download' 'dpkg-deb -x' vmlinuz dtb depmod; do
  for context in 'fetch_kernel sid' '(fetch_kernel sid) && true'; do
    ! board "$context" || fail "With a failing $FAILING, \"$context\" succeeds."
    [[ ! -e .cache/board/kernel-sid/complete ]] || fail "With a failing $FAILING, the kernel counts as complete."
  done
done
export FAILING=''
board 'fetch root dash; fetch_kernel sid' || fail 'With nothing that fails, fetching fails.'
[[ $(cat .cache/board/root.complete .cache/board/kernel-sid/complete) == $'dash\n6.1.0-9-armmp' ]] ||
  fail 'What was fetched does not count as complete.'
[[ -s .cache/board/kernel-sid/vmlinuz && -s .cache/board/kernel-sid/evk.dtb ]] || fail 'Parts of the kernel are missing.'
# Then there is nothing to do.
export FAILING=apt-get
board 'fetch root dash; fetch_kernel sid' || fail 'What is complete is fetched again.'

# shellcheck disable=SC2016
board 'mkdir -p "$folder/run.$$/run"; exec {building}>/dev/null; prepared; rmdir "$mine"' ||
  fail 'A boot begins with what an earlier process of the same number has left.'

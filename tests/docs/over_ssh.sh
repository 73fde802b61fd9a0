#!/bin/sh
# Runs the commands that the handbook shows for changing an address over ssh, on a simulated board: the new address stays
# if it is confirmed, and otherwise the old one comes back; the gateway is there in both cases.
# Usage: over_ssh.sh SOURCE_DIR BOARDSIM BOARDCTL. Ends with 77 where boards can't be simulated.
set -eu
page=$(readlink -f "$1/docs/ip-configuration.md") boardsim=$(readlink -f "$2")
boardctl=$(readlink -f "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
if ! "$boardsim" -- ip link show dev eth0 > simulated 2>&1; then
  cat simulated
  exit 77
fi

# The minute is over when the file is there, and the files are here.
sed -n '/^nohup /,/^```$/p' "$page" | sed '/^```$/d; s|sleep 60|until [ -e over ]; do sleep 0.3; done|; s|/tmp/undo|undo|' > change
sed -n '/^kill .*undo/s|/tmp/undo|undo|p' "$page" > confirm
if ! grep -q 'until' change || [ "$(wc -l < confirm)" -ne 1 ]; then
  printf 'The page has other commands.\n'
  exit 1
fi

cat > board <<'END'
show() {
  ip -4 addr show dev eth0 | sed -n 's/.* inet \([^ ]*\) .*/\1/p'
  ip route show default | sed 's/ dev.*//'
}
boardctl net address eth0 192.0.2.10/24
boardctl net gateway eth0 192.0.2.1
. ./change
show
[ "$1" = unconfirmed ] || . ./confirm
touch over
wait "$(cat undo)"
show
END

for way in confirmed unconfirmed; do
  rm -f over
  PATH=$(dirname "$boardctl"):$PATH "$boardsim" -- sh ./board "$way" > said 2> messages || true
  # boardctl says what it has changed, too.
  grep -E '^(192|default)' said > shown || true
  case $way in
    confirmed) last=192.0.2.20/24 ;;
    unconfirmed) last=192.0.2.10/24 ;;
  esac
  printf '%s\ndefault via 192.0.2.1\n' 192.0.2.20/24 "$last" | diff - shown || {
    printf 'That is not what remains when it is %s:\n' "$way"
    cat said messages
    exit 1
  }
done

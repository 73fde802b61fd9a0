#!/bin/sh
# Runs what the handbook's pages show and say of networks, on a simulated board.
# Usage: network-pages.sh EXAMPLES_DIR BOARDSIM [BOARDCTL]    (without BOARDCTL, only what needs none)
set -eu
examples=$1 boardsim=$2 boardctl=${3:-}
# shellcheck source=tests/examples/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"
need_board "$boardsim"

# What the page on IP configuration says of a change of the address: the default route goes with it.
# shellcheck disable=SC2016  # the inner shell's own
run 0 printed "$boardsim" -- sh -c '
  ip addr add 192.0.2.10/24 dev eth0
  ip route add default via 192.0.2.1
  "$0" eth0 192.0.2.20 24
  [ -z "$(ip route show default)" ] && echo "the default route has gone"' "$examples/set-address"
expect printed "the default route has gone"

# What the page on IP configuration says of an address that is set over ssh: the rescue survives the session's hang-up and
# takes the new address back, unless its number is killed.
cat > rescue <<'END'
#!/bin/sh
# Usage: rescue BOARDCTL HUP|TERM    (the session hangs up, or somebody confirms)
PATH=${1%/*}:$PATH
ip addr add 192.0.2.10/24 dev eth0
ip route add default via 192.0.2.1
mkfifo minute
nohup sh -c 'read -r _ < minute
  boardctl net address eth0 192.0.2.10/24
  boardctl net gateway eth0 192.0.2.1' </dev/null >/dev/null 2>&1 &
echo $! >undo
rescue=$(cat undo)
boardctl net address eth0 192.0.2.20/24 && boardctl net gateway eth0 192.0.2.1
# Until nohup has become the shell.
until [ "$(cat "/proc/$rescue/comm")" = sh ]; do sleep 0.3; done
kill -s "$2" "$rescue"
[ "$2" = TERM ] || echo over > minute
wait "$rescue"
echo "the rescue: $?"
ip -4 -o addr show dev eth0
ip route show default
END
if [ -n "$boardctl" ]; then
  # What ip refuses is in the catalogue, in the words of this ip and of this kernel.
  run 1 refused "$boardsim" -- "$examples/set-address" eth0 192.0.2.300 24
  run 0 printed "$boardctl" explain - < refused
  expect printed "The address, the prefix length or the gateway is invalid"
  # shellcheck disable=SC2016  # the inner shell's own
  run 1 refused "$boardsim" -- sh -c 'ip addr add 192.0.2.10 peer 192.0.2.1/24 dev eth0
    "$0" eth0 192.0.2.20 24 && "$0" eth0 192.0.2.20 24' "$examples/set-address"
  run 0 printed "$boardctl" explain - < refused
  expect printed "already, but not"
  run 0 printed "$boardsim" -- sh rescue "$boardctl" HUP
  expect printed "the rescue: 0" "inet 192.0.2.10/24" "default via 192.0.2.1 dev eth0"
  if grep -q "inet 192.0.2.20" printed; then fail "The new address has stayed." printed; fi
  run 0 printed "$boardsim" -- sh rescue "$boardctl" TERM
  expect printed "the rescue: 143" "inet 192.0.2.20/24" "default via 192.0.2.1 dev eth0"
  if grep -q "inet 192.0.2.10" printed; then fail "The old address has come back." printed; fi
fi

# What the page on boards says of capabilities: those of a file are not inherited by ip, ambient ones are.
if [ "$(id -u)" -eq 0 ] && command -v setcap > /dev/null; then
  chmod 755 .
  cp "$examples/set-address" app
  # shellcheck disable=SC2016  # the inner shell's own
  run 0 printed "$boardsim" -- sh -c '
    setcap cap_net_admin+ep app
    lower() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@" ./app eth0 192.0.2.10 24; }
    lower || echo "refused"
    setcap -r app
    lower --inh-caps=+net_admin --ambient-caps=+net_admin'
  expect printed "RTNETLINK answers: Operation not permitted" "refused" "Changed."
else
  printf 'Left out, for want of root or setcap: the capabilities of a file.\n'
fi

# What the page on security says of names that ip reports: the shell runs what follows the semicolon.
# shellcheck disable=SC2016  # the inner shell's own
run 0 printed "$boardsim" -- sh -c '
  ip link set eth1 down
  ip link set eth1 name "e;id>x"
  ip link set "e;id>x" up
  ip addr add 198.51.100.10/24 dev "e;id>x"
  ip route add default via 198.51.100.1 dev "e;id>x"
  "$0" eth0 192.0.2.1
  cat x' "$examples/set-gateway"
expect printed "uid="

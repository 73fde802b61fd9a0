#!/bin/sh
# Tests an application that asks over its line:
# answer-test.sh BOARDSIM APPLICATION
#
# The application here is serial-port, which sends "status?" and prints the
# first byte of the answer.
set -eu
boardsim=$(readlink -f "$1") application=$(readlink -f "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The far end: notes what it is sent, and answers.
cat > far-end.sh << 'END'
#!/bin/sh
while read -r question; do
  echo "$question" >> sent
  [ "$question" != 'status?' ] || echo 21.5 # yours
done
END
chmod +x far-end.sh
touch sent

fail() {
  printf 'FAILED: %s\n' "$1"
  cat -v output sent
  exit 1
}

# After 60 seconds, timeout ends the board.
timeout 60 "$boardsim" --tty /dev/ttyS1=exec:./far-end.sh -- \
  "$application" /dev/ttyS1 > output 2>&1 || # yours
  fail "its status is $? (124: it still waits)"
grep -qx 'status?' sent || fail "it has not asked" # yours
grep -qx 'first byte: 2' output || fail "it does not know the answer" # yours
printf 'passed\n'

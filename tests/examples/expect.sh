# shellcheck shell=sh
# What the tests of the examples share. Sourced, never run.

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit

# fail SENTENCE FILE: gives up, and shows the file.
fail() {
  printf '%s The output was:\n' "$1"
  cat "$2"
  exit 1
}

# expect FILE TEXT...: each TEXT stands in FILE.
expect() {
  file=$1
  shift
  # A grep for each would take longer than most programs that are tested here.
  [ -e "$file" ] || fail "Expected \"$1\" in $file, which is not there." /dev/null
  content=$(cat "$file")
  for text; do
    case $content in *"$text"*) ;; *) fail "Expected \"$text\"." "$file" ;; esac
  done
}

# run STATUS FILE COMMAND...: COMMAND ends with STATUS; its output goes to FILE.
run() {
  wanted=$1 output=$2
  shift 2
  status=0
  timeout 100 "$@" > "$output" 2>&1 || status=$?
  [ "$status" -eq "$wanted" ] || fail "Expected the status $wanted, not $status." "$output"
}

# prints STATUS COMMAND...: COMMAND ends with STATUS and prints the standard input.
prints() {
  wanted=$1
  shift
  cat > expected
  run "$wanted" printed "$@"
  diff expected printed || fail "$* prints something else." printed
}

# need_board BOARDSIM: leaves the test as one that is skipped where the machine allows no whole simulated board.
need_board() {
  notice=$("$1" -- true 2>&1) && [ -z "$notice" ] && return
  printf 'Skipped: %s\n' "$notice"
  exit 77
}

# wait_for FILE TEXT: until TEXT stands in FILE, which may not be there yet.
wait_for() {
  attempts=100
  until grep -qsF -e "$2" "$1" || [ "$attempts" -eq 0 ]; do
    sleep 0.3
    attempts=$((attempts - 1))
  done
  expect "$1" "$2"
}

# expect_disarmed LOG: the watchdog was armed for 30 seconds, fed, and disarmed.
expect_disarmed() {
  printf '%s\n' open 'timeout 30' feed 'write magic' 'close: stopped' | expect_events /dev/watchdog "$1"
}

# expect_events DEVICE LOG: the events of DEVICE in boardsim's LOG are those of the standard input; repeated ones stand
# there once, and without times.
expect_events() {
  sed -n "s|, last fed .*||; s|^ *[0-9.]* $1 ||p" "$2" | uniq > events
  diff - events || fail "These are not the events of $1." "$2"
}

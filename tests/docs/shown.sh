# shellcheck shell=sh
# What the tests share that run the commands which the handbook shows. Sourced, never run.

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit

# lay_out SOURCE_DIR EXAMPLE: this folder becomes a top folder with nothing built yet, and the example somebody's
# application in it.
lay_out() {
  for entry in "$1"/*; do
    [ "${entry##*/}" = build ] || ln -s "$entry" .
  done
  mkdir app
  cp "examples/$2.cpp" app/app.cpp
  sed -n '/^cmake_minimum_required/,/^```/p' docs/install.md | sed '/^```/d' > app/CMakeLists.txt
}

# block PAGE HEADING LANGUAGE [NUMBER]: a piece of code of a section, the first one of its language or the one with the
# number.
block() {
  awk -v heading="$2" -v begin="\`\`\`$3" -v number="${4:-1}" '
    /^```/ {
      inside = !fenced && here && $0 == begin && ++count == number
      fenced = !fenced
      next
    }
    !fenced && /^#/ { here = $0 == heading }
    inside' "docs/$1.md" > shown
  if ! [ -s shown ]; then
    printf 'There is no such code under "%s" of %s.\n' "$2" "$1" >&2
    exit 1
  fi
  # Packages are there already, and only the library is wanted.
  sed '/^sudo apt-get/d; s|-DBOARDKIT_TESTS=OFF|& -DBOARDKIT_TOOLS=OFF -DBOARDKIT_SIM=OFF -DBOARDKIT_EXAMPLES=OFF|' shown
}

# follow COMMANDS: a file of them.
follow() {
  sh -ex "$1" > said 2>&1 || {
    tail -n 40 said
    exit 1
  }
}

# expect TEXT FILE: stands there.
expect() {
  grep -qF -e "$1" "$2" || {
    printf 'There is no "%s" in this:\n' "$1"
    cat "$2"
    exit 1
  }
}

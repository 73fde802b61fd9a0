# shellcheck shell=bash
# What the scripts share: finding the tree, installing what is missing, building quietly. Sourced, never run; the
# sourcing script has `set -euo pipefail`.

# The scripts may be called from anywhere, also through a symlink; they work in the tree's top folder.
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.." || exit

# Not in an ordinary user's PATH, but where some systems have `ip`.
export PATH="$PATH:/usr/sbin:/sbin"

# What every build needs, for install_missing. A compiler of the user's own choice replaces ours.
build_needs=(cmake=cmake ninja-build=ninja)
if [[ -z ${CXX:-} ]]; then
  build_needs+=("g++=g++")
fi

# What the tests need beyond that.
# shellcheck disable=SC2034  # in the scripts that source this
test_needs=(libgtest-dev=/usr/include/gtest/gtest.h libcli11-dev=/usr/include/CLI/CLI.hpp
  nlohmann-json3-dev=/usr/include/nlohmann/json.hpp iproute2=ip util-linux=unshare mount=mount bsdutils=script make=make
  pkg-config=pkg-config busybox=busybox gdb=gdb python3=python3 socat=socat zsh=zsh fish=fish uidmap=newuidmap
  mandoc=mandoc tmux=tmux)

# die SENTENCE...: gives up.
die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# die_of_usage SENTENCE...: gives up on a wrong call.
die_of_usage() {
  printf '%s: %s Try --help.\n' "${0##*/}" "$*" >&2
  exit 2
}

# quietly LOG TITLE COMMAND...: runs COMMAND with one line of output, or all of it if it fails.
quietly() {
  local log=$1 title=$2
  shift 2
  printf '%s\n' "$title"
  "$@" </dev/null >"$log" 2>&1 && return
  cat -- "$log" >&2
  die "$title failed; the output above is kept in $PWD/$log."
}

# is_there PROBE: whether the command, or a file that the absolute path or glob names, exists.
is_there() {
  if [[ $1 == /* ]]; then
    compgen -G "$1" >/dev/null
  else
    type -P -- "$1" >/dev/null
  fi
}

# become_root SENTENCE: sets as_root to the words that make the command after them root's, or gives up with SENTENCE.
become_root() {
  as_root=()
  ((EUID != 0)) || return 0
  # Without a terminal nobody could answer a question for the password.
  if ! is_there sudo || ! { [[ -t 0 ]] || sudo -n true 2>/dev/null; }; then
    die "$1"
  fi
  as_root=(sudo)
}

# install_missing PACKAGE=PROBE...: installs the packages whose probe is not there, and says nothing if there are none.
# Several of the tree's scripts may do so at the same time.
install_missing() {
  local need missing=() as_root
  for need in "$@"; do
    is_there "${need#*=}" || missing+=("${need%%=*}")
  done
  ((${#missing[@]})) || return 0

  is_there apt-get || die "There is no apt-get here; please install these packages by other means: ${missing[*]}."
  become_root "These packages are missing, and installing them needs root or sudo: ${missing[*]}."

  local log apt
  log=$(mktemp)
  apt=("${as_root[@]}" flock . env DEBIAN_FRONTEND=noninteractive apt-get -y -o DPkg::Lock::Timeout=120)
  printf 'Installing with apt-get: %s\n' "${missing[*]}"
  # An unreachable source need not matter: the installation shows that.
  "${apt[@]}" update </dev/null >"$log" 2>&1 || true
  if ! "${apt[@]}" install --no-install-recommends "${missing[@]}" </dev/null >>"$log" 2>&1; then
    cat -- "$log" >&2
    rm -- "$log"
    die "apt-get could not install: ${missing[*]}."
  fi
  rm -- "$log"

  hash -r
  for need in "$@"; do
    is_there "${need#*=}" || die "The package ${need%%=*} is installed, but there is no ${need#*=}."
  done
}

# check_build FOLDER: gives up, before anything is changed, where a build in FOLDER could not even begin.
check_build() {
  local existing=$1
  while [[ ! -e $existing ]]; do
    existing=$(dirname -- "$existing")
  done
  [[ -d $existing && -w $existing ]] || die "The build directory $PWD/$1 is not writable."

  if [[ -n ${CXX:-} ]]; then
    # CMake too takes the first word for the compiler and the others for its options.
    is_there "${CXX%% *}" || die "The environment variable CXX names a compiler that does not exist: ${CXX%% *}."
  fi
}

# configure PRESET FOLDER [CMAKE_OPTION]...: configures PRESET in FOLDER.
#
# Warnings are errors where CI=true is set, and nowhere else: a newer compiler must not keep users from building.
configure() {
  local preset=$1 folder=$2 strict=OFF
  shift 2
  if [[ ${CI:-} == true ]]; then
    strict=ON
  fi
  mkdir -p -- "$folder"
  quietly "$folder/configure.log" "Configuring $folder" \
    cmake --preset "$preset" -B "$folder" -DCMAKE_COMPILE_WARNING_AS_ERROR=$strict "$@"
}

# build_targets FOLDER [TARGET]...: builds the targets, or all, of what is configured in FOLDER.
build_targets() {
  local folder=$1
  shift
  set -- "${@/#/--target=}"
  quietly "$folder/build.log" "Building $folder" cmake --build "$folder" --parallel "$(nproc)" "$@"
}

# build PRESET FOLDER [CMAKE_OPTION]...: configures PRESET in FOLDER and builds all of it.
build() {
  configure "$@"
  build_targets "$2"
}

# find_own_network: sets own_network to the options with which unshare gives this user a network of his own, or fails.
find_own_network() {
  own_network=(--user --map-root-user --net)
  unshare "${own_network[@]}" true 2>/dev/null && return
  # Where user namespaces are forbidden, root's rights may do.
  own_network=(--net)
  unshare "${own_network[@]}" true 2>/dev/null
}

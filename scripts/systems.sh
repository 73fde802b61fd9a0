# shellcheck shell=bash disable=SC2034,SC2154 # variables of the scripts that source it, and theirs
# Fresh systems of Debian, in folders, and programs that run in them. Sourced after scripts/setup.sh, and after
# become_root: making and entering a system takes root.

systems_need=(mount=mount perl=perl mmdebstrap=mmdebstrap
  debian-archive-keyring=/usr/share/keyrings/debian-archive-keyring.gpg)

# make_system FOLDER SUITE MMDEBSTRAP_OPTION...: a system in the folder, with the ordinary user $user, from where this
# machine's apt fetches its own packages and as it does: by a proxy, say.
user=developer
make_system() {
  local folder=$1 suite=$2 mirror settings status=0
  shift 2
  # shellcheck disable=SC2016  # apt's own variables
  mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' 'Label: Debian' |
    head -n 1)
  settings=$(mktemp)
  apt-config dump | grep -E '^Acquire::(http|https|Retries|Check-|ForceIPv)' >"$settings" || true
  # shellcheck disable=SC2016  # the hook's own variable
  "${as_root[@]}" mmdebstrap --include=passwd --aptopt="$settings" --dpkgopt=force-unsafe-io \
    --customize-hook='chroot "$1" useradd --create-home --shell /bin/bash '$user \
    "$@" "$suite" "$folder" ${mirror:+"$mirror"} || status=$?
  rm -- "$settings"
  return "$status"
}

# copy_system FROM TO: a fresh copy of a system.
copy_system() {
  remove_systems "$2"
  "${as_root[@]}" cp -a --reflink=auto -- "$1" "$2"
}

# remove_systems FOLDER...
remove_systems() {
  "${as_root[@]}" rm -rf --one-file-system -- "$@"
}

# enter ROOT COMMAND...: becomes COMMAND in the system in the folder ROOT, as root. For namespaces of its own, since it
# leaves its mounts behind.
# shellcheck disable=SC2317  # called by the text that in_system composes
enter() {
  local root=$1 node major minor
  shift
  mount --bind "$root" "$root"
  cd "$root" || return
  mount -t proc proc proc
  mount -t sysfs sysfs sys
  mount -t tmpfs -o mode=755 run run
  mount -t tmpfs -o mode=755 dev dev
  printf '127.0.0.1 localhost %s\n::1 localhost\n' "$(uname -n)" >etc/hosts
  mkdir dev/net dev/pts dev/shm
  chmod 1777 dev/shm
  for node in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0 net/tun:10:200; do
    IFS=: read -r node major minor <<<"$node"
    mknod -m 666 "dev/$node" c "$major" "$minor"
  done
  mount -t devpts -o newinstance,ptmxmode=666,mode=620,gid=5 devpts dev/pts
  ln -s pts/ptmx dev/ptmx
  ln -s /proc/self/fd dev/fd
  ln -s fd/0 dev/stdin
  ln -s fd/1 dev/stdout
  ln -s fd/2 dev/stderr
  # By pivot_root: in a chroot, no user namespaces can be made. Nothing in the system could unmount the old root.
  exec perl -e '
    require "syscall.ph";
    sub check { $_[0] == 0 or die "$_[1]: $!\n" }
    check syscall(&SYS_pivot_root, my $new = ".", my $old = "."), "pivot_root";
    check syscall(&SYS_umount2, $old, my $detach = 2), "umount2";
    chdir "/" or die "chdir: $!\n";
    exec @ARGV or die "$ARGV[0]: $!\n"' -- "$@"
}

# in_system ROOT USER COMMAND [ARGUMENT]...: runs COMMAND, a text for bash, in the system in the folder ROOT as a user of
# that system. What it started ends with it.
in_system() {
  "${as_root[@]}" unshare --mount --propagation private --pid --ipc --uts --fork --kill-child \
    bash -c "set -euo pipefail; $(declare -f enter); enter \"\$@\"" bash "$1" \
    setsid --wait runuser --login --command "$3" -- "$2" bash "${@:4}" </dev/null
}

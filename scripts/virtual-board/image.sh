# shellcheck shell=bash disable=SC2154,SC2034 # one program in several files, which share these variables
# What a virtual board boots from: kernels and packages of Debian, what this tree is built to, and archives of both.
# Sourced after scripts/setup.sh; $cache holds what is fetched, $folder what is built.

target=arm-linux-gnueabihf
here=$PWD/scripts/virtual-board
cache=$PWD/.cache/board
folder=$PWD/build/board

# The kernels: Debian 12's, and the newest of Debian's that boots.
kernels=(bookworm newest)
newest_first=(sid trixie)

check_kernel() {
  [[ -n $1 && " ${kernels[*]} " == *" $1 "* ]] || die_of_usage "--kernel takes one of: ${kernels[*]}."
}

# dash is the shell: that of BusyBox would run its own ip instead of the one in PATH.
user_land=(busybox-static dash iproute2 libbpf1 libbsd0 libc6 libcap2 libelf1 libgcc-s1 libmd0 libmnl0 libstdc++6 zlib1g)
modules=(softdog imx2_wdt veth virtio_pci virtio_net virtio_console 9p 9pnet_virtio)

# with_apt [SUITE]: sets up an apt in $apt that knows nothing of this machine's packages, with this machine's sources but
# for those of security (the main ones have all there is to fetch), or with the same ones of another SUITE.
with_apt() {
  local suite=${1:-} sources=/etc/apt/sources.list.d/debian.sources
  apt=$cache/apt
  rm -rf -- "$apt"
  mkdir -p "$apt"/{state/lists/partial,cache/archives/partial,sources,packages}
  : >"$apt/status"
  if [[ -e $sources ]]; then
    awk 'BEGIN { RS = ""; ORS = "\n\n" } !/-security/' "$sources" |
      if [[ -n $suite ]]; then sed "s/^Suites:.*/Suites: $suite/"; else cat; fi >"$apt/sources/board.sources"
  elif [[ -e /etc/apt/sources.list ]]; then
    grep '^deb ' /etc/apt/sources.list | grep -v -e -security |
      if [[ -n $suite ]]; then sed -E "s/^(deb (\[[^]]*\] )?[^ ]+) [^ ]+/\1 $suite/"; else cat; fi |
      sort -u >"$apt/sources/board.list"
  else
    die "There is neither $sources nor /etc/apt/sources.list: where packages come from is unknown."
  fi
  cat >"$apt/apt.conf" <<END
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Sandbox::User "";
Dir::State "$apt/state";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
Dir::Etc::sourceparts "$apt/sources";
Dir::Etc::sourcelist "/dev/null";
END
  export APT_CONFIG=$apt/apt.conf
}

# fetch NAME PACKAGE...: the packages, unpacked in .cache/board/NAME, and a dpkg's entries for them in NAME.status.
fetch() {
  local name=$1 complete=$cache/$1.complete
  shift
  [[ $(cat -- "$complete" 2>/dev/null) != "$*" ]] || return 0
  rm -rf -- "${cache:?}/$name" "$complete"
  mkdir -p "$cache/$name"
  quietly "$cache/fetch.log" "Fetching the board's packages into .cache/board/$name" fetch_packages "$name" "$@"
  printf '%s\n' "$*" >"$complete"
}

# "set -e" has no effect on what quietly or find_newest calls: each step itself says that it failed.
fetch_packages() (
  with_apt
  apt-get update || exit
  cd "$apt/packages" || exit
  apt-get download "${@:2}" || exit
  for package in *.deb; do
    dpkg-deb -x "$package" "$cache/$1" || exit
    { dpkg-deb -f "$package" && printf 'Status: install ok installed\n\n'; } >>"$apt/entries" || exit
  done
  mv -- "$apt/entries" "$cache/$1.status" || exit
  rm -r -- "$apt"
)

# fetch_kernel SUITE: the kernel of a Debian, in .cache/board/kernel-SUITE.
fetch_kernel() {
  local into=$cache/kernel-$1
  [[ ! -e $into/complete ]] || return 0
  rm -rf -- "$into"
  mkdir -p "$into"
  quietly "$cache/fetch.log" "Fetching the kernel of Debian's $1 (about 60 MB) into .cache/board/kernel-$1" \
    fetch_kernel_packages "$1" "$into"
}

fetch_kernel_packages() (
  with_apt "$1"
  apt-get update || exit
  cd "$apt/packages" || exit
  # Older kernels are one package, newer ones several.
  mapfile -t packages < <(apt-cache depends --recurse --important linux-image-armmp |
    grep -xE 'linux-(image|binary|modules|base)-[0-9].*-armmp')
  ((${#packages[@]})) || exit
  apt-get download "${packages[@]}" || exit
  for package in *.deb; do
    dpkg-deb -x "$package" "$2/tree" || exit
  done
  found=$(printf '%s\n' "$2"/tree/{,usr/}lib/modules/* | grep -v '\*') || exit
  mkdir -p "$2/lib/modules" || exit
  mv -- "$found" "$2/lib/modules/" || exit
  version=$(basename "$found")
  mv -- "$(find "$2" -name 'vmlinuz*' -type f)" "$2/vmlinuz" || exit
  mv -- "$(find "$2" -name imx6ul-14x14-evk.dtb -type f)" "$2/evk.dtb" || exit
  # Its second UART, the output's, transmits by DMA in newer device trees, which the emulated one cannot.
  fdtput -d "$2/evk.dtb" "$(fdtget "$2/evk.dtb" /aliases serial1)" dmas 2>/dev/null || true
  rm -r -- "$2/tree"
  depmod -b "$2" "$version" || exit
  rm -r -- "$apt"
  [[ -s $2/vmlinuz && -s $2/evk.dtb && -n $version ]] || exit
  printf '%s\n' "$version" >"$2/complete"
)

# find_newest: the newest kernel, as kernel-newest; whether it boots is tried once.
find_newest() {
  local suite
  [[ ! -e $cache/kernel-newest/complete ]] || return 0
  for suite in "${newest_first[@]}"; do
    if (fetch_kernel "$suite") && ln -sfn "kernel-$suite" "$cache/kernel-newest" && make_modules newest &&
      (boots newest); then
      return
    fi
    rm -f -- "$cache/kernel-newest"
    printf 'The kernel of Debian'\''s %s does not boot, so an older one stands for the newest.\n' "$suite" >&2
  done
  die "None of these kernels boots: ${newest_first[*]}."
}

# archive FOLDER: what is in it, as the kernel unpacks it.
archive() {
  (cd -- "$1" && find . -print0 | cpio --null -o -H newc --quiet -R 0:0) | gzip -1
}

# is_newer FILE SOURCE...: whether FILE is there and newer than all of them.
is_newer() {
  local source
  for source in "${@:2}"; do
    [[ $1 -nt $source ]] || return 1
  done
}

# make_base: the archive with the user land that every boot begins with.
make_base() {
  local made=$cache/base.gz root=$cache/base
  ! is_newer "$made" "$here/init" "$here/end-qemu.c" "$here/image.sh" "$cache/root.complete" || return 0
  rm -rf -- "$root"
  mkdir -p "$root"/{bin,busybox,dev/pts,etc,lib/modules,payload,proc,root,run,sbin,share,sys,tmp,usr/bin,"usr/lib/$target"}
  cp -- "$cache/root/bin/busybox" "$root/bin/"
  cp -- "$cache/root/bin/dash" "$root/bin/sh"
  cp -- "$cache/root/bin/ip" "$root/sbin/"
  # Where the kernel and scripts look for them.
  ln -s ../bin/busybox "$root/sbin/modprobe"
  ln -s ../../bin/busybox "$root/usr/bin/env"
  cp -a -- "$cache/root/lib/." "$root/lib/"
  cp -a -- "$cache/root/usr/lib/$target"/*.so* "$root/usr/lib/$target/"
  printf 'root:x:0:0::/root:/bin/sh\n' >"$root/etc/passwd"
  printf 'root:x:0:\n' >"$root/etc/group"
  cp -- "$here/init" "$root/init"
  "$target-gcc" -marm -O1 -static -o "$root/bin/end-qemu" "$here/end-qemu.c"
  archive "$root" >"$made"
}

# make_modules KERNEL: the archive with the modules of a kernel.
make_modules() {
  local kernel=$cache/kernel-$1 version file made=$cache/kernel-$1/modules.gz root=$cache/kernel-$1/modules
  ! is_newer "$made" "$here/image.sh" "$kernel/complete" || return 0
  version=$(cat "$kernel/complete")
  rm -rf -- "$root"
  mkdir -p "$root/lib/modules/$version"
  # A module of each name with those that it needs. The user land loads plain ones only.
  while read -r _ file _; do
    install -D -m 644 -- "$file" "$root/lib/modules/$version/${file##*/}"
  done < <(modprobe -d "$kernel" -S "$version" --show-depends -i -a "${modules[@]}" | grep '^insmod')
  find "$root" -name '*.xz' -exec xz -d -- {} +
  touch "$root/lib/modules/$version"/modules.{order,builtin.modinfo}
  cp -- "$kernel/lib/modules/$version/modules.builtin" "$root/lib/modules/$version/"
  depmod -b "$root" "$version"
  archive "$root" >"$made"
}

# make_device_tree: that of the emulated machine, with the board's own devices.
make_device_tree() {
  device_tree=$cache/board.dtb
  ! is_newer "$device_tree" "$here/uart.dtso" || return 0
  qemu-system-arm "${virt[@]}" -m "$memory_size" -machine dumpdtb="$cache/virt.dtb" -display none -nic none \
    2>"$cache/dtb.log"
  dtc -q -I dts -O dtb -o "$cache/uart.dtbo" "$here/uart.dtso"
  fdtoverlay -i "$cache/virt.dtb" -o "$device_tree" "$cache/uart.dtbo"
}

# cross_build PRESET LIBRARY_OPTIONS [CMAKE_OPTION]...: the library and what LIBRARY_OPTIONS add to it, installed in
# build/board/PRESET/stage, and the tests as anybody's program on it, with the options that set the preset's kind of file
# offsets and times.
cross_build() {
  local preset=$1 built=$folder/$1 extent=$2 debug=(-DCMAKE_CXX_FLAGS_RELEASE='-O3 -DNDEBUG -g')
  shift 2
  # shellcheck disable=SC2086
  build "$preset" "build/board/$preset/library" -DBOARDKIT_TESTS=OFF $extent "${debug[@]}"
  rm -rf -- "$built/stage"
  quietly "$built/install.log" "Installing build/board/$preset/stage" \
    cmake --install "$built/library" --prefix "$built/stage"
  mkdir -p "$built/tests"
  # Most of the time goes into them, so they are not optimised.
  quietly "$built/tests/configure.log" "Configuring build/board/$preset/tests" \
    cmake -S tests/board -B "$built/tests" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_PREFIX_PATH="$built/stage" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$target.cmake" -DCMAKE_UNITY_BUILD=ON \
    -DCMAKE_COMPILE_WARNING_AS_ERROR=ON "$@"
  quietly "$built/tests/build.log" "Building build/board/$preset/tests" \
    cmake --build "$built/tests" --parallel "$(nproc)"
}

# programs PRESET: the programs that this tree is built to, for the board.
programs() {
  find "$folder/$1"/{library/examples,tests} -maxdepth 1 -type f -executable
  find "$folder/$1/stage/bin" -type f 2>/dev/null || true
}

# make_payload: the archive with what this tree is built to.
make_payload() {
  local root=$folder/payload
  rm -rf -- "$root"
  mkdir -p "$root/payload" "$root/usr/lib/$target"
  cp -a -- "$folder"/armhf/stage/lib/libboardkit.so.* "$root/usr/lib/$target/"
  programs armhf | while IFS= read -r program; do
    "$target-strip" -o "$root/payload/${program##*/}" "$program"
  done
  "$target-strip" "$root/usr/lib/$target"/libboardkit.so.*.*
  archive "$root" >"$folder/payload.gz"
}

# prepare [KERNEL]...: all that boots of the kernels need, and what this tree is built to, one process at a time.
prepare() {
  prepare_system "$@"
  install_missing "${build_needs[@]}" libcli11-dev=/usr/include/CLI/CLI.hpp \
    nlohmann-json3-dev=/usr/include/nlohmann/json.hpp googletest=/usr/src/googletest/CMakeLists.txt
  cross_build armhf '-DBOARDKIT_EXAMPLES=ON -DBOARDKIT_TOOLS=ON'
  make_payload
}

# prepare_system [KERNEL]...: the same without anything of this tree's.
prepare_system() {
  check_build build/board
  install_missing "g++-$target=$target-g++" qemu-system-arm=qemu-system-arm util-linux=flock \
    device-tree-compiler=fdtoverlay cpio=cpio kmod=modprobe xz-utils=xz
  mkdir -p "$folder" "$cache"
  exec {building}>"$folder/lock"
  flock "$building"
  fetch root "${user_land[@]}"
  make_base
  make_device_tree
  local kernel
  for kernel in "$@"; do
    if [[ $kernel == newest ]]; then find_newest; else fetch_kernel "$kernel"; fi
    make_modules "$kernel"
  done
}

# prepared [KERNEL]...: lets other builds go on, and removes what ended boots have left. The boots of this process have
# what they need, $payload with it, in $mine, a folder of its own.
payload=$folder/payload.gz
prepared() {
  local old kernel
  for old in "$folder"/run.*; do
    kill -0 "${old##*.}" 2>/dev/null || rm -rf -- "$old"
  done
  mine=$folder/run.$$
  # An earlier process may have had the same number.
  rm -rf -- "$mine"
  mkdir -p "$mine"
  for kernel in "$@"; do
    cat -- "$cache/base.gz" "$cache/kernel-$kernel/modules.gz" "$payload" >"$mine/$kernel.image"
  done
  exec {building}>&-
}

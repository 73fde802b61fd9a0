# shellcheck shell=bash disable=SC2154,SC2034 # one program in several files, which share these variables
# The packages for armhf on the virtual board: dpkg itself installs them there, a client uses them, dpkg removes them.
# Sourced after scripts/virtual-board/boot.sh.

# What dpkg needs on the board beyond its user land.
dpkg_land=(dpkg tar coreutils diffutils findutils libc-bin libacl1 libattr1 libbz2-1.0 libgmp10 liblzma5 libpcre2-8-0 libselinux1
  libzstd1)

# test_packages FOLDER: with the packages in FOLDER.
test_packages() {
  local packages=$1 root run client status=0
  prepare_system bookworm
  fetch dpkg "${dpkg_land[@]}"
  # A client that is built with the packages' own headers and library.
  client=$folder/client
  rm -rf -- "$client"
  mkdir -p "$client"
  dpkg-deb -x "$packages"/libboardkit1_*_armhf.deb "$client/root"
  dpkg-deb -x "$packages"/libboardkit-dev_*_armhf.deb "$client/root"
  sed -n "/^cat > client.cpp/,/^END/{ //!p; }" debian/tests/client >"$client/client.cpp"
  "$target-g++" -std=c++11 "$client/client.cpp" -I"$client/root/usr/include/boardkit" \
    -L"$client/root/usr/lib/$target" -lboardkit -o "$client/client"
  # Without what this tree was built to, only the packages' library can be used.
  payload=/dev/null
  prepared bookworm

  run=$mine/packages root=$mine/packages/root
  mkdir -p "$root/payload" "$root/var/lib/dpkg"/{info,updates,triggers} "$root/var/log" "$root/etc"
  cp -a -- "$cache/dpkg/." "$root/"
  cat -- "$cache/root.status" "$cache/dpkg.status" >"$root/var/lib/dpkg/status"
  # dpkg warns of each package that has no list of its files.
  awk 'BEGIN { RS = ""; FS = "\n" } {
    same = ""
    for (i = 1; i <= NF; ++i) {
      if ($i ~ /^Package: /) name = substr($i, 10)
      if ($i == "Multi-Arch: same") same = ":armhf"
    }
    print name same ".list"
  }' "$root/var/lib/dpkg/status" | (cd -- "$root/var/lib/dpkg/info" && xargs touch --)
  cp -- "$packages"/{libboardkit1,boardkit-tools}_*_armhf.deb "$client/client" "$root/payload/"
  kernel=bookworm BOARD_MODULES=softdog,veth,virtio_pci,virtio_net \
    boot "$run" "$(sed -n "/^: <<'ON_BOARD'/,/^ON_BOARD/{ //!p; }" tests/board/packages.sh)" 200 virt \
    -dtb "$device_tree" "${network_card[@]}" || status=$?
  tr -d '\r' <"$run/output"
  if ((status == no_verdict)); then
    show_end "$run"
  fi
  ((status == 0)) || die "The packages do not work on the virtual board: status $status."
}

: <<'ON_BOARD'
set -e
export PATH=/usr/sbin:/usr/bin:$PATH LD_LIBRARY_PATH=
if ./client 2> message; then exit 1; fi
grep libboardkit.so.1 message
dpkg --install ./libboardkit1_*.deb ./boardkit-tools_*.deb
dpkg --status libboardkit1 boardkit-tools | grep -e '^Package' -e '^Version' -e '^Status'
./client
boardctl --version
boardctl run 'uname -a'
boardctl --help > /dev/null
boardctl report > report
grep '/dev/watchdog0 Software Watchdog, inactive' report
boardctl watchdog run /dev/watchdog --interval 5 -- cat /sys/class/watchdog/watchdog0/state > state
grep -x active state
boardctl serial test /dev/ttyS0 --loop --speeds 9600 --size 1000 --turns 1 | grep '^Verdict: good at 1 of 1 speeds'
dpkg --purge boardkit-tools libboardkit1
if [ -e /usr/lib/arm-linux-gnueabihf/libboardkit.so.1 ] || [ -e /usr/bin/boardctl ]; then exit 1; fi
echo 'Installed, used and removed by dpkg.'
ON_BOARD

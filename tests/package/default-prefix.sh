#!/bin/sh
# Installs into the default prefix as the README says, on this machine's own files but without changing them: a program
# finds the library only when ldconfig has run, and no more when it is uninstalled.
# Usage: default-prefix.sh SOURCE_DIR BUILD_DIR CXX
set -eu
if [ "${4:-}" != inside ]; then
  for namespaces in '--user --map-root-user --mount' --mount; do
    # shellcheck disable=SC2086  # words
    if unshare $namespaces sh -c 'mount -t tmpfs none /usr/local' 2>/dev/null; then
      exec unshare $namespaces "$0" "$1" "$2" "$3" inside
    fi
  done
  echo 'This takes root, or user namespaces.'
  exit 77
fi

source=$(readlink -f "$1") build=$2 cxx=$3
work=$(mktemp -d)
trap 'cd /; umount -l "$work"; rmdir "$work"' EXIT
mount -t tmpfs none "$work"
for folder in /usr/local /var/cache/ldconfig; do
  [ ! -d "$folder" ] || mount -t tmpfs none "$folder"
done
mkdir "$work/etc" "$work/work" "$work/build"
mount -t overlay -o "lowerdir=/etc,upperdir=$work/etc,workdir=$work/work" none /etc
PATH=$PATH:/usr/sbin:/sbin
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
ldconfig
cd "$work"

cmake -G Ninja -S "$source" -B build -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$cxx" -DBOARDKIT_TESTS=OFF \
  -DBOARDKIT_EXAMPLES=OFF -DBOARDKIT_SIM=OFF -DBOARDKIT_TOOLS=OFF >configure.log
cp -P "$build"/libboardkit.so* build/
cmake --install build >install.log
# shellcheck disable=SC2046
"$cxx" -std=c++11 "$source/examples/ip-configuration.cpp" $(pkg-config --cflags --libs boardkit) -o ip-configuration

echo '== without ldconfig'
if ./ip-configuration lo 2>message; then
  echo 'It was found.'
  exit 1
fi
grep 'libboardkit.so.[0-9]*: cannot open shared object file' message

echo '== with it'
ldconfig
./ip-configuration lo

echo '== uninstalled'
cmake --build build --target uninstall >uninstall.log
left=$(find /usr/local ! -type d)
if [ -n "$left" ]; then
  printf 'These are left:\n%s\n' "$left"
  exit 1
fi

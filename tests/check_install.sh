#!/bin/sh
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
# Installs into a scratch prefix, builds the README example with pkg-config
# as a host program would, and runs it on a simulated adapter.
set -eu
build=$1
src=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig"
cc -std=c99 -Wall -Wextra -Werror "$src/examples/receive.c" -o "$prefix/receive" \
  $(pkg-config --cflags --libs wcan libusb-1.0)
# Shared libraries of a sanitizer build need the sanitizer runtime first;
# only run the program against a plain build.
if ldd "$build/libwcan.so" | grep -q 'san\.so'; then exit 0; fi
WCAN_SIM=41 LD_PRELOAD="$build/libwcan-sim.so" LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/x86_64-linux-gnu" "$prefix/receive"

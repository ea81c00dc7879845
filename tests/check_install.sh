#!/bin/sh
# SPDX-License-Identifier: MIT
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
# Installs into a scratch prefix, moves the tree elsewhere and uses it from
# another directory without LD_LIBRARY_PATH, as a new user would: the tool on
# simulated and real adapters, and the README example built with pkg-config
# and run on a simulated adapter.
set -eu
build=$1
src=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/installed" >/dev/null
mv "$scratch/installed" "$scratch/moved"
prefix=$scratch/moved
cd "$scratch"
unset LD_LIBRARY_PATH LD_PRELOAD WCAN_SIM

fail() {
  echo "check_install: $*" >&2
  exit 1
}

"$prefix/bin/wcan" --sim 41,4 demo --quiet >/dev/null 2>&1 ||
  fail "installed wcan --sim 41,4 demo failed: $("$prefix/bin/wcan" --sim 41,4 demo --quiet 2>&1)"
"$prefix/bin/wcan" list >/dev/null 2>&1 ||
  fail "installed wcan list failed: $("$prefix/bin/wcan" list 2>&1)"

pc=$(find "$prefix" -name wcan.pc)
[ -n "$pc" ] || fail "no wcan.pc installed"
export PKG_CONFIG_PATH="${pc%/wcan.pc}"
libdir=$(pkg-config --variable=libdir wcan)
[ -f "$libdir/libwcan-sim.so" ] || fail "libwcan-sim.so is not installed beside the library"
# shellcheck disable=SC2046 # pkg-config prints separate flags
cc -std=c99 -Wall -Wextra -Werror "$src/examples/receive.c" -o receive \
  $(pkg-config --cflags --libs wcan libusb-1.0) -Wl,-rpath,"$libdir"
# Shared libraries of a sanitizer build need the sanitizer runtime first;
# only run the program against a plain build.
if ldd "$libdir/libwcan.so" | grep -q 'san\.so'; then exit 0; fi
WCAN_SIM=41 LD_PRELOAD="$libdir/libwcan-sim.so" ./receive >/dev/null ||
  fail "the example built against the installed library did not run"

#!/bin/sh
# SPDX-License-Identifier: MIT
# Usage: packaging/check-packages.sh DIR
#
# Checks the Debian packages in DIR (made by cpack -G DEB) as a user meets
# them: lintian, install with apt, use from outside the source tree (the tool
# and its man page, README's example built with pkg-config, the python-can
# interface), hardening-check on the installed tool and library, then purge,
# after which nothing of them may be left.
# Needs root or sudo; the packages are purged again on any failure.
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
debs=$(cd "$1" && pwd)
if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

work=$(mktemp -d)
packages=""
for deb in "$debs"/*.deb; do
  [ -f "$deb" ] || { echo "no .deb files in $debs" >&2; exit 1; }
  packages="$packages $(dpkg-deb -f "$deb" Package)"
done
purge() {
  # shellcheck disable=SC2086 # one word per package
  $sudo apt-get purge -y -qq $packages >/dev/null 2>&1 || true
}
trap 'purge; rm -rf "$work"' EXIT
purge # left over from an interrupted run
echo "packages:$packages"
if echo "$packages" | grep -qw python3-wcan; then python=yes; else python=no; fi
if [ -f "$src/python/CMakeLists.txt" ] && [ $python = no ]; then
  echo "python/ installs a Python package but there is no python3-wcan package" >&2
  exit 1
fi

echo "-- lintian"
lintian --fail-on error "$debs"/*.deb

# Every path the packages hold, and which of them the system had before.
for deb in "$debs"/*.deb; do
  dpkg-deb --fsys-tarfile "$deb" | tar -t
done | sed -e 's,^\./,/,' -e 's,/$,,' | grep -v '^$' | sort -u >"$work/paths"
existing() { while read -r path; do [ ! -e "$path" ] && [ ! -L "$path" ] || echo "$path"; done; }
existing <"$work/paths" >"$work/before"

echo "-- apt-get install"
$sudo apt-get install -y -qq "$debs"/*.deb >/dev/null

cd "$work"
# A tree installed from source under /usr/local comes first on the paths.
[ "$(command -v wcan)" = /usr/bin/wcan ] || { echo "wcan is $(command -v wcan), not the package's" >&2; exit 1; }
[ "$(pkg-config --variable=pcfiledir wcan)" = "$(dirname "$(dpkg -L libwcan-dev | grep '/wcan\.pc$')")" ] ||
  { echo "pkg-config finds $(pkg-config --path wcan), not the package's wcan.pc" >&2; exit 1; }
echo "-- one version"
version=$(dpkg-query -W -f '${Version}' libwcan1)
soname=$(objdump -p "$(pkg-config --variable=libdir wcan)/libwcan.so" | awk '/SONAME/ {print $2}')
found="$(wcan --version), wcan.pc $(pkg-config --modversion wcan), $soname"
expected="wcan $version, wcan.pc $version, libwcan.so.${version%%.*}"
if [ $python = yes ]; then
  found="$found, python $(/usr/bin/python3 -c 'import importlib.metadata as m; print(m.version("wcan"))')"
  expected="$expected, python $version"
fi
[ "$found" = "$expected" ] || { echo "package $version, but $found" >&2; exit 1; }
echo "-- hardening-check"
# Control-flow protection is left out: Debian's own toolchain and C runtime
# objects do not mark binaries for it on this release.
hardening-check --nocfprotection /usr/bin/wcan "$(dpkg -L libwcan1 | grep '/libwcan\.so\.1$')"
echo "-- wcan --sim 41,4 demo"
wcan --sim 41,4 demo --quiet 2>/dev/null
wcan list >/dev/null 2>&1 || { wcan list; exit 1; }
echo "-- man -w wcan: $(man -w wcan)"

echo "-- README's example with pkg-config"
awk '/^```c$/ {inside = 1; next} /^```$/ {if (inside) exit} inside' "$src/README.md" >example.c
# shellcheck disable=SC2046 # pkg-config prints separate flags
cc -std=c99 -Wall -Wextra -Werror example.c -o example $(pkg-config --cflags --libs wcan libusb-1.0)
WCAN_SIM=41 LD_PRELOAD="$(pkg-config --variable=libdir wcan)/libwcan-sim.so" ./example

if [ $python = yes ]; then
  echo "-- python-can interface wcan"
  WCAN_SIM=41 /usr/bin/python3 -c '
import can
with can.Bus(interface="wcan", channel="wcan41-0-0") as bus:
    print("opened", bus.channel_info)
'
fi

echo "-- apt-get purge"
# shellcheck disable=SC2086 # one word per package
$sudo apt-get purge -y -qq $packages >/dev/null
for package in $packages; do
  if dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qv not-installed; then
    echo "$package is still known to dpkg after purge" >&2
    exit 1
  fi
done
existing <"$work/paths" | comm -13 "$work/before" - >"$work/left"
if [ -s "$work/left" ]; then
  echo "left behind after purge:" >&2
  cat "$work/left" >&2
  exit 1
fi
echo "packages: installed, used and removed without a trace"

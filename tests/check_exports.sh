#!/bin/sh
# SPDX-License-Identifier: MIT
# Usage: check_exports.sh path/to/libwcan.so
set -eu
lib=$1
exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sort)
count=$(printf '%s\n' "$exported" | grep -c '^WCAN_[A-Za-z]*$' || true)
others=$(printf '%s\n' "$exported" | grep -v '^WCAN_[A-Za-z]*$' || true)
status=0
# The 30 calls of the interface and the receive-event extension.
if [ "$count" -ne 31 ]; then
  echo "expected 31 WCAN_* exports, found $count"; status=1
fi
if [ -n "$others" ]; then
  echo "unexpected exports:"; printf '%s\n' "$others"; status=1
fi
if readelf -d "$lib" | grep NEEDED | grep -q libusb; then
  echo "the library must not name libusb as a needed library"; status=1
fi
exit $status

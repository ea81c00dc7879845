#!/bin/sh
# SPDX-License-Identifier: MIT
# Runs a test program under umockdev's preload library. A sanitizer runtime
# linked into the program cannot come first in the preload list then, so its
# link-order check is switched off (the preload library only wraps system
# calls and allocates nothing the sanitizer must track).
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"
export ASAN_OPTIONS
exec "${UMOCKDEV_WRAPPER:-umockdev-wrapper}" "$@"

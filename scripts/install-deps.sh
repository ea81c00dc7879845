#!/bin/sh
# SPDX-License-Identifier: MIT
# Installs what building and testing wcan needs (Debian packages).
set -eu
if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends \
  cmake make g++ pkg-config libusb-1.0-0-dev libgtest-dev libgmock-dev libbenchmark-dev \
  can-utils python3 python3-can clang libclang-rt-dev umockdev libumockdev-dev \
  help2man gzip dpkg-dev file lintian man-db \
  libboost-dev python3-pytest python3-pytest-timeout \
  libncurses-dev tmux tshark libjs-dygraphs chromium chromium-driver python3-selenium \
  gcovr devscripts ccache nlohmann-json3-dev >/dev/null

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the Debian packages that building and testing need, when missing.
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev googletest python3
          g++-arm-linux-gnueabihf qemu-user xorriso util-linux)
# The manual page's lint and rendering, installing and packaging: the CPack
# packages and the Debian source package (dpkg-buildpackage needs
# build-essential and the package's build dependencies), checked by lintian.
packages+=(mandoc man-db pkgconf dpkg-dev file build-essential debhelper lintian)
# The CLI tests: ext2/ext4 images and the immutable flag (mkfs.ext4, chattr).
packages+=(e2fsprogs)
# The fuzz build: clang, its libFuzzer and sanitizer runtimes, the symbolizer.
packages+=(clang-14 libclang-rt-14-dev llvm-14)
# The kernel reader (tests/support/kernelreader.py) boots Debian's kernel
# under emulation: only the emulator and a static shell, no recommended extras.
lean=(qemu-system-x86 busybox-static)
missing=()
missing_lean=()
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
for p in "${packages[@]}"; do installed "$p" || missing+=("$p"); done
for p in "${lean[@]}"; do installed "$p" || missing_lean+=("$p"); done
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
if ((${#missing[@]} + ${#missing_lean[@]})); then
  echo "Installing: ${missing[*]} ${missing_lean[*]}"
  $sudo apt-get update -qq
elif ! apt-cache show linux-image-amd64 >/dev/null 2>&1; then
  # The kernel reader fetches Debian's kernel package by name; without the
  # package lists (or a network) its test is skipped, so this may fail.
  $sudo apt-get update -qq || echo "deps: apt-get update failed; the kernel reader may be skipped" >&2
fi
if ((${#missing[@]})); then
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
if ((${#missing_lean[@]})); then
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing_lean[@]}"
fi

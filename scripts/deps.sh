#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when missing.
set -euo pipefail
packages=(cmake ninja-build g++ libgtest-dev libgmock-dev googletest python3
          g++-arm-linux-gnueabihf qemu-user xorriso util-linux
          clang-14 libclang-rt-14-dev llvm-14)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi

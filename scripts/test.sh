#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the project four ways and runs every test in each:
#   normal      native build
#   sanitize    AddressSanitizer + UndefinedBehaviorSanitizer, any report fatal
#   arm         32-bit ARM static binaries, run under qemu-arm
#   fuzz        the libFuzzer targets of tests/fuzz (clang), smoke run only
# Usage: scripts/test.sh [normal|sanitize|arm|fuzz ...]   (default: all four)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

builds=("$@")
((${#builds[@]})) || builds=(normal sanitize arm fuzz)
jobs=$(nproc)
# The tests, and warnings as errors: the compiler here is the one the code is
# kept warning-free with.
testing=(-DBUILD_TESTING=ON -DMORV_WERROR=ON)

for b in "${builds[@]}"; do
  dir="build/$b"
  source_dir=.
  case "$b" in
    normal)   args=("${testing[@]}") ;;
    sanitize) args=("${testing[@]}" -DMORV_SANITIZE=ON) ;;
    arm)      args=("${testing[@]}" -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake) ;;
    fuzz)     args=(-DCMAKE_CXX_COMPILER=clang++-14); source_dir=tests/fuzz ;;
    *) echo "unknown build: $b" >&2; exit 2 ;;
  esac
  echo "=== $b build ==="
  cmake -S "$source_dir" -B "$dir" -G Ninja "${args[@]}" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "=== $b tests ==="
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure
done

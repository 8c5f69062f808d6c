#!/usr/bin/env bash
# Builds the project three ways and runs every test in each:
#   normal      native build
#   sanitize    AddressSanitizer + UndefinedBehaviorSanitizer, any report fatal
#   arm         32-bit ARM static binaries, run under qemu-arm
# Usage: scripts/test.sh [normal|sanitize|arm ...]   (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

builds=("$@")
((${#builds[@]})) || builds=(normal sanitize arm)
jobs=$(nproc)

for b in "${builds[@]}"; do
  dir="build/$b"
  case "$b" in
    normal)   args=() ;;
    sanitize) args=(-DMORV_SANITIZE=ON) ;;
    arm)      args=(-DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake) ;;
    *) echo "unknown build: $b" >&2; exit 2 ;;
  esac
  echo "=== $b build ==="
  cmake -S . -B "$dir" -G Ninja "${args[@]}" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "=== $b tests ==="
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure
done

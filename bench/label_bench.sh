#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Cost of printing and changing the label of a 50,000-file volume, next to
# blkid -p on the same image: wall time, peak memory, and the device reads and
# writes each makes (requests and bytes, counted with strace).
# Usage: bench/label_bench.sh [build dir]   (default build/normal)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/normal}
tool=$build/morvlabel
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
image=$work/big.img
python3 tests/support/mkimage.py "$image" --size 268435456 --label "Big volume" --files 50000 --folders 200

# Prints: seconds, peak KiB, read requests, bytes read, write requests, bytes written.
measure() {
  local name=$1; shift
  local start end
  start=$(date +%s%N)
  /usr/bin/time -f "%M" -o "$work/time" "$@" >/dev/null 2>"$work/err" || { cat "$work/err"; exit 1; }
  end=$(date +%s%N)
  echo "$(( (end - start) / 1000 ))" > "$work/us"
  strace -f -qq -e trace=openat,open,pread64,pwrite64,read,write,lseek -e signal=none \
    -o "$work/trace" "$@" >/dev/null 2>&1
  read -r kib < "$work/time"
  read -r us < "$work/us"
  # Only transfers on descriptors opened on the image count.
  awk -v name="$name" -v us="$us" -v k="$kib" -v img="$image" '
    { sub(/^[0-9]+ +/, "") }
    /^open(at)?\(/ && index($0, "\"" img "\"") { n = split($0, a, "= "); fd[a[n] + 0] = 1; next }
    /^(pread64|read)\(/ { split($0, b, /[(,]/); if (b[2] + 0 in fd) { n = split($0, a, "= "); r++; rb += a[n] } }
    /^(pwrite64|write)\(/ { split($0, b, /[(,]/); if (b[2] + 0 in fd) { n = split($0, a, "= "); w++; wb += a[n] } }
    END { printf "%-24s %8.1f ms %7d KiB peak %5d reads %9d bytes %4d writes %8d bytes\n",
                 name, us / 1000, k, r, rb, w, wb }' "$work/trace"
}

measure "morvlabel (print)" "$tool" "$image"
measure "morvlabel (change)" "$tool" "$image" "Renamed volume"
measure "morvlabel (print again)" "$tool" "$image"
measure "blkid -p" blkid -p "$image"

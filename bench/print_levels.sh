#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Instructions the tool spends printing a label, against the depth of the
# catalog: builder volumes of 512-byte catalog nodes whose catalogs are 1 to
# 4 levels deep, each printed once under callgrind (instructions executed,
# the whole process). The difference between depths is the cost of a level.
# Usage: bench/print_levels.sh [build dir]   (default build/normal)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/normal}
tool=$build/morvlabel
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
depth() {  # the catalog's treeDepth, from the volume header's catalogFile extent
  python3 - "$1" <<'PY'
import struct, sys
b = open(sys.argv[1], 'rb').read()
vh = b[1024:1536]
block = struct.unpack('>I', vh[40:44])[0]
start = struct.unpack('>I', vh[272 + 16:272 + 20])[0]
print(struct.unpack('>H', b[start * block + 14:start * block + 16])[0])
PY
}
printf "%5s %6s %14s %14s\n" depth files instructions "per level"
previous=0
for files in 1 3 20 400; do
  image=$work/d$files.img
  python3 tests/support/mkimage.py "$image" --size 67108864 --block-size 512 --label Levels \
    --catalog-node-size 512 --files "$files" --free-catalog-nodes 4 >/dev/null
  d=$(depth "$image")
  ir=$(valgrind --tool=callgrind --callgrind-out-file=/dev/null "$tool" "$image" 2>&1 >/dev/null |
       sed -nE 's/.*Collected : ([0-9]+).*/\1/p')
  printf "%5s %6s %14s %14s\n" "$d" "$files" "$ir" "$((previous ? ir - previous : 0))"
  previous=$ir
done

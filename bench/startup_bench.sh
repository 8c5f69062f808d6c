#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Startup cost of printing a label, in one hyperfine run on the same
# 50,000-file volume: morvlabel against an empty static C program (the floor
# of any exec), an empty dynamic one (the floor of a dynamically linked
# program), a statically linked morvlabel (-DMORV_STATIC=ON, build/static)
# and blkid -p. Prints each command's mean and median and their ratios to the
# empty static program. Not a test: the figures depend on the machine.
# Usage: bench/startup_bench.sh [build dir]   (default build/normal)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/normal}
static=build/static

if ! command -v hyperfine >/dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq hyperfine
fi
if [ ! -x "$build/morvlabel" ]; then
  cmake -S . -B "$build" -G Ninja >/dev/null
  cmake --build "$build" --target morvlabel
fi
cmake -S . -B "$static" -G Ninja -DMORV_STATIC=ON >/dev/null
cmake --build "$static" --target morvlabel

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
image=$work/big.img
python3 tests/support/mkimage.py "$image" --size 268435456 --label "Big volume" --files 50000 --folders 200
printf 'int main(void) { return 0; }\n' > "$work/empty.c"
cc -O2 -static -o "$work/empty-static" "$work/empty.c"
cc -O2 -o "$work/empty-dynamic" "$work/empty.c"

hyperfine -N --warmup 200 --runs "${RUNS:-3000}" --export-json "$work/times.json" \
  -n "empty static C program" "$work/empty-static" \
  -n "empty dynamic C program" "$work/empty-dynamic" \
  -n "morvlabel (print)" "$build/morvlabel $image" \
  -n "morvlabel static (print)" "$static/morvlabel $image" \
  -n "blkid -p" "blkid -p $image"

python3 - "$work/times.json" <<'EOF'
import json, sys
results = json.load(open(sys.argv[1]))["results"]
base = results[0]
print("\n%-26s %10s %10s %12s %14s" % ("command", "mean us", "median us", "mean ratio", "median ratio"))
for r in results:
    print("%-26s %10.1f %10.1f %11.2fx %13.2fx" % (
        r["command"], r["mean"] * 1e6, r["median"] * 1e6,
        r["mean"] / base["mean"], r["median"] / base["median"]))
EOF

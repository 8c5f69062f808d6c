#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds morvlabel and shows it on a demo HFS+ image made by the project's
# image builder: print the label, change it, print it again (composed and raw).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build/normal -G Ninja >/dev/null
cmake --build build/normal --target morvlabel
image=demo.img
python3 tests/support/mkimage.py "$image" --size 16777216 --label "Macintosh HD" --files 200 --folders 10
tool=build/normal/morvlabel
set -x
"$tool" "$image"
"$tool" "$image" "Café Ünïcode"
"$tool" "$image"
"$tool" --output-mode=raw "$image" | od -An -c
blkid -p -o value -s LABEL "$image"   # read back independently (stored decomposed)

#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Groups fuzz findings by cause.

    fuzz_triage.py [-v] BINARY FINDING_OR_DIR...

Replays every finding once through the target BINARY and names its cause:
the broken property, or the sanitizer's error kind (timeouts and memory
limits included) with the first frame in lib/ or tools/.  Prints one line
per cause: the number of findings, the smallest reproducer and the cause;
-v first prints the cause of every finding.
"""

import os
import re
import subprocess
import sys
from collections import defaultdict

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
ALLOCATORS = ("morv_malloc", "morv_calloc")
FRAME = re.compile(r"^\s*#\d+ 0x[0-9a-f]+ in (.+?) (/\S*/(?:lib|tools)/[^\s:]+):(\d+)", re.M)
CAUSES = [
    (re.compile(r"==== fuzz property broken: (.*)"), "property"),
    (re.compile(r"SUMMARY: AddressSanitizer: ([\w-]+)"), "asan"),
    (re.compile(r"ERROR: LeakSanitizer: (detected memory leaks)"), "leak"),
    (re.compile(r"ERROR: libFuzzer: (timeout)"), "hang"),
    (re.compile(r"ERROR: libFuzzer: (out-of-memory \(malloc\(\d+\)\)|out-of-memory)"), "memory"),
    (re.compile(r"(runtime error: .*)"), "ubsan"),
]


def function(frame):
    return frame.group(1).replace("(anonymous namespace)::", "").split("(")[0]


def cause(binary, path):
    env = dict(os.environ, UBSAN_OPTIONS="print_stacktrace=1")
    try:
        out = subprocess.run([binary, "-runs=1", "-timeout=10", "-malloc_limit_mb=256", path],
                             capture_output=True, text=True, errors="replace", timeout=120,
                             env=env)
        text = out.stdout + out.stderr
    except subprocess.TimeoutExpired:
        return "hang (beyond 120 s)"
    for pattern, kind in CAUSES:
        m = pattern.search(text)
        if m:
            what = re.sub(r"\d{6,}", "N", m.group(1))
            # ASan names its error in the summary line, after the stacks.
            anchor = text.find("ERROR: AddressSanitizer") if kind == "asan" else m.start()
            frames = [f for f in FRAME.finditer(text[max(anchor, 0):]) if function(f) not in ALLOCATORS]
            # A hang is named by the loop around it as much as by where it was.
            shown = frames[:3] if kind == "hang" else frames[:1]
            where = "".join(" at %s %s:%s" % (function(f), os.path.relpath(f.group(2), REPO),
                                               f.group(3)) for f in shown)
            return "%s: %s%s" % (kind, what, where)
    return "no report (exit %d)" % out.returncode


def main(argv):
    verbose = "-v" in argv
    argv = [a for a in argv if a != "-v"]
    if len(argv) < 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    binary = argv[1]
    paths = []
    for arg in argv[2:]:
        if os.path.isdir(arg):
            paths += [os.path.join(arg, f) for f in sorted(os.listdir(arg)) if not f.startswith(".")]
        else:
            paths.append(arg)
    groups = defaultdict(list)
    for p in paths:
        c = cause(binary, p)
        groups[c].append(p)
        if verbose:
            print("%s: %s" % (p, c), flush=True)
    for c, members in sorted(groups.items(), key=lambda g: -len(g[1])):
        smallest = min(members, key=os.path.getsize)
        print("%4d  %s\n      %s (%d bytes)" % (len(members), c, smallest, os.path.getsize(smallest)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

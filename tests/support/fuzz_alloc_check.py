#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The checker half of fuzz_alloc's properties, too slow to run in process.

    fuzz_alloc_check.py FUZZ_ALLOC CHECKIMAGE INPUT_DIR... [--sample N]

For every input (or N of them, chosen evenly) whose volume the checker finds
clean, runs the fuzz_alloc binary once on it with MORV_FUZZ_OUTPUT set and
runs the checker over the image it leaves: operations that succeed on a
valid volume must leave it valid (failed ones leave it as it was, which the
target checks itself). Orphan blocks are allowed in neither image. Exit
status 0 when every result is clean, 1 otherwise.
"""

import os
import subprocess
import sys
import tempfile


def check(checker, path):
    out = subprocess.run([sys.executable, checker, path], capture_output=True, text=True)
    return out.returncode, out.stdout + out.stderr


def main(argv):
    args = argv[1:]
    sample = None
    if "--sample" in args:
        i = args.index("--sample")
        sample = int(args[i + 1])
        del args[i:i + 2]
    if len(args) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    binary, checker, dirs = args[0], args[1], args[2:]
    inputs = sorted(os.path.join(d, f) for d in dirs if os.path.isdir(d) for f in os.listdir(d)
                    if os.path.isfile(os.path.join(d, f)))
    if sample and len(inputs) > sample:
        inputs = [inputs[i * len(inputs) // sample] for i in range(sample)]
    bad = checked = 0
    with tempfile.TemporaryDirectory() as work:
        output = os.path.join(work, "out.img")
        for path in inputs:
            status, _ = check(checker, path)
            if status != 0:
                continue  # a damaged volume: only the target's own checks apply
            env = dict(os.environ, MORV_FUZZ_OUTPUT=output)
            run = subprocess.run([binary, path], capture_output=True, text=True, env=env)
            if run.returncode != 0:
                print("%s: fuzz_alloc failed:\n%s" % (path, run.stderr[-2000:]))
                bad += 1
                continue
            checked += 1
            status, report = check(checker, output)
            if status != 0:
                print("%s: the volume is no longer clean:\n%s" % (path, report))
                bad += 1
    print("fuzz_alloc_check: %d clean input(s) run, %d problem(s)" % (checked, bad))
    return 1 if bad or checked == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fuzz campaign over the libFuzzer targets of tests/fuzz (clang, ASan, UBSan,
# leak checks), one target after the other:
#
#   bash scripts/fuzz_campaign.sh [--time SECONDS] [--jobs N] [--keep-going] [TARGET ...]
#
#   TARGET        print, change, btree, unicode, alloc, journal (default: all six)
#   --time S      seconds of fuzzing per target (default 900)
#   --jobs N      parallel workers per target (libFuzzer -fork=N; default 1)
#   --keep-going  go on after a crash, hang or leak (fork mode) and collect
#                 every finding instead of stopping at the first
#   --build DIR   the fuzz build directory (default build/fuzz); it is
#                 configured and built first unless --no-build is given
#   --smoke       the CI smoke run: the seeds and --time seconds of fuzzing
#                 from a fresh corpus in DIR/smoke/TARGET, where findings and
#                 the log stay; any finding fails the run
#
# The corpus grows across campaigns in DIR/corpus/TARGET (the seeds, made by
# the image builder at build time, are in DIR/seeds/TARGET). Findings
# (crash-*, leak-*, timeout-*, oom-*) go to DIR/findings/TARGET, libFuzzer's
# output to DIR/logs/TARGET.log. The summary at the end gives, per target,
# the executions, the edges of lib/ and tools/ that the corpus covers out of
# all their edges, the corpus size and the findings. Replay one finding with
# its log lines:
#
#   MORV_FUZZ_LOG=1 build/fuzz/fuzz_print build/fuzz/findings/print/crash-...
#
# Exit status: 0 when no target reported anything, 1 otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."

time_per_target=900
jobs=1
keep_going=0
smoke=0
build=1
dir=build/fuzz
targets=()
while (($#)); do
  case "$1" in
    --time) time_per_target=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    --keep-going) keep_going=1; shift ;;
    --build) dir=$2; shift 2 ;;
    --no-build) build=0; shift ;;
    --smoke) smoke=1; shift ;;
    print|change|btree|unicode|alloc|journal) targets+=("$1"); shift ;;
    *) echo "fuzz_campaign.sh: unknown argument: $1" >&2; exit 2 ;;
  esac
done
((${#targets[@]})) || targets=(print change btree unicode alloc journal)

if ((build)); then
  cmake -S tests/fuzz -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
  cmake --build "$dir"
fi

# Options of each target: inputs of the size of the seeds, the hang limit,
# memory limits.
target_options() {
  local common=(-timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=256 -print_final_stats=1)
  case "$1" in
    unicode) echo "${common[*]} -max_len=2048" ;;
    *) echo "${common[*]} -max_len=65536" ;;
  esac
}

# "execs cov ft corpus edges" from a libFuzzer log: its last status line and
# the instrumented edge count.
log_figures() {
  local line
  line=$(grep -aE '^#[0-9]+[: 	].*cov: [0-9]+' "$1" | tail -n 1 || true)
  local execs cov ft corp edges
  execs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+)/\1/p' "$1" | tail -n 1)
  [ -n "$execs" ] || execs=$(sed -nE 's/^#([0-9]+).*/\1/p' <<<"$line")
  cov=$(sed -nE 's/.*cov: ([0-9]+).*/\1/p' <<<"$line")
  ft=$(sed -nE 's/.*ft: ([0-9]+).*/\1/p' <<<"$line")
  corp=$(sed -nE 's/.*corp: ([0-9]+).*/\1/p' <<<"$line")
  edges=$(sed -nE 's/.*\(([0-9]+) inline 8-bit counters\).*/\1/p' "$1" | head -n 1)
  echo "${execs:-0} ${cov:-0} ${ft:-0} ${corp:-0} ${edges:-0}"
}

status=0
summary=()
for t in "${targets[@]}"; do
  binary="$dir/fuzz_$t"
  seeds="$dir/seeds/$t"
  [ -x "$binary" ] && [ -d "$seeds" ] || { echo "fuzz_campaign.sh: $binary or $seeds missing" >&2; exit 2; }
  read -r -a options <<<"$(target_options "$t")"
  if ((smoke)); then
    rm -rf "$dir/smoke/$t"
    corpus="$dir/smoke/$t/corpus"
    findings="$dir/smoke/$t/findings"
    log="$dir/smoke/$t/$t.log"
  else
    corpus="$dir/corpus/$t"
    findings="$dir/findings/$t"
    log="$dir/logs/$t.log"
  fi
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  options+=(-max_total_time="$time_per_target" -artifact_prefix="$findings/")
  if ((jobs > 1 || keep_going)); then
    options+=(-fork="$jobs")
    ((keep_going)) && options+=(-ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1)
  fi
  echo "=== fuzz $t: ${time_per_target}s, $jobs worker(s) ==="
  started="$findings/.started"
  touch "$started"
  rc=0
  "$binary" "${options[@]}" "$corpus" "$seeds" >"$log" 2>&1 || rc=$?
  found=$(find "$findings" -maxdepth 1 -type f -name '[a-z]*' -newer "$started" | wc -l)
  read -r execs cov ft corp edges <<<"$(log_figures "$log")"
  coverage="$cov of $edges edges"
  if ((!smoke)); then
    # Coverage from one replay of the corpus (fork mode counts its own way),
    # for the code of lib/ and tools/ alone.
    replay="$log.replay"
    read -r -a replay_options <<<"$(target_options "$t")"
    "$binary" "${replay_options[@]}" -runs=0 -print_coverage=1 "$corpus" >"$replay" 2>&1 || true
    coverage=$(awk -v lib="$PWD/lib/" -v tools="$PWD/tools/" '
      /COVERED_FUNC: / && (index($NF, lib) == 1 || index($NF, tools) == 1) {
        split($5, e, "/"); covered += e[1]; all += e[2] }
      END { printf "lib+tools %d of %d edges", covered, all }' "$replay")
  fi
  summary+=("$(printf '%-8s %12s execs  %-32s corpus %5s  findings %s' \
    "$t" "$execs" "$coverage" "$corp" "$found")")
  if ((rc != 0 || found > 0)); then
    status=1
    echo "fuzz $t: libFuzzer exited $rc with $found new finding(s) in $findings; log $log" >&2
    grep -aE '^(==[0-9]+==ERROR|SUMMARY|==== fuzz property|ALARM|[^ ]*runtime error)' "$log" | head -n 20 >&2 || true
    ((smoke)) && tail -n 60 "$log" >&2
  fi
  if ((smoke && rc == 0 && found == 0)); then rm -rf "$corpus"; fi
done

echo "=== fuzz summary ==="
printf '%s\n' "${summary[@]}"
exit $status

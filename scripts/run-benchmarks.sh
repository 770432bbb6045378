#!/usr/bin/env bash
# Runs every benchmark program of a build directory. Each program measures the library side by
# side with its baseline in the same run and prints the ratios at the end.
set -euo pipefail
build="${1:-build}"
status=0
for program in "$build"/bench/bench_*; do
  [ -x "$program" ] || continue
  echo "== $(basename "$program")"
  "$program" --benchmark_counters_tabular=true || status=1
done
# The transport benchmark needs nginx and moves a few GiB over loopback; BENCH_TRANSPORT=0 skips it.
if [ "${BENCH_TRANSPORT:-1}" != 0 ]; then
  echo "== transport"
  "$(dirname "$0")/../bench/transport/run.sh" "$build" || status=1
fi
exit $status

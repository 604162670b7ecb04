#!/bin/sh
# Runs every fuzz target of a fuzz build for the given number of seconds, each from its seed
# corpus (tests/fuzz/corpus/<target>/, left unchanged) plus a working corpus under the build
# directory that grows from run to run. Stops at the first target that finds a fault; its
# input is left as crash-*/leak-*/timeout-* in the build directory.
#   tests/fuzz/run.sh <fuzz build directory> <seconds>
set -eu
build=$1
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)
summary="$build/fuzz-summary.txt"
: >"$summary"
for target in "$build"/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target" | sed 's/^fuzz_//')
  work="$build/corpus/$name"
  mkdir -p "$work"
  log="$build/$name.log"
  echo "== fuzz $name for ${seconds}s"
  # -close_fd_mask=3: the parsers' own messages stay out of the log; libFuzzer and the
  # sanitizers still report there. -timeout: an input taking 10 s counts as a hang.
  if ! (cd "$build" && ASAN_OPTIONS=detect_leaks=1 "$target" -max_total_time="$seconds" \
      -timeout=10 -rss_limit_mb=2048 -close_fd_mask=3 -print_final_stats=1 \
      "$work" "$here/corpus/$name") >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz $name: FAILED, see $log" >&2
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "$name: $runs executions in ${seconds}s, no finding" | tee -a "$summary"
done

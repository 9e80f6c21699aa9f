#!/usr/bin/env bash
# Runs every fuzz target for SECONDS each from its seed corpus (tests/fuzz/corpus/<name>), in a
# scratch corpus so the repository is not written to. Fails on any crash, leak or sanitizer report.
set -euo pipefail
build=$(cd "${1:-build-fuzz}" && pwd)
seconds=${2:-60}
here=$(cd "$(dirname "$0")" && pwd)
status=0
for target in "$build"/tests/fuzz/fuzz_*; do
  name=$(basename "$target"); name=${name#fuzz_}
  scratch=$(mktemp -d)
  seeds="$here/corpus/$name"
  mkdir -p "$seeds"
  echo "== $name: ${seconds}s"
  if ! (cd "$scratch" && "$target" -max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048 \
        "$scratch" "$seeds" 2>&1 | grep -E 'stat::number_of_executed_units|ERROR|SUMMARY|Done|crash-|leak-|timeout-'); then
    :
  fi
  found=$(find "$scratch" -maxdepth 1 \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) -printf '%f\n')
  if [ -n "$found" ]; then
    mkdir -p "$build/findings"
    (cd "$scratch" && cp $found "$build/findings/")
    echo "!! $name found a failing input, kept in $build/findings:"
    echo "$found"
    status=1
  fi
  rm -rf "$scratch"
done
exit $status

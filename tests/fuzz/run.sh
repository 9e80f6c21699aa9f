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
  # Any one kind of finding counts (ls of all four patterns fails unless every kind is there).
  if [ -n "$(find "$scratch" -maxdepth 1 \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \))" ]; then
    mkdir -p "$build/findings"
    cp "$scratch"/crash-* "$scratch"/leak-* "$scratch"/timeout-* "$scratch"/oom-* "$build/findings/" 2>/dev/null || true
    echo "!! $name found a failing input, kept in $build/findings:"
    ls "$scratch"/crash-* "$scratch"/leak-* "$scratch"/timeout-* "$scratch"/oom-* 2>/dev/null | xargs -n1 basename
    status=1
  fi
  rm -rf "$scratch"
done
exit $status

#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a few seconds each, starting
# from its seed corpus under fuzz/corpus/<target>/ when there is one.
set -euo pipefail
dir=$1 seconds=$2
cd "$(dirname "$0")/.."
passed=0 failed=0
for target in "$dir"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  work=$(mktemp -d)
  [ -d "fuzz/corpus/$name" ] && cp -r "fuzz/corpus/$name/." "$work/"
  if "$target" -max_total_time="$seconds" -rss_limit_mb=1024 -print_final_stats=0 "$work" \
       >"$work.log" 2>&1; then
    passed=$((passed + 1)); echo "fuzz $name: ok"
  else
    failed=$((failed + 1)); echo "fuzz $name: FAILED"; tail -40 "$work.log"
  fi
  rm -rf "$work" "$work.log"
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]

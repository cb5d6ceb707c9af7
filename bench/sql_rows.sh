#!/usr/bin/env bash
# Whole-process benchmark: `vtest sql` fetching every row of Events from a
# simulated unit, against the sqlite3 shell printing the same rows from the
# same file. Reports wall time, peak memory (max RSS) and the ratios.
# Usage: bench/sql_rows.sh [build-dir] [row counts...] (after scripts/demo.sh;
# needs /usr/bin/time from Debian's `time` package)
set -euo pipefail
build=${1:-build/demo}; shift || true
counts=("${@:-10000 100000}")
read -r -a counts <<<"${counts[*]}"
work=$(mktemp -d)
trap 'kill "$sim" 2>/dev/null || true; rm -rf "$work"' EXIT
port=3611
sim=

source "$(dirname "$0")/best.sh"

printf '%-8s %10s %10s %10s %10s %8s %8s\n' rows vtest_s vtest_KB sqlite_s sqlite_KB time_x mem_x
for n in "${counts[@]}"; do
  "$build/sim/vantor-sim" --listen="127.0.0.1:$port" --db="$work/e$n.db" --events="$n" >"$work/ready" 2>/dev/null &
  sim=$!
  for _ in $(seq 200); do grep -q listening "$work/ready" 2>/dev/null && break; sleep 0.05; done
  read -r vs vk < <(best 3 "$build/vtest/vtest" sql --server=127.0.0.1:$port "SELECT * FROM Events;")
  read -r ss sk < <(best 3 sqlite3 "$work/e$n.db" "SELECT * FROM Events;")
  awk -v n="$n" -v vs="$vs" -v vk="$vk" -v ss="$ss" -v sk="$sk" \
    'BEGIN { printf "%-8s %10s %10s %10s %10s %8.1f %8.2f\n", n, vs, vk, ss, sk, vs / (ss + 0.005), vk / sk }'
  kill "$sim"; wait "$sim" 2>/dev/null || true
  port=$((port + 1))
done

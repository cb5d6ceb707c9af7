#!/usr/bin/env bash
# Whole-process benchmark: `vtest backlog` over a directory of 4096 peer
# files (the most one run reads), against `cat` reading the same files
# once, as the floor of opening and reading them. Best of N runs, wall
# time in milliseconds, and the ratio.
# Usage: bench/backlog_peers.sh [build-dir] [runs] [dir to make the files in]
set -euo pipefail
build=${1:-build/demo} runs=${2:-20} parent=${3:-${TMPDIR:-/tmp}}
work=$(mktemp -d "$parent/backlog-bench.XXXXXX")
trap 'rm -rf "$work"' EXIT
echo 1000000 >"$work/vantor.ver"
for id in $(seq 1 4096); do echo $((1000000 - id % 50)) >"$work/vantor.ver.$id"; done

best_ms() {  # best_ms <command...>: the fastest of $runs runs, in ms
  local best= start end
  for _ in $(seq "$runs"); do
    start=$EPOCHREALTIME; "$@" >/dev/null 2>&1 || true; end=$EPOCHREALTIME
    best=$(awk -v s="$start" -v e="$end" -v b="$best" 'BEGIN { t = (e - s) * 1000; print (b == "" || t < b) ? t : b }')
  done
  echo "$best"
}

vt=$(best_ms "$build/vtest/vtest" backlog --dir="$work")
vs=$(best_ms "$build/vtest/vtest" backlog --dir="$work" --summary --warn=10)
ct=$(best_ms sh -c "cat '$work'/vantor.ver.*")
printf '%-26s %8s\n' what best_ms
printf '%-26s %8.1f\n' "vtest backlog (table)" "$vt" "vtest backlog --summary" "$vs" "cat of the same files" "$ct"
awk -v v="$vt" -v c="$ct" 'BEGIN { printf "%-26s %8.2f\n", "ratio table / cat", v / c }'

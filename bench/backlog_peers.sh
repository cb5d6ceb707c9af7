#!/usr/bin/env bash
# Whole-process benchmark: `vtest backlog` over a directory of 4096 peer
# files (the most one run reads), against `cat` reading the same files
# once, as the floor of opening and reading them. Best wall time of N runs
# and the mean CPU time (user + system, steadier on a busy host), in
# milliseconds, and the ratios.
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

cpu_ms() {  # cpu_ms <command...>: mean user + system time of $runs runs, in ms
  local t
  t=$( { TIMEFORMAT='%3U %3S'; time (for _ in $(seq "$runs"); do "$@" >/dev/null 2>&1 || true; done); } 2>&1 )
  awk -v t="$t" -v n="$runs" 'BEGIN { split(t, a, " "); print (a[1] + a[2]) * 1000 / n }'
}

table=("$build/vtest/vtest" backlog --dir="$work")
summary=("$build/vtest/vtest" backlog --dir="$work" --summary --warn=10)
reference=(sh -c "cat '$work'/vantor.ver.*")
declare -A best cpu
for name in table summary reference; do
  declare -n cmd=$name
  best[$name]=$(best_ms "${cmd[@]}")
  cpu[$name]=$(cpu_ms "${cmd[@]}")
done
printf '%-10s %8s %8s %8s\n' what best_ms cpu_ms cpu_x
for name in table summary reference; do
  printf '%-10s %8.1f %8.1f %8.2f\n' "$name" "${best[$name]}" "${cpu[$name]}" \
    "$(awk -v c="${cpu[$name]}" -v r="${cpu[reference]}" 'BEGIN { print c / r }')"
done

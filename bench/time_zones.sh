#!/usr/bin/env bash
# Whole-process benchmark of `vtest time` against the system's own readers,
# best of 3 wall times each:
#   1. every zone's changes 1800..2100: one `vtest time --transitions` run
#      per zone, against one `zdump -v -c 1800,2100` run given all names;
#   2. 100,000 epoch lines through `--stdin` (Europe/Berlin) against `date -f`.
# Usage: bench/time_zones.sh [vtest binary, default build/native/vtest/vtest]
set -euo pipefail
vt=${1:-build/native/vtest/vtest}
tzdata=/usr/share/zoneinfo/tzdata.zi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mapfile -t zones < <(awk '$1 == "Z" {print $2} $1 == "L" {print $3}' "$tzdata" | sort)
awk 'BEGIN { for (i = 0; i < 100000; i++) printf "@%d\n", 1000000000 + i * 7919 }' >"$work/lines"

best() {  # best <command...>: the fastest of 3 runs, in seconds
  for _ in 1 2 3; do
    local start=$EPOCHREALTIME
    "$@" >/dev/null
    awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.3f\n", b - a }'
  done | sort -n | head -1
}
vtest_each_zone() { for z in "${zones[@]}"; do "$vt" time --tz="$z" --transitions=1800:2100; done; }
vtest_stdin() { "$vt" time --tz=Europe/Berlin --stdin <"$work/lines"; }
date_stdin() { TZ=Europe/Berlin date -f "$work/lines"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", a / b }'; }

cpu=$(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)
echo "machine: $(uname -m), ${cpu:-unknown CPU}, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg);" \
     "$(head -1 "$tzdata" | sed 's/# version/tzdata/'); $(ldd --version | head -1 | sed 's/.* //;s/^/glibc /')"
v=$(best vtest_each_zone); z=$(best zdump -v -c 1800,2100 "${zones[@]}")
echo "all ${#zones[@]} zones, changes 1800-2100: vtest ${v} s (one run per zone), zdump -v ${z} s (one run):" \
     "vtest $(ratio "$z" "$v")x faster"
v=$(best vtest_stdin); d=$(best date_stdin)
echo "100000 --stdin lines (Europe/Berlin): vtest ${v} s, date -f ${d} s: vtest $(ratio "$d" "$v")x faster"

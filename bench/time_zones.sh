#!/usr/bin/env bash
# Whole-process benchmark of `vtest time` against the system's own readers,
# best of 3 (by wall time; CPU time, user and system, of that run beside it):
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

TIMEFORMAT='%R %U %S'
best() {  # best <command...>: "wall cpu" of the fastest of 3 runs, in seconds
  for _ in 1 2 3; do
    { time "$@" >/dev/null 2>&1; } 2>&1 | awk '{ printf "%.3f %.3f\n", $1, $2 + $3 }'
  done | sort -n | head -1
}
vtest_each_zone() { for z in "${zones[@]}"; do "$vt" time --tz="$z" --transitions=1800:2100; done; }
vtest_stdin() { "$vt" time --tz=Europe/Berlin --stdin <"$work/lines"; }
date_stdin() { TZ=Europe/Berlin date -f "$work/lines"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", a / b }'; }
compare() {  # compare <what> <vtest "wall cpu"> <name> <other "wall cpu">
  read -r vw vc <<<"$2"; read -r ow oc <<<"$4"
  echo "$1: vtest ${vw} s (CPU ${vc} s), $3 ${ow} s (CPU ${oc} s): vtest $(ratio "$ow" "$vw")x faster" \
       "($(ratio "$oc" "$vc")x in CPU time)"
}

cpu=$(awk -F': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)
echo "machine: $(uname -m), ${cpu:-unknown CPU}, $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg);" \
     "$(head -1 "$tzdata" | sed 's/# version/tzdata/'); $(ldd --version | head -1 | sed 's/.* //;s/^/glibc /')"
compare "all ${#zones[@]} zones' changes 1800-2100, one vtest run per zone" "$(best vtest_each_zone)" \
        "one zdump -v run" "$(best zdump -v -c 1800,2100 "${zones[@]}")"
compare "100000 --stdin lines (Europe/Berlin)" "$(best vtest_stdin)" "date -f" "$(best date_stdin)"

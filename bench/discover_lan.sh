#!/usr/bin/env bash
# Whole-process benchmark: `vtest discover --json` against a thousand
# simulated units answering one "Hello" at once, on the simulated LAN of
# scripts/sim-lan.sh, beside a reference collector in Python that sends the
# same "Hello" and then does what the protocol first did: sleep for the
# time-out, then drain its socket (default receive buffer). Reports, per
# time-out, wall time, peak memory (max RSS) and answers kept by each, and
# the ratios. Needs root (network namespaces), /usr/bin/time and python3.
# Usage: bench/discover_lan.sh [build-dir] [units] [time-outs...]
set -euo pipefail
build=${1:-build/native}; shift || true
units=${1:-1000}; shift || true
timeouts=("${@:-0.2 0.5 1}")
read -r -a timeouts <<<"${timeouts[*]}"
here=$(cd "$(dirname "$0")/.." && pwd)
export SIM_LAN=bench$$ VANTOR_SIM=$build/sim/vantor-sim
work=$(mktemp -d)
trap '"$here/scripts/sim-lan.sh" down; rm -rf "$work"' EXIT
"$here/scripts/sim-lan.sh" up "$units"

cat >"$work/reference.py" <<'PY'
import socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
s.bind(("", 0))
s.sendto(b"Hello\0", ("255.255.255.255", 3543))
time.sleep(float(sys.argv[1]))
s.setblocking(False)
kept = 0
try:
    while True:
        s.recv(65536)
        kept += 1
except BlockingIOError:
    pass
print(kept)
PY

lan() { "$here/scripts/sim-lan.sh" exec "$@"; }
best() {  # best <runs> <command...>: the fastest run's "seconds kilobytes answers"
  local runs=$1; shift
  for _ in $(seq "$runs"); do
    lan /usr/bin/time -f '%e %M' -o "$work/t" "$@" >"$work/out" 2>/dev/null || true
    # vtest lists the answers; the reference prints their number.
    echo "$(cat "$work/t") $(awk '/"mac"/ {n++} /^[0-9]+$/ {n = $1} END {print n + 0}' "$work/out")"
  done | sort -n | head -1
}

printf '%-8s %9s %9s %7s %9s %9s %7s %7s %7s\n' timeout vtest_s vtest_KB kept ref_s ref_KB ref_kept time_x mem_x
for t in "${timeouts[@]}"; do
  read -r vs vk vn < <(best 3 "$build/vtest/vtest" discover --json --timeout="$t")
  read -r rs rk rn < <(best 3 python3 "$work/reference.py" "$t")
  awk -v t="$t" -v vs="$vs" -v vk="$vk" -v vn="$vn" -v rs="$rs" -v rk="$rk" -v rn="$rn" \
    'BEGIN { printf "%-8s %9s %9s %7s %9s %9s %7s %7.2f %7.2f\n", t, vs, vk, vn, rs, rk, rn, vs / rs, vk / rk }'
done

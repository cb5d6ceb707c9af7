#!/usr/bin/env bash
# Size and start-up figures for docs/performance.md: the stripped size of a
# build's vtest, and the mean wall time of N runs of the usage path and of
# `vtest elf` on itself, native and (for an armhf build) under
# qemu-arm-static, beside /bin/true as the cost of starting any process on
# the same machine at the same load.
#   scripts/measure-startup.sh <native build dir> <armhf build dir> [runs]
set -euo pipefail
native=$1/vtest/vtest armhf=$2/vtest/vtest runs=${3:-200}

stripped_size() {  # stripped_size <strip program> <binary>
  local copy; copy=$(mktemp)
  "$1" -o "$copy" "$2"
  stat -c %s "$copy"
  rm -f "$copy"
}

mean_ms() {  # mean_ms <command...>: mean wall time of one run, in milliseconds
  local start end
  start=$(date +%s%N)
  for ((i = 0; i < runs; i++)); do "$@" >/dev/null 2>&1 || true; done
  end=$(date +%s%N)
  awk -v ns=$((end - start)) -v n="$runs" 'BEGIN { printf "%.2f", ns / n / 1e6 }'
}

echo "stripped size, amd64: $(stripped_size strip "$native") bytes"
echo "stripped size, armhf: $(stripped_size arm-linux-gnueabihf-strip "$armhf") bytes"
echo "baseline /bin/true, native: $(mean_ms /bin/true) ms (mean of $runs)"
echo "usage path, native amd64: $(mean_ms "$native" no-such-command) ms (mean of $runs)"
echo "usage path, armhf under qemu: $(mean_ms qemu-arm-static "$armhf" no-such-command) ms (mean of $runs)"
# argv[0] holds a "/", so `vtest elf` reports the binary itself.
echo "vtest elf on itself, native amd64: $(mean_ms "$native" elf) ms (mean of $runs)"
echo "vtest elf on itself, armhf under qemu: $(mean_ms qemu-arm-static -0 "$armhf" "$armhf" elf) ms (mean of $runs)"

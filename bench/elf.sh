#!/usr/bin/env bash
# Whole-process benchmark: vtest-elf's report against `readelf -W -h -l -S`
# on large files, each run's output to a file; the best of 5 wall times with
# that run's CPU time and peak memory (max RSS), the machine and its load
# named (CPU time says more than wall time on a busy machine). Target: vtest-elf within 1.5 times
# readelf's best plus 20 ms.
# Usage: bench/elf.sh [build-dir] [file...]   (default files: an object with
# 70,010 sections, made once under the build dir, libLLVM-15 and node when
# installed; needs /usr/bin/time from Debian's `time` package)
set -euo pipefail
build=${1:-build/native}; shift || true
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

many=$build/bench-elf/many.o
files=("$@")
if [ ${#files[@]} -eq 0 ]; then
  if [ ! -f "$many" ]; then
    mkdir -p "$(dirname "$many")"
    echo "making $many (70,010 sections; a minute or two)" >&2
    seq 0 69999 | awk '{ printf "int f%d(void) { return %d; }\n", $1, $1 }' >"$work/many.c"
    gcc -O0 -ffunction-sections -fno-asynchronous-unwind-tables -c "$work/many.c" -o "$many"
  fi
  files=("$many")
  for f in /usr/lib/x86_64-linux-gnu/libLLVM-15.so.1 /usr/bin/node; do [ -f "$f" ] && files+=("$f"); done
fi

best() {  # best <command...>: the fastest of 5 runs as "wall_s cpu_s kilobytes"
  for _ in 1 2 3 4 5; do
    local start=$EPOCHREALTIME
    /usr/bin/time -f '%U %S %M' -o "$work/t" "$@" >"$work/out" 2>/dev/null || true
    local end=$EPOCHREALTIME
    awk -v s="$start" -v e="$end" '{ printf "%.4f %.2f %d\n", e - s, $1 + $2, $3 }' "$work/t"
  done | sort -n | head -1
}

echo "machine: $(uname -m), $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores," \
     "load $(cut -d' ' -f1 /proc/loadavg); $(readelf --version | head -1)"
printf '%-24s %6s %9s %7s %9s %9s %7s %9s %6s %s\n' file MB readelf_s cpu_s peak_KB vtest_s cpu_s peak_KB ratio target
for f in "${files[@]}"; do
  read -r rs rc rk < <(best readelf -W -h -l -S "$f")
  read -r vs vc vk < <(best "$build/vtest/vtest-elf" "$f")
  awk -v f="$(basename "$f")" -v mb="$(stat -c %s "$f")" -v rs="$rs" -v rc="$rc" -v rk="$rk" -v vs="$vs" \
      -v vc="$vc" -v vk="$vk" \
    'BEGIN { ok = vs <= 1.5 * rs + 0.020 ? "met" : "MISSED";
             printf "%-24s %6.1f %9.4f %7.2f %9d %9.4f %7.2f %9d %6.2f %s\n", f, mb / 1e6, rs, rc, rk, vs, vc, vk,
                    vs / rs, ok }'
done

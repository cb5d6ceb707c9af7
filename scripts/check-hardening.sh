#!/usr/bin/env bash
# Checks that executables carry the hardening the build asks for (option
# VTEST_HARDEN): PIE, full RELRO, a non-executable stack, the stack
# protector and fortified libc calls. readelf reads ELF of any machine, so
# this works on cross-built binaries as well. Exit status 1 on any miss.
set -euo pipefail
failed=0 misses=0

check() {  # check <binary> <what> <command that succeeds when present>
  local binary=$1 what=$2; shift 2
  if "$@" >/dev/null 2>&1; then return; fi
  echo "hardening: $binary: no $what" >&2
  misses=$((misses + 1))
}

for binary in "$@"; do
  misses=0
  dynamic=$(readelf -dW "$binary")
  headers=$(readelf -lW "$binary")
  symbols=$(readelf --dyn-syms -W "$binary")
  check "$binary" "PIE" grep -q 'Flags:.* PIE' <<<"$dynamic"
  check "$binary" "RELRO segment" grep -q 'GNU_RELRO' <<<"$headers"
  check "$binary" "BIND_NOW (full RELRO)" grep -qE 'BIND_NOW|Flags:.* NOW' <<<"$dynamic"
  check "$binary" "non-executable stack" grep -qE 'GNU_STACK +(0x[0-9a-f]+ +){5}RW ' <<<"$headers"
  check "$binary" "stack protector" grep -q '__stack_chk_fail' <<<"$symbols"
  check "$binary" "fortified calls" grep -qE '__[a-z]+_chk\b' <<<"$symbols"
  if [ "$misses" -eq 0 ]; then
    echo "hardening: $binary: PIE, full RELRO, NX stack, stack protector, fortify"
  else
    failed=1
  fi
done
exit "$failed"

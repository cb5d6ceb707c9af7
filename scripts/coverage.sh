#!/usr/bin/env bash
# Optional, not part of CI: builds the tree with GCC's --coverage, runs the
# whole suite and prints line and branch coverage of common/, vtest/ and
# sim/, per file and in total (gcovr). Installs gcovr (the "coverage" group
# of install-deps.sh) when it is missing. Usage: scripts/coverage.sh [dir]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh coverage
dir=${1:-build/coverage}
jobs=$(nproc)

source scripts/build-dir.sh
build "$dir" -DCMAKE_BUILD_TYPE=Debug -DVTEST_HARDEN=OFF \
  -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic" \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" -DCMAKE_EXE_LINKER_FLAGS=--coverage
find "$dir" -name '*.gcda' -delete
# A failing test still leaves its counts; the figures are what ran.
(cd "$dir" && ctest -j"$jobs" >"ctest.log" 2>&1) || echo "coverage: some tests failed, see $dir/ctest.log" >&2
# Child processes (vtest, vantor-sim) write their counts on exit too.
filters=(--root . --object-directory "$dir" --filter 'common/' --filter 'vtest/' --filter 'sim/'
         --exclude-unreachable-branches --exclude-throw-branches)
echo "== line coverage per file"
gcovr "${filters[@]}" "$dir"
echo "== branch coverage per file"
gcovr "${filters[@]}" --branches --print-summary "$dir"

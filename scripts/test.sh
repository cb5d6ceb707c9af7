#!/usr/bin/env bash
# The test command: installs what is missing, then builds and runs the suite
# natively, under ASan+UBSan, the threaded parts under TSan, and the fuzz
# targets briefly. Build trees live under build/ (removed first).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc)
# Test executables whose threads and locks also run under ThreadSanitizer.
TSAN_LABELS='^(mutex_test|config_test|socket_test|secure_test|sim_server_test|sim_commands_test|api_test|thread_test|monitor_test|sql_wrapper_test|backlog_test|discover_cli_test|timezone_test)$'
FUZZ_SECONDS=${FUZZ_SECONDS:-10}

source scripts/build-dir.sh

echo "== native build"
build build/native
(cd build/native && ctest --output-on-failure -j"$jobs")

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
build build/asan -DVTEST_SANITIZE=ON -DVTEST_HARDEN=OFF
(cd build/asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
   ctest --output-on-failure -j"$jobs")

echo "== ThreadSanitizer (threads and locks)"
build build/tsan -DVTEST_TSAN=ON -DVTEST_HARDEN=OFF
(cd build/tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j"$jobs" -L "$TSAN_LABELS")

echo "== fuzz targets, ${FUZZ_SECONDS}s each"
build build/fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVTEST_FUZZ=ON -DVTEST_TESTS=OFF -DVTEST_HARDEN=OFF
scripts/run-fuzz.sh build/fuzz "$FUZZ_SECONDS"

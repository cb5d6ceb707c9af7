#!/usr/bin/env bash
# The main job: installs what is missing, builds, starts a simulated unit on
# loopback and runs a short real vtest session against it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

build=build/demo
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVTEST_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target vtest vantor-sim >/dev/null

port=${VTEST_DEMO_PORT:-3543}
work=$(mktemp -d)
trap 'kill "$sim" 2>/dev/null || true; wait "$sim" 2>/dev/null || true; rm -rf "$work"' EXIT
"$build/sim/vantor-sim" --listen="127.0.0.1:$port" --db="$work/unit.db" 2>"$work/sim.log" &
sim=$!
for _ in $(seq 100); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
  sleep 0.1
done

vtest=$build/vtest/vtest
server=--server=127.0.0.1:$port
run() { printf '\n$ vtest %s\n' "$*"; "$vtest" "$@"; }

run "$server"
run sql "$server" "SELECT HwID, HwName FROM Hardware LIMIT 3;"
run sql --pairs "$server" "SELECT HwID, HwName FROM Hardware LIMIT 3;"
cat >"$work/demo.sql" <<'SQL'
# Comment lines and blank lines are skipped but counted.

INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) VALUES ('2026-01-01 00:00:00', 1, 0, 1, 'demo');
SELECT COUNT(*) AS DemoEvents FROM Events WHERE EvntData = 'demo';
SQL
run sql_file "$server" "$work/demo.sql"
echo
echo "Demo finished."

#!/usr/bin/env bash
# Whole-process benchmark of `vtest exec` against a simulated unit: 1,000
# commands from --file (one round trip each), and one command whose output
# is about 8 MB ("serial enum" over a generated centrals file). Beside each,
# a minimal Python client making the same round trips on the same socket
# (send the line, read to the prompt) as the floor. Reports the best of
# three runs: wall time, peak memory (max RSS) and the ratios.
# Usage: bench/exec_commands.sh [build-dir] [commands] [centrals]
# (needs /usr/bin/time from Debian's `time` package, and python3)
set -euo pipefail
build=${1:-build/native}
commands=${2:-1000}
centrals=${3:-80000}
work=$(mktemp -d)
sim=
trap 'kill "$sim" 2>/dev/null || true; rm -rf "$work"' EXIT

awk -v n="$centrals" 'BEGIN {
  for (i = 1; i <= n; i++)
    printf "%d %d %s 02:00:%02x:%02x:%02x:%02x 10.%d.%d.%d online 02:a0:7c:00:00:01 3.2.1 CE-7710-%06d\n",
      i, i + 100, (i <= 254 ? i : "none"), int(i / 16777216) % 256, int(i / 65536) % 256, int(i / 256) % 256, i % 256,
      int(i / 65536) % 256, int(i / 256) % 256, i % 256, i
}' >"$work/centrals"
for i in $(seq "$commands"); do echo "echo command $i of a script"; done >"$work/commands"
echo "serial enum" >"$work/enum"

"$build/sim/vantor-sim" --listen=127.0.0.1:0 --centrals="$work/centrals" >"$work/ready" 2>/dev/null &
sim=$!
for _ in $(seq 200); do grep -q listening "$work/ready" 2>/dev/null && break; sleep 0.05; done
port=$(sed -n 's/.*listening on 127.0.0.1:\([0-9]*\),.*/\1/p' "$work/ready")

cat >"$work/reference.py" <<'EOF'
import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
s.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
out = sys.stdout.buffer
def to_prompt():
    got = bytearray()
    while got[-3:] != b"#> ":
        chunk = s.recv(65536)
        if not chunk:
            sys.exit(1)
        got += chunk
    return got
to_prompt()
for line in open(sys.argv[2], "rb"):
    s.sendall(line)
    out.write(to_prompt())
EOF

# The interpreter itself: a version manager's shim would add its own start-up.
python=$(python3 -c 'import sys; print(sys.executable)')

source "$(dirname "$0")/best.sh"

printf '%-22s %9s %9s %9s %9s %7s %7s %9s\n' what vtest_s vtest_KB python_s python_KB time_x mem_x output_B
for what in commands enum; do
  read -r vs vk < <(best 3 "$build/vtest/vtest" exec --server=127.0.0.1:"$port" --no-echo --file "$work/$what")
  bytes=$(wc -c <"$work/out")
  read -r ps pk < <(best 3 "$python" "$work/reference.py" "$port" "$work/$what")
  label=$([ "$what" = commands ] && echo "$commands commands" || echo "one 8 MB output")
  awk -v w="$label" -v vs="$vs" -v vk="$vk" -v ps="$ps" -v pk="$pk" -v b="$bytes" \
    'BEGIN { printf "%-22s %9s %9s %9s %9s %7.2f %7.2f %9s\n", w, vs, vk, ps, pk, vs / (ps + 0.005), vk / pk, b }'
done

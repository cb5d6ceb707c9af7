#!/usr/bin/env bash
# A simulated LAN of units, so `vtest discover` and `vtest ipconfig` can be
# tried without broadcasting on (or re-addressing anything in) the host's
# network: two network namespaces joined by a veth pair, the client end
# named eth0 (192.168.77.1/24), the units end lan0, and vantor-sim playing
# the units inside the second. Needs root (ip netns).
#
#   scripts/sim-lan.sh up N|FILE [--no-route] [--client-if=NAME] [-- SIM-OPTION...]
#   scripts/sim-lan.sh exec COMMAND...   # runs COMMAND in the client namespace
#   scripts/sim-lan.sh down
#
# up: N generated units or the units of FILE (see docs/simulator.md); 0 starts
# no simulator (a test plays the units). Without --no-route the client has a
# default route through lan0 (192.168.77.2/24); with it neither side has a
# route to the other, so the tool falls back to its hand-built frame and the
# units answer by limited broadcast.
#
# Environment: SIM_LAN names the pair ("$SIM_LAN-client", "$SIM_LAN-units";
# default simlan), VANTOR_SIM is the simulator (default
# build/native/sim/vantor-sim), SIM_EMULATOR the words that run it when it
# is built for another machine (qemu-arm-static for the armhf tree). The simulator's log is in
# ${TMPDIR:-/tmp}/$SIM_LAN.sim.log.
set -euo pipefail

name=${SIM_LAN:-simlan}
client=$name-client
units=$name-units
state=${TMPDIR:-/tmp}/$name
sim=${VANTOR_SIM:-$(dirname "$0")/../build/native/sim/vantor-sim}
ready_tries=300  # 0.1 s apart

die() { echo "sim-lan: $*" >&2; exit 1; }

# Running and not a zombie (nobody may be reaping the simulator promptly).
alive() {
  local st
  st=$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null) && [ -n "$st" ] && [ "$st" != Z ]
}

# Reverse-path filtering drops datagrams from networks the receiver has no
# route to, which is exactly what a unit with a foreign address sends.
no_rp_filter() {  # no_rp_filter NAMESPACE DEVICE...
  local ns=$1; shift
  for dev in "$@"; do ip netns exec "$ns" sysctl -qw "net.ipv4.conf.$dev.rp_filter=0"; done
}

start_sim() {  # start_sim N|FILE SIM-OPTION...
  local count_or_file=$1; shift
  ip netns exec "$units" ${SIM_EMULATOR:-} "$sim" --listen=127.0.0.1:3543 --discovery-units="$count_or_file" "$@" \
    >"$state.sim.log" 2>&1 &
  echo $! >"$state.pid"
  for _ in $(seq $ready_tries); do
    grep -q "listening on" "$state.sim.log" && return 0
    alive "$(cat "$state.pid")" || break
    sleep 0.1
  done
  cat "$state.sim.log" >&2
  die "the simulator did not start"
}

up() {
  local count_or_file=${1:-}; shift || true
  [[ $count_or_file =~ ^[0-9]+$ || -f $count_or_file ]] || die "up needs a unit count or a units file"
  local route=1 cif=eth0
  while [ $# -gt 0 ]; do
    case $1 in
      --no-route) route=0 ;;
      --client-if=?*) cif=${1#--client-if=} ;;
      --) shift; break ;;
      *) die "unknown option: $1" ;;
    esac
    shift
  done
  ip netns add "$client"
  ip netns add "$units"
  no_rp_filter "$client" all default
  no_rp_filter "$units" all default
  ip link add "$cif" netns "$client" type veth peer name lan0 netns "$units"
  no_rp_filter "$client" lo "$cif"
  no_rp_filter "$units" lo lan0
  ip -n "$client" addr add 192.168.77.1/24 dev "$cif"
  for ns in "$client" "$units"; do ip -n "$ns" link set lo up; done
  ip -n "$client" link set "$cif" up
  ip -n "$units" link set lan0 up
  if [ $route = 1 ]; then
    ip -n "$units" addr add 192.168.77.2/24 dev lan0
    ip -n "$client" route add default via 192.168.77.2
    # A thousand answers sent at once would overflow the queue of packets
    # waiting for the client's address to resolve.
    local mac; mac=$(ip -n "$client" -br link show "$cif" | awk '{print $3}')
    ip -n "$units" neigh replace 192.168.77.1 lladdr "$mac" dev lan0 nud permanent
  fi
  if [ "$count_or_file" != 0 ]; then start_sim "$count_or_file" "$@"; fi
}

down() {
  if [ -f "$state.pid" ]; then
    local pid; pid=$(cat "$state.pid")
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 500); do alive "$pid" || break; sleep 0.01; done
    rm -f "$state.pid"
  fi
  for ns in "$client" "$units"; do ip netns del "$ns" 2>/dev/null || true; done
}

case ${1:-} in
  up)
    shift
    ! ip netns list | grep -qw "$client" || die "$client exists (run down first)"
    trap down EXIT  # a failing step leaves nothing behind
    up "$@"
    trap - EXIT ;;
  down) down ;;
  exec) shift; exec ip netns exec "$client" "$@" ;;
  *) die "usage: $0 up N|FILE [--no-route] [--client-if=NAME] [-- SIM-OPTION...] | exec COMMAND... | down" ;;
esac

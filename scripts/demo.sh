#!/usr/bin/env bash
# Demo: four writer agents publish their VRF status (one also the PMSI interfaces) in shared
# memory, a merging reader folds them into the merged VRF status; then three writers publish
# tunnel encapsulations and a second merging reader folds those. mvpnstat shows it all.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMVPN_BUILD_TOOLS=ON >/dev/null
cmake --build build -j2 --target mvpnstat mvpn_writer mvpn_encap_writer mvpn_merger

B=build
export MVPN_SHM_NAMESPACE="mvpndemo$$"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -f /dev/shm/"$MVPN_SHM_NAMESPACE".*
}
trap cleanup EXIT
say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
vrf=routing/multicast/vpn/vrfStatus
# Waits (a bounded number of short naps) until `mvpnstat show $1 --json` mentions $2.
await() {
  for _ in $(seq 100); do
    $B/mvpnstat show "$1" --json 2>/dev/null | grep -q "$2" && return 0
    sleep 0.05
  done
  echo "timed out waiting for $2 at $1" >&2; return 1
}

say "Writers publish: bgp {5,6}, staticMvpn {7,8} + a route status tree, evpn {7,9} + PMSI interfaces, staticEvpn {10,5}"
$B/mvpn_writer bgp +5 +6 hold & pids+=($!)
$B/mvpn_writer staticMvpn +7 +8 shared:7:239.1.1.1,10.0.0.1=10.0.0.0/8 \
  source:7:239.1.1.1,10.0.0.2=10.0.0.0/16 source:8:239.2.2.2,10.0.0.3=10.0.0.0/24 hold & pids+=($!)
$B/mvpn_writer evpn +7 +9 intf:5=Vlan105 intf:7=Vlan107 hold & pids+=($!)
$B/mvpn_writer staticEvpn +10 +5 hold & pids+=($!)
await $vrf/bgp '"key": 6'; await $vrf/staticMvpn '"key": 8'
await $vrf/evpn '"key": 9'; await $vrf/staticEvpn '"key": 5'
await routing/multicast/vpn/intfStatus Vlan107

await routing/multicast/vpn/routeStatus/staticMvpn 239.2.2.2

say "mvpnstat list"
$B/mvpnstat list
say "MVPN_TOGGLE_MvpnGroupTylModel=1 mvpnstat show routing/multicast/vpn/routeStatus/staticMvpn   (a route status tree, group model)"
MVPN_TOGGLE_MvpnGroupTylModel=1 $B/mvpnstat show routing/multicast/vpn/routeStatus/staticMvpn
say "mvpnstat show routing/multicast/vpn/routeStatus/staticMvpn --json"
$B/mvpnstat show routing/multicast/vpn/routeStatus/staticMvpn --json
say "mvpnstat show $vrf/evpn"
$B/mvpnstat show $vrf/evpn
say "mvpnstat show routing/multicast/vpn/intfStatus --json"
$B/mvpnstat show routing/multicast/vpn/intfStatus --json

say "A merging reader starts (trace of its lifecycle on stderr)"
MVPN_TRACE=MergedMvpnVrfStatusSm/1 $B/mvpn_merger vrf $vrf/merged & pids+=($!)
await $vrf/merged '"key": 10'
say "mvpnstat show $vrf/merged --json   (precedence: bgp, evpn, staticMvpn, staticEvpn)"
$B/mvpnstat show $vrf/merged --json

say "BGP withdraws VRF 5 (its agent restarts and takes its table over); watching the merged status"
# No --count: the watch first lists every key there, and the take-over re-announces keys
# unchanged before the withdrawal arrives; the watcher is stopped once VRF 5 fell back.
$B/mvpnstat watch $vrf/merged > /tmp/"$MVPN_SHM_NAMESPACE".watch & watcher=$!
sleep 0.2
kill "${pids[0]}"; wait "${pids[0]}" 2>/dev/null || true
$B/mvpn_writer bgp -5
await $vrf/merged '"key": 5, "client": "staticEvpn"'
sleep 0.2; kill $watcher 2>/dev/null || true; wait $watcher 2>/dev/null || true
cat /tmp/"$MVPN_SHM_NAMESPACE".watch; rm -f /tmp/"$MVPN_SHM_NAMESPACE".watch
say "mvpnstat show $vrf/merged --json"
$B/mvpnstat show $vrf/merged --json
say "mvpnstat explain $vrf/merged 5   (why the merged status names static EVPN for VRF 5)"
$B/mvpnstat explain $vrf/merged 5
say "mvpnstat check $vrf/merged   (every merged VRF recomputed from the inputs; integrity)"
$B/mvpnstat check $vrf/merged || true

encap=routing/multicast/vpn/tunnelEncapStatus
say "Tunnel encapsulation writers: mvpn and static both hold (10.0.0.1, 239.1.1.1) in VRF 3, evpn an interface record"
$B/mvpn_encap_writer mvpn route:3:10.0.0.1,239.1.1.1=mvpn-A route:3:10.0.0.2,239.1.1.2=mvpn-B hold & pids+=($!)
$B/mvpn_encap_writer static route:3:10.0.0.1,239.1.1.1=static-A hold & static=$!; pids+=($static)
$B/mvpn_encap_writer evpn intf:4:10.0.0.9,239.2.2.2@Vlan104=evpn-C hold & pids+=($!)
await $encap/mvpn mvpn-B; await $encap/static static-A; await $encap/evpn evpn-C
say "A second merging reader folds them (static first, then mvpn, then evpn)"
$B/mvpn_merger encap & pids+=($!)
await $encap/merged evpn-C
say "mvpnstat show $encap/merged"
$B/mvpnstat show $encap/merged
say "The static writer stops and withdraws its VRF: mvpn's record takes its place"
kill "$static"; wait "$static" 2>/dev/null || true
$B/mvpn_encap_writer static novrf:3
await $encap/merged mvpn-A
$B/mvpnstat show $encap/merged --json
say "mvpnstat explain $encap/merged '3 (10.0.0.1, 239.1.1.1)'"
$B/mvpnstat explain $encap/merged '3 (10.0.0.1, 239.1.1.1)'
say "mvpnstat check   (every merged status and every table)"
$B/mvpnstat check || true

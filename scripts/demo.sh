#!/usr/bin/env bash
# demo.sh -- the whole reflector at work: builds the tree, creates two
# network namespaces joined by a veth pair, starts the daemon in one, probes
# it with sbfd-ping from the other (plain and under MPLS label 0), takes it
# administratively down and back up with orvalindwarden-ctl while probing,
# shows its shared store and prints its trace with blcat. Everything it made
# is removed at the end, also when it fails or is interrupted.
#
#   reflector namespace orvdemo-r-PID   vr0 192.0.2.1/24
#        | veth
#   initiator namespace orvdemo-i-PID   vi0 192.0.2.2/24
#
# Run as root on Debian 12. BUILD_DIR chooses the build directory (default
# build/ at the top of the tree).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/netns-pair.sh"
build=${BUILD_DIR:-$top/build}
bin=$build/bin

if [ "$(id -u)" -ne 0 ]; then
	echo "demo.sh: needs root (network namespaces, packet sockets)" >&2
	exit 1
fi

bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$build"

run_setup orvdemo
disc=1
min_rx=50000
shm_name=orvalindwarden-$ns_r # NSPATH=/$ns_r, "/" becomes "-"
daemon_pid=

cleanup() {
	trap - EXIT INT TERM
	echo "== cleaning up"
	if [ -n "$daemon_pid" ] && kill -0 "$daemon_pid" 2>/dev/null; then
		kill "$daemon_pid" 2>/dev/null || true
		wait "$daemon_pid" 2>/dev/null || true
	fi
	netns_pair_down "$ns_r" "$ns_i"
	rm -f "/dev/shm/$shm_name"
	pid_file_restore "$work"
	rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step() { printf '\n== %s\n' "$*"; }

# Runs sbfd-ping in the initiator namespace; a probe run without reply is
# reported, not fatal, so the demo goes on.
ping_reflector() {
	ip netns exec "$ns_i" "$bin/sbfd-ping" --your-disc "$disc" "$@" "$addr_r" ||
		echo "   (sbfd-ping: no reply, status $?)"
}

ctl() {
	"$bin/orvalindwarden-ctl" --netns "$ns_r" --pid "$daemon_pid" \
		--discriminator "$disc" --min-rx "$min_rx" --source "$addr_r" "$@"
}

step "namespaces $ns_r ($addr_r/24 on vr0) and $ns_i ($addr_i/24 on vi0)"
netns_pair_up "$ns_r" "$addr_r" "$ns_i" "$addr_i"

step "starting the reflector: discriminator $disc, source $addr_r, minRx $min_rx us"
BREVLOG_DIR=$work NSPATH=/$ns_r \
	ip netns exec "$ns_r" "$bin/orvalindwarden" -d "$disc" -p "$addr_r" -r "$min_rx" &
daemon_pid=$!
ready=
for _ in $(seq 100); do
	if ! kill -0 "$daemon_pid" 2>/dev/null; then
		break
	fi
	if "$bin/blcat" "$work/orvalindwarden.bl" 2>/dev/null | grep -q "INIT: orvalindwarden ready"; then
		ready=1
		break
	fi
	sleep 0.1
done
if [ -z "$ready" ]; then
	echo "demo.sh: the reflector did not become ready" >&2
	"$bin/blcat" "$work/orvalindwarden.bl" 2>/dev/null || true
	exit 1
fi
echo "   ready, pid $daemon_pid; pid file says $(cat "$ORV_PID_FILE" 2>/dev/null || echo nothing)"

step "sbfd-ping from $ns_i: plain UDP to $addr_r port 7784"
ping_reflector -c 3 -i 0.2 --my-disc 100

step "sbfd-ping from $ns_i: the same request under MPLS label 0 on vi0, with Poll"
ping_reflector -c 3 -i 0.2 --my-disc 101 --mpls vi0 --poll

step "orvalindwarden-ctl: administratively down (replies turn AdminDown, diag 7)"
ctl --admin-down
ping_reflector -c 2 -i 0.2 --my-disc 100 --state up

step "orvalindwarden-ctl: back up"
ctl --admin-up
ping_reflector -c 2 -i 0.2 --my-disc 100 --state up

step "orvalindwarden-ctl refuses what it cannot send"
"$bin/orvalindwarden-ctl" --netns "$ns_r" --pid "$daemon_pid" --discriminator "$disc" \
	--min-rx "$min_rx" --source 192.0.2.300 --admin-up || true
"$bin/orvalindwarden-ctl" --netns "$ns_r" --pid $$ --discriminator "$disc" \
	--min-rx "$min_rx" --source "$addr_r" --admin-up || true

if [ -x "$bin/orvalindwarden-stat" ]; then
	step "shared store /dev/shm/$shm_name"
	"$bin/orvalindwarden-stat" -o "$shm_name" || true
fi

step "trace ($work/orvalindwarden.bl)"
"$bin/blcat" "$work/orvalindwarden.bl"

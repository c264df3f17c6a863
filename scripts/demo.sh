#!/usr/bin/env bash
# demo.sh -- builds the reflector and starts it in a network namespace of its
# own, with 192.0.2.1/24 on a veth interface there; after a moment it sends
# the daemon its ignored signal, prints the daemon's trace with blcat, stops
# the daemon by its pid and removes everything it made (also on Ctrl-C).
#
# Run as root on Debian 12. BUILD_DIR chooses the build directory (default
# build/ at the top of the tree).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$top/build}

if [ "$(id -u)" -ne 0 ]; then
	echo "demo.sh: needs root (network namespaces, packet sockets)" >&2
	exit 1
fi

bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$build"

ns=orvdemo-$$
addr=192.0.2.1
pid_file=/var/run/orvalindwarden.pid
work=$(mktemp -d "/tmp/orvdemo-$$-XXXXXX")
daemon_pid=

# The daemon writes the global pid file: keep what was there.
if [ -e "$pid_file" ]; then
	cp -p "$pid_file" "$work/pid_file.saved"
fi

cleanup() {
	trap - EXIT INT TERM
	if [ -n "$daemon_pid" ] && kill -0 "$daemon_pid" 2>/dev/null; then
		kill "$daemon_pid" 2>/dev/null || true
		wait "$daemon_pid" 2>/dev/null || true
	fi
	ip netns del "$ns" 2>/dev/null || true
	rm -f "/dev/shm/orvalindwarden-$ns"
	if [ -e "$work/pid_file.saved" ]; then
		cp -p "$work/pid_file.saved" "$pid_file"
	else
		rm -f "$pid_file"
	fi
	rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "== namespace $ns, $addr/24 on veth0"
ip netns add "$ns"
ip -n "$ns" link set lo up
ip -n "$ns" link add veth0 type veth peer name veth1
ip -n "$ns" addr add "$addr/24" dev veth0
ip -n "$ns" link set veth0 up
ip -n "$ns" link set veth1 up

echo "== starting the reflector (discriminator 1, minRx 50000 us)"
BREVLOG_DIR=$work NSPATH=/$ns \
	ip netns exec "$ns" "$build/bin/orvalindwarden" -d 1 -p "$addr" -r 50000 &
daemon_pid=$!
sleep 1
if ! kill -0 "$daemon_pid" 2>/dev/null; then
	wait "$daemon_pid" && status=0 || status=$?
	daemon_pid=
	echo "demo.sh: the reflector ended at start-up with status $status" >&2
	"$build/bin/blcat" "$work/orvalindwarden.bl" || true
	exit 1
fi
echo "   running as pid $daemon_pid; pid file says $(cat "$pid_file" 2>/dev/null || echo nothing)"
echo "   shared store: $(stat -c '%n %s bytes mode %a' "/dev/shm/orvalindwarden-$ns")"

echo "== sending SIGRTMIN+9 (noted in the trace, otherwise ignored)"
kill -s RTMIN+9 "$daemon_pid"
sleep 0.2

echo "== trace ($work/orvalindwarden.bl)"
"$build/bin/blcat" "$work/orvalindwarden.bl"

echo "== stopping pid $daemon_pid"

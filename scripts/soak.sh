#!/usr/bin/env bash
# soak.sh -- long run of the reflector under everything at once (not part of
# the test run): a high, steady load from 512 initiators with malformed
# requests mixed in, a control message as often as the agent can send one,
# a stream of SIGRTMIN+9, and once half way a SIGKILL followed by a restart
# with -S. At the end it reports the daemon's resident memory at the start
# and the end of each run and checks that the counters add up: every valid
# request answered or counted as a send failure, every malformed one dropped.
#
#   reflector namespace orvsoak-r-PID  vr0 192.0.2.1/24
#        | veth
#   initiator namespace orvsoak-i-PID  vi0 192.0.2.2/24
#
# Usage: scripts/soak.sh [SECONDS (default 600)] [RATE (default 50000)]
# Run as root; BUILD_DIR chooses the build (default build/).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/netns-pair.sh"
build=${BUILD_DIR:-$top/build}
bin=$build/bin
seconds=${1:-600}
rate=${2:-50000}

if [ "$(id -u)" -ne 0 ]; then
	echo "soak.sh: needs root (network namespaces, packet sockets)" >&2
	exit 1
fi
bash "$top/scripts/build.sh" "$build" >/dev/null

run_setup orvsoak
disc=7
min_rx=3300
shm=/dev/shm/orvalindwarden-orvsoak-$$
daemon_pid=
helpers=()

cleanup() {
	trap - EXIT INT TERM
	for p in "${helpers[@]}"; do kill "$p" 2>/dev/null || true; done
	if [ -n "$daemon_pid" ]; then kill "$daemon_pid" 2>/dev/null || true; fi
	wait 2>/dev/null || true
	netns_pair_down "$ns_r" "$ns_i"
	rm -f "$shm"
	pid_file_restore "$work"
	rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

netns_pair_up "$ns_r" "$addr_r" "$ns_i" "$addr_i"

start_daemon() {
	BREVLOG_DIR=$work NSPATH=/orvsoak-$$ ip netns exec "$ns_r" \
		"$bin/orvalindwarden" -d $disc -p $addr_r -r $min_rx "$@" &
	daemon_pid=$!
	for _ in $(seq 50); do
		grep -q " $daemon_pid " "/proc/$daemon_pid/net/netlink" 2>/dev/null && return 0
		sleep 0.1
	done
	echo "soak.sh: daemon did not start" >&2
	exit 1
}
rss() { awk '/VmRSS/ { print $2 }' "/proc/$daemon_pid/status"; }
anon() { awk '/RssAnon/ { print $2 }' "/proc/$daemon_pid/status"; }
# 20000 requests: every trace ring has wrapped, so the mapped trace file is
# wholly resident and what follows shows growth only.
warm_up() {
	ip netns exec "$ns_i" "$bin/loadgen" --target $addr_r --source $addr_i --your-disc $disc \
		--sessions 512 --rate 20000 --duration 1 >/dev/null
}
u64() { od -An -t u8 -j "$1" -N 8 "$shm" | tr -d ' '; }
u32() { od -An -t u4 -j "$1" -N 4 "$shm" | tr -d ' '; }

# Harm that runs beside the load until killed.
harass() {
	while :; do
		"$bin/orvalindwarden-ctl" --netns "$ns_r" --pid "$daemon_pid" --discriminator $disc \
			--min-rx $min_rx --source $addr_r --admin-up >/dev/null 2>&1 || true
	done &
	helpers+=($!)
	while :; do
		kill -s RTMIN+9 "$daemon_pid" 2>/dev/null || true
		sleep 0.001
	done &
	helpers+=($!)
}
stop_harass() {
	for p in "${helpers[@]}"; do kill "$p" 2>/dev/null || true; done
	for p in "${helpers[@]}"; do wait "$p" 2>/dev/null || true; done
	helpers=()
}

# run_half SECONDS -> the loadgen result line of that half
run_half() {
	ip netns exec "$ns_i" "$bin/loadgen" --target $addr_r --source $addr_i --your-disc $disc \
		--sessions 512 --rate "$rate" --duration "$1" --malformed-every 50
}

# soak_half N [daemon options]: starts the daemon, runs half of the soak
# with harm beside it; the load's result line and the daemon's memory at
# start and end go to result[N], rss_at[N], rss_end[N], anon_at[N], anon_end[N].
result=() rss_at=() rss_end=() anon_at=() anon_end=()
soak_half() {
	local n=$1
	shift
	start_daemon "$@"
	warm_up
	rss_at[n]=$(rss)
	anon_at[n]=$(anon)
	harass
	result[n]=$(run_half "$half")
	rss_end[n]=$(rss)
	anon_end[n]=$(anon)
	stop_harass
}

half=$((seconds / 2))
echo "== soak: ${seconds}s at $rate requests/s, 1 in 50 malformed, control messages, signals, one SIGKILL"
soak_half 1
echo "first half:  ${result[1]}"
kill -9 "$daemon_pid"
wait "$daemon_pid" 2>/dev/null || true
valid_killed=$(u64 16)
sends_killed=$(u64 8)
soak_half 2 -S
echo "second half: ${result[2]}"

field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p"; }
valid=$(u64 16)
sends=$(u64 8)
drops=$(u64 0)
fails=$(u32 68)
# both F: the sum of field F over the two halves' result lines
both() { echo $(($(echo "${result[1]}" | field "$1") + $(echo "${result[2]}" | field "$1"))); }
offered=$(both sent)
answered=$(both received)
malformed=$(both malformed)
wrong=$(($(both wrong) + $(both duplicate)))
echo
trace_kib=$(($(stat -c %s "$work/orvalindwarden.bl") / 1024))
echo "daemon RSS KiB: first run ${rss_at[1]} -> ${rss_end[1]}, after restart ${rss_at[2]} -> ${rss_end[2]}"
echo "  anonymous KiB: first run ${anon_at[1]} -> ${anon_end[1]}, after restart ${anon_at[2]} -> ${anon_end[2]}; trace file $trace_kib KiB"
echo "store: rx_valid_pkts $valid, tx_sends $sends, sendto_fail $fails, rx_drops $drops"
echo "load:  valid sent $offered, answered $answered, malformed sent $malformed, wrong or duplicate replies $wrong"
status=0
check() {
	if eval "$2"; then echo "ok:     $1"; else echo "FAILED: $1"; status=1; fi
}
# At the kill at most one counted request had not been sent yet.
check "every valid request counted was answered or counted as a send failure" \
	"[ \$((valid - sends - fails)) -ge 0 ] && [ \$((valid - sends - fails)) -le 1 ]"
check "counters only moved forward across the restart" "[ $valid -ge $valid_killed ] && [ $sends -ge $sends_killed ]"
check "no reply was wrong or answered a malformed request" "[ $wrong -eq 0 ]"
check "malformed requests were all dropped, none answered" "[ $drops -le $malformed ]"
# The mapped trace file becomes resident as its rings fill (bounded by its
# size); anonymous memory (heap, stack) must not move at all.
check "anonymous memory flat within each run (<= 64 KiB), all of it within the trace file's size" \
	"[ $((anon_end[1] - anon_at[1])) -le 64 ] && [ $((anon_end[2] - anon_at[2])) -le 64 ] && [ ${rss_end[1]} -le $((anon_end[1] + trace_kib + 4096)) ]"
exit $status

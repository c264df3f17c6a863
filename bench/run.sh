#!/usr/bin/env bash
# run.sh -- the reflector's benchmark, one command: builds the tree, joins two
# network namespaces with a veth pair, and measures the daemon side by side
# with the bare baseline reflector (bench/baseline.cpp) in the same run:
#
#   1. highest rate with under 0.1% loss, 512 sessions (search per reflector)
#   2. round-trip percentiles against offered rate (sweep), and the plot
#   3. user-space instructions per reflected request (callgrind) and where they go
#   4. heap allocations per request (memcheck totals after N and 11 N requests)
#   5. resident memory of the daemon before and after the whole load
#   6. cost of a trace record on the fast path (Google Benchmark)
#   7. cost of the always-on table check per lookup with the L1 cache taken
#      by other work, as the daemon meets it (bench_rx)
#   8. time of the reflector's core per request, user and kernel, at a rate
#      neither reflector saturates (with one CPU it includes the load generator)
#   9. stalls: the receive buffer each reflector got and the request frames
#      its queue holds while it is stopped; then, at 100000 requests/s, the
#      reflector stopped (SIGSTOP, SIGCONT) for 10, 20 and 50 ms once a
#      second, and for 50 ms at 60000 requests/s, a rate both carry: loss,
#      and the sessions that saw 3 requests in a row unanswered (an
#      initiator of Detect Mult 3 would take its path down)
#
# and prints every figure beside its target and the baseline. Every trace
# level of the daemon is on (it always traces). Never part of the test run.
#
# The reflector under test runs on a core of its own (the last CPU) and the
# load generator on CPU 0, so that each figure is the capacity of one core
# and neither side takes the other's time; both reflectors get the same
# placement. They run at the same time, each behind its own veth pair, and
# take turns trial by trial, so that the host's changing load (this matters
# on a virtual machine) meets both alike. The p99 figure is the median of
# several trials at that rate, since a single trial's 99th percentile swings
# with the host's scheduling.
#
#   reflector namespace orvbench-r-PID   vr0 192.0.2.1/24  (the daemon)
#        | veth
#   initiator namespace orvbench-i-PID   vi0 192.0.2.2/24  (bench/loadgen)
#
#   reflector namespace orvbench-rb-PID  vr0 192.0.2.1/24  (bench/baseline)
#        | veth
#   initiator namespace orvbench-ib-PID  vi0 192.0.2.2/24  (bench/loadgen)
#
# Usage: bench/run.sh [--quick] [--stall-only]   (as root; BUILD_DIR chooses
# the build, default build-bench/; results go to bench/results/). With
# --stall-only, part 9 alone runs and replaces only its own block of
# summary.txt.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/netns-pair.sh"
build=${BUILD_DIR:-$top/build-bench}
bin=$build/bin
out=$top/bench/results
quick=0
stall_only=0
for arg in "$@"; do
	case $arg in
	--quick) quick=1 ;;
	--stall-only) stall_only=1 ;;
	*) echo "usage: run.sh [--quick] [--stall-only]" >&2; exit 2 ;;
	esac
done

if [ "$(id -u)" -ne 0 ]; then
	echo "run.sh: needs root (network namespaces, packet sockets)" >&2
	exit 1
fi
bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$build" >/dev/null
mkdir -p "$out"

run_setup orvbench
disc=7
sessions=512
shm=/dev/shm/orvalindwarden-orvbench-$$
trial_s=3
p99_trials=5
[ $quick = 1 ] && trial_s=1.5 && p99_trials=3
# One core for the reflector, another for the load generator (when there are two).
pin_r=()
pin_i=()
if [ "$(nproc)" -ge 2 ]; then
	pin_r=(taskset -c "$(($(nproc) - 1))")
	pin_i=(taskset -c 0)
fi
# Both reflectors run at once, each behind a veth pair of its own with the
# same addresses, and take turns under load: a reflector without load sleeps
# in its readiness wait and takes nothing from the other.
ns_rb=orvbench-rb-$$
ns_ib=orvbench-ib-$$
declare -A pid_of=([daemon]= [baseline]=) ns_i_of=([daemon]=$ns_i [baseline]=$ns_ib) \
	ns_r_of=([daemon]=$ns_r [baseline]=$ns_rb)

stop_reflector() {
	local p=${pid_of[$1]}
	if [ -n "$p" ] && kill -0 "$p" 2>/dev/null; then
		kill "$p" 2>/dev/null || true
		kill -CONT "$p" 2>/dev/null || true  # a stalled one, were a load generator stopped mid-stall
		wait "$p" 2>/dev/null || true
	fi
	pid_of[$1]=
}
cleanup() {
	trap - EXIT INT TERM
	stop_reflector daemon
	stop_reflector baseline
	netns_pair_down "$ns_r" "$ns_i"
	netns_pair_down "$ns_rb" "$ns_ib"
	rm -f "$shm"
	pid_file_restore "$work"
	rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

netns_pair_up "$ns_r" "$addr_r" "$ns_i" "$addr_i"
netns_pair_up "$ns_rb" "$addr_r" "$ns_ib" "$addr_i"

# start_reflector daemon|baseline [wrapper...]
start_reflector() {
	local kind=$1
	shift
	if [ "$kind" = daemon ]; then
		BREVLOG_DIR=$work NSPATH=/orvbench-$$ ip netns exec "$ns_r" "${pin_r[@]}" "$@" \
			"$bin/orvalindwarden" -d "$disc" -p "$addr_r" -r 3300 >"$work/$kind.log" 2>&1 &
	else
		ip netns exec "$ns_rb" "${pin_r[@]}" "$@" "$bin/baseline" "$addr_r" "$disc" >"$work/$kind.log" 2>&1 &
	fi
	pid_of[$kind]=$!
	# Ready when a probe is answered (bounded).
	for _ in $(seq 100); do
		if ip netns exec "${ns_i_of[$kind]}" "$bin/loadgen" --target $addr_r --source $addr_i --your-disc $disc \
			--sessions 1 --rate 100 --duration 0.05 --drain 0.5 2>/dev/null | grep -q ' lost=0 '; then
			return 0
		fi
		sleep 0.2
	done
	echo "run.sh: $kind did not answer" >&2
	cat "$work/$kind.log" >&2
	exit 1
}

# trial KIND RATE [DURATION [loadgen options...]] -> one loadgen result line
trial() {
	ip netns exec "${ns_i_of[$1]}" "${pin_i[@]}" "$bin/loadgen" --target $addr_r --source $addr_i --your-disc $disc \
		--sessions $sessions --rate "$2" --duration "${3:-$trial_s}" "${@:4}"
}
field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p"; }
passes() { awk -v l="$(echo "$1" | field loss_pct)" -v w="$(echo "$1" | field wrong)" \
	'BEGIN { exit !(l < 0.1 && w == 0) }'; }

# search_both: the highest passing rate of each reflector ("BASELINE DAEMON").
# Per reflector, rates grow by 1/8 until a rate fails twice, then the gap is
# halved four times; every passing rate is remembered. The two searches take
# turns trial by trial, so that a change in the host's load meets both.
search_both() {
	local -A lo=([baseline]=0 [daemon]=0) hi=([baseline]=0 [daemon]=0) \
		rate=([baseline]=20000 [daemon]=20000) halved=([baseline]=0 [daemon]=0)
	local kind line ok busy=1
	while [ $busy = 1 ]; do
		busy=0
		for kind in baseline daemon; do
			[ "${halved[$kind]}" -ge 4 ] && continue
			busy=1
			line=$(trial $kind ${rate[$kind]})
			echo "$kind search $line" >>"$out/trials.txt"
			ok=0
			if passes "$line"; then
				ok=1
			elif [ "${hi[$kind]}" = 0 ]; then  # growing: a failure counts when repeated
				line=$(trial $kind ${rate[$kind]})
				echo "$kind search $line" >>"$out/trials.txt"
				passes "$line" && ok=1
			fi
			if [ "${hi[$kind]}" = 0 ]; then
				if [ $ok = 1 ]; then
					lo[$kind]=${rate[$kind]}
					rate[$kind]=$((rate[$kind] + rate[$kind] / 8))
					[ "${rate[$kind]}" -gt 1000000 ] && halved[$kind]=4
					continue
				fi
				hi[$kind]=${rate[$kind]}
			else
				if [ $ok = 1 ]; then lo[$kind]=${rate[$kind]}; else hi[$kind]=${rate[$kind]}; fi
				halved[$kind]=$((halved[$kind] + 1))
			fi
			rate[$kind]=$(((lo[$kind] + hi[$kind]) / 2))
		done
	done
	echo "${lo[baseline]} ${lo[daemon]}"
}

rss_kib() { awk '/VmRSS/ { print $2 }' "/proc/$1/status"; }
anon_kib() { awk '/RssAnon/ { print $2 }' "/proc/$1/status"; }
# The daemon's process (ip netns exec execs it, so it is the started pid).
shm_u64() { od -An -t u8 -j "$1" -N 8 "$shm" | tr -d ' '; }

: >"$out/trials.txt"
sweep_rates="20000 40000 60000 80000 100000 120000 140000 160000 180000"
[ $quick = 1 ] && sweep_rates="20000 60000 100000 140000"

# sweep: at each rate of $sweep_rates one trial per reflector; rate,
# offered, p50, p90, p99 and loss into sweep_KIND.dat.
sweep() {
	local kind r line
	: >"$out/sweep_baseline.dat"
	: >"$out/sweep_daemon.dat"
	for r in $sweep_rates; do
		for kind in baseline daemon; do
			line=$(trial $kind "$r")
			echo "$kind sweep $line" >>"$out/trials.txt"
			echo "$r $(echo "$line" | field offered) $(echo "$line" | field p50_us) $(echo "$line" | field p90_us) $(echo "$line" | field p99_us) $(echo "$line" | field loss_pct)" >>"$out/sweep_$kind.dat"
		done
	done
}

# core_cost KIND: the reflector core's time per request at $cost_rate
# requests/s (not saturated), from its tick counters over one trial: "busy
# user" in microseconds. Busy time is user, system and interrupt time; the
# core also runs the kernel's receive path of the replies, which the veth
# pair hands over on the sending core.
cost_rate=60000
core_cost() {
	local cpu=$(($(nproc) - 1)) hz before after
	hz=$(getconf CLK_TCK)
	ticks() { awk -v c="cpu$cpu" '$1 == c { print $2 + $3 + $4 + $7 + $8, $2 + $3 }' /proc/stat; }
	before=$(ticks)
	trial $1 $cost_rate >"$work/cost.$1"
	after=$(ticks)
	echo "$before $after" | awk -v hz="$hz" -v n="$(field received <"$work/cost.$1")" \
		'{ if (n > 0) printf "%.2f %.2f\n", ($3 - $1) / hz / n * 1e6, ($4 - $2) / hz / n * 1e6; else print "- -" }'
}

# median FILE: "median range" of the numbers in FILE, one per line.
median() { sort -g "$1" | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)], v[1] "-" v[NR] }'; }

# stall_part: part 9, both reflectors running; its block of the summary
# into $work/stall.txt, its trials into stall_trials.txt. The load
# generator stops and continues the reflector itself, timed by its own
# pacing loop; stall_max_ms in each trial is the longest stop as it sent
# the signals (longer than asked when the host kept it from running). The
# cases are MS@RATE: stops of MS ms once a second at RATE requests/s; the
# last, at $cost_rate requests/s (which both reflectors carry), shows the
# queue apart from the reflector's capacity.
stall_rate=100000
stall_cases="10@$stall_rate 20@$stall_rate 50@$stall_rate 50@$cost_rate"
stall_target=50@$stall_rate
stall_s=10
[ $quick = 1 ] && stall_s=3
stall_part() {
	local kind c line
	local -A rb held
	: >"$out/stall_trials.txt"
	for kind in baseline daemon; do
		# The receive buffer the kernel granted (ss: rb, both packet sockets alike).
		rb[$kind]=$(ip netns exec "${ns_r_of[$kind]}" ss -f link -m -p |
			sed -n "s/.*pid=${pid_of[$kind]},.*skmem:(.*,rb\([0-9]*\),.*/\1/p" | head -n 1)
		# 10000 requests in 0.1 s sent while the reflector is stopped: the
		# replies, once it goes on, are the frames its queue held.
		line=$(trial $kind $stall_rate 0.1 --stall-pid "${pid_of[$kind]}" --stall-ms 100 --stall-at 0 --drain 2)
		echo "$kind held $line" >>"$out/stall_trials.txt"
		held[$kind]=$(echo "$line" | field received)
	done
	for c in $stall_cases; do
		for kind in baseline daemon; do
			line=$(trial $kind "${c#*@}" $stall_s --stall-pid "${pid_of[$kind]}" --stall-ms "${c%@*}")
			echo "$kind stall $c $line" >>"$out/stall_trials.txt"
			echo "$line" >"$work/stall$c.$kind"
		done
	done
	# stall_row CASE KEY LABEL [TARGET]: a row of the figure KEY of both trials of CASE.
	stall_row() {
		printf '%-44s %14s %14s %8s  %s\n' "$3" "$(field "$2" <"$work/stall$1.daemon")" \
			"$(field "$2" <"$work/stall$1.baseline")" - "${4:-}"
	}
	# disturbed CASE: a note when the host held the load generator up in a
	# trial of CASE (a rate below 95% of the asked, or a stop half again as
	# long as asked): the figures then say little about the queue.
	disturbed() {
		local kind bad=0
		for kind in baseline daemon; do
			awk -v o="$(field offered <"$work/stall$1.$kind")" -v s="$(field stall_max_ms <"$work/stall$1.$kind")" \
				-v r="${1#*@}" -v ms="${1%@*}" 'BEGIN { exit !(o < 0.95 * r || s > 1.5 * ms) }' && bad=1
		done
		[ $bad = 0 ] || echo "(trial disturbed by the host's load)"
	}
	local ok_stall note
	ok_stall=$(awk -v d="$(field sessions_down <"$work/stall$stall_target.daemon")" 'BEGIN { print (d == 0) }')
	{
		echo
		echo "orvalindwarden stall benchmark, $(date -u +%Y-%m-%dT%H:%MZ), $(nproc) CPUs, $(uname -r), $sessions sessions," \
			"${stall_s} s per trial (one stop a second)"
		printf '%-44s %14s %14s %8s  %s\n' figure daemon baseline ratio "target: verdict"
		printf '%-44s %14s %14s %8s  %s\n' "receive buffer granted (ss: rb, bytes)" "${rb[daemon]}" "${rb[baseline]}" \
			"$(ratio "${rb[daemon]}" "${rb[baseline]}")" "(daemon: 7750 frames of 832 bytes, 50 ms at 155000 req/s)"
		printf '%-44s %14s %14s %8s  %s\n' "request frames held while stopped" "${held[daemon]}" "${held[baseline]}" \
			"$(ratio "${held[daemon]}" "${held[baseline]}")" "(of 10000 sent during one stop; daemon >= 7750: $(verdict \
			"$(awk -v h="${held[daemon]}" 'BEGIN { print (h >= 7750) }')"))"
		for c in $stall_cases; do
			note=$(disturbed "$c")
			if [ "$c" = "$stall_target" ]; then
				note="daemon 0 of $sessions: $(verdict "$ok_stall") (baseline, default queue: expected to fail) $note"
			elif [ "${c#*@}" = "$cost_rate" ]; then
				note="(a rate both reflectors carry: the queue alone) $note"
			fi
			stall_row "$c" sessions_down "stop ${c%@*} ms/s at ${c#*@}: sessions 3 lost" "$note"
			stall_row "$c" loss_pct "  loss (%)"
			stall_row "$c" max_lost_run "  longest run lost in one session"
			stall_row "$c" stall_max_ms "  longest stop as sent (ms)"
			stall_row "$c" offered "  offered (req/s)"
		done
		echo "stall trials: $out/stall_trials.txt"
	} >"$work/stall.txt"
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "n/a" }'; }
verdict() { awk -v c="$1" 'BEGIN { print (c ? "met" : "NOT MET") }'; }

if [ $stall_only = 1 ]; then
	echo "== stalls"
	start_reflector baseline
	start_reflector daemon
	trial baseline 5000 1 >/dev/null
	trial daemon 5000 1 >/dev/null
	stall_part
	stop_reflector daemon
	stop_reflector baseline
	# Only this part's block of summary.txt is replaced (or added).
	[ -f "$out/summary.txt" ] && sed '/^orvalindwarden stall benchmark/,$d' "$out/summary.txt" >"$work/summary.kept"
	if [ -s "$work/summary.kept" ]; then
		sed '${/^$/d}' "$work/summary.kept" >"$out/summary.txt"
	else
		: >"$out/summary.txt"
	fi
	tee -a "$out/summary.txt" <"$work/stall.txt"
	exit 0
fi

echo "== both reflectors: search, sweep, p99, core time"
start_reflector baseline
start_reflector daemon
trial baseline 5000 1 >/dev/null
trial daemon 5000 1 >/dev/null  # every session created: from here on lookups hit
# Every trace ring wrapped at least once (a request writes about 300 bytes
# of records into the 1 MiB rings of levels 2 to 4): the mapped trace file
# is then wholly resident and resident memory shows growth only.
trial daemon 20000 1 >/dev/null
rss_start=$(rss_kib "${pid_of[daemon]}")
anon_start=$(anon_kib "${pid_of[daemon]}")
sends_start=$(shm_u64 8)
read -r base_max daemon_max < <(search_both)
sweep
# p99 at 100000 requests/s: the median of $p99_trials trials each, taking
# turns; core time: the median of three trials each, taking turns.
: >"$work/p99.baseline"
: >"$work/p99.daemon"
: >"$work/core.baseline"
: >"$work/core.daemon"
for _ in $(seq "$p99_trials"); do
	for kind in baseline daemon; do
		line=$(trial $kind 100000)
		echo "$kind p99 $line" >>"$out/trials.txt"
		echo "$line" | field p99_us >>"$work/p99.$kind"
	done
done
for _ in 1 2 3; do
	for kind in baseline daemon; do core_cost $kind >>"$work/core.$kind"; done
done
read -r base_p99 base_p99_range < <(median "$work/p99.baseline")
read -r daemon_p99 daemon_p99_range < <(median "$work/p99.daemon")
read -r base_core _ < <(median "$work/core.baseline")
read -r daemon_core _ < <(median "$work/core.daemon")
# The user time of the trial whose busy time is the median.
base_core_user=$(awk -v m="$base_core" '$1 == m { print $2; exit }' "$work/core.baseline")
daemon_core_user=$(awk -v m="$daemon_core" '$1 == m { print $2; exit }' "$work/core.daemon")
rss_end=$(rss_kib "${pid_of[daemon]}")
anon_end=$(anon_kib "${pid_of[daemon]}")
sends_end=$(shm_u64 8)
echo "== stalls"
stall_part
stop_reflector daemon
stop_reflector baseline

echo "== daemon under callgrind and memcheck"
cg_requests=20000
[ $quick = 1 ] && cg_requests=5000
start_reflector daemon valgrind --tool=callgrind --callgrind-out-file="$work/cg.out" \
	'--toggle-collect=rx_data_ready*' --dump-instr=no
trial daemon 1000 1 >/dev/null
callgrind_control --zero "${pid_of[daemon]}" >/dev/null
trial daemon 2000 $((cg_requests / 2000)) --drain 2 >"$work/cg.trial"
callgrind_control --dump "${pid_of[daemon]}" >/dev/null
stop_reflector daemon
cg_file=$work/cg.out.1  # the dump taken right after the measured requests
[ -s "$cg_file" ] || cg_file=$work/cg.out
callgrind_annotate --inclusive=yes --threshold=100 "$cg_file" >"$out/callgrind.txt" 2>/dev/null || true
cg_received=$(field received <"$work/cg.trial")
ir_total=$(awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1; exit }' "$out/callgrind.txt")
# Inclusive cost of the functions whose name contains $1 (object-attributed
# lines only, so an inlined copy is not counted twice).
ir_of() { awk -v f="$1" 'index($0, f) && /\[/ { gsub(",", "", $1); s += $1 } END { print s + 0 }' "$out/callgrind.txt"; }
# Cost of the annotated source lines that contain $1 (code inlined there).
ir_line() { awk -v p="$1" 'index($0, p) { gsub(",", "", $1); if ($1 ~ /^[0-9]+$/) s += $1 } END { print s + 0 }' "$out/callgrind.txt"; }
per_req() { awk -v a="$1" -v n="$cg_received" 'BEGIN { printf "%.0f", n ? a / n : 0 }'; }

allocs_after() {
	start_reflector daemon valgrind --tool=memcheck --leak-check=no
	trial daemon 2000 "$1" --drain 2 >/dev/null
	stop_reflector daemon
	sed -n 's/.*total heap usage: \([0-9,]*\) allocs.*/\1/p' "$work/daemon.log" | tr -d ,
}
allocs_small=$(allocs_after 0.5)
allocs_large=$(allocs_after 5.5)

echo "== trace record fast path"
# The median of five runs: one run can land on a moment of other load.
trace_ns=$("${pin_r[@]}" "$bin/bench_trace" --benchmark_filter=BM_TraceThreeValues --benchmark_min_time=1 \
	--benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
	--benchmark_format=csv 2>/dev/null | awk -F, '/BM_TraceThreeValues_median/ { printf "%.1f", $3 }')

echo "== table check per lookup, L1 cold"
# Real time of the check alone (manual timing), recency list in memory order
# (/0: initiators probing in turn) and out of it (/1).
check_ns() {
	"${pin_r[@]}" "$bin/bench_rx" --benchmark_filter="BM_SessionSanityCheck512Cold/$1/" \
		--benchmark_repetitions=5 --benchmark_report_aggregates_only=true --benchmark_format=csv 2>/dev/null |
		awk -F, '/_median/ { printf "%.0f", $3 }'
}
check_ordered_ns=$(check_ns 0)
check_shuffled_ns=$(check_ns 1)

# The plot: p50 and p99 round trip against offered rate, both reflectors.
if command -v gnuplot >/dev/null; then
	gnuplot -e "datadir='$out'; outfile='$out/rtt_vs_rate.png'" "$top/bench/plot.gp" || true
fi

ok_rate=$(awk -v d="$daemon_max" -v b="$base_max" 'BEGIN { r = b > 0 ? d / b : 0; need155 = b >= 1.2 * 155000;
	print (r >= 0.9 && (!need155 || d >= 155000)) }')
ok_p99=$(awk -v d="$daemon_p99" -v b="$base_p99" 'BEGIN { print (b > 0 && d <= 1.2 * b) }')
ok_alloc=$(awk -v a="$allocs_small" -v b="$allocs_large" 'BEGIN { print (a != "" && a == b) }')
ok_trace=$(awk -v t="$trace_ns" 'BEGIN { print (t != "" && t <= 30) }')
# The mapped trace file becomes resident as its rings fill (levels 1 and 5
# fill slowly); anonymous memory must not move.
ok_rss=$(awk -v a="$anon_start" -v b="$anon_end" 'BEGIN { print (b <= a + 64) }')

{
	echo
	echo "orvalindwarden benchmark, $(date -u +%Y-%m-%dT%H:%MZ), $(nproc) CPUs, $(uname -r), $sessions sessions, all trace levels on"
	printf '%-44s %14s %14s %8s  %s\n' figure daemon baseline ratio "target: verdict"
	printf '%-44s %14s %14s %8s  %s\n' "highest rate with loss < 0.1% (req/s)" "$daemon_max" "$base_max" \
		"$(ratio "$daemon_max" "$base_max")" ">= 0.9 x baseline (and >= 155000 where baseline >= 186000): $(verdict "$ok_rate")"
	printf '%-44s %14s %14s %8s  %s\n' "p99 round trip at 100000 req/s (us)" "$daemon_p99" "$base_p99" \
		"$(ratio "$daemon_p99" "$base_p99")" "<= 1.2 x baseline: $(verdict "$ok_p99")"
	printf '%-44s %14s %14s\n' "  median of $p99_trials trials; their range" "$daemon_p99_range" "$base_p99_range"
	printf '%-44s %14s %14s %8s  %s\n' "reflector core time per request (us)" "$daemon_core" "$base_core" \
		"$(ratio "$daemon_core" "$base_core")" "(at $cost_rate req/s, median of 3 trials: user, system and interrupt time of its core)"
	printf '%-44s %14s %14s\n' "  of which user time (us)" "$daemon_core_user" "$base_core_user"
	printf '%-44s %14s %14s %8s  %s\n' "user-space instructions per request" "$(per_req "$ir_total")" "-" "-" \
		"(callgrind, $cg_received requests, inside rx_data_ready)"
	while IFS='|' read -r label how what; do
		if [ "$how" = line ]; then n=$(ir_line "$what"); else n=$(ir_of "$what"); fi
		printf '%-44s %14s\n' "  $label" "$(per_req "$n")"
	done <<-'EOF'
		table check (session_sanity_check)|fn|session_sanity_check(
		lookup with its check (get_session)|fn|get_session(
		hashing (get_session_hash)|fn|get_session_hash(
		tracing (call sites, with the library)|fn|emit<
		  trace library alone (bl_*)|fn|:bl_
		address text (dotted)|fn|dotted(
		buffer zeroing (inline prefix)|line|std::memset(buf, 0, RX_READ_LIMIT)
		system call wrapper recvfrom|fn|recvfrom.c:
		system call wrapper sendto|fn|sendto.c:
	EOF
	printf '%-44s %14s %14s %8s  %s\n' "heap allocations (after 1000 / 11000 req)" "$allocs_small / $allocs_large" "-" "-" \
		"no allocation per request: $(verdict "$ok_alloc")"
	printf '%-44s %14s %14s %8s  %s\n' "daemon RSS KiB (start / end of load)" "$rss_start / $rss_end" "-" "-" \
		"anonymous flat over $((sends_end - sends_start)) replies: $(verdict "$ok_rss")"
	printf '%-44s %14s\n' "  of which anonymous KiB (start / end)" "$anon_start / $anon_end"
	printf '%-44s %14s %14s %8s  %s\n' "trace record, fast path (ns)" "$trace_ns" "-" "-" "<= 30 ns: $(verdict "$ok_trace")"
	printf '%-44s %14s %14s %8s  %s\n' "table check per lookup, L1 cold (ns)" "$check_ordered_ns / $check_shuffled_ns" "-" "-" \
		"(bench_rx; recency list in memory order / out of it)"
	echo "trials: $out/trials.txt; sweep: $out/sweep_*.dat; plot: $out/rtt_vs_rate.png; profile: $out/callgrind.txt"
	cat "$work/stall.txt"
} | tee "$out/summary.txt"

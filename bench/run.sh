#!/usr/bin/env bash
# run.sh -- the reflector's benchmark, one command: builds the tree, joins two
# network namespaces with a veth pair, and measures the daemon side by side
# with the bare baseline reflector (bench/baseline.cpp) in the same run:
#
#   1. highest rate with under 0.1% loss, 512 sessions (search per reflector,
#      with the batched load generator)
#   2. replies per second answered when 400,000 requests/s are offered
#      (batched load generator; the rate it achieved is printed)
#   3. round-trip percentiles against offered rate (sweep), and the plot
#   4. CPU time of the reflector process per reply at 50,000 and 100,000
#      requests/s (and, in the same trials, its core's busy time per reply
#      and the p99 round trip at 100,000/s); cycles and instructions per
#      reply from perf stat where the machine has the counters
#   5. user-space instructions per reflected request (callgrind) and where they go
#   6. heap allocations per request (memcheck totals after N and 11 N requests)
#   7. resident memory of the daemon before and after the whole load
#   8. cost of a trace record on the fast path (Google Benchmark)
#   9. cost of the always-on table check per lookup with the L1 cache taken
#      by other work, as the daemon meets it (bench_rx)
#  10. stalls: the receive buffer each reflector got and the request frames
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
# on a virtual machine) meets both alike. Figures of several trials are
# medians, since one trial swings with the host's scheduling.
#
# Two load generators (bench/loadgen.cpp). The paced one sends each request
# with a system call of its own on the session's own UDP socket: smooth
# arrivals, as many independent initiators make them; it drives the sweep,
# the CPU figures and the stalls. The batched one (--batch) writes whole
# frames 32 at a time with sendmmsg on a packet socket and reads the
# replies with recvmmsg on 8 sockets, still one My Discriminator per
# session (the daemon keeps 512 sessions): on our core it pays for nothing
# but the reflector namespace's receive path of the requests (the veth runs
# it on the sending core) and the reading of the replies. Asked for
# 400,000/s it offered 195,000-395,000 requests/s from CPU 0 in our runs,
# the more the fewer other jobs shared that core (the summary prints what
# it achieved), about twice what either reflector answers or more; it
# drives the search and the offered-400,000 figure. Its batches spare a
# reflector most wake-ups, so the rates found lie above what paced arrivals
# allow (at 100,000/s paced the daemon's process is busy 95% of the time).
# In the search a reply that comes over 20 ms after the last request counts
# as lost. The baseline has the daemon's receive queue (7,750 requests
# instead of the kernel's 256) in every part but the stall part.
#
# Why an independent harness (process CPU 8.2 against 5.4 us at 50,000/s,
# 1.5x; highest rate 81k against 113k, 0.72; offered 400,000/s, 214k
# against 396k answered, 0.54) and the earlier version of this script (core
# time 1.22x at 60,000/s; highest rate 0.97-1.08) disagreed. Figures below
# from a full run on a quiet host (5 minutes) and --quick runs while other
# jobs' builds and tests kept both CPUs busy:
#   - CPU per request. That harness divided the CPU time of the reflector
#     PROCESS by its replies; this script divided the busy ticks of the
#     reflector's CORE (/proc/stat). Both include the receive path of each
#     reply into the initiator's socket: the veth runs it in the softirq of
#     the reflector's own sendto, and this kernel (no IRQ time accounting)
#     charges it to the process (perf: net_rx_action under sendto is 32%
#     of the baseline's samples, 24% of the daemon's). What the core figure
#     adds is whatever else the scheduler ran on that core, sampled at the
#     tick, and it swings with the host: core ratio 1.34 and 1.16 in two
#     busy --quick runs whose process ratios were 1.09 and 1.30; 1.18 for
#     both on the quiet host. The process figure (schedstat, every thread,
#     in ns) is the one judged now. It still comes out lower here than
#     there because the common part is larger on this virtual machine: the
#     bare reflector takes 10.85 us a reply at 50,000/s (8.46 at 100,000/s,
#     some 6.4 when saturated), twice that harness's 5.4, for the wake-up
#     of an idle virtual CPU per request, the system calls and the replies'
#     receive path; the daemon's extra, mostly user time (2.60 against 0.27
#     us a reply; 17,900 instructions a request then, 83% of them in the
#     table check, 14,550 and 79% since the check compares heads 16 at a
#     time), weighs less: 12.85 against 10.85 us, 1.18. On a host where
#     the common part costs 5.4 us the same extra gives about 1.4-1.5.
#   - Highest rate. The paced generator was not the limit (it offered
#     175,000/s when asked 180,000/s, more than either reflector carries).
#     Two queue effects were: on a busy host a reflector is now and then
#     kept off its core for milliseconds; the baseline's 256-request queue
#     then overflows at rates it carries easily, and stopped its search
#     early (in a busy --quick run with the batched generator and the
#     default queue it lost 0.5-1.7% at 45,500-56,000/s, where the daemon
#     passed up to 91,700/s); the daemon's 7,750-request queue absorbed
#     overload for the length of a short trial and the backlog, answered in
#     the drain, counted as no loss (with equal queues but no lateness
#     rule, the daemon passed 101,900/s with a median round trip of 7.6 ms,
#     ratio 0.94). With equal queues and the lateness rule the search finds
#     the reflectors' own limits: daemon 129,237/s against the baseline's
#     145,259/s (0.89) on the quiet host, 69,544 against 94,435 (0.74) on a
#     busy one (probably because the other jobs' use of the caches costs
#     the daemon's larger user-space part more).
#   - Offered 400,000/s. That harness's baseline answered 396,000/s, which
#     no core of this machine comes near (152,000-166,000/s on the quiet
#     host); answered here: daemon 120,489 against 155,323 (0.78) on the
#     quiet host, 0.61 and 0.73 in busy --quick runs. The daemon answers
#     less under overload than at its highest clean rate (120,000 against
#     129,000), the baseline more (155,000 against 145,000).
#
#   reflector namespace orvbench-r-PID   vr0 192.0.2.1/24  (the daemon)
#        | veth
#   initiator namespace orvbench-i-PID   vi0 192.0.2.2/24  (bench/loadgen)
#
#   reflector namespace orvbench-rb-PID  vr0 192.0.2.1/24  (bench/baseline)
#        | veth
#   initiator namespace orvbench-ib-PID  vi0 192.0.2.2/24  (bench/loadgen)
#
# Usage: bench/run.sh [--quick] [--stall-only] [--repeat N]   (as root;
# BUILD_DIR chooses the build, default build-bench/; results go to
# bench/results/). With --stall-only, part 10 alone runs and replaces only
# its own block of summary.txt. With --repeat N, the whole benchmark runs N
# times (each run's summary kept as summary.1.txt ... summary.N.txt, its
# key figures as figures.N.txt) and a table of the key figures' medians and
# ranges follows (repeat.txt). One full run takes about 5 minutes on a
# 2-CPU virtual machine, --quick about 2.5.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
. "$top/scripts/netns-pair.sh"
build=${BUILD_DIR:-$top/build-bench}
bin=$build/bin
out=$top/bench/results
quick=0
stall_only=0
repeat=0
usage() { echo "usage: run.sh [--quick] [--stall-only] [--repeat N]" >&2; exit 2; }
while [ $# -gt 0 ]; do
	case $1 in
	--quick) quick=1 ;;
	--stall-only) stall_only=1 ;;
	--repeat) [ $# -ge 2 ] && [[ $2 =~ ^[1-9][0-9]*$ ]] || usage; repeat=$2; shift ;;
	*) usage ;;
	esac
	shift
done

if [ "$(id -u)" -ne 0 ]; then
	echo "run.sh: needs root (network namespaces, packet sockets)" >&2
	exit 1
fi

# --repeat N: N whole runs, each its own process (namespaces, reflectors
# and all), then the medians and ranges of the key figures.
if [ "$repeat" -gt 0 ]; then
	[ $stall_only = 0 ] || usage
	mkdir -p "$out"
	rm -f "$out"/summary.[0-9]*.txt "$out"/figures.[0-9]*.txt
	for i in $(seq "$repeat"); do
		echo "== run $i of $repeat"
		if [ $quick = 1 ]; then "$0" --quick; else "$0"; fi
		cp "$out/summary.txt" "$out/summary.$i.txt"
		cp "$out/figures.txt" "$out/figures.$i.txt"
	done
	# Each figures file: one "key value" line per figure, "-" when missing.
	{
		echo
		echo "orvalindwarden benchmark, $repeat runs$([ $quick = 1 ] && echo " (--quick)"): median and range of the key figures"
		printf '%-52s %10s %22s  %s\n' figure median range target
		while IFS='|' read -r key label target; do
			cat "$out"/figures.[0-9]*.txt | awk -v k="$key" '$1 == k && $2 != "-" { print $2 }' | sort -g |
				awk -v l="$label" -v t="$target" '{ v[NR] = $1 }
					END { if (NR == 0) printf "%-52s %10s %22s  %s\n", l, "-", "-", t
					      else printf "%-52s %10s %22s  %s\n", l, v[int((NR + 1) / 2)], v[1] " - " v[NR] " (" NR ")", t }'
		done <<-'EOF'
			rate_ratio|highest rate under 0.1% loss, daemon / baseline|>= 0.9
			rate_daemon|  daemon (req/s)|
			rate_baseline|  baseline (req/s)|
			cpu50_ratio|process CPU per reply at 50000/s, daemon / baseline|<= 1.3
			cpu50_daemon|  daemon (us)|
			cpu50_baseline|  baseline (us)|
			cpu100_ratio|process CPU per reply at 100000/s, daemon / baseline|
			answered400_ratio|offered 400000/s: answered, daemon / baseline|>= 0.7
			answered400_daemon|  daemon (replies/s)|
			answered400_baseline|  baseline (replies/s)|
			offered400|  offered by the batched generator (req/s)|
			stall_down|stop 50 ms/s at 100000/s: daemon sessions 3 lost|0
			ir_per_req|user-space instructions per request (daemon)|<= 8000
		EOF
	} | tee "$out/repeat.txt"
	exit 0
fi
bash "$top/scripts/deps.sh"
bash "$top/scripts/build.sh" "$build" >/dev/null
mkdir -p "$out"

run_setup orvbench
disc=7
sessions=512
shm=/dev/shm/orvalindwarden-orvbench-$$
trial_s=3
search_s=2      # a search trial: 0.1% of 2 s at 100000/s is 200 requests
cost_trials=3   # trials per reflector and rate of the CPU figures
[ $quick = 1 ] && trial_s=1.5 && search_s=1
batch=32        # requests per sendmmsg of the batched generator
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
# The batched generator writes whole frames: to each reflector's vr0.
declare -A mac_of
for kind in daemon baseline; do
	mac_of[$kind]=$(ip -n "${ns_r_of[$kind]}" -br link show vr0 | awk '{ print $3 }')
done

# start_reflector daemon|baseline [wrapper...]: the baseline with the
# receive buffer $baseline_rcvbuf when set, else the kernel's default.
baseline_rcvbuf=
start_reflector() {
	local kind=$1
	shift
	if [ "$kind" = daemon ]; then
		BREVLOG_DIR=$work NSPATH=/orvbench-$$ ip netns exec "$ns_r" "${pin_r[@]}" "$@" \
			"$bin/orvalindwarden" -d "$disc" -p "$addr_r" -r 3300 >"$work/$kind.log" 2>&1 &
	else
		ip netns exec "$ns_rb" "${pin_r[@]}" "$@" "$bin/baseline" "$addr_r" "$disc" $baseline_rcvbuf \
			>"$work/$kind.log" 2>&1 &
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
# (the paced generator); btrial the same with the batched one.
trial() {
	ip netns exec "${ns_i_of[$1]}" "${pin_i[@]}" "$bin/loadgen" --target $addr_r --source $addr_i --your-disc $disc \
		--sessions $sessions --rate "$2" --duration "${3:-$trial_s}" "${@:4}"
}
btrial() { trial "$1" "$2" "${3:-$trial_s}" --batch $batch --dst-mac "${mac_of[$1]}" "${@:4}"; }
field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p"; }
# A trial passes with under 0.1% of the requests lost or answered late (over
# 20 ms after the last was sent: a reflector that fell behind the rate and
# hid its backlog in a deep queue), no wrong reply, and the rate asked
# offered (a generator that fell behind says nothing of the reflector).
passes() { awk -v s="$(echo "$1" | field sent)" -v l="$(echo "$1" | field lost)" -v late="$(echo "$1" | field late)" \
	-v w="$(echo "$1" | field wrong)" -v o="$(echo "$1" | field offered)" -v r="$(echo "$1" | field rate)" \
	'BEGIN { exit !(s > 0 && (l + late) < 0.001 * s && w == 0 && o >= 0.97 * r) }'; }

# search_both START_BASELINE START_DAEMON: the highest passing rate of each
# reflector with the batched generator ("BASELINE DAEMON"). Per reflector,
# rates grow by 1/8 from its start until a rate fails twice, then the gap is
# halved four times; every passing rate is remembered. The two searches
# take turns trial by trial, so that a change in the host's load meets both.
search_both() {
	local -A lo=([baseline]=0 [daemon]=0) hi=([baseline]=0 [daemon]=0) \
		rate=([baseline]=$1 [daemon]=$2) halved=([baseline]=0 [daemon]=0)
	local kind line ok busy=1
	while [ $busy = 1 ]; do
		busy=0
		for kind in baseline daemon; do
			[ "${halved[$kind]}" -ge 4 ] && continue
			busy=1
			line=$(btrial $kind ${rate[$kind]} $search_s)
			echo "$kind search $line" >>"$out/trials.txt"
			ok=0
			if passes "$line"; then
				ok=1
			elif [ "${hi[$kind]}" = 0 ]; then  # growing: a failure counts when repeated
				line=$(btrial $kind ${rate[$kind]} $search_s)
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

# cost_trial KIND RATE [perf]: one paced trial at RATE with the reflector's
# CPU time read around it; prints "proc core core_user p99 replies", the
# first three in microseconds per reply. proc: CPU time of the reflector
# process, every thread (schedstat's first field, in ns, as the scheduler
# counts it). It includes the softirq work the kernel runs inside the process's
# system calls: here the receive path of each reply into the initiator's
# socket, which the veth runs within the reflector's sendto (this kernel
# has no separate interrupt time accounting). core: busy time of the
# reflector's core in clock ticks (user, system, interrupt and softirq
# time), that is also the wake-ups of the idle core and whatever else the
# scheduler ran there; core_user: its user time alone. With "perf", perf
# stat counts the process's cycles and instructions over the trial into
# $work/perf.KIND.
proc_ns() { cat /proc/"$1"/task/*/schedstat | awk '{ s += $1 } END { printf "%.0f\n", s }'; }
core_ticks() { awk -v c="cpu$(($(nproc) - 1))" '$1 == c { print $2 + $3 + $4 + $7 + $8, $2 + $3 }' /proc/stat; }
cost_trial() {
	local kind=$1 pid=${pid_of[$1]} p0 p1 t0 t1 line perf_pid=
	if [ "${3:-}" = perf ]; then
		# The process sleeps outside the trial: a longer count adds nothing.
		perf stat -x, -e cycles,instructions -p "$pid" -o "$work/perf.$kind" -- sleep "$(echo "$trial_s + 1" | bc)" \
			>/dev/null 2>&1 &
		perf_pid=$!
		sleep 0.2
	fi
	p0=$(proc_ns "$pid")
	t0=$(core_ticks)
	line=$(trial "$kind" "$2")
	t1=$(core_ticks)
	p1=$(proc_ns "$pid")
	[ -z "$perf_pid" ] || wait "$perf_pid" || true
	echo "$kind cost $line" >>"$out/trials.txt"
	echo "$t0 $t1" | awk -v hz="$(getconf CLK_TCK)" -v n="$(echo "$line" | field received)" -v p="$((p1 - p0))" \
		-v q="$(echo "$line" | field p99_us)" '{ if (n > 0) printf "%.2f %.2f %.2f %s %d\n", p / n / 1e3,
			($3 - $1) / hz / n * 1e6, ($4 - $2) / hz / n * 1e6, q, n; else print "- - - - 0" }'
}

# median FILE [COLUMN]: "median range" of the numbers in COLUMN (1) of FILE.
median() { awk -v c="${2:-1}" '{ print $c }' "$1" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)], v[1] "-" v[NR] }'; }

# perf_figures KIND REPLIES: "cycles instructions" per reply from perf.KIND
# and the replies of its trial, or "-" when the counters are missing.
perf_figures() {
	awk -F, -v n="$2" '$3 ~ /^cycles/ { c = $1 } $3 ~ /^instructions/ { i = $1 }
		END { if (c ~ /^[0-9]+$/ && i ~ /^[0-9]+$/ && n > 0) printf "%.0f %.0f\n", c / n, i / n; else print "-" }' \
		"$work/perf.$1" 2>/dev/null || echo -
}

# rcvbuf_of KIND: the receive buffer the kernel granted the reflector's
# packet socket (ss: rb, bytes; the packet sockets of the daemon alike).
rcvbuf_of() {
	ip netns exec "${ns_r_of[$1]}" ss -f link -m -p |
		sed -n "s/.*pid=${pid_of[$1]},.*skmem:(.*,rb\([0-9]*\),.*/\1/p" | head -n 1
}

# stall_part: part 10, both reflectors running; its block of the summary
# into $work/stall.txt, its trials into stall_trials.txt. The load
# generator stops and continues the reflector itself, timed by its own
# pacing loop; stall_max_ms in each trial is the longest stop as it sent
# the signals (longer than asked when the host kept it from running). The
# cases are MS@RATE: stops of MS ms once a second at RATE requests/s; the
# last, at $carry_rate requests/s (which both reflectors carry), shows the
# queue apart from the reflector's capacity.
stall_rate=100000
carry_rate=60000
stall_cases="10@$stall_rate 20@$stall_rate 50@$stall_rate 50@$carry_rate"
stall_target=50@$stall_rate
stall_s=10
[ $quick = 1 ] && stall_s=3
stall_part() {
	local kind c line
	local -A rb held
	: >"$out/stall_trials.txt"
	for kind in baseline daemon; do
		# The receive buffer the kernel granted (ss: rb, both packet sockets alike).
		rb[$kind]=$(rcvbuf_of $kind)
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
			elif [ "${c#*@}" = "$carry_rate" ]; then
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

echo "== both reflectors: offered 400000/s, search, sweep, CPU per reply"
# The baseline gets the daemon's receive queue for these parts: on a busy
# host a reflector is now and then kept from its core for milliseconds,
# and with the default queue (256 requests) the baseline then loses
# requests at a rate it carries easily; the search would find the queue's
# limit, not its speed. The stall part gives it the default queue again.
start_reflector daemon
baseline_rcvbuf=$(($(rcvbuf_of daemon) / 2))  # as setsockopt takes it: the kernel doubles it
start_reflector baseline
trial baseline 5000 1 >/dev/null
trial daemon 5000 1 >/dev/null  # every session created: from here on lookups hit
# Every trace ring wrapped at least once (a request writes about 300 bytes
# of records into the 1 MiB rings of levels 2 to 4): the mapped trace file
# is then wholly resident and resident memory shows growth only.
trial daemon 20000 1 >/dev/null
rss_start=$(rss_kib "${pid_of[daemon]}")
anon_start=$(anon_kib "${pid_of[daemon]}")
sends_start=$(shm_u64 8)
declare -A answered answered_range offered cpu50 cpu50_range cpu100 cpu100_range core50 core50_user p99 p99_range perf_of
# Offered 400000 requests/s (batched): replies/s that came within the
# sending time, and the rate the generator achieved; three trials each.
over_rate=400000
for _ in 1 2 3; do
	for kind in baseline daemon; do
		line=$(btrial $kind $over_rate)
		echo "$kind over $line" >>"$out/trials.txt"
		echo "$(echo "$line" | field answered) $(echo "$line" | field offered)" >>"$work/over.$kind"
	done
done
for kind in baseline daemon; do
	read -r "answered[$kind]" "answered_range[$kind]" < <(median "$work/over.$kind")
	read -r "offered[$kind]" _ < <(median "$work/over.$kind" 2)
done
# The search starts from half of what each reflector answered under overload.
read -r base_max daemon_max < <(search_both $(for kind in baseline daemon; do
	awk -v a="${answered[$kind]}" 'BEGIN { s = int(a / 2000) * 1000; print (s > 20000 ? s : 20000) }'; done))
sweep
# CPU per reply at 50000 and 100000 requests/s, paced: $cost_trials trials
# each, taking turns; perf stat on the first at 100000.
for rate in 50000 100000; do
	for i in $(seq "$cost_trials"); do
		for kind in baseline daemon; do
			if [ $rate = 100000 ] && [ "$i" = 1 ]; then
				cost_trial $kind $rate perf >"$work/perf_trial.$kind"
				cat "$work/perf_trial.$kind" >>"$work/cost.$kind.$rate"
			else
				cost_trial $kind $rate >>"$work/cost.$kind.$rate"
			fi
		done
	done
done
for kind in baseline daemon; do
	read -r "cpu50[$kind]" "cpu50_range[$kind]" < <(median "$work/cost.$kind.50000")
	read -r "cpu100[$kind]" "cpu100_range[$kind]" < <(median "$work/cost.$kind.100000")
	read -r "core50[$kind]" _ < <(median "$work/cost.$kind.50000" 2)
	read -r "core50_user[$kind]" _ < <(median "$work/cost.$kind.50000" 3)
	read -r "p99[$kind]" "p99_range[$kind]" < <(median "$work/cost.$kind.100000" 4)
	perf_of[$kind]=$(perf_figures $kind "$(awk '{ print $5 }' "$work/perf_trial.$kind")")
done
rss_end=$(rss_kib "${pid_of[daemon]}")
anon_end=$(anon_kib "${pid_of[daemon]}")
sends_end=$(shm_u64 8)
echo "== stalls"
stop_reflector baseline
baseline_rcvbuf=
start_reflector baseline
trial baseline 5000 1 >/dev/null
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
ok_over=$(awk -v d="${answered[daemon]}" -v b="${answered[baseline]}" 'BEGIN { print (b > 0 && d >= 0.7 * b) }')
ok_cpu=$(awk -v d="${cpu50[daemon]}" -v b="${cpu50[baseline]}" 'BEGIN { print (b > 0 && d <= 1.3 * b) }')
ir_req=$(per_req "$ir_total")
ok_ir=$(awk -v n="$ir_req" 'BEGIN { print (n > 0 && n <= 8000) }')
ok_alloc=$(awk -v a="$allocs_small" -v b="$allocs_large" 'BEGIN { print (a != "" && a == b) }')
ok_trace=$(awk -v t="$trace_ns" 'BEGIN { print (t != "" && t <= 30) }')
# The mapped trace file becomes resident as its rings fill (levels 1 and 5
# fill slowly); anonymous memory must not move.
ok_rss=$(awk -v a="$anon_start" -v b="$anon_end" 'BEGIN { print (b <= a + 64) }')
if [ "${perf_of[daemon]}${perf_of[baseline]}" = -- ]; then
	perf_note="not supported on this machine (perf stat: <not supported> cycles, instructions)"
else
	perf_note="(perf stat on one trial at 100000 req/s: cycles / instructions)"
fi

# The key figures, one "key value" a line, for --repeat.
{
	echo "rate_ratio $(ratio "$daemon_max" "$base_max")"
	echo "rate_daemon $daemon_max"
	echo "rate_baseline $base_max"
	echo "cpu50_ratio $(ratio "${cpu50[daemon]}" "${cpu50[baseline]}")"
	echo "cpu50_daemon ${cpu50[daemon]}"
	echo "cpu50_baseline ${cpu50[baseline]}"
	echo "cpu100_ratio $(ratio "${cpu100[daemon]}" "${cpu100[baseline]}")"
	echo "answered400_ratio $(ratio "${answered[daemon]}" "${answered[baseline]}")"
	echo "answered400_daemon ${answered[daemon]}"
	echo "answered400_baseline ${answered[baseline]}"
	echo "offered400 $(awk -v a="${offered[daemon]}" -v b="${offered[baseline]}" 'BEGIN { print (a < b ? a : b) }')"
	echo "stall_down $(field sessions_down <"$work/stall$stall_target.daemon")"
	echo "ir_per_req $ir_req"
} | sed 's/ $/ -/; s/ n\/a$/ -/' >"$out/figures.txt"

row() { printf '%-44s %14s %14s %8s  %s\n' "$@"; }
{
	echo
	echo "orvalindwarden benchmark, $(date -u +%Y-%m-%dT%H:%MZ), $(nproc) CPUs, $(uname -r), $sessions sessions, all trace levels on"
	row figure daemon baseline ratio "target: verdict"
	row "highest rate with loss < 0.1% (req/s)" "$daemon_max" "$base_max" "$(ratio "$daemon_max" "$base_max")" \
		">= 0.9 x baseline (and >= 155000 where baseline >= 186000): $(verdict "$ok_rate")"
	row "  (batched generator, ${search_s} s trials; a reply over 20 ms after the last request counts as lost)"
	row "offered $over_rate req/s: replies/s answered" "${answered[daemon]}" "${answered[baseline]}" \
		"$(ratio "${answered[daemon]}" "${answered[baseline]}")" ">= 0.7 x baseline: $(verdict "$ok_over")"
	row "  median of 3 trials; their range" "${answered_range[daemon]}" "${answered_range[baseline]}"
	row "  rate the generator offered (req/s)" "${offered[daemon]}" "${offered[baseline]}" - "(batched, from CPU 0)"
	row "process CPU per reply at 50000 req/s (us)" "${cpu50[daemon]}" "${cpu50[baseline]}" \
		"$(ratio "${cpu50[daemon]}" "${cpu50[baseline]}")" "<= 1.3 x baseline: $(verdict "$ok_cpu")"
	row "  median of $cost_trials trials; their range" "${cpu50_range[daemon]}" "${cpu50_range[baseline]}" - \
		"(schedstat of the process; with the replies' receive path)"
	row "process CPU per reply at 100000 req/s (us)" "${cpu100[daemon]}" "${cpu100[baseline]}" \
		"$(ratio "${cpu100[daemon]}" "${cpu100[baseline]}")" "(reported)"
	row "  median of $cost_trials trials; their range" "${cpu100_range[daemon]}" "${cpu100_range[baseline]}"
	row "reflector core busy time per reply (us)" "${core50[daemon]}" "${core50[baseline]}" \
		"$(ratio "${core50[daemon]}" "${core50[baseline]}")" "(reported: at 50000 req/s, every task and interrupt on its core)"
	row "  of which user time (us)" "${core50_user[daemon]}" "${core50_user[baseline]}"
	row "cycles / instructions per reply" "$(echo "${perf_of[daemon]}" | tr ' ' /)" \
		"$(echo "${perf_of[baseline]}" | tr ' ' /)" - "$perf_note"
	row "p99 round trip at 100000 req/s (us)" "${p99[daemon]}" "${p99[baseline]}" "$(ratio "${p99[daemon]}" "${p99[baseline]}")" \
		"(reported; paced generator)"
	row "  median of $cost_trials trials; their range" "${p99_range[daemon]}" "${p99_range[baseline]}"
	row "user-space instructions per request" "$ir_req" - - \
		"<= 8000: $(verdict "$ok_ir") (callgrind, $cg_received requests, inside rx_data_ready)"
	while IFS='|' read -r label how what; do
		if [ "$how" = line ]; then n=$(ir_line "$what"); else n=$(ir_of "$what"); fi
		row "  $label" "$(per_req "$n")" "" "" \
			"$(awk -v n="$n" -v t="$ir_total" 'BEGIN { if (t > 0) printf "(%.0f%% of the total)", 100 * n / t }')"
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
	row "heap allocations (after 1000 / 11000 req)" "$allocs_small / $allocs_large" - - \
		"no allocation per request: $(verdict "$ok_alloc")"
	row "daemon RSS KiB (start / end of load)" "$rss_start / $rss_end" - - \
		"anonymous flat over $((sends_end - sends_start)) replies: $(verdict "$ok_rss")"
	row "  of which anonymous KiB (start / end)" "$anon_start / $anon_end"
	row "trace record, fast path (ns)" "$trace_ns" - - "<= 30 ns: $(verdict "$ok_trace")"
	row "table check per lookup, L1 cold (ns)" "$check_ordered_ns / $check_shuffled_ns" - - \
		"(bench_rx; recency list in memory order / out of it)"
	echo "trials: $out/trials.txt; sweep: $out/sweep_*.dat; plot: $out/rtt_vs_rate.png; profile: $out/callgrind.txt"
	cat "$work/stall.txt"
} | sed 's/ *$//' | tee "$out/summary.txt"

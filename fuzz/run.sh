#!/usr/bin/env bash
# run.sh -- builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer on every library) and runs each for a bounded
# time from its starting corpus in fuzz/corpus/<target>/.
#
#   fuzz/run.sh --ci            every target for 45 s (the test run's step)
#   fuzz/run.sh [-t SECONDS] [TARGET...]   longer runs (default 600 s each)
#
# New inputs go to a scratch corpus, not into the repository; a crash leaves
# its input in $FUZZ_BUILD_DIR/artifacts/<target>/ and makes the run fail.
# Turn such an input into a case of tests/fuzz_regress_test.cpp.
# The frame and control-channel targets need root (a private network namespace).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$top/build-fuzz}
seconds=600
targets=()
while (($#)); do
	case $1 in
	--ci) seconds=45 ;;
	-t) seconds=$2; shift ;;
	*) targets+=("$1") ;;
	esac
	shift
done
((${#targets[@]})) || targets=(fuzz_frame fuzz_netlink fuzz_blreader fuzz_shmstat fuzz_runstate)

if [ ! -f "$build/build.ninja" ]; then
	san="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
	cmake -S "$top" -B "$build" -G Ninja -DORV_FUZZ=ON -DORV_WERROR=ON -DORV_TESTS=OFF -DORV_BENCH=OFF \
		-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		"-DCMAKE_C_FLAGS=$san" "-DCMAKE_CXX_FLAGS=$san" >/dev/null
fi
cmake --build "$build" --target "${targets[@]}"

scratch=$(mktemp -d "/tmp/orvfuzz-corpus-$$-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
status=0
for t in "${targets[@]}"; do
	mkdir -p "$scratch/$t" "$build/artifacts/$t"
	cp "$top/fuzz/corpus/$t/"* "$scratch/$t/" 2>/dev/null || true
	echo "== $t: ${seconds}s"
	if ! ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
		"$build/bin/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=70000 \
		-print_final_stats=1 -artifact_prefix="$build/artifacts/$t/" "$scratch/$t" 2>"$scratch/$t.log"; then
		status=1
		echo "$t: FAILED; input kept in $build/artifacts/$t/" >&2
		tail -40 "$scratch/$t.log" >&2
	else
		grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$scratch/$t.log" | tr '\n' ' '
		echo
	fi
done
exit $status

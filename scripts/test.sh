#!/usr/bin/env bash
# test.sh -- the project's whole test run: installs the dependencies, builds,
# runs every test under CTest, then runs the unit tests again in a build with
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
bash scripts/deps.sh

jobs=$(nproc)
bash scripts/build.sh "$top/build"
ctest --test-dir "$top/build" --output-on-failure -j "$jobs" --timeout 600

bash scripts/build.sh "$top/build-asan" -DORV_SANITIZE=ON -DORV_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
	ctest --test-dir "$top/build-asan" --output-on-failure -j "$jobs" -L unit --timeout 600

# Each fuzz target for a bounded time from its starting corpus, in a clang
# build of its own (fuzz/run.sh; longer runs: fuzz/run.sh -t SECONDS).
bash fuzz/run.sh --ci

#!/usr/bin/env bash
# build.sh [DIR [cmake options...]] -- configures (once) and builds the tree
# into DIR (default build/), binaries in DIR/bin.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$top/build}
shift || true
if [ ! -f "$dir/build.ninja" ]; then
	cmake -S "$top" -B "$dir" -G Ninja -DORV_WERROR=ON "$@"
fi
cmake --build "$dir"

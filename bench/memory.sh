#!/usr/bin/env bash
# The driver's memory figures, printed as Markdown tables: the plug-in's
# resident cost once loaded, heap bytes per queued entry, and heap in use over
# a long in-process run (1,000,000 exchanges by default, 1% of the replies
# dropped, writes and one-shot reads mixed in).
#
#   bash bench/memory.sh [EXCHANGES]
#
# Builds the programs in the optimised benchmark build (build/bench).
# Environment: ABCL_BENCH_DIR, ABCL_JOBS, ABCL_SKIP_INSTALL as for
# bench/instructions.sh. The latest output: docs/performance.md.
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ABCL_BENCH_DIR:-$repo_root/build/bench}
jobs=${ABCL_JOBS:-2}
exchanges=${1:-1000000}

source "$repo_root/scripts/packages.sh"
if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    abcl_ensure_packages memory.sh cmake make g++ pkg-config qtbase5-dev libbenchmark-dev || exit 1
fi

cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DABCL_SANITIZE= \
    -DABCL_BUILD_BENCH=ON -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_TOOLS=OFF \
    -DABCL_BUILD_FUZZ=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs" --target memory memory_resident >/dev/null

echo "### Resident"
"$build_dir/bench/memory_resident" "$build_dir/driver/libAB_ControlLogix_CompactLogix.so"
echo
echo "### Heap per queued entry"
"$build_dir/bench/memory" entries
echo
echo "### Heap over $exchanges exchanges"
"$build_dir/bench/memory" soak "$exchanges"
echo
echo "($(uname -m), $(g++ --version | head -1), Qt $(pkg-config --modversion Qt5Core))"

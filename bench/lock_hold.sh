#!/usr/bin/env bash
# How long a list entry point called with a hostile record can keep the
# communication thread waiting for the list lock, as one Markdown table.
#
#   bash bench/lock_hold.sh [REPEATS]     # each case this often (default 3), longest kept
#
# Builds `lock_hold` in the optimised benchmark build (build/bench).
# Environment: ABCL_BENCH_DIR, ABCL_JOBS, ABCL_SKIP_INSTALL as for
# bench/instructions.sh. The latest output: docs/reliability.md.
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ABCL_BENCH_DIR:-$repo_root/build/bench}
jobs=${ABCL_JOBS:-2}

source "$repo_root/scripts/packages.sh"
if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    abcl_ensure_packages lock_hold.sh cmake make g++ pkg-config qtbase5-dev libbenchmark-dev || exit 1
fi
cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DABCL_SANITIZE= \
    -DABCL_BUILD_BENCH=ON -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_TOOLS=OFF \
    -DABCL_BUILD_FUZZ=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs" --target lock_hold >/dev/null
"$build_dir/bench/lock_hold" "${1:-3}"
echo
echo "($(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), load average $(cut -d' ' -f1 /proc/loadavg))"

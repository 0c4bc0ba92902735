#!/usr/bin/env bash
# Builds the benchmark programs in an optimised build of their own and runs
# them one after the other.
#
#   bash scripts/bench.sh [Google Benchmark options...]
#
# The options go to every program, for example
#   bash scripts/bench.sh --benchmark_filter=Exchange
#   bash scripts/bench.sh --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#
# Environment:
#   ABCL_BENCH_DIR     build directory (default build/bench)
#   ABCL_JOBS          parallel compile jobs (default 2)
#   ABCL_BENCH_JSON    a directory: each program also writes its results there
#                      as <program>.json
#   ABCL_SKIP_INSTALL  1 to skip the package check
#
# What the numbers mean, and figures from one machine: docs/performance.md.
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ABCL_BENCH_DIR:-$repo_root/build/bench}
jobs=${ABCL_JOBS:-2}
programs=(bench_read_list bench_frames bench_exchange)

source "$repo_root/scripts/packages.sh"

if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    abcl_ensure_packages bench.sh cmake make g++ pkg-config qtbase5-dev libbenchmark-dev || exit 1
fi

cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DABCL_SANITIZE= \
    -DABCL_BUILD_BENCH=ON -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_TOOLS=OFF -DABCL_BUILD_FUZZ=OFF
cmake --build "$build_dir" -j "$jobs" --target "${programs[@]}"

if [[ -n ${ABCL_BENCH_JSON:-} ]]; then
    mkdir -p "$ABCL_BENCH_JSON"
fi

echo "CPU: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(nproc) cores"
status=0
for program in "${programs[@]}"; do
    printf '\n======== %s ========\n' "$program"
    out=()
    if [[ -n ${ABCL_BENCH_JSON:-} ]]; then
        out=(--benchmark_out="$ABCL_BENCH_JSON/$program.json" --benchmark_out_format=json)
    fi
    "$build_dir/bench/$program" "${out[@]}" "$@" || status=1
done
exit $status

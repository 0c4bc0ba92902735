#!/usr/bin/env bash
# Instructions and heap calls per operation of the driver's hot paths, counted
# by callgrind (instructions are repeatable whatever else the machine does),
# printed as one Markdown table.
#
#   bash bench/instructions.sh [ITERATIONS]     # default 200 per operation
#
# Builds the `instructions` program in the optimised benchmark build
# (build/bench, as scripts/bench.sh does), then runs every operation under
# `valgrind --tool=callgrind --collect-atstart=no`: the program switches
# collection on only around its measured iterations, after a warm-up, so the
# set-up and the first calls (which allocate the lists) are not counted.
#
# Environment:
#   ABCL_BENCH_DIR     build directory (default build/bench)
#   ABCL_JOBS          parallel compile jobs (default 2)
#   ABCL_SKIP_INSTALL  1 to skip the package check
#
# Exits non-zero when an operation misses its target (the table says which).
# The latest output: docs/performance.md.
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ABCL_BENCH_DIR:-$repo_root/build/bench}
jobs=${ABCL_JOBS:-2}
iterations=${1:-200}
operations=(cyclic_read_32 write_int_10 rebuild_10000 set_one_word get_100_words)
# What each operation may cost: instructions per call, and heap calls per call
# where one is set.
declare -A most_instructions=([cyclic_read_32]=5000 [write_int_10]=5000
    [rebuild_10000]=8000000 [set_one_word]=800 [get_100_words]=1500)
declare -A most_heap_calls=([cyclic_read_32]=2)

source "$repo_root/scripts/packages.sh"
if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    abcl_ensure_packages instructions.sh cmake make g++ pkg-config qtbase5-dev \
        libbenchmark-dev valgrind || exit 1
fi

cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DABCL_SANITIZE= \
    -DABCL_BUILD_BENCH=ON -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_TOOLS=OFF \
    -DABCL_BUILD_FUZZ=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs" --target instructions >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

field() { sed -n "s/^$1 //p" "$2"; }
status=0

echo "| operation | instructions per call | per unit | heap calls per call | target | met |"
echo "|---|---:|---:|---:|---|---|"
for op in "${operations[@]}"; do
    valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$work/$op.cg" \
        "$build_dir/bench/instructions" "$op" "$iterations" >"$work/$op.txt" 2>"$work/$op.err" || {
        echo "instructions.sh: $op failed:" >&2
        cat "$work/$op.txt" "$work/$op.err" >&2
        exit 1
    }
    total=$(sed -n 's/^totals: //p' "$work/$op.cg")
    units=$(field units "$work/$op.txt")
    heap=$(field heap_calls_per_iteration "$work/$op.txt")
    description=$(field description "$work/$op.txt")
    per_call=$((total / iterations))
    if ((units > 1)); then per_unit=$((per_call / units)); else per_unit=; fi
    target="≤ ${most_instructions[$op]}"
    met=yes
    ((per_call <= most_instructions[$op])) || met=no
    if [[ -n ${most_heap_calls[$op]:-} ]]; then
        target+=", ≤ ${most_heap_calls[$op]} heap calls"
        awk -v h="$heap" -v m="${most_heap_calls[$op]}" 'BEGIN { exit !(h <= m) }' || met=no
    fi
    [[ $met == yes ]] || status=1
    printf '| %s | %d | %s | %s | %s | %s |\n' "$description" "$per_call" "$per_unit" "$heap" \
        "$target" "$met"
done
echo
echo "($iterations iterations each after a warm-up; $(valgrind --version), $(g++ --version | head -1))"
exit $status

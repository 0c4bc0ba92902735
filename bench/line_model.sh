#!/usr/bin/env bash
# How close hostsim gets to the serial line's ceiling over a pseudo-terminal
# whose ends pace their bytes like a real line, printed as one Markdown table.
#
#   bash bench/line_model.sh [SECONDS]     # measured stretch per cell, default 5
#
# For 19,200 and 115,200 baud, a controller turnaround t of 0 and 5 ms, and
# two controllers (plcsim on its own pseudo-terminal, and hostsim's built-in
# simulator), hostsim reads ten words of N7 cyclically: 94 characters per
# exchange (a 45-byte request and a 49-byte reply, each opening with DLE ACK).
# The ceiling is 1 / (94 x 10 / baud + t) exchanges per second. Each cell runs
# hostsim twice, for N1 and N2 exchanges, and takes (N2 - N1) over the
# difference of the two wall-clock times, so that loading the plug-in and
# starting the simulator cancel out.
#
# Environment: ABCL_LINE_BUILD (default build/line-model, a Release build of
# the tools), ABCL_JOBS (default 2), ABCL_SKIP_INSTALL as for the other
# scripts. The latest output: docs/performance.md.
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir=${ABCL_LINE_BUILD:-$repo_root/build/line-model}
jobs=${ABCL_JOBS:-2}
seconds=${1:-5}
characters=94
least_ratio=0.97

source "$repo_root/scripts/packages.sh"
if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    abcl_ensure_packages line_model.sh cmake make g++ pkg-config qtbase5-dev || exit 1
fi
cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DABCL_SANITIZE= \
    -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs" --target hostsim plcsim_program AB_ControlLogix_CompactLogix >/dev/null
hostsim=$build_dir/tools/hostsim/hostsim
plcsim=$build_dir/tools/plcsim/plcsim

work=$(mktemp -d)
plcsim_pid=
cleanup() {
    [[ -n $plcsim_pid ]] && kill "$plcsim_pid" 2>/dev/null && wait "$plcsim_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

now_ns() { date +%s%N; }

# Wall-clock nanoseconds of one hostsim run of $1 exchanges; the rest of the
# arguments go to hostsim.
run_ns() {
    local exchanges=$1 start
    shift
    start=$(now_ns)
    "$hostsim" --plain --tag "N7:0 x10" --exchanges "$exchanges" "$@" >"$work/out" 2>&1 || {
        echo "line_model.sh: hostsim failed:" >&2
        cat "$work/out" >&2
        exit 1
    }
    grep -q "failures 0 " "$work/out" || {
        echo "line_model.sh: exchanges failed:" >&2
        tail -3 "$work/out" >&2
        exit 1
    }
    echo $(($(now_ns) - start))
}

# Starts plcsim on a new pseudo-terminal; its path goes to $plcsim_path.
start_plcsim() {
    local baud=$1 turnaround=$2
    "$plcsim" --print-path --quiet --no-live --baud "$baud" --turnaround "$turnaround" \
        >"$work/plcsim.out" 2>&1 &
    plcsim_pid=$!
    for _ in $(seq 100); do
        plcsim_path=$(head -1 "$work/plcsim.out" 2>/dev/null || true)
        [[ -n $plcsim_path ]] && return 0
        sleep 0.05
    done
    echo "line_model.sh: plcsim did not start" >&2
    exit 1
}

stop_plcsim() {
    kill "$plcsim_pid" 2>/dev/null && wait "$plcsim_pid" 2>/dev/null || true
    plcsim_pid=
}

status=0
echo "| controller | baud | t (ms) | measured (exchanges/s) | ceiling (exchanges/s) | ratio |"
echo "|---|---:|---:|---:|---:|---:|"
for controller in plcsim built-in; do
    for baud in 19200 115200; do
        for turnaround in 0 5; do
            ceiling=$(awk -v b="$baud" -v t="$turnaround" -v c="$characters" \
                'BEGIN { printf "%.2f", 1 / (c * 10 / b + t / 1000) }')
            measured_exchanges=$(awk -v r="$ceiling" -v s="$seconds" 'BEGIN { printf "%d", r * s }')
            first=$((measured_exchanges / 5 + 10))
            args=(--baud "$baud")
            if [[ $controller == plcsim ]]; then
                start_plcsim "$baud" "$turnaround"
                args+=(--port "$plcsim_path")
            else
                args+=(--sim-turnaround-ms "$turnaround")
            fi
            short=$(run_ns "$first" "${args[@]}")
            long=$(run_ns $((first + measured_exchanges)) "${args[@]}")
            [[ $controller == plcsim ]] && stop_plcsim
            rate=$(awk -v n="$measured_exchanges" -v d=$((long - short)) \
                'BEGIN { printf "%.2f", n / (d / 1e9) }')
            ratio=$(awk -v r="$rate" -v c="$ceiling" 'BEGIN { printf "%.1f %%", 100 * r / c }')
            awk -v r="$rate" -v c="$ceiling" -v m="$least_ratio" 'BEGIN { exit !(r >= m * c) }' ||
                status=1
            echo "| $controller | $baud | $turnaround | $rate | $ceiling | $ratio |"
        done
    done
done
echo
echo "(each cell: $seconds s of exchanges measured; $(nproc) cores, load average $(cut -d' ' -f1 /proc/loadavg) at the end)"
exit $status

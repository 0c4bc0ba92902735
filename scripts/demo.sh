#!/usr/bin/env bash
# The plug-in at work, without hardware: builds the plug-in and the host
# simulator, then runs hostsim against the built-in controller simulator at
# 115,200 baud for about ten seconds (Ctrl-C stops it sooner).
#
# What to look for:
#   N10:0    the simulator's counter: one more each second
#   N10:1/0  a bit the simulator toggles every half second
#   F9:0     a REAL ramp from 0 to 99.99 over ten seconds
#   N7:0 x4  the write N7:3=1234 goes out first; the cyclic reads then bring
#            1234 back from the simulator, and a one-shot read of N7:0 x4
#            reports it through the plug-in's callback
#
# Run from anywhere as `bash scripts/demo.sh` (root, or with sudo available:
# missing Debian packages are installed first). Extra arguments go to hostsim
# (try --help).
#
# Environment:
#   ABCL_DEMO_SECONDS  how long to run (default 10)
#   ABCL_JOBS          parallel compile jobs (default: nproc)
#   ABCL_BUILD_ROOT    where the build directory goes (default build/)
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${ABCL_DEMO_SECONDS:-10}
jobs=${ABCL_JOBS:-$(nproc 2>/dev/null || echo 2)}
build_dir=${ABCL_BUILD_ROOT:-$repo_root/build}/demo

# Only what the demo needs: a compiler, make, CMake and Qt 5 Core.
source "$repo_root/scripts/packages.sh"
abcl_ensure_packages demo.sh cmake g++ make qtbase5-dev || exit 1

echo "Building the plug-in and hostsim in $build_dir"
cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release \
    -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF >/dev/null
cmake --build "$build_dir" -j "$jobs" --target hostsim

hostsim=$build_dir/tools/hostsim/hostsim
args=(--baud 115200 --duration "$seconds" --write N7:3=1234 --read N7:0x4)
# On a terminal the table is redrawn five times a second. Written to a file
# or a pipe it is printed every 0.75 s: once a second would always catch the
# simulator's half-second toggle bit in the same state.
[[ -t 1 ]] || args+=(--interval-ms 750)
echo
echo "Running: hostsim ${args[*]} $*"
echo
exec "$hostsim" "${args[@]}" "$@"

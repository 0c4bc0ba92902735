#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer, the driver and the peer library instrumented for
# coverage) and runs each for a while, one after the other, starting from the
# committed corpus.
#
#   bash scripts/fuzz.sh [SECONDS] [TARGET...]
#
# SECONDS per target (default 60); targets fuzz_reply, fuzz_address,
# fuzz_read_list, fuzz_api (the driver) and plcsim_fuzz (the controller
# simulator), default all. Inputs found along the way
# collect in a working corpus per target that later runs go on from; the
# summary gives each target's inputs run and final coverage (cov, ft). An
# input that breaks an invariant or upsets a sanitizer is written beside it as
# crash-<hash>, and the script then exits non-zero. Replay one with the target
# program and its path.
#
# Environment:
#   ABCL_FUZZ_DIR      build directory (default build/fuzz)
#   ABCL_FUZZ_WORK     working corpora, logs and crash inputs (default build/fuzz-work)
#   ABCL_FUZZ_KEEP     N: after the run, minimise the working corpus against the
#                      committed one and copy up to N of the inputs that reach
#                      code it does not into fuzz/corpus/<target>/ as
#                      found-<hash> (default 0: the committed corpus is left alone)
#   ABCL_FUZZ_JOBS     libFuzzer worker processes per target (default 1), each
#                      running for SECONDS; inputs run are summed over them
#   ABCL_JOBS          parallel compile jobs (default 2)
#   ABCL_SKIP_INSTALL  1 to skip the package check
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-60}
shift || true
targets=("$@")
all_targets=(fuzz_reply fuzz_address fuzz_read_list fuzz_api plcsim_fuzz)
((${#targets[@]} > 0)) || targets=("${all_targets[@]}")
for target in "${targets[@]}"; do
    [[ " ${all_targets[*]} " == *" $target "* ]] ||
        { echo "fuzz.sh: unknown target '$target' (${all_targets[*]})" >&2; exit 2; }
done
build_dir=${ABCL_FUZZ_DIR:-$repo_root/build/fuzz}
work=${ABCL_FUZZ_WORK:-$repo_root/build/fuzz-work}
keep=${ABCL_FUZZ_KEEP:-0}
fuzz_jobs=${ABCL_FUZZ_JOBS:-1}
jobs=${ABCL_JOBS:-2}
# The runs happen inside each target's working directory: relative paths are
# taken from where the script was started.
[[ $build_dir == /* ]] || build_dir=$PWD/$build_dir
[[ $work == /* ]] || work=$PWD/$work

[[ $seconds =~ ^[0-9]+$ ]] || { echo "fuzz.sh: SECONDS must be a whole number, not '$seconds'" >&2; exit 2; }

source "$repo_root/scripts/packages.sh"

if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    abcl_ensure_packages fuzz.sh cmake make clang libclang-rt-14-dev pkg-config qtbase5-dev || exit 1
fi

CC=clang CXX=clang++ cmake -S "$repo_root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DABCL_SANITIZE= -DABCL_BUILD_FUZZ=ON -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_TOOLS=ON -DABCL_BUILD_BENCH=OFF
# Only the fuzz targets are built; the tools are configured for plcsim_fuzz.
cmake --build "$build_dir" -j "$jobs" --target "${targets[@]}"

# A stat line of libFuzzer's -print_final_stats output, summed over the
# workers (each prints its own).
final_stat() { sed -n "s/^stat::$1: *//p" "$2" | awk '{ n += $1 } END { if (NR) print n }'; }
# cov: or ft: as far as any worker got (the highest of the status lines).
final_coverage() {
    grep -E '^#[0-9]+' "$2" | sed -n "s/.* $1: \([0-9]*\).*/\1/p" | sort -n | tail -n 1
}
program_of() {
    case $1 in
        plcsim_fuzz) echo "$build_dir/tools/plcsim/plcsim_fuzz" ;;
        *) echo "$build_dir/fuzz/$1" ;;
    esac
}

declare -A outcome
failed=0
for target in "${targets[@]}"; do
    printf '\n======== %s: %s s ========\n' "$target" "$seconds"
    dir=$work/$target
    mkdir -p "$dir/corpus"
    log=$dir/fuzz.log
    rc=0
    parallel=()
    ((fuzz_jobs > 1)) && parallel=(-jobs="$fuzz_jobs" -workers="$fuzz_jobs")
    program=$(program_of "$target")
    committed=$repo_root/fuzz/corpus/$target
    corpora=("$dir/corpus")
    [[ -d $committed ]] && corpora+=("$committed")
    # Run from the target's directory: with several jobs libFuzzer writes a
    # fuzz-N.log per worker into the current directory.
    (cd "$dir" && rm -f fuzz-*.log &&
        ASAN_OPTIONS="abort_on_error=1:detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}" \
        UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}" \
        "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="$dir/" "${parallel[@]}" \
            "${corpora[@]}") >"$log" 2>&1 || rc=$?
    # With several workers libFuzzer copies each worker's fuzz-N.log into its
    # own output as the worker ends, so the log already holds them all.
    tail -n 25 "$log"
    artifacts=$(find "$dir" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
        -o -name 'oom-*' -o -name 'slow-unit-*' \) | sort)
    runs=$(final_stat number_of_executed_units "$log")
    cov=$(final_coverage cov "$log")
    ft=$(final_coverage ft "$log")
    corpus=$(find "$dir/corpus" -type f | wc -l)
    coverage="cov ${cov:-?}, ft ${ft:-?}"
    if ((rc != 0)) || [[ -n $artifacts ]]; then
        outcome[$target]="FAILED (exit $rc) after ${runs:-?} inputs, $coverage; inputs: ${artifacts:-none written}"
        failed=1
        continue
    fi
    outcome[$target]="ok: ${runs:-?} inputs in ${seconds} s, $coverage, working corpus $corpus inputs"

    if ((keep > 0)); then
        mkdir -p "$committed"
        # Inputs of the working corpus that reach code (edges, hit counts
        # aside) the committed corpus does not, as libFuzzer's merge picks
        # them; of those, up to N spread evenly over their sizes are kept.
        merged=$(mktemp -d)
        cp "$repo_root/fuzz/corpus/$target"/* "$merged"/ 2>/dev/null || true
        before=$(mktemp)
        ls "$merged" | sort >"$before"
        "$program" -merge=1 -use_counters=0 "$merged" "$dir/corpus" >>"$log" 2>&1
        mapfile -t fresh < <(comm -13 "$before" <(ls "$merged" | sort) |
            while read -r n; do printf '%s %s\n' "$(wc -c <"$merged/$n")" "$n"; done | sort -n | cut -d' ' -f2)
        added=0
        if ((${#fresh[@]} > 0)); then
            count=$((keep < ${#fresh[@]} ? keep : ${#fresh[@]}))
            for ((i = 0; i < count; i++)); do
                # Evenly spaced ranks, the smallest and the largest included.
                rank=$((count > 1 ? i * (${#fresh[@]} - 1) / (count - 1) : 0))
                name=${fresh[$rank]}
                cp "$merged/$name" "$repo_root/fuzz/corpus/$target/found-${name:0:16}"
                added=$((added + 1))
            done
        fi
        rm -rf "$merged" "$before"
        outcome[$target]+="; ${#fresh[@]} inputs reach new code, $added kept in fuzz/corpus/$target"
    fi
done

printf '\n======== summary ========\n'
for target in "${targets[@]}"; do
    printf '%-15s %s\n' "$target:" "${outcome[$target]}"
done
exit $failed

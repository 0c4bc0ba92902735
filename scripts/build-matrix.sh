#!/usr/bin/env bash
# Builds the whole project, tests included, the way a user would: a plain
# configure and build with no options, for each compiler (GCC and clang from
# Debian) and each standard build type, and prints one line per combination.
# Warnings are left as warnings (ABCL_WERROR off), as in any user's build;
# the count of warning lines is shown so new ones are noticed.
#
#   bash scripts/build-matrix.sh [BUILD_ROOT]     (default build/matrix)
#
# Exits non-zero when any combination fails to configure or build.
set -uo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_root=${1:-$repo_root/build/matrix}
jobs=${ABCL_JOBS:-$(nproc 2>/dev/null || echo 2)}

# shellcheck source=scripts/packages.sh
source "$repo_root/scripts/packages.sh"
abcl_ensure_packages build-matrix.sh cmake make g++ clang qtbase5-dev libgtest-dev libgmock-dev ||
    exit 1

mkdir -p "$build_root" || exit 1
status=0
results=()
for compiler in g++ clang++; do
    for type in Debug Release RelWithDebInfo MinSizeRel; do
        dir=$build_root/$compiler-$type
        log=$dir.log
        start=$SECONDS
        rm -rf "$dir"
        if cmake -S "$repo_root" -B "$dir" -DCMAKE_CXX_COMPILER="$compiler" \
            -DCMAKE_BUILD_TYPE="$type" >"$log" 2>&1 &&
            cmake --build "$dir" -j "$jobs" >>"$log" 2>&1; then
            outcome=builds
        else
            outcome=FAILS
            status=1
        fi
        warnings=$(grep -c 'warning:' "$log")
        results+=("$(printf '%-8s %-15s %-7s %3d warning lines  %4ds' "$compiler" "$type" \
            "$outcome" "$warnings" $((SECONDS - start)))")
        echo "${results[-1]}"
        # Keep the log, drop the build: eight trees would not fit small disks.
        rm -rf "$dir"
    done
done
echo
echo "compiler type            result  warnings              time"
printf '%s\n' "${results[@]}"
exit $status

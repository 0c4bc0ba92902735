#!/usr/bin/env bash
# The project's whole test suite, in every configuration the driver has to
# survive:
#
#   native  x86-64, optimised, assertions kept; also checks the sources
#           themselves (tests source.*: .clang-format, function length in tools/)
#   asan    AddressSanitizer + UndefinedBehaviorSanitizer (leaks included)
#   hardened the hardened plug-in (-DABCL_HARDENED=ON) under the same
#           sanitizers: the driver, its unit and end-to-end tests (no tools)
#   tsan    ThreadSanitizer, the tests labelled "thread" only
#   armhf   cross-built for the 32-bit ARM panel and run under qemu-arm; the
#           layout static_asserts in the public header only hold there, so a
#           successful compile is itself the proof of the 32-bit layout
#   clang   Release (-O3, NDEBUG) built with clang, the native suite
#   package the Debian packages for amd64 and armhf (scripts/package.sh, lintian
#           errors fail it), then scripts/check-packages.sh: a host project
#           (tests/consumer) built from an installed prefix and from the
#           unpacked packages reads a value from the installed plcsim; under
#           qemu-arm for armhf. Each check counts as one test.
#
# Every run treats the project's warnings as errors (ABCL_WERROR=ON).
#
# Run from anywhere as `bash scripts/test.sh` (root, or with sudo available:
# missing Debian packages are installed first). Each run has its own build
# directory under build/ and is rebuilt incrementally next time.
#
# Environment:
#   ABCL_RUNS          runs to do, in order (default "native asan hardened tsan armhf clang package")
#   ABCL_JOBS          parallel compile jobs (default: nproc)
#   ABCL_CTEST_JOBS    parallel test processes (default 1)
#   ABCL_TEST_TIMEOUT  seconds one test may take before it counts as failed (default 300)
#   ABCL_BUILD_ROOT    where the build directories go (default build/)
#   ABCL_ARMHF_SYSROOT armhf root (default $ABCL_BUILD_ROOT/armhf-sysroot, made by
#                      scripts/armhf-sysroot.sh and reused while its stamp exists)
#   ABCL_SKIP_INSTALL  1 to skip the package check
#
# Output: every run's build and ctest output, then a summary with one line per
# run and, last, "total: N passed, N failed" summed over the runs' ctest counts
# (", N skipped" follows when tests were skipped). ThreadSanitizer reads its
# suppressions from scripts/tsan-suppressions.txt.
# The exit status is non-zero if any configure, build or test failed; a failed
# run does not stop the ones after it.
set -uo pipefail

# The whole script is one block, read completely before it starts, so editing
# this file while a run is going on cannot change what that run does.
{
repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$repo_root" || exit 1

runs=${ABCL_RUNS:-native asan hardened tsan armhf clang package}
jobs=${ABCL_JOBS:-$(nproc 2>/dev/null || echo 2)}
ctest_jobs=${ABCL_CTEST_JOBS:-1}
test_timeout=${ABCL_TEST_TIMEOUT:-300}
build_root=${ABCL_BUILD_ROOT:-$repo_root/build}
sysroot=${ABCL_ARMHF_SYSROOT:-$build_root/armhf-sysroot}

for run in $runs; do
    case $run in
        native | asan | hardened | tsan | armhf | clang | package) ;;
        *) echo "test.sh: unknown run '$run' in ABCL_RUNS (native asan hardened tsan armhf clang package)" >&2; exit 2 ;;
    esac
done

banner() { printf '\n======== %s ========\n' "$*"; }
elapsed() { local s=$1; printf '%dm%02ds' $((s / 60)) $((s % 60)); }

# ---------------------------------------------------------------- packages --
packages=(
    cmake make g++ pkg-config file binutils clang-format
    qtbase5-dev libgtest-dev libgmock-dev libbenchmark-dev
    crossbuild-essential-armhf qemu-user
    debian-archive-keyring clang
    dpkg-dev fakeroot lintian help2man
    tshark
)

source "$repo_root/scripts/packages.sh"

script_start=$SECONDS
if [[ ${ABCL_SKIP_INSTALL:-0} != 1 ]]; then
    banner "packages"
    t0=$SECONDS
    if abcl_ensure_packages test.sh "${packages[@]}"; then
        echo "Build packages are in place."
    else
        echo "test.sh: package installation failed" >&2
        exit 1
    fi
    echo "packages: $(elapsed $((SECONDS - t0)))"
fi

# ------------------------------------------------------------ bookkeeping --
declare -A run_status run_passed run_failed run_skipped run_times
total_passed=0
total_failed=0
total_skipped=0
any_failure=0

# These replace CMake's RelWithDebInfo flags, which define NDEBUG: assertions
# stay on in every run, as they cost little next to what they catch. Line
# tables only (-g1) are enough for backtraces and sanitizer reports and
# compile a third quicker than full debug information.
opt_flags_native="-O2 -g1"
opt_flags_sanitize="-O1 -g1"  # the sanitizer settings may add their own -g
# Sanitizer instrumentation makes GCC's -Wmaybe-uninitialized report
# variables that are initialised (inside libstdc++'s <regex>, for one), and
# every warning is an error here. The native and armhf builds keep the warning,
# so nothing real goes unseen. A specific -Wno- wins over -Wall in any order.
warn_flags_sanitize="-Wno-maybe-uninitialized"

# Runs ctest in build dir $1 with the remaining arguments, shows its output,
# and records the counts of run $run.
run_ctest() {
    local dir=$1; shift
    local log=$dir/ctest-output.log rc line
    (cd "$dir" && "${ctest_prefix[@]}" ctest --output-on-failure --timeout "$test_timeout" \
        -j "$ctest_jobs" "$@") 2>&1 | tee "$log"
    rc=${PIPESTATUS[0]}
    line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
    # ctest counts a skipped test (GTEST_SKIP) as not failed; it is listed
    # under "did not run" with "(Skipped)" and counted apart here.
    run_skipped[$run]=$(grep -cE '^[[:space:]]+[0-9]+ - .* \(Skipped\)$' "$log")
    # The names of the failed tests, kept for the summary: a long log may be
    # cut where it is read, and the summary is its last part.
    run_failures[$run]=$(sed -n '/^The following tests FAILED:/,/^Errors while running CTest/p' "$log" |
        grep -E '^[[:space:]]+[0-9]+ - ' | sed -E 's/^[[:space:]]+/    /')
    if [[ $line =~ ([0-9]+)\ tests?\ failed\ out\ of\ ([0-9]+) ]]; then
        run_failed[$run]=${BASH_REMATCH[1]}
        run_passed[$run]=$((BASH_REMATCH[2] - BASH_REMATCH[1] - run_skipped[$run]))
    elif grep -q 'No tests were found' "$log"; then
        run_passed[$run]=0
        run_failed[$run]=0
    else
        run_passed[$run]=0
        run_failed[$run]=0
        run_status[$run]="ctest failed to run (exit $rc)"
        return 1
    fi
    total_passed=$((total_passed + run_passed[$run]))
    total_failed=$((total_failed + run_failed[$run]))
    total_skipped=$((total_skipped + run_skipped[$run]))
    local counts="${run_passed[$run]} passed, ${run_failed[$run]} failed"
    ((run_skipped[$run] > 0)) && counts+=", ${run_skipped[$run]} skipped"
    if ((rc != 0 || run_failed[$run] > 0)); then
        run_status[$run]="failed ($counts)"
        ((rc != 0 && run_failed[$run] == 0)) && run_status[$run]="failed (ctest exit $rc; $counts)"
        return 1
    fi
    run_status[$run]="passed ($counts)"
    return 0
}

# configure_and_build DIR CMAKE_ARGS...
# Returns 1 if configuring failed, 2 if building failed. The build keeps going
# past a failing target, so one broken test program does not hide the results
# of all the others: whatever was built is still tested.
configure_and_build() {
    local dir=$1; shift
    local t0=$SECONDS t1 keep_going=(-k)
    if ! cmake -S "$repo_root" -B "$dir" -DABCL_WERROR=ON "$@"; then
        run_status[$run]="configure failed"
        return 1
    fi
    t1=$SECONDS
    grep -q '^CMAKE_GENERATOR:INTERNAL=Ninja' "$dir/CMakeCache.txt" 2>/dev/null && keep_going=(-k 0)
    cmake --build "$dir" -j "$jobs" -- "${keep_going[@]}"
    local rc=$?
    run_times[$run]+="configure $(elapsed $((t1 - t0))), build $(elapsed $((SECONDS - t1)))"
    ((rc == 0)) || return 2
}

# Tests of run $run in DIR (after configure_and_build returned $2), with the
# remaining arguments for ctest. Marks the run failed if its build was.
test_build() {
    local dir=$1 build_rc=$2; shift 2
    ((build_rc == 1)) && return 1
    local t0=$SECONDS rc=0
    run_ctest "$dir" "$@" || rc=1
    run_times[$run]+=", test $(elapsed $((SECONDS - t0)))"
    if ((build_rc == 2)); then
        run_status[$run]="build failed; the tests that built: ${run_status[$run]}"
        return 1
    fi
    return $rc
}

# Programs instrumented with ThreadSanitizer (GCC 12) abort at start-up when
# the kernel randomises mmap addresses more widely than TSan's memory map
# expects; running them with address randomisation off avoids that. Probe
# once with a tiny program rather than guessing from kernel settings.
tsan_prefix() {
    local probe_dir probe
    probe_dir=$(mktemp -d) || return 0
    probe=$probe_dir/probe
    printf '#include <thread>\nint v; int main() { std::thread t([] { v = 1; }); t.join(); return v - 1; }\n' |
        g++ -fsanitize=thread -x c++ - -o "$probe" -pthread 2>/dev/null || { rm -rf "$probe_dir"; return 0; }
    if ! "$probe" >/dev/null 2>&1; then
        if setarch "$(uname -m)" -R "$probe" >/dev/null 2>&1; then
            echo "setarch $(uname -m) -R"
        fi
    fi
    rm -rf "$probe_dir"
}

# LeakSanitizer cannot work where ptrace is refused (some containers, or
# under a debugger); there it would fail every test, so leaks are then left
# out and the summary says so.
lsan_works() {
    local probe_dir rc
    probe_dir=$(mktemp -d) || return 1
    printf 'int main() { return 0; }\n' |
        g++ -fsanitize=address -x c++ - -o "$probe_dir/probe" 2>/dev/null || { rm -rf "$probe_dir"; return 1; }
    ASAN_OPTIONS=detect_leaks=1 "$probe_dir/probe" >/dev/null 2>&1
    rc=$?
    rm -rf "$probe_dir"
    return $rc
}

# ------------------------------------------------------------------ runs --
do_native() {
    local dir=$build_root/native bench=OFF rc=0
    # Benchmarks are only compiled here, to keep them building; they are not
    # part of the test suite.
    [[ -f $repo_root/bench/CMakeLists.txt ]] && bench=ON
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$opt_flags_native" -DCMAKE_CXX_FLAGS= \
        -DABCL_SANITIZE= -DABCL_BUILD_BENCH=$bench -DABCL_BUILD_FUZZ=OFF -DABCL_CHECK_SOURCES=ON || rc=$?
    test_build "$dir" $rc --no-tests=error
}

# do_sanitized_run DIR CMAKE_ARGS...: a build under AddressSanitizer and
# UndefinedBehaviorSanitizer, and its tests.
do_sanitized_run() {
    local dir=$1 leaks=1 rc=0
    shift
    if ! lsan_works; then
        leaks=0
        run_note[$run]=" (LeakSanitizer unavailable here: leaks not checked)"
    fi
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$opt_flags_sanitize" -DCMAKE_CXX_FLAGS="$warn_flags_sanitize" \
        -DABCL_SANITIZE=address,undefined -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF "$@" || rc=$?
    ASAN_OPTIONS="halt_on_error=1:detect_leaks=$leaks:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}" \
    UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}" \
        test_build "$dir" $rc --no-tests=error
}

do_asan() {
    do_sanitized_run "$build_root/asan"
}

# The hardened plug-in: what differs from the default one is the driver, so
# the driver's own tests and the end-to-end ones run; the tools, whose
# tests load this build's plug-in, stay in the other runs.
do_hardened() {
    do_sanitized_run "$build_root/hardened" -DABCL_HARDENED=ON -DABCL_BUILD_TOOLS=OFF
}

do_tsan() {
    local dir=$build_root/tsan prefix rc=0
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$opt_flags_sanitize" -DCMAKE_CXX_FLAGS="$warn_flags_sanitize" \
        -DABCL_SANITIZE=thread -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF || rc=$?
    prefix=$(tsan_prefix)
    [[ -n $prefix ]] && echo "ThreadSanitizer needs address randomisation off here: running under '$prefix'"
    # shellcheck disable=SC2206 # the prefix is a plain command line
    local -a ctest_prefix=($prefix)
    # No test carrying the label yet is not a failure: ctest then reports 0.
    # The programs labelled "race" (tests/race) break a threading rule on
    # purpose and must make ThreadSanitizer report; they are not selected here.
    TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$repo_root/scripts/tsan-suppressions.txt${TSAN_OPTIONS:+:$TSAN_OPTIONS}" \
        test_build "$dir" $rc -L thread --no-tests=ignore
}

do_armhf() {
    local dir=$build_root/armhf plugin kind rc=0
    local t0=$SECONDS
    if ! bash "$repo_root/scripts/armhf-sysroot.sh" "$sysroot"; then
        run_status[$run]="armhf root could not be made"
        return 1
    fi
    run_times[$run]="root $(elapsed $((SECONDS - t0))), "
    configure_and_build "$dir" -DCMAKE_TOOLCHAIN_FILE="$repo_root/cmake/armhf-toolchain.cmake" \
        -DABCL_ARMHF_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$opt_flags_native" -DCMAKE_CXX_FLAGS= \
        -DABCL_SANITIZE= -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF || rc=$?
    plugin=$dir/driver/libAB_ControlLogix_CompactLogix.so
    if ((rc != 1)); then
        kind=$(file -bL "$plugin" 2>&1)
        echo "plug-in: $kind"
        if [[ $kind != *"ELF 32-bit LSB shared object, ARM"* ]]; then
            echo "test.sh: $plugin is not a 32-bit ARM shared object" >&2
            rc=2
        fi
    fi
    test_build "$dir" $rc --no-tests=error
}

do_clang() {
    local dir=$build_root/clang rc=0
    configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=clang++ \
        -DCMAKE_CXX_FLAGS= -DABCL_SANITIZE= -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF || rc=$?
    test_build "$dir" $rc --no-tests=error
}

# Counts the "check NAME: passed|failed" lines of scripts/check-packages.sh
# as the run's tests.
do_package() {
    local t0=$SECONDS t1 log=$build_root/package-checks.log rc=0
    if ! ABCL_BUILD_ROOT=$build_root ABCL_ARMHF_SYSROOT=$sysroot ABCL_JOBS=$jobs ABCL_WERROR=ON \
        bash "$repo_root/scripts/package.sh" "$build_root/packages"; then
        run_status[$run]="packages could not be made (build or lintian error)"
        run_times[$run]="packages $(elapsed $((SECONDS - t0)))"
        return 1
    fi
    t1=$SECONDS
    bash "$repo_root/scripts/check-packages.sh" "$build_root/packages" \
        "$build_root/package-amd64" "$sysroot" 2>&1 | tee "$log"
    rc=${PIPESTATUS[0]}
    run_times[$run]="packages $(elapsed $((t1 - t0))), checks $(elapsed $((SECONDS - t1)))"
    run_passed[$run]=$(grep -cE '^check .*: passed$' "$log")
    run_failed[$run]=$(grep -cE '^check .*: failed$' "$log")
    total_passed=$((total_passed + run_passed[$run]))
    total_failed=$((total_failed + run_failed[$run]))
    local counts="${run_passed[$run]} passed, ${run_failed[$run]} failed"
    if ((rc != 0 || run_failed[$run] > 0 || run_passed[$run] == 0)); then
        run_status[$run]="failed ($counts)"
        return 1
    fi
    run_status[$run]="passed ($counts)"
}

declare -A run_note run_failures
ctest_prefix=()
for run in $runs; do
    banner "$run"
    run_times[$run]=""
    t_run=$SECONDS
    if ! "do_$run"; then
        any_failure=1
    fi
    run_times[$run]+="${run_times[$run]:+, }total $(elapsed $((SECONDS - t_run)))"
done

# ---------------------------------------------------------------- summary --
banner "summary"
for run in $runs; do
    printf '%-9s %s%s   [%s]\n' "$run:" "${run_status[$run]:-not run}" "${run_note[$run]:-}" "${run_times[$run]}"
    [[ -n ${run_failures[$run]:-} ]] && printf '%s\n' "${run_failures[$run]}"
done
echo "whole script: $(elapsed $((SECONDS - script_start)))"
((total_failed > 0)) && any_failure=1
if ((total_skipped > 0)); then
    echo "total: $total_passed passed, $total_failed failed, $total_skipped skipped"
else
    echo "total: $total_passed passed, $total_failed failed"
fi
exit $any_failure
}

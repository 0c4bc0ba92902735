#!/usr/bin/env bash
# Proves what scripts/package.sh made can be used as an integrator would:
#
#   install.find_package    `cmake --install` into a temporary prefix, then
#   install.pkg_config      tests/consumer built from it (find_package, then
#                           pkg-config), run against the installed plcsim
#   deb_amd64.find_package  the amd64 .debs unpacked with dpkg-deb -x into a
#   deb_amd64.pkg_config    temporary root, the same consumer built and run
#   deb_amd64.hardened      the hardened plug-in's package in place of the default
#                           one: its fields, its version text, the consumer run
#   deb_armhf.fields        the armhf .debs: architecture, version, depends
#   deb_armhf.contents      the armhf .debs: the files an integrator needs
#   deb_armhf.qemu          the consumer cross-built against the armhf root with
#                           the armhf packages unpacked into it, run with the
#                           armhf plcsim under qemu-arm
#
#   bash scripts/check-packages.sh PACKAGES_DIR NATIVE_BUILD_DIR ARMHF_SYSROOT
#
# PACKAGES_DIR holds amd64/ and armhf/ as scripts/package.sh leaves them;
# NATIVE_BUILD_DIR is its amd64 build. Prints "check NAME: passed|failed" for
# each, then "checks: N passed, N failed"; the exit status is 1 if any failed.
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
packages=$(realpath "$1")
native_build=$(realpath "$2")
sysroot=$(realpath "$3")
triplet=arm-linux-gnueabihf
plugin_rel=ab-controllogix-compactlogix/libAB_ControlLogix_CompactLogix.so
version=$(sed -n 's/^project(AB_ControlLogix_CompactLogix VERSION \([0-9.]*\).*/\1/p' \
    "$repo_root/CMakeLists.txt")

work=$(mktemp -d "${TMPDIR:-/tmp}/abcl-check.XXXXXX")
trap 'rm -rf "$work"' EXIT
passed=0
failed=0

# check NAME COMMAND...: runs the command with its output in $work/NAME.log,
# shown only when it fails.
check() {
    local name=$1
    shift
    if "$@" >"$work/$name.log" 2>&1; then
        passed=$((passed + 1))
        echo "check $name: passed"
    else
        failed=$((failed + 1))
        echo "check $name: failed"
        sed 's/^/    /' "$work/$name.log"
    fi
}

# with_plcsim COMMAND...: starts plcsim (the words in $plcsim) on a new
# pseudo-terminal, waits for it to print the terminal's path, runs COMMAND
# with the path appended, and stops plcsim again.
with_plcsim() {
    local pty rc=0
    coproc PLCSIM { exec "${plcsim[@]}" --print-path --quiet --duration 120; }
    local pid=$PLCSIM_PID
    read -r pty <&"${PLCSIM[0]}"
    "$@" "$pty" || rc=$?
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    return $rc
}

# consumer_builds_and_reads NAME CMAKE_ARGS...: configures and builds
# tests/consumer in $work/NAME, then lets it read from plcsim.
consumer_builds_and_reads() {
    local dir=$work/$1
    shift
    cmake -S "$repo_root/tests/consumer" -B "$dir" "$@" &&
        cmake --build "$dir" &&
        with_plcsim "$dir/consumer"
}

# pkg_config_consumer PC_DIR NAME: the same, found through pkg-config.
pkg_config_consumer() {
    PKG_CONFIG_PATH=$1 consumer_builds_and_reads "$2" -DCONSUMER_USE_PKG_CONFIG=ON
}

# has_line LINE: whether standard input holds LINE as a whole line. It reads
# its input to the end: `producer | grep -q` under pipefail fails whenever
# grep quits at the first match while the producer still writes (SIGPIPE).
has_line() {
    [[ $(grep -cFx -- "$1") -gt 0 ]]
}

# plugin_build_text FILE: the plug-in's version text ("NAME VERSION[ hardened]").
plugin_build_text() {
    strings "$1" | grep -E '^AB_ControlLogix_CompactLogix [0-9]' || true
}

# The plug-in packages but the hardened one: both hold the same file.
default_debs() {
    local deb
    for deb in "$1"/*.deb; do
        [[ $deb == *-hardened_* ]] || echo "$deb"
    done
}

# -------------------------------------------------------- install prefix --
prefix=$work/prefix
cmake --install "$native_build" --prefix "$prefix" >/dev/null
libdir=$(cd "$prefix" && echo lib/*/pkgconfig | sed 's|/pkgconfig$||')
[[ -d $prefix/$libdir ]] || libdir=lib
plcsim=("$prefix/bin/plcsim")
check install.find_package consumer_builds_and_reads install-cmake -DCMAKE_PREFIX_PATH="$prefix"
check install.pkg_config pkg_config_consumer "$prefix/$libdir/pkgconfig" install-pc

# ------------------------------------------------------------ amd64 debs --
root=$work/root-amd64
for deb in $(default_debs "$packages"/amd64); do dpkg-deb -x "$deb" "$root"; done
plcsim=("$root/usr/bin/plcsim")
check deb_amd64.find_package consumer_builds_and_reads deb-cmake -DCMAKE_PREFIX_PATH="$root/usr"
check deb_amd64.pkg_config pkg_config_consumer "$root/usr/$libdir/pkgconfig" deb-pc

# The hardened package conflicts with and stands in for the default one; the
# consumer, built against the -dev files, runs on it unchanged.
amd64_hardened() {
    local deb hroot=$work/root-hardened d
    deb=$(ls "$packages"/amd64/ab-controllogix-compactlogix-hardened_*.deb)
    dpkg-deb -f "$deb" Conflicts | has_line 'ab-controllogix-compactlogix' &&
        dpkg-deb -f "$deb" Provides | has_line "ab-controllogix-compactlogix (= $version-1)" &&
        dpkg-deb -f "$packages"/amd64/ab-controllogix-compactlogix_*.deb Conflicts |
        has_line 'ab-controllogix-compactlogix-hardened' || { echo "fields"; return 1; }
    [[ $(plugin_build_text "$root/usr/$libdir/$plugin_rel") == "AB_ControlLogix_CompactLogix $version" ]] ||
        { echo "the default package's plug-in is not the default build"; return 1; }
    # A plain `cmake --install` installs the default plug-in only.
    [[ $(plugin_build_text "$prefix/$libdir/$plugin_rel") == "AB_ControlLogix_CompactLogix $version" ]] ||
        { echo "cmake --install put the hardened plug-in in place"; return 1; }
    for d in "$deb" "$packages"/amd64/ab-controllogix-compactlogix-dev_*.deb \
        "$packages"/amd64/ab-controllogix-compactlogix-tools_*.deb; do
        dpkg-deb -x "$d" "$hroot"
    done
    [[ $(plugin_build_text "$hroot/usr/$libdir/$plugin_rel") == "AB_ControlLogix_CompactLogix $version hardened" ]] ||
        { echo "the hardened package's plug-in is not the hardened build"; return 1; }
    local plcsim=("$hroot/usr/bin/plcsim")
    consumer_builds_and_reads deb-hardened -DCMAKE_PREFIX_PATH="$hroot/usr"
}
check deb_amd64.hardened amd64_hardened

# ------------------------------------------------------------ armhf debs --
armhf_fields() {
    local deb info
    for deb in "$packages"/armhf/*.deb; do
        info=$(dpkg-deb --info "$deb")
        grep -qx " Architecture: armhf" <<<"$info" && grep -qx " Version: $version-1" <<<"$info" ||
            { echo "$deb: not armhf $version-1"; echo "$info"; return 1; }
    done
    [[ $(dpkg-deb -f "$packages"/armhf/ab-controllogix-compactlogix-hardened_*.deb Depends) == *'libqt5core5a (>= '* ]] ||
        { echo "hardened: no libqt5core5a"; return 1; }
    local runtime tools dev
    runtime=$(dpkg-deb -f "$packages"/armhf/ab-controllogix-compactlogix_*.deb Depends)
    tools=$(dpkg-deb -f "$packages"/armhf/ab-controllogix-compactlogix-tools_*.deb Depends)
    dev=$(dpkg-deb -f "$packages"/armhf/ab-controllogix-compactlogix-dev_*.deb Depends)
    echo "runtime: $runtime"$'\n'"tools: $tools"$'\n'"dev: $dev"
    grep -q 'libqt5core5a (>= ' <<<"$runtime" &&
        grep -q 'libqt5core5a (>= .*libstdc++6 (>= ' <<<"$tools" &&
        grep -q "ab-controllogix-compactlogix (= $version-1)" <<<"$dev"
}

armhf_contents() {
    local listing
    listing=$(for deb in "$packages"/armhf/*.deb; do dpkg-deb --contents "$deb"; done)
    local path
    for path in "usr/lib/$triplet/$plugin_rel" usr/include/ab_controllogix_compactlogix.h \
        "usr/lib/$triplet/cmake/AB_ControlLogix_CompactLogix/AB_ControlLogix_CompactLogixConfig.cmake" \
        "usr/lib/$triplet/pkgconfig/ab-controllogix-compactlogix.pc" \
        usr/bin/hostsim usr/bin/plcsim usr/share/man/man1/plcsim.1.gz; do
        grep -q " \./$path\$" <<<"$listing" || { echo "missing: $path"; return 1; }
    done
    dpkg-deb -x "$packages"/armhf/ab-controllogix-compactlogix_*.deb "$work/armhf-runtime"
    [[ $(file -b "$work/armhf-runtime/usr/lib/$triplet/$plugin_rel") == *'ELF 32-bit LSB shared object, ARM'* ]]
}

check deb_armhf.fields armhf_fields
check deb_armhf.contents armhf_contents

# The panel's view: the armhf root with the packages in it, the plug-in at
# its installed path, seen through QEMU_LD_PREFIX.
panel=$work/panel
cp -al "$sysroot" "$panel"
for deb in $(default_debs "$packages"/armhf); do dpkg-deb -x "$deb" "$panel"; done
qemu=(env QEMU_LD_PREFIX="$panel" qemu-arm)
plcsim=("${qemu[@]}" "$panel/usr/bin/plcsim")
# The consumer takes the port first and the plug-in second.
armhf_consumer_run() {
    local pty=$1
    "${qemu[@]}" "$work/armhf-consumer/consumer" "$pty" "/usr/lib/$triplet/$plugin_rel"
}
armhf_qemu() {
    cmake -S "$repo_root/tests/consumer" -B "$work/armhf-consumer" \
        -DCMAKE_TOOLCHAIN_FILE="$repo_root/cmake/armhf-toolchain.cmake" \
        -DABCL_ARMHF_SYSROOT="$panel" -DCMAKE_PREFIX_PATH=/usr &&
        cmake --build "$work/armhf-consumer" &&
        [[ $(file -b "$work/armhf-consumer/consumer") == *'ELF 32-bit LSB '*ARM* ]] &&
        with_plcsim armhf_consumer_run
}
check deb_armhf.qemu armhf_qemu

echo "checks: $passed passed, $failed failed"
((failed == 0))

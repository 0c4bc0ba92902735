#!/usr/bin/env bash
# Builds the Debian packages of the plug-in for the build machine (amd64) and
# for the panel (armhf, cross-built with cmake/armhf-toolchain.cmake against
# the root from scripts/armhf-sysroot.sh), with CPack, and checks them with
# lintian:
#
#   ab-controllogix-compactlogix_<version>-1_<arch>.deb        the plug-in
#   ab-controllogix-compactlogix-hardened_<version>-1_<arch>.deb
#                                                              the hardened plug-in instead
#   ab-controllogix-compactlogix-dev_<version>-1_<arch>.deb    header, CMake and pkg-config files
#   ab-controllogix-compactlogix-tools_<version>-1_<arch>.deb  hostsim, plcsim, man pages
#
#   bash scripts/package.sh [OUTPUT_DIR]      (default build/packages)
#
# The packages land in OUTPUT_DIR/amd64 and OUTPUT_DIR/armhf, with lintian's
# report beside them (lintian.txt). The exit status is non-zero if a build
# fails or lintian reports an error; warnings are listed, not fatal.
#
# Environment:
#   ABCL_PACKAGE_ARCHES  architectures to make (default "amd64 armhf")
#   ABCL_BUILD_ROOT      where the build directories go (default build/)
#   ABCL_ARMHF_SYSROOT   armhf root (default $ABCL_BUILD_ROOT/armhf-sysroot)
#   ABCL_JOBS            parallel compile jobs (default: nproc)
#   ABCL_WERROR          ON to make the project's warnings errors (default OFF)
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_root=${ABCL_BUILD_ROOT:-$repo_root/build}
out=$(realpath -m "${1:-$build_root/packages}")
sysroot=${ABCL_ARMHF_SYSROOT:-$build_root/armhf-sysroot}
jobs=${ABCL_JOBS:-$(nproc 2>/dev/null || echo 2)}
arches=${ABCL_PACKAGE_ARCHES:-amd64 armhf}
werror=${ABCL_WERROR:-OFF}

log() { printf 'package.sh: %s\n' "$*"; }

source "$repo_root/scripts/packages.sh"
abcl_ensure_packages package.sh cmake make g++ qtbase5-dev pkg-config dpkg-dev fakeroot \
    lintian help2man file binutils crossbuild-essential-armhf qemu-user

# configure_build_pack ARCH DIR CMAKE_ARGS...: a Release build of the plug-in
# and the tools (no tests), packed into $out/ARCH.
configure_build_pack() {
    local arch=$1 dir=$2
    shift 2
    cmake -S "$repo_root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF -DABCL_SANITIZE= \
        -DABCL_BUILD_HARDENED_PLUGIN=ON -DABCL_WERROR="$werror" "$@"
    cmake --build "$dir" -j "$jobs"
    rm -rf "${out:?}/$arch"
    mkdir -p "$out/$arch"
    (cd "$dir" && cpack -G DEB -B "$out/$arch/_cpack")
    mv "$out/$arch"/_cpack/*.deb "$out/$arch/"
    rm -rf "$out/$arch/_cpack"
}

# The native packages' Depends, worked out by dpkg-shlibdeps, stand for the
# panel's: the same Debian release and the same libraries. Only libgcc-s1 is
# raised to the newest GCC_ symbol version the ARM programs need (ARM's
# unwinder symbols are versioned apart).
armhf_depends() {
    local deb=$1 dir=$2 gcc_floor
    gcc_floor=$(find "$dir" -maxdepth 3 \( -name '*.so' -o -name hostsim -o -name plcsim \) \
        -type f -exec objdump -T {} + 2>/dev/null |
        grep -o 'GCC_[0-9.]*' | sed 's/GCC_//' | sort -V | tail -n 1)
    dpkg-deb -f "$deb" Depends |
        sed -E "s/libgcc-s1 \(>= [^)]*\)/libgcc-s1 (>= ${gcc_floor:-3.0})/"
}

make_amd64() {
    log "amd64"
    configure_build_pack amd64 "$build_root/package-amd64"
}

make_armhf() {
    log "armhf"
    bash "$repo_root/scripts/armhf-sysroot.sh" "$sysroot"
    local native=$build_root/package-amd64 dir=$build_root/package-armhf
    local runtime_deb tools_deb
    runtime_deb=$(ls "$out"/amd64/ab-controllogix-compactlogix_*_amd64.deb)
    tools_deb=$(ls "$out"/amd64/ab-controllogix-compactlogix-tools_*_amd64.deb)
    # Configured once to build the programs, then again with what they need.
    # The first configure decides the install directories, so it already gets
    # them; GNUInstallDirs picks no multiarch folder when cross-compiling.
    cmake -S "$repo_root" -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$repo_root/cmake/armhf-toolchain.cmake" \
        -DABCL_ARMHF_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf \
        -DABCL_BUILD_TESTS=OFF -DABCL_BUILD_BENCH=OFF -DABCL_BUILD_FUZZ=OFF \
        -DABCL_BUILD_HARDENED_PLUGIN=ON >/dev/null
    cmake --build "$dir" -j "$jobs"
    configure_build_pack armhf "$dir" -DCMAKE_TOOLCHAIN_FILE="$repo_root/cmake/armhf-toolchain.cmake" \
        -DABCL_ARMHF_SYSROOT="$sysroot" -DABCL_MAN_PAGES_DIR="$native/man" \
        -DABCL_DEB_RUNTIME_DEPENDS="$(armhf_depends "$runtime_deb" "$dir")" \
        -DABCL_DEB_TOOLS_DEPENDS="$(armhf_depends "$tools_deb" "$dir")"
}

# lintian on every package of $out/ARCH; fails only on errors (E:).
run_lintian() {
    local arch=$1 report=$out/$1/lintian.txt
    lintian --no-tag-display-limit "$out/$arch"/*.deb >"$report" 2>&1 || true
    log "lintian $arch: $(grep -c '^E:' "$report") error(s), $(grep -c '^W:' "$report") warning(s)"
    cat "$report"
    ! grep -q '^E:' "$report"
}

status=0
for arch in $arches; do
    case $arch in
        amd64) make_amd64 ;;
        armhf) make_armhf ;;
        *) echo "package.sh: unknown architecture '$arch'" >&2; exit 2 ;;
    esac
    run_lintian "$arch" || status=1
    ls -l "$out/$arch"/*.deb
done
exit $status

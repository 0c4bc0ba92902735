#!/usr/bin/env bash
# Builds the armhf (32-bit ARM, hard float) root that the cross build links
# against and that qemu-arm runs the tests in: Qt 5 Core with its headers and
# CMake files, GoogleTest, and the target's own C and C++ runtime (loader,
# libc, libstdc++, libgcc_s), taken from the same Debian release as the host.
#
#   bash scripts/armhf-sysroot.sh [SYSROOT]
#
# SYSROOT defaults to build/armhf-sysroot. A finished root carries a stamp
# file and is reused as it is; ABCL_SYSROOT_REFRESH=1 builds it anew.
#
# The host's dpkg never learns about armhf: Qt for armhf cannot be installed
# beside the amd64 one, and a foreign architecture in the system's sources
# would make every later `apt-get update` depend on it. Instead apt runs
# against a private state directory (SYSROOT/.apt) with a single armhf source,
# only downloads, and the packages are unpacked with dpkg-deb -x.
#
# Environment:
#   ABCL_DEBIAN_MIRROR   Debian mirror URI (default: read from the host's apt sources)
#   ABCL_DEBIAN_SUITE    release codename (default: the host's VERSION_CODENAME)
#   ABCL_SYSROOT_REFRESH 1 to throw away a cached root and build it again
set -euo pipefail

repo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
sysroot=${1:-${ABCL_ARMHF_SYSROOT:-$repo_root/build/armhf-sysroot}}
sysroot=$(realpath -m "$sysroot")
stamp=$sysroot/.sysroot-complete
triplet=arm-linux-gnueabihf

# Bump when the package set or the layout below changes, so cached roots are
# rebuilt instead of silently lacking something.
layout_version=2

log() { printf 'armhf-sysroot: %s\n' "$*"; }
die() { printf 'armhf-sysroot: error: %s\n' "$*" >&2; exit 1; }

if [[ -f $stamp && $(cat "$stamp") == "$layout_version" && ${ABCL_SYSROOT_REFRESH:-0} != 1 ]]; then
    log "cached at $sysroot"
    exit 0
fi

for tool in apt-get dpkg-deb realpath; do
    command -v "$tool" >/dev/null || die "$tool not found"
done

suite=${ABCL_DEBIAN_SUITE:-}
if [[ -z $suite && -r /etc/os-release ]]; then
    suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
fi
[[ -n $suite ]] || die "cannot tell the Debian release; set ABCL_DEBIAN_SUITE"

# The mirror the host already uses for its main suite, so the root comes from
# the same place (and the same snapshot, if the host is pinned to one) as the
# host's own packages. Both the deb822 (*.sources) and the one-line
# (*.list) formats are read.
find_mirror() {
    local f
    for f in /etc/apt/sources.list.d/*.sources; do
        [[ -r $f ]] || continue
        awk -v suite="$suite" '
            function flush() {
                if (types ~ /(^| )deb( |$)/ && (" " suites " ") ~ (" " suite " ") && uris != "" && enabled != "no") {
                    split(uris, u, " "); print u[1] " " signed; found = 1; exit
                }
                types = suites = uris = signed = ""; enabled = ""
            }
            /^[ \t]*#/ { next }
            /^[ \t]*$/ { flush(); next }
            {
                key = tolower($1); $1 = ""; sub(/^ +/, ""); val = $0
                if (key == "types:") types = val
                else if (key == "suites:") suites = val
                else if (key == "uris:") uris = val
                else if (key == "signed-by:") signed = val
                else if (key == "enabled:") enabled = tolower(val)
            }
            END { if (!found) flush() }
        ' "$f"
    done
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [[ -r $f ]] || continue
        awk -v suite="$suite" '
            $1 == "deb" {
                i = 2
                if ($i ~ /^\[/) { while ($i !~ /\]$/ && i < NF) i++; i++ }
                if ($(i + 1) == suite) { print $i; exit }
            }' "$f"
    done
}

mirror=${ABCL_DEBIAN_MIRROR:-}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
if [[ -z $mirror ]]; then
    read -r mirror signed_by < <(find_mirror | head -n 1) || true
    if [[ -n ${signed_by:-} && ${signed_by:0:1} == / && -r ${signed_by:-} ]]; then
        keyring=$signed_by
    fi
fi
[[ -n $mirror ]] || die "no Debian mirror for '$suite' in /etc/apt; set ABCL_DEBIAN_MIRROR"
[[ -r $keyring ]] || die "$keyring missing (package debian-archive-keyring)"

log "building $sysroot from $mirror $suite (armhf)"
work=$sysroot.partial
rm -rf "$work"
apt_root=$work/.apt
mkdir -p "$apt_root"/{state/lists/partial,cache/archives/partial,none,debs}
echo "deb [arch=armhf signed-by=$keyring] $mirror $suite main" >"$apt_root/sources.list"

apt_armhf() {
    # Private state, cache and sources: nothing here touches the host's apt.
    # An empty status file makes apt fetch every dependency, which is what a
    # self-contained root needs (libc6, libstdc++6 and libgcc-s1 included).
    apt-get -q \
        -o APT::Architecture=armhf -o APT::Architectures=armhf \
        -o Dir::State="$apt_root/state" -o Dir::Cache="$apt_root/cache" \
        -o Dir::Etc::SourceList="$apt_root/sources.list" \
        -o Dir::Etc::SourceParts="$apt_root/none" \
        -o Dir::Etc::Preferences=/dev/null -o Dir::Etc::PreferencesParts="$apt_root/none" \
        -o Dir::State::status=/dev/null \
        -o Acquire::Languages=none -o APT::Sandbox::User=root \
        "$@"
}

apt_armhf update
apt_armhf -y --download-only --no-install-recommends install libqt5core5a libgtest-dev
# qtbase5-dev and qt5-qmake without their dependencies (GL, Vulkan, the other
# Qt modules, the armhf tools): the headers and CMake files come from the
# first, the mkspec directory that Qt5Core's CMake files add to the include
# path (qplatformdefs.h) from the second.
(cd "$apt_root/debs" && apt_armhf download qtbase5-dev qt5-qmake)

shopt -s nullglob
debs=("$apt_root"/cache/archives/*.deb "$apt_root"/debs/*.deb)
((${#debs[@]} > 0)) || die "no packages downloaded"
for deb in "${debs[@]}"; do
    dpkg-deb -x "$deb" "$work"
done
log "unpacked ${#debs[@]} packages"

# Debian packages carry absolute symlinks (/usr/lib/...). Inside the root they
# would point at the host's files, so make each one relative to the root.
while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    [[ ${target:0:1} == / ]] || continue
    ln -sfn "$(realpath -s -m --relative-to="$(dirname "$link")" "$work$target")" "$link"
done < <(find "$work" -path "$apt_root" -prune -o -type l -print0)

# Qt5Core's CMake package insists that qmake, moc and rcc exist where the
# target's Qt would install them. Those would be armhf programs, of no use on
# the build machine, so point them at the host's Qt tools of the same release:
# moc and rcc write portable C++ and resources, so their output is right for
# the target as well, and a future AUTOMOC target keeps working. If the host
# lacks them, a stub stands in that fails loudly when run.
extras=$(find "$work/usr/lib/$triplet/cmake/Qt5Core" -name Qt5CoreConfigExtras.cmake | head -n 1)
[[ -n $extras ]] || die "Qt5CoreConfigExtras.cmake missing: qtbase5-dev was not unpacked"
grep -o '_qt5Core_install_prefix}/[^")]*' "$extras" | sed 's|^_qt5Core_install_prefix}/||' | sort -u |
while IFS= read -r rel; do
    dest=$work/usr/$rel
    [[ -e $dest ]] && continue
    name=$(basename "$rel")
    mkdir -p "$(dirname "$dest")"
    host_tool=/usr/lib/qt5/bin/$name
    if [[ -x $host_tool ]]; then
        ln -sfn "$host_tool" "$dest"
    else
        printf '#!/bin/sh\necho "%s: host Qt tools (qtbase5-dev-tools) are not installed" >&2\nexit 1\n' "$name" >"$dest"
        chmod +x "$dest"
    fi
done

# The target's loader, C runtime and Qt must all be there, or qemu-arm would
# fail with an obscure message much later.
for f in lib/ld-linux-armhf.so.3 "lib/$triplet/libc.so.6" "usr/lib/$triplet/libstdc++.so.6" \
         "lib/$triplet/libgcc_s.so.1" "usr/lib/$triplet/libQt5Core.so" \
         "usr/lib/$triplet/libgtest.a" "usr/lib/$triplet/libgtest_main.a" \
         "usr/include/$triplet/qt5/QtCore/qglobal.h" "usr/include/gtest/gtest.h" \
         "usr/lib/$triplet/qt5/mkspecs/linux-g++/qplatformdefs.h"; do
    [[ -e $work/$f ]] || die "$f missing from the unpacked packages"
done

rm -rf "$apt_root/cache/archives" "$apt_root/debs" "$apt_root/state/lists"
echo "$layout_version" >"$work/.sysroot-complete"
rm -rf "$sysroot"
mv "$work" "$sysroot"
log "ready at $sysroot ($(du -sh "$sysroot" | cut -f1))"

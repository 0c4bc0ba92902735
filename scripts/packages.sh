# Shared by the project's scripts (sourced, not run): installs the Debian
# packages named that are not installed yet, with apt-get, as root or through
# sudo. `apt-get update` runs only when something is missing.
#
#   abcl_ensure_packages CALLER PACKAGE...
abcl_ensure_packages() {
    local caller=$1
    shift
    local missing=() pkg status sudo=()
    for pkg in "$@"; do
        status=$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null) || status=
        [[ $status == installed ]] || missing+=("$pkg")
    done
    ((${#missing[@]} == 0)) && return 0
    if ((EUID != 0)); then
        command -v sudo >/dev/null || { echo "$caller: need root or sudo to install: ${missing[*]}" >&2; return 1; }
        sudo=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    abcl_preseed_packages "${sudo[@]}" -- "${missing[@]}" || return 1
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null &&
        "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
}

# Answers in advance the questions a package asks while it installs, so that
# the non-interactive install never stops on one: wireshark-common (which
# tshark pulls in) asks whether users other than root may capture; no.
#
#   abcl_preseed_packages [SUDO...] -- PACKAGE...
abcl_preseed_packages() {
    local sudo=() pkg
    while (($# > 0)) && [[ $1 != -- ]]; do
        sudo+=("$1")
        shift
    done
    shift
    for pkg in "$@"; do
        case $pkg in
            tshark | wireshark-common)
                echo "wireshark-common wireshark-common/install-setuid boolean false" |
                    "${sudo[@]}" debconf-set-selections || return 1
                ;;
        esac
    done
}

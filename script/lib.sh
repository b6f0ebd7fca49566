# Sourced first by the scripts beside it: goes to the checkout's root, and holds what they share.
# shellcheck shell=bash
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." || exit

has() {
    command -v "$1" >/dev/null
}

# Installs Debian packages, or says that they are to be installed where that may not be done from here.
install_packages() {
    [[ $# -gt 0 ]] || return 0
    local advice="${0##*/} needs packages that it cannot install. As root, on Debian 13: apt-get install $*"
    if [[ $(id -u) != 0 ]] || ! has apt-get; then
        echo "$advice" >&2
        exit 1
    fi
    echo "installing $*"
    export DEBIAN_FRONTEND=noninteractive
    quiet apt-get update || true # one source that does not answer need not be the one that has them
    quiet apt-get install -y --no-install-recommends "$@" || {
        echo "$advice" >&2
        exit 1
    }
}

# Runs a command without input and shows what it printed only if it fails.
quiet() {
    local output status=0
    output=$("$@" 2>&1 </dev/null) || status=$?
    [[ $status == 0 ]] || printf '%s\n' "$output" >&2
    return "$status"
}

# The interpreter that a preset was configured for.
python_of() {
    sed -n 's/^Python_EXECUTABLE:FILEPATH=//p' "build/$1/CMakeCache.txt"
}

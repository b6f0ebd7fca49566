# Sourced first by the scripts beside it: goes to the checkout's root, and holds what they share.
# shellcheck shell=bash
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." || exit
script=$(basename -- "$(readlink -f -- "$0")")

has() {
    command -v "$1" >/dev/null
}

# How to build for an interpreter that the scripts do not find by themselves.
name_it="cmake --preset ${1:-release} -DPython_EXECUTABLE=PATH, then script/bootstrap ${1:-release}"

# What a script is for and takes: the comment at its head.
usage() {
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "script/$script"
}

# Answers --help, and anything that is not among the script's words (the first argument, with | between them).
take_arguments() {
    local allowed=$1 argument
    shift
    for argument; do
        case $argument in
        -h | --help)
            usage
            exit
            ;;
        esac
    done
    [[ $# == 0 || "|$allowed|" == *"|$1|"* ]] || usage_error "$1"
}

usage_error() {
    printf '%s: what is "%s"?\n\n%s\n' "$script" "$1" "$(usage)" >&2
    exit 2
}

# Installs Debian packages, or says that they are to be installed where that may not be done from here.
install_packages() {
    [[ $# -gt 0 ]] || return 0
    local advice="$script needs packages that it cannot install. As root, on Debian 13: apt-get install $*" package
    if [[ $(id -u) != 0 ]] || ! has apt-get; then
        echo "$advice" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    quiet apt-get update || true # one source that does not answer need not be the one that has them
    for package; do
        if ! apt-cache show "$package" >/dev/null 2>&1; then
            echo "The packages of this distribution have no $package; Debian 13 has it." >&2
            [[ $package != python3.13* ]] || echo "For a Python 3.13 from elsewhere: $name_it" >&2
            exit 1
        fi
    done
    echo "installing $*"
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

# Runs a command and says how long it took.
timed() {
    local start=$SECONDS status=0
    "$@" || status=$?
    echo "$* took $((SECONDS - start)) s"
    return "$status"
}

# The interpreter that a preset was configured for.
python_of() {
    sed -n 's/^Python_EXECUTABLE:[^=]*=//p' "build/$1/CMakeCache.txt"
}

# Sourced by demo.sh and test.sh: what a build needs, and the build.
# shellcheck shell=bash

packages=(g++ cmake ninja-build qt6-base-dev qcoro-qt6-dev)

fail()
{
    echo "$0: $*" >&2
    exit 1
}

is_installed()
{
    [ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# Whether rights can be had: sudo asks for a password only where somebody can type one.
may_install()
{
    [ "$(id -u)" = 0 ] || { command -v sudo >/dev/null && { [ -t 0 ] || sudo -n true 2>/dev/null; }; }
}

apt_get()
{
    local rights=()
    [ "$(id -u)" = 0 ] || rights=(sudo)
    "${rights[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq "$@" </dev/null
}

# Installs what is missing. Needs no rights and no network when nothing is.
ensure_packages()
{
    local package missing=()
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        # Another system: what is there may do.
        command -v cmake >/dev/null && command -v ninja >/dev/null && return
        fail "this system has no apt-get; please install what Debian calls ${packages[*]}"
    fi
    for package in "${packages[@]}"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} = 0 ] && return
    may_install || fail "these packages are missing, and it takes root or sudo to install them: ${missing[*]}"
    echo "Installing ${missing[*]}"
    { apt_get update && apt_get install --yes --no-install-recommends "${missing[@]}"; } \
        || fail "these packages could not be installed: ${missing[*]}"
}

# build PRESET [ARG...], in the project's folder. Configures once; the build itself notices later changes.
build()
{
    local preset=$1
    shift
    [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" \
        || fail "the build could not be set up; it needs what Debian calls ${packages[*]}"
    cmake --build --preset "$preset" "$@"
}

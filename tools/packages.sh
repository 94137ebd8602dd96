# Sourced by demo.sh and test.sh: what a build needs, and the build.
# shellcheck shell=bash

packages=(g++ cmake ninja-build qt6-base-dev qcoro-qt6-dev)
# For the tests that need pkg-config, and for the translations.
test_packages=(pkgconf qt6-tools-dev qt6-l10n-tools)

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

# missing_of PACKAGE...
missing_of()
{
    local package
    for package; do
        is_installed "$package" || echo "$package"
    done
}

install_packages()
{
    echo "Installing $*"
    apt_get update && apt_get install --yes --no-install-recommends "$@"
}

# Installs what is missing. Needs no rights and no network when nothing is.
ensure_packages()
{
    local missing
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        # Another system: what is there may do.
        command -v cmake >/dev/null && command -v ninja >/dev/null && return
        fail "this system has no apt-get; please install what Debian calls ${packages[*]}"
    fi
    mapfile -t missing < <(missing_of "${packages[@]}")
    [ ${#missing[@]} = 0 ] && return
    may_install || fail "these packages are missing, and it takes root or sudo to install them: ${missing[*]}"
    install_packages "${missing[@]}" || fail "these packages could not be installed: ${missing[*]}"
}

# Installs what only some tests need, where that is possible.
want_test_packages()
{
    local missing
    command -v dpkg-query >/dev/null && command -v apt-get >/dev/null || return 0
    mapfile -t missing < <(missing_of "${test_packages[@]}")
    [ ${#missing[@]} = 0 ] && return
    { may_install && install_packages "${missing[@]}"; } \
        || echo "$0: without the packages ${missing[*]}, some tests are left out" >&2
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

#!/bin/bash
# debian13.sh [FOLDER]: builds this project on Debian 13, the newer end of what is supported, with g++ and with clang,
# warnings being errors, and runs all tests. Root only; makes a Debian 13 system in FOLDER (default: build/debian13)
# with debootstrap, and uses it again next time.
set -euo pipefail

project=$(cd "$(dirname "$0")/.." && pwd)
root=$(realpath -m "${1:-$project/build/debian13}")
packages=(g++ clang-19 cmake ninja-build qt6-base-dev qcoro-qt6-dev qt6-tools-dev qt6-l10n-tools pkgconf)

if [ "$(id -u)" != 0 ] || ! command -v debootstrap >/dev/null; then
    echo "$0: this takes root and the package debootstrap" >&2
    exit 1
fi

inside()
{
    # With a /proc and a /dev/shm of its own, which go with the last process in there.
    unshare --mount --pid --fork bash -euc '
        mount -t proc proc "$0/proc"
        mount -t tmpfs tmpfs "$0/dev/shm"
        exec chroot "$0" env --ignore-environment PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
            DEBIAN_FRONTEND=noninteractive "$@"' "$root" "$@"
}

if [ ! -e "$root/var/lib/dpkg/status" ]; then
    mkdir -p "$root"
    debootstrap --variant=minbase trixie "$root"
fi
inside apt-get -qq update
inside apt-get -qq install --yes --no-install-recommends "${packages[@]}" </dev/null

rm -rf "$root/src/new"
mkdir -p "$root/src/new"
(cd "$project" && git ls-files --cached --others --exclude-standard -z | tar --create --null --files-from=-) |
    tar --extract --directory="$root/src/new"
# Files that did not change keep their times, so that a second run builds only what did.
mkdir -p "$root/src/project"
(cd "$root/src" && cp --recursive --no-clobber new/. project &&
    (cd new && find . -type f) | while read -r file; do
        cmp --silent "new/$file" "project/$file" || cp "new/$file" "project/$file"
    done)

for compiler in g++ clang++-19; do
    echo "== $(inside "$compiler" --version | head -n 1)"
    inside sh -euc 'cd /src/project
        cmake --preset dev -B "build/$0" -DCMAKE_CXX_COMPILER="$0" >"configure-$0.log" || { cat "configure-$0.log"; exit 1; }
        cmake --build "build/$0" -- -k 0
        ctest --test-dir "build/$0" --output-on-failure --no-tests=error -j2' "$compiler"
done
echo "Debian $(cat "$root/etc/debian_version"):"
inside dpkg-query --show qt6-base-dev qcoro-qt6-dev g++ clang-19 cmake

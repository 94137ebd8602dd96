#!/bin/bash
# debian-packages.sh [--try]: makes the Debian packages libzel-tasks and libzel-tasks-dev in build/packages. With --try,
# as root, it installs them, builds and runs a program with them, and removes them again.
set -euo pipefail

cd "$(dirname "$0")/.."
. tools/packages.sh
packages+=(dpkg-dev file pkgconf)
ensure_packages
want_test_packages

cmake --preset release -B build/packages -DCMAKE_INSTALL_PREFIX=/usr -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF \
    -DZEL_BUILD_BENCHMARKS=OFF
cmake --build build/packages
rm -f build/packages/*.deb
(cd build/packages && cpack -G DEB)
[ "${1-}" = --try ] || exit 0

dpkg --install build/packages/libzel-tasks*.deb
trap 'dpkg --remove libzel-tasks-dev libzel-tasks' EXIT
folder=build/packages/try
for from in package pkg-config; do
    rm -rf "$folder"
    mkdir -p "$folder"
    if [ $from = package ]; then
        cmake -S tests/consumer -B "$folder" -G Ninja -DZEL_FROM=package >"$folder.log"
        cmake --build "$folder" >>"$folder.log"
    else
        # shellcheck disable=SC2046
        g++ -std=c++20 tests/consumer/main.cpp -fPIC -o "$folder/consumer" $(pkg-config --cflags --libs zel_tasks)
    fi
    echo "$from: $("$folder/consumer") $("$folder/consumer" /usr/share/zel_tasks/translations/zel_tasks_de.qm)"
done

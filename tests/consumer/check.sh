#!/bin/bash
# check.sh WAY FOLDER BUILD: gets the library as a user would, in FOLDER, and builds and runs the consumer with it.
#
# WAY is package, pkg-config, subdirectory, fetch or static. The installed ones are installed from the build tree BUILD.
# Compilers and build types are those of CXX and BUILD_TYPE.
set -euo pipefail

[ $# -eq 3 ] || { sed -n 2p "$0" >&2; exit 2; }
way=$1 folder=$(realpath -m "$2") build=$3
here=$(cd "$(dirname "$0")" && pwd)
project=$(cd "$here/../.." && pwd)
settings=(-G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-Debug}")

fail()
{
    echo "$way: $*" >&2
    exit 1
}

# build_with FROM [ARG...]
build_with()
{
    cmake -S "$here" -B "$folder/build" "${settings[@]}" -DZEL_FROM="$1" "${@:2}" >"$folder/log"
    cmake --build "$folder/build" >"$folder/log" || { cat "$folder/log"; fail "does not build"; }
    # What the library is built with must not reach its users: neither flags nor options nor tests.
    local command
    command=$(grep '"command".* -c .*/consumer/main.cpp' "$folder/build/compile_commands.json") || fail "has no command"
    case $command in *-W* | *QT_NO_KEYWORDS* | *QT_NO_CAST* | *QT_MESSAGELOG*) fail "flags leak" ;; esac
    ! grep --quiet '^BUILD_SHARED_LIBS:' "$folder/build/CMakeCache.txt" || fail "an option leaks"
    [[ $(ctest --test-dir "$folder/build" --show-only) == *"Total Tests: 0"* ]] || fail "tests leak"
    program=$folder/build/consumer
}

rm -rf "$folder"
mkdir -p "$folder"
expected=Canceled
case $way in
package)
    cmake --install "$build" --prefix "$folder/installed" >"$folder/install.log"
    build_with package -DCMAKE_PREFIX_PATH="$folder/installed"
    translation=$(find "$folder/installed" -name zel_tasks_de.qm)
    [ -z "$translation" ] || expected=Abgebrochen
    ;;
pkg-config)
    cmake --install "$build" --prefix "$folder/installed" >"$folder/install.log"
    PKG_CONFIG_PATH=$(dirname "$(find "$folder/installed" -name zel_tasks.pc)")
    export PKG_CONFIG_PATH
    program=$folder/consumer
    flags=()
    eval "flags=($(pkg-config --cflags --libs zel_tasks))"
    "${CXX:-c++}" -std=c++20 -fPIC "$here/main.cpp" -o "$program" "${flags[@]}"
    LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
    export LD_LIBRARY_PATH
    ;;
subdirectory | fetch)
    build_with "$way" -DZEL_SOURCE="$project"
    [[ $(ldd "$program") == *libzel_tasks.so.* ]] || fail "the library is not shared"
    ;;
static)
    cmake -S "$project" -B "$folder/static" "${settings[@]}" -DBUILD_SHARED_LIBS=OFF -DZEL_BUILD_TESTS=OFF \
        -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCHMARKS=OFF >"$folder/static.log"
    cmake --build "$folder/static" >>"$folder/static.log"
    cmake --install "$folder/static" --prefix "$folder/installed" >"$folder/install.log"
    build_with package -DCMAKE_PREFIX_PATH="$folder/installed"
    [[ $(ldd "$program") != *libzel* ]] || fail "the library is not static"
    ;;
*)
    fail "no such way"
    ;;
esac

printed=$("$program" ${translation:+"$translation"})
[ "$printed" = "$expected" ] || fail "prints '$printed'"

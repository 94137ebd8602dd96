#!/bin/bash
# interleave.sh [SECONDS [SEED]]: has threads do random things with the library, in an order that changes from seed to
# seed, for SECONDS (default: 60). Fails when something went wrong, and says with which seed.
#
# interleave.sh --planted [NAME...]: whether each fault in tests/interleave/planted/ is found, in SECONDS_EACH (default:
# 600) seconds.
set -euo pipefail

cd "$(dirname "$0")/.."
. tools/packages.sh

options=()
if command -v ccache >/dev/null; then
    options=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
log=$(mktemp)
copy=build/planted
trap 'rm -f "$log"' EXIT

# build_tool: in the present folder, which is the project or a copy of it.
build_tool()
{
    cmake --preset interleave "${options[@]}" >/dev/null
    cmake --build --preset interleave --target zel_interleave "$@"
}

seed_of_log()
{
    sed -n 's/^seed //p' "$log" | tail -n 1
}

# run SECONDS SEED: in fresh processes, until one fails. The last output is in the log. A process that does not end by
# itself is ended, which makes it say where its threads are.
run()
{
    local end=$((SECONDS + $1)) seed=$2 left
    while [ $SECONDS -lt $end ]; do
        left=$((end - SECONDS))
        [ $left -lt 20 ] || left=20
        timeout --signal=ABRT --kill-after=10 $((left + 60)) \
            build/interleave/tests/zel_interleave $left "$seed" >"$log" 2>&1 || return 1
        seed=$(($(seed_of_log) + 1))
    done
}

# What was found, in a line.
finding()
{
    grep -m 1 -E '^FAILED|ERROR: |runtime error: |terminate called|ASSERT' "$log" || tail -n 1 "$log"
}

# Only what the last patch has changed is written, so that the build tree can be kept.
update_copy()
{
    local file
    git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' file; do
        cmp --silent "$file" "$copy/$file" || install -D "$file" "$copy/$file"
    done
}

run_planted()
{
    local seconds=${SECONDS_EACH:-600} missed=0 found=0 patch began
    local -a patches=("$@")
    [ $# != 0 ] || mapfile -t patches < <(find tests/interleave/planted -name '*.patch' -printf '%f\n' | sort)
    [ ${#patches[@]} != 0 ] || fail "there are no patches in tests/interleave/planted"
    for patch in "${patches[@]}"; do
        patch=$PWD/tests/interleave/planted/${patch%.patch}.patch
        update_copy
        if ! patch --directory="$copy" --strip=1 --silent <"$patch" \
            || ! (cd "$copy" && build_tool >"$log" 2>&1); then
            echo "$(basename "$patch" .patch): cannot be built"
            missed=$((missed + 1))
            continue
        fi
        began=$SECONDS
        if (cd "$copy" && run "$seconds" 1); then
            echo "$(basename "$patch" .patch): not found in $seconds seconds"
            missed=$((missed + 1))
        else
            echo "$(basename "$patch" .patch): found after $((SECONDS - began)) seconds, seed $(seed_of_log): $(finding)"
            found=$((found + 1))
        fi
    done
    echo "$found found, $missed missed"
    [ $missed = 0 ]
}

if [ "${1:-}" = --planted ]; then
    shift
    run_planted "$@"
    exit
fi
build_tool
if ! run "${1:-60}" "${2:-$((RANDOM * 1000))}"; then
    cat "$log"
    echo "Failed with seed $(seed_of_log); $0 ${1:-60} $(seed_of_log) tries it again"
    exit 1
fi

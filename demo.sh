#!/bin/bash
# demo.sh [PATH...]: builds the example program zel-sum, prints the checksums of all files under the paths (default:
# this project's sources) and has sha256sum check them.
set -euo pipefail

project=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=tools/packages.sh
. "$project/tools/packages.sh"
ensure_packages
(cd "$project" && build release --target zel-sum)

if [ $# = 0 ]; then
    cd "$project"
    GLOBIGNORE='build*:.git:.cache' # and with it, * matches hidden files as well
    set -- *
fi
list=$(mktemp)
trap 'rm -f "$list"' EXIT
status=0
"$project/build/release/examples/zel-sum/zel-sum" -- "$@" | tee "$list" || status=$?
[ -s "$list" ] || fail "no file was read"
sha256sum --check --quiet --strict "$list" || fail "sha256sum does not agree"
echo "$(wc -l <"$list") files, and sha256sum agrees."
exit $status

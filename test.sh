#!/bin/bash
# test.sh: builds everything and runs the tests.
set -euo pipefail

cd "$(dirname "$0")"
. tools/packages.sh
ensure_packages
want_test_packages
build dev
ctest --preset dev

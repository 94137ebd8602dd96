#!/bin/bash
# valgrind.sh [BUILD]: runs the tests that need no threads under valgrind, from the build tree BUILD (default: build/dev).
# Fails on an invalid access, a jump on what was never set, or a block that is definitely lost.
set -euo pipefail

cd "$(dirname "$0")/.."
build=${1:-build/dev}
for test in common basetask task progress complextask grouptask; do
    # A function may take longer than the five minutes that Qt Test gives it.
    QTEST_FUNCTION_TIMEOUT=3600000 valgrind --quiet --error-exitcode=9 --leak-check=full --show-leak-kinds=definite \
        --errors-for-leak-kinds=definite "$build/tests/tst_$test" >/dev/null
    echo "$test: no error"
done

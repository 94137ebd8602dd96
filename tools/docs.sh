#!/bin/bash
# docs.sh: makes the reference and the guides as HTML in build/docs/html, and as build/docs/zel_tasks.qch for Qt Assistant
# and Qt Creator where Qt's help generator is there. A warning is an error.
set -euo pipefail

cd "$(dirname "$0")/.."
. tools/packages.sh
packages=(doxygen)
test_packages=(qt6-tools-dev-tools)
ensure_packages
want_test_packages

ZEL_QHELPGENERATOR=$(command -v qhelpgenerator /usr/lib/qt6/libexec/qhelpgenerator | head -n 1 || true)
ZEL_QHP=$([ -n "$ZEL_QHELPGENERATOR" ] && echo YES || echo NO)
export ZEL_QHELPGENERATOR ZEL_QHP
mkdir -p build/docs
doxygen docs/Doxyfile
ls -d build/docs/html/index.html build/docs/*.qch

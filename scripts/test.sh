#!/usr/bin/env bash
# Sets the machine up (scripts/setup.sh: quick when everything is present),
# builds the AddressSanitizer + UBSan configuration (clang) with every test
# and fuzz target, then runs the whole suite through ctest: unit tests, the
# include-layering check, tests against real peers on loopback, and short
# bounded fuzz runs.
# Usage: scripts/test.sh [extra ctest arguments, e.g. -R Store or -LE fuzz]
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

if [ -f tests/e2e/package.json ]; then
  (cd tests/e2e && { [ -d node_modules ] || npm ci --no-audit --no-fund --loglevel=error; })
fi

cmake --preset debug >/dev/null
cmake --build --preset debug -j "${JOBS:-2}"
ctest --preset debug "$@"

#!/bin/sh
# Non-blank lines of C++ and JavaScript sources: tests against the code they test.
# Usage: scripts/count-lines.sh   (from anywhere inside the repository)
set -eu
cd "$(dirname "$0")/.."
count() {
    find "$@" -type d -name node_modules -prune -o -type f \
        \( -name '*.cpp' -o -name '*.h' -o -name '*.mjs' \) -print0 |
        xargs -0 cat | grep -cv '^[[:space:]]*$'
}
code=$(count KestruneMCPKit MailCore kestrune_app kestrune_mcp)
tests=$(count tests)
echo "code  $code"
echo "tests $tests"
awk -v t="$tests" -v c="$code" 'BEGIN { printf "tests/code %.1f%%\n", 100 * t / c }'

#!/usr/bin/env bash
# Fails when a tracked C++ source differs from what clang-format (the
# repository's .clang-format) makes of it; lists the files to reformat.
# Fix with: git ls-files '*.h' '*.cpp' | xargs clang-format -i
set -euo pipefail
cd "$(dirname "$0")/.."

unformatted=()
while IFS= read -r -d '' file; do
    if ! clang-format --dry-run --Werror "$file" >/dev/null 2>&1; then
        unformatted+=("$file")
    fi
done < <(git ls-files -z '*.h' '*.cpp')

if [ ${#unformatted[@]} -gt 0 ]; then
    echo "format: ${#unformatted[@]} file(s) differ from clang-format:"
    printf '  %s\n' "${unformatted[@]}"
    exit 1
fi
echo "format: every source file is formatted"

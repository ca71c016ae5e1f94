#!/usr/bin/env bash
# Fails when a source file includes across a forbidden edge of the layering:
#   MailCore/ (the engine)            must not include KestruneMCPKit/ or kestrune_app/
#   KestruneMCPKit/ (the agent side)  must not include kestrune_app/
#   the helper (kestrune_mcp/ and the Kit's Shim/, Link/, Tokens/, Installer/,
#   Tools/)                           must not include the engine's Store/, MIME/, SMTP/,
#                                     Engine/, IMAP/ or Transport/
# Usage: scripts/check-layering.sh [repository root]; prints each offending
# line as file:line: include, exit status 1 when there is one.
set -euo pipefail
root="${1:-$(cd "$(dirname "$0")/.." && pwd)}"
cd "$root"

status=0
# forbid <what> <include pattern> <folders...>
forbid() {
    local what="$1" pattern="$2"
    shift 2
    local hits
    hits="$(grep -rnE --include='*.h' --include='*.cpp' "^[[:space:]]*#[[:space:]]*include[[:space:]]*[\"<]($pattern)" "$@" 2>/dev/null || true)"
    if [[ -n "$hits" ]]; then
        echo "layering: $what"
        echo "$hits" | sed 's/^/  /'
        status=1
    fi
}

forbid "the engine includes the agent side or the application" \
    'KestruneMCPKit/|kestrune_app/' MailCore
forbid "the agent side includes the application" \
    'kestrune_app/' KestruneMCPKit
forbid "the helper includes the engine's store, MIME, SMTP, engine, IMAP or transport" \
    'MailCore/(Store|MIME|SMTP|Engine|IMAP|Transport)/' \
    kestrune_mcp KestruneMCPKit/Shim KestruneMCPKit/Link KestruneMCPKit/Tokens \
    KestruneMCPKit/Installer KestruneMCPKit/Tools

if [[ $status -eq 0 ]]; then echo "layering: no forbidden include"; fi
exit $status

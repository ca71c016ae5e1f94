#!/usr/bin/env bash
# Imports one Maildir tree with our importer, `notmuch new` and `mu index`,
# one run each on a warm page cache, and prints messages per second and peak
# memory (maximum resident set size) of each.
#
#   bench/MIME/compare_import.sh <maildir> [messages]
#
# <messages> is the number of messages in the tree (for the rates of the
# other tools); counted with find when not given. Needs the release build
# (cmake --preset release && cmake --build --preset release --target
# MIMEBenchmarks) and the notmuch and maildir-utils packages, which are
# benchmark-only tools and not part of the project's set-up.
set -euo pipefail

maildir=$(realpath "$1")
here=$(cd "$(dirname "$0")/../.." && pwd)
bench="$here/build/release/bench/MIME/MIMEBenchmarks"
[ -x "$bench" ] || { echo "build $bench first (release preset)" >&2; exit 1; }
count=${2:-$(find "$maildir" -path '*/cur/*' -type f -o -path '*/new/*' -type f | wc -l)}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Warm the page cache so that every tool reads from memory.
find "$maildir" -type f -print0 | xargs -0 cat > /dev/null

measure() {  # name, command...: prints "name seconds peak_kb"
    local name=$1; shift
    /usr/bin/time -f "%e %M" -o "$work/time" "$@" > "$work/$name.out" 2>&1
    read -r seconds peak < "$work/time"
    echo "$name $seconds $peak"
}

echo "corpus: $maildir ($count messages), $(nproc) cores"
results=()
results+=("$(KESTRUNE_IMPORT_MAILDIR="$maildir" measure kestrune "$bench" --benchmark_filter=BM_ImportMaildir)")
grep -E "BM_ImportMaildir" "$work/kestrune.out" || cat "$work/kestrune.out"

if command -v notmuch > /dev/null; then
    mkdir -p "$work/notmuch-db"
    cat > "$work/notmuch-config" <<CONF
[database]
path=$work/notmuch-db
mail_root=$maildir
[new]
tags=unread;inbox;
ignore=
[search]
exclude_tags=
[maildir]
synchronize_flags=true
[user]
name=Bench
primary_email=bench@example.com
CONF
    results+=("$(measure notmuch notmuch --config="$work/notmuch-config" new --quiet)")
fi

if command -v mu > /dev/null; then
    mu init --muhome="$work/mu" --maildir="$maildir" > /dev/null 2>&1
    results+=("$(measure mu mu index --muhome="$work/mu" --quiet)")
fi

printf "\n%-10s %10s %14s %14s\n" tool seconds "messages/s" "peak RSS MB"
for r in "${results[@]}"; do
    read -r name seconds peak <<< "$r"
    rate=$(awk -v n="$count" -v s="$seconds" 'BEGIN { printf "%.0f", (s > 0 ? n / s : 0) }')
    mb=$(awk -v k="$peak" 'BEGIN { printf "%.1f", k / 1024 }')
    printf "%-10s %10s %14s %14s\n" "$name" "$seconds" "$rate" "$mb"
done

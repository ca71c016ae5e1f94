#!/usr/bin/env bash
# Imports one Maildir tree with our importer, `notmuch new` and `mu index`,
# one run each on a warm page cache, and prints messages per second of wall
# time and of CPU time (user + system; steadier on a shared machine) and the
# peak memory (maximum resident set size) of each.
#
#   bench/MIME/compare_import.sh <maildir> [messages]
#
# <messages> is the number of messages in the tree (for the rates of the
# other tools); counted with find when not given. Needs the release build
# (cmake --preset release && cmake --build --preset release --target
# MIMEBenchmarks) and the notmuch and maildir-utils packages, which are
# benchmark-only tools and not part of the project's set-up. PEERS=0 runs
# our importer alone (the peers take about 20 minutes per 100,000 messages
# on a loaded 2-core machine).
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

measure() {  # name, command...: prints "name seconds cpu_seconds peak_kb"
    local name=$1; shift
    /usr/bin/time -f "%e %U %S %M" -o "$work/time" "$@" > "$work/$name.out" 2>&1
    read -r seconds user system peak < "$work/time"
    echo "$name $seconds $(awk -v u="$user" -v s="$system" 'BEGIN { print u + s }') $peak"
}

echo "corpus: $maildir ($count messages), $(nproc) cores"
results=()
results+=("$(KESTRUNE_IMPORT_MAILDIR="$maildir" measure kestrune "$bench" --benchmark_filter=BM_ImportMaildir)")
grep -E "BM_ImportMaildir" "$work/kestrune.out" || cat "$work/kestrune.out"

if [ "${PEERS:-1}" != 0 ] && command -v notmuch > /dev/null; then
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

if [ "${PEERS:-1}" != 0 ] && command -v mu > /dev/null; then
    mu init --muhome="$work/mu" --maildir="$maildir" > /dev/null 2>&1
    results+=("$(measure mu mu index --muhome="$work/mu" --quiet)")
fi

printf "\n%-10s %9s %9s %12s %14s %12s\n" tool seconds cpu-s "messages/s" "messages/cpu-s" "peak RSS MB"
for r in "${results[@]}"; do
    read -r name seconds cpu peak <<< "$r"
    rate=$(awk -v n="$count" -v s="$seconds" 'BEGIN { printf "%.0f", (s > 0 ? n / s : 0) }')
    cpurate=$(awk -v n="$count" -v s="$cpu" 'BEGIN { printf "%.0f", (s > 0 ? n / s : 0) }')
    mb=$(awk -v k="$peak" 'BEGIN { printf "%.1f", k / 1024 }')
    printf "%-10s %9s %9s %12s %14s %12s\n" "$name" "$seconds" "$cpu" "$rate" "$cpurate" "$mb"
done
echo "(load average: $(cut -d' ' -f1-3 /proc/loadavg))"

#!/usr/bin/env bash
# Measures the mail store side by side with notmuch and mu on one generated
# corpus, on this machine, in one run.
#
#   bench/Store/compare.sh [MESSAGES] [WORKDIR]
#
# MESSAGES defaults to 100000; WORKDIR to /dev/shm/kestrune-store-bench-MESSAGES
# (a memory file system, so that every tool's fsync costs the same: nothing).
# Needs the Debian packages notmuch and maildir-utils (benchmarking only; the
# project's setup script does not install them). Results go to
# WORKDIR/results/*.json and a summary to standard output.
set -euo pipefail

messages="${1:-100000}"
work="${2:-/dev/shm/kestrune-store-bench-${messages}}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
corpus="$work/corpus"
results="$work/results"
mkdir -p "$work" "$results"

for tool in notmuch mu python3; do
  command -v "$tool" >/dev/null || { echo "compare.sh: $tool is not installed" >&2; exit 1; }
done

if [ ! -f "$corpus/summary.json" ] || \
   [ "$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["messages"])' "$corpus/summary.json")" != "$messages" ]; then
  echo "== generating $messages messages into $corpus"
  python3 "$root/bench/corpus/generate_corpus.py" --messages "$messages" --out "$corpus"
fi

echo "== building store_bench (release)"
(cd "$root" && cmake --preset release >/dev/null && cmake --build --preset release --target store_bench -j2 >/dev/null)
bench="$root/build/release/bench/Store/store_bench"

# The three imports run side by side to fit a shared machine's time; each
# reports its CPU seconds next to its wall time.
echo "== store (upsertSync, threading, search, lists), notmuch new and mu index"
mkdir -p "$work/store"
"$bench" run --corpus "$corpus" --db "$work/store/mail.db" --batch 500 --repeat 5 \
  > "$results/store.json" &
store_pid=$!

rm -rf "$work/notmuch" "$corpus/Maildir/.notmuch"; mkdir -p "$work/notmuch"
cat > "$work/notmuch/config" <<CONF
[database]
path=$corpus/Maildir
mail_root=$corpus/Maildir
[new]
tags=
[maildir]
synchronize_flags=false
CONF
NOTMUCH_CONFIG="$work/notmuch/config" python3 "$root/bench/Store/compare_peers.py" time \
  --messages "$messages" -- notmuch new --quiet > "$results/notmuch-new.json" &
notmuch_pid=$!

rm -rf "$work/mu"
mu init --muhome="$work/mu" --maildir="$corpus/Maildir" >/dev/null
python3 "$root/bench/Store/compare_peers.py" time --messages "$messages" -- \
  mu index --muhome="$work/mu" --quiet > "$results/mu-index.json" &
mu_pid=$!
wait "$store_pid" "$notmuch_pid" "$mu_pid"

echo "== store again, subject threading for replies only"
mkdir -p "$work/store-replies"
"$bench" run --corpus "$corpus" --db "$work/store-replies/mail.db" --batch 500 --repeat 5 \
  --subject-fallback replies > "$results/store-replies.json"

echo "== search as whole processes"
python3 "$root/bench/Store/compare_peers.py" search --corpus "$corpus" --store-bench "$bench" \
  --db "$work/store/mail.db" --notmuch-config "$work/notmuch/config" --muhome "$work/mu" --repeat 3 \
  > "$results/search-processes.json"

echo "== peers' threading"
python3 "$root/bench/Store/compare_peers.py" threads --corpus "$corpus" \
  --notmuch-config "$work/notmuch/config" --muhome "$work/mu" > "$results/peer-threading.json"

python3 - "$results" <<'PY'
import json, os, sys
r = sys.argv[1]
load = lambda n: json.load(open(os.path.join(r, n)))
s, sp, pt = load("store.json"), load("search-processes.json"), load("peer-threading.json")
nm, mu = load("notmuch-new.json"), load("mu-index.json")
print("messages: %d (batches of %d)" % (s["messages"], s["batchSize"]))
w = s["write"]
print("store upsertSync: %.0f msg/s wall, %.0f msg/CPU-s (headers); with bodies %.0f msg/s wall, %.0f msg/CPU-s"
      % (w["upsertSyncPerSecond"], w["upsertSyncPerCPUSecond"], w["withBodiesPerSecond"], w["withBodiesPerCPUSecond"]))
for name, x in (("notmuch new", nm), ("mu index", mu)):
    print("%s: %.0f msg/s wall, %.0f msg/CPU-s (whole import from Maildir, MIME parsing included)"
          % (name, x["perSecond"], x["perCPUSecond"]))
print("search in-process (store): median %.2f ms, p99 %.2f ms, mean CPU %.2f ms"
      % (s["search"]["medianMs"], s["search"]["p99Ms"], s["search"]["meanCPUMs"]))
for t in ("store", "notmuch", "mu"):
    print("search whole process %-8s wall median %.2f ms p99 %.2f ms; CPU median %.2f ms p99 %.2f ms; queries with hits %d/50"
          % (t, sp[t]["medianMs"], sp[t]["p99Ms"], sp[t]["cpuMedianMs"], sp[t]["cpuP99Ms"], sp[t]["queriesWithHits"]))
for k, v in s["lists"].items():
    print("list %-18s median %.2f ms, p99 %.2f ms (%d rows)" % (k, v["medianMs"], v["p99Ms"], v["rows"]))
th = s["threading"]
print("threading store:   precision %.4f recall %.4f" % (th["precision"], th["recall"]))
tr = load("store-replies.json")["threading"]
print("threading store, subject fallback for replies only: precision %.4f recall %.4f" % (tr["precision"], tr["recall"]))
for t in ("notmuch", "mu"):
    print("threading %-7s: precision %.4f recall %.4f" % (t, pt[t]["precision"], pt[t]["recall"]))
PY

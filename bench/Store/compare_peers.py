#!/usr/bin/env python3
"""Side-by-side figures for the store and two local mail indexers.

Called by compare.sh after the corpus exists and every index is built:
  compare_peers.py search  --corpus DIR --store-bench BIN --db FILE
                           --notmuch-config FILE --muhome DIR [--repeat N]
  compare_peers.py threads --corpus DIR --notmuch-config FILE --muhome DIR
  compare_peers.py time --messages N -- COMMAND...

`search` times each of the corpus's 50 queries as whole processes (the store's
one-shot query mode, `notmuch search`, `mu find`), `repeat` times each, and
prints median and p99 per tool. `threads` scores the peers' threading against
the recorded conversations (pairwise precision and recall).
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import time


def percentile(values, p):
    v = sorted(values)
    if not v:
        return 0.0
    rank = p * (len(v) - 1)
    lo = int(rank)
    hi = min(lo + 1, len(v) - 1)
    return v[lo] + (v[hi] - v[lo]) * (rank - lo)


def notmuch_query(q):
    # Words, "phrases" and prefix* mean the same in notmuch's syntax.
    return q


def mu_query(q):
    return q


def timed(cmd, env=None):
    """Wall milliseconds, CPU milliseconds (user + system) and output of one process."""
    start = time.perf_counter()
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env)
    out = proc.stdout.read()
    proc.stdout.close()
    _, _, usage = os.wait4(proc.pid, 0)
    proc.returncode = 0
    elapsed = (time.perf_counter() - start) * 1000
    return elapsed, (usage.ru_utime + usage.ru_stime) * 1000, out


def search(args):
    queries = [l.rstrip("\n") for l in open(os.path.join(args.corpus, "queries.txt"), encoding="utf-8") if l.strip()]
    nm_env = dict(os.environ, NOTMUCH_CONFIG=args.notmuch_config)
    tools = {
        "store": lambda q: ([args.store_bench, "query", "--db", args.db, q], None),
        "notmuch": lambda q: (["notmuch", "search", "--output=messages", "--limit=50", notmuch_query(q)], nm_env),
        "mu": lambda q: (["mu", "find", "--muhome=" + args.muhome, "--maxnum=50", "--fields=i", mu_query(q)], None),
    }
    result = {}
    for name, make in tools.items():
        samples, cpu, hits = [], [], []
        for q in queries:
            cmd, env = make(q)
            subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)  # warm
            for _ in range(args.repeat):
                ms, cpu_ms, out = timed(cmd, env)
                samples.append(ms)
                cpu.append(cpu_ms)
            text = out.decode("utf-8", "replace").strip()
            if name == "store":
                hits.append(int(text or "0"))
            else:
                hits.append(len([l for l in text.splitlines() if l.strip()]))
        result[name] = {"medianMs": round(percentile(samples, 0.5), 2),
                        "p99Ms": round(percentile(samples, 0.99), 2),
                        "cpuMedianMs": round(percentile(cpu, 0.5), 2),
                        "cpuP99Ms": round(percentile(cpu, 0.99), 2),
                        "queriesWithHits": sum(1 for h in hits if h > 0),
                        "hitsPerQuery": hits}
    print(json.dumps(result, indent=2))


def truth_by_message_id(corpus):
    truth = {}
    with open(os.path.join(corpus, "records.jsonl"), encoding="utf-8") as f:
        for line in f:
            r = json.loads(line)
            truth[r["messageID"].strip("<>")] = r["thread"]
    return truth


def scores(pairs):
    from collections import Counter
    pred = Counter(p for p, _ in pairs)
    true = Counter(t for _, t in pairs)
    both = Counter(pairs)
    c2 = lambda n: n * (n - 1) / 2
    tp = sum(c2(n) for n in both.values())
    pp = sum(c2(n) for n in pred.values())
    tt = sum(c2(n) for n in true.values())
    return {"precision": round(tp / pp, 4) if pp else 1.0, "recall": round(tp / tt, 4) if tt else 1.0,
            "predictedThreads": len(pred), "trueThreads": len(true), "messagesScored": len(pairs)}


def threads(args):
    truth = truth_by_message_id(args.corpus)
    result = {}
    # notmuch: every thread with the ids of its messages.
    env = dict(os.environ, NOTMUCH_CONFIG=args.notmuch_config)
    out = subprocess.run(["notmuch", "search", "--format=json", "--output=summary", "*"],
                         stdout=subprocess.PIPE, env=env, check=True).stdout
    pairs = []
    for t in json.loads(out):
        for q in t["query"]:
            if not q:
                continue
            for m in re.finditer(r'id:(?:"((?:[^"]|"")*)"|(\S+))', q):
                mid = m.group(1).replace('""', '"') if m.group(1) is not None else m.group(2)
                if mid in truth:
                    pairs.append((t["thread"], truth[mid]))
    result["notmuch"] = scores(pairs)
    # mu: the threaded listing; a line without the reply marker starts a thread.
    out = subprocess.run(["mu", "find", "--muhome=" + args.muhome, "--threads", "--fields=i",
                          "--sortfield=date", ""], stdout=subprocess.PIPE, check=True).stdout
    pairs, thread = [], 0
    for line in out.decode("utf-8", "replace").splitlines():
        if not line.strip():
            continue
        if not line.startswith((" ", "\\", "|", "`", "*", "-")):
            thread += 1
        mid = line.split()[-1]
        if mid in truth:
            pairs.append((thread, truth[mid]))
    result["mu"] = scores(pairs)
    print(json.dumps(result, indent=2))


def time_command(args):
    wall, cpu, _ = timed(args.command)
    n = args.messages
    print(json.dumps({"seconds": round(wall / 1000, 2), "cpuSeconds": round(cpu / 1000, 2),
                      "perSecond": round(n / (wall / 1000), 1), "perCPUSecond": round(n / (cpu / 1000), 1)}))


def main():
    if len(sys.argv) > 1 and sys.argv[1] == "time":
        # time --messages N -- COMMAND...
        if len(sys.argv) < 6 or sys.argv[2] != "--messages" or sys.argv[4] != "--":
            print("usage: compare_peers.py time --messages N -- COMMAND...", file=sys.stderr)
            return 64
        args = argparse.Namespace(messages=int(sys.argv[3]), command=sys.argv[5:])
        time_command(args)
        return 0
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("mode", choices=["search", "threads"])
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--store-bench")
    ap.add_argument("--db")
    ap.add_argument("--notmuch-config", required=True)
    ap.add_argument("--muhome", required=True)
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    if args.mode == "search":
        search(args)
    else:
        threads(args)
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Deterministic generator of a realistic mail corpus for benchmarks.

Writes, for a given number of messages and seed:
  OUT/Maildir/{cur,new,tmp}/   one RFC 5322 message per file
  OUT/records.jsonl            one index record per message, in arrival order
  OUT/queries.txt              50 search queries, one per line
  OUT/summary.json             corpus statistics

Every message carries "X-Kestrune-True-Thread: T<n>", the conversation it
truly belongs to, so that threading can be scored. Python 3 standard library
only; the same arguments always give byte-identical output.
"""

import argparse
import base64
import bisect
import json
import math
import os
import random
import shutil
import sys
import time

# Common English words first (the head of the Zipf curve), then invented
# words for the long tail.
COMMON = """the of and to a in is that for it as was with be by on not he i this are or his
from at which but have an they you were her she there one all we their been has will more
would if so about what when up out them can like time no just him know take people into year
your good some could see other than then now look only come its over think also back after use
two how our work first well way even new want because any these give day most us is meeting
project report budget review team plan update schedule client release draft deadline invoice
contract proposal agenda notes call office travel order payment account server issue design
data analysis quarter week month today tomorrow please thanks regards attached find let me
know question answer help need soon before friday monday morning afternoon document version
change feedback sales market product customer support service price cost estimate launch
""".split()

FIRST_NAMES = """Alice Bob Carol David Emma Frank Grace Henry Irene Jack Karen Liam Mia Noah
Olivia Paul Quinn Rachel Sam Tina Uma Victor Wendy Xavier Yara Zoe Adam Beth Chris Diana Eric
Fiona George Hannah Ian Julia Kevin Laura Mark Nina Oscar Petra Ray Sara Tom Ursula Vera Will
""".split()
FIRST_NAMES_INTL = ["José", "Zoë", "Łukasz", "Søren", "Françoise", "Jürgen", "Ångström",
                    "Чайковский", "Η Ελένη", "山田", "Dvořák", "Núñez", "Brontë", "Ólafur"]
LAST_NAMES = """Smith Jones Taylor Brown Wilson Evans Thomas Roberts Johnson Walker Wright
Robinson Thompson White Hughes Edwards Green Hall Wood Harris Lewis Martin Jackson Clarke
Clark Turner Hill Scott Cooper Morris Ward Moore King Watson Baker Harrison Morgan Patel Young
""".split()
LAST_NAMES_INTL = ["Müller", "Øster", "Gonçalves", "Kowalczyk", "Dvořáková", "Ibáñez",
                   "Straße", "Håkansson", "Lefèvre", "Nuñez", "太郎", "Иванова"]
DOMAINS = ["example.com", "example.org", "mail.example.net", "corp.example", "lists.example.io",
           "uni.example.edu", "shop.example.co.uk", "example.de"]
COLLIDING_SUBJECTS = ["Meeting", "Question", "Hello", "Update", "Lunch?", "Invoice", "Quick question",
                      "Follow up", "Hi", "Thanks!", "Re: your message", "Documents", "Schedule",
                      "Catch up", "Reminder"]
REPLY_PREFIXES = ["Re: ", "Re: ", "Re: ", "RE: ", "AW: ", "Sv: ", "Re: Re: "]
INTL_SUBJECT_WORDS = ["Café", "Überprüfung", "réunion", "日程", "встреча", "Ζητήματα", "naïve",
                      "Größe", "año", "smörgåsbord"]
OWNER = ("Robin Kestrel", "robin@kestrune.test")


def make_vocabulary(rng, size):
    syllables = ["ba", "ce", "di", "fo", "gu", "ha", "je", "ki", "lo", "mu", "na", "pe", "qui",
                 "ra", "se", "ti", "vo", "wa", "xe", "yo", "za", "bri", "cla", "dro", "fle",
                 "gri", "pla", "stru", "tho", "ven", "mor", "lin", "tas", "rek", "dun"]
    words = list(dict.fromkeys(COMMON))
    seen = set(words)
    while len(words) < size:
        w = "".join(rng.choice(syllables) for _ in range(rng.randint(2, 4)))
        if w not in seen:
            seen.add(w)
            words.append(w)
    return words


class Zipf:
    def __init__(self, rng, n, s):
        self.rng = rng
        total = 0.0
        self.cum = []
        for rank in range(1, n + 1):
            total += 1.0 / rank ** s
            self.cum.append(total)
        self.total = total

    def rank(self):
        return bisect.bisect_left(self.cum, self.rng.random() * self.total)


def encode_word(text):
    """RFC 2047 encoded-word for non-ASCII text, alternating B and Q forms."""
    if all(ord(c) < 128 for c in text):
        return text
    raw = text.encode("utf-8")
    if len(raw) % 2:
        return "=?UTF-8?B?" + base64.b64encode(raw).decode("ascii") + "?="
    out = []
    for b in raw:
        c = chr(b)
        if c.isalnum() and b < 128:
            out.append(c)
        elif c == " ":
            out.append("_")
        else:
            out.append("=%02X" % b)
    return "=?UTF-8?Q?" + "".join(out) + "?="


def format_address(name, email):
    if not name:
        return email
    if all(ord(c) < 128 for c in name):
        return '"%s" <%s>' % (name, email) if "," in name or "." in name else "%s <%s>" % (name, email)
    return "%s <%s>" % (encode_word(name), email)


def format_date(ts, offset_minutes):
    t = time.gmtime(ts + offset_minutes * 60)
    days = ["Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"]
    months = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"]
    sign = "+" if offset_minutes >= 0 else "-"
    off = abs(offset_minutes)
    return "%s, %02d %s %04d %02d:%02d:%02d %s%02d%02d" % (
        days[t.tm_wday], t.tm_mday, months[t.tm_mon - 1], t.tm_year, t.tm_hour, t.tm_min,
        t.tm_sec, sign, off // 60, off % 60)


class Generator:
    def __init__(self, count, seed):
        self.count = count
        self.rng = random.Random(seed)
        self.vocab = make_vocabulary(self.rng, 40000)
        self.word_zipf = Zipf(self.rng, len(self.vocab), 1.07)
        self.people = self.make_people(3000)
        self.person_zipf = Zipf(self.rng, len(self.people), 0.9)
        # Thread lengths 1..200 with P(L) ~ L^-2.1: most are single messages.
        lengths = list(range(1, 201))
        weights = [1.0 / length ** 2.1 for length in lengths]
        self.length_cum = []
        acc = 0.0
        for w in weights:
            acc += w
            self.length_cum.append(acc)
        self.seq = 0

    def make_people(self, n):
        people = []
        for i in range(n):
            intl = self.rng.random() < 0.15
            first = self.rng.choice(FIRST_NAMES_INTL if intl and self.rng.random() < 0.6 else FIRST_NAMES)
            last = self.rng.choice(LAST_NAMES_INTL if intl else LAST_NAMES)
            domain = self.rng.choice(DOMAINS)
            email = "p%d.%s@%s" % (i, "".join(c for c in last.lower() if c.isascii() and c.isalpha()) or "x", domain)
            people.append(("%s %s" % (first, last), email))
        return people

    def words(self, n):
        return [self.vocab[self.word_zipf.rank()] for _ in range(n)]

    def sentence(self):
        w = self.words(self.rng.randint(4, 18))
        w[0] = w[0].capitalize()
        return " ".join(w) + self.rng.choice([".", ".", ".", "?", "!"])

    def body_text(self, mean_words):
        n = max(5, int(self.rng.lognormvariate(math.log(mean_words), 0.7)))
        paragraphs, sentences, total = [], [], 0
        while total < n:
            s = self.sentence()
            total += s.count(" ") + 1
            sentences.append(s)
            if len(sentences) >= self.rng.randint(2, 6):
                paragraphs.append(" ".join(sentences))
                sentences = []
        if sentences:
            paragraphs.append(" ".join(sentences))
        return "\n\n".join(paragraphs)

    def subject(self):
        if self.rng.random() < 0.08:
            return self.rng.choice(COLLIDING_SUBJECTS)
        w = self.words(self.rng.randint(2, 7))
        if self.rng.random() < 0.05:
            w.insert(self.rng.randint(0, len(w)), self.rng.choice(INTL_SUBJECT_WORDS))
        w[0] = w[0].capitalize()
        return " ".join(w)

    def message_id(self, domain):
        self.seq += 1
        return "%08x.%d@%s" % (self.rng.getrandbits(32), self.seq, domain)

    def thread_length(self):
        return bisect.bisect_left(self.length_cum, self.rng.random() * self.length_cum[-1]) + 1

    def conversations(self):
        """Yields the messages of every conversation as dicts (unordered)."""
        start = 1640995200  # 2022-01-01
        span = 3 * 365 * 86400
        produced = 0
        thread = 0
        while produced < self.count:
            length = min(self.thread_length(), self.count - produced)
            thread += 1
            group = [self.people[self.person_zipf.rank()]]
            if self.rng.random() < 0.3:
                for _ in range(self.rng.randint(1, 5)):
                    p = self.people[self.person_zipf.rank()]
                    if p not in group:
                        group.append(p)
            members = [OWNER] + group
            subject = self.subject()
            list_tag = "[%s] " % self.rng.choice(["dev", "team", "ops"]) if self.rng.random() < 0.04 else ""
            msgs = []
            root_sender = self.rng.choice(members)
            root = {
                "thread": thread, "sender": root_sender,
                "to": [m for m in members if m != root_sender][:1],
                "cc": [m for m in members if m != root_sender][1:],
                "subject": list_tag + subject,
                "sent": start + self.rng.random() * span,
                "mid": self.message_id(root_sender[1].split("@")[1]),
                "refs": [], "irt": None, "mode": "root", "parent": None,
            }
            root["date"] = root["sent"]
            msgs.append(root)
            for _ in range(length - 1):
                parent = msgs[-1] if self.rng.random() < 0.75 else self.rng.choice(msgs)
                others = [m for m in members if m != parent["sender"]]
                sender = self.rng.choice(others) if others else parent["sender"]
                recipients = [parent["sender"]] + [m for m in members if m not in (sender, parent["sender"])]
                sent = parent["sent"] + self.rng.expovariate(1 / (6 * 3600.0)) + 30
                date = sent
                if self.rng.random() < 0.02:
                    date = parent["date"] - self.rng.uniform(60, 3 * 3600)  # clock skew
                r = self.rng.random()
                mode = "full" if r < 0.88 else "irt" if r < 0.93 else "none" if r < 0.97 else "refs"
                chain = parent["refs"] + [parent["mid"]]
                if len(chain) > 20:
                    chain = chain[:1] + chain[-19:]
                prefix = self.rng.choice(REPLY_PREFIXES)
                msgs.append({
                    "thread": thread, "sender": sender, "to": recipients[:1], "cc": recipients[1:],
                    "subject": list_tag + prefix + subject if not subject.startswith("Re:") else list_tag + subject,
                    "sent": sent, "date": date,
                    "mid": self.message_id(sender[1].split("@")[1]),
                    "refs": chain, "irt": parent["mid"], "mode": mode, "parent": parent,
                })
            produced += len(msgs)
            yield msgs

    def render(self, m, uid):
        """The message file's bytes and its index record."""
        rng = self.rng
        kind = rng.random()
        parent = m["parent"]
        text = self.body_text(60 if parent else 90)
        if parent is not None and rng.random() < 0.6:
            quoted = parent.get("text", "").split("\n")[:6]
            text += "\n\nOn %s, %s wrote:\n" % (format_date(parent["date"], 0), parent["sender"][0])
            text += "\n".join("> " + line for line in quoted)
        m["text"] = text
        offset = rng.choice([0, 0, 60, 120, -300, -420, 330, 540])
        headers = [
            "Return-Path: <%s>" % m["sender"][1],
            "From: %s" % format_address(*m["sender"]),
            "To: %s" % ", ".join(format_address(*p) for p in m["to"]),
        ]
        if m["cc"]:
            headers.append("Cc: %s" % ", ".join(format_address(*p) for p in m["cc"]))
        headers.append("Subject: %s" % " ".join(encode_word(w) if not w.isascii() else w
                                                   for w in m["subject"].split(" ")))
        headers.append("Date: %s" % format_date(m["date"], offset))
        headers.append("Message-ID: <%s>" % m["mid"])
        irt_value, refs_value = "", ""
        if m["mode"] in ("full", "irt"):
            irt = m["irt"]
            if rng.random() < 0.01:  # a mailer that upper-cases the domain
                local, _, domain = irt.rpartition("@")
                irt = local + "@" + domain.upper()
            irt_value = "<%s>" % irt
            headers.append("In-Reply-To: %s" % irt_value)
        if m["mode"] in ("full", "refs"):
            refs_value = " ".join("<%s>" % r for r in m["refs"])
            folded = "\n ".join("<%s>" % r for r in m["refs"])
            headers.append("References: %s" % folded)
        headers.append("MIME-Version: 1.0")
        headers.append("X-Kestrune-True-Thread: T%d" % m["thread"])
        has_attachment = False
        if kind < 0.70:
            headers.append("Content-Type: text/plain; charset=utf-8")
            headers.append("Content-Transfer-Encoding: 8bit")
            body = text
        else:
            boundary = "=_kb_%d_%08x" % (uid, rng.getrandbits(32))
            plain = ("--%s\nContent-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n%s\n"
                     % (boundary, text))
            if kind < 0.90:
                headers.append('Content-Type: multipart/alternative; boundary="%s"' % boundary)
                html = "<html><body>%s</body></html>" % "".join(
                    "<p>%s</p>" % p.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
                    for p in text.split("\n\n"))
                body = plain + ("--%s\nContent-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n%s\n--%s--\n"
                                % (boundary, html, boundary))
            else:
                has_attachment = True
                headers.append('Content-Type: multipart/mixed; boundary="%s"' % boundary)
                name = rng.choice(["report", "invoice", "slides", "photo", "contract", "notes"])
                ext, mime = rng.choice([("pdf", "application/pdf"), ("png", "image/png"),
                                        ("docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"),
                                        ("zip", "application/zip")])
                payload = base64.encodebytes(rng.randbytes(rng.randint(2000, 24000))).decode("ascii")
                body = plain + ('--%s\nContent-Type: %s; name="%s_%d.%s"\nContent-Disposition: attachment; filename="%s_%d.%s"\n'
                                'Content-Transfer-Encoding: base64\n\n%s--%s--\n'
                                % (boundary, mime, name, uid, ext, name, uid, ext, payload, boundary))
        data = ("\n".join(headers) + "\n\n" + body).encode("utf-8")
        seen = rng.random() < 0.8
        flagged = rng.random() < 0.03
        snippet = " ".join(text.split())[:200]
        record = {
            "uid": uid,
            "messageID": "<%s>" % m["mid"],
            "inReplyTo": irt_value,
            "references": refs_value,
            "subject": m["subject"],
            "from": [{"name": m["sender"][0], "email": m["sender"][1]}],
            "to": [{"name": p[0], "email": p[1]} for p in m["to"]],
            "cc": [{"name": p[0], "email": p[1]} for p in m["cc"]],
            "date": int(m["date"]),
            "size": len(data),
            "hasAttachments": has_attachment,
            "seen": seen,
            "flagged": flagged,
            "snippet": snippet,
            "text": text,
            "thread": m["thread"],
        }
        return data, record, seen, flagged


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--messages", type=int, default=100000, help="number of messages (default 100000)")
    ap.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    ap.add_argument("--out", required=True, help="output directory (replaced if it exists)")
    args = ap.parse_args()

    gen = Generator(args.messages, args.seed)
    messages = []
    for conv in gen.conversations():
        messages.extend(conv)
    # Arrival order is the order of sending; a few messages arrive late
    # (so some replies are filed before their parents).
    messages.sort(key=lambda m: (m["sent"], m["mid"]))
    for i in range(len(messages)):
        if gen.rng.random() < 0.02:
            j = min(len(messages) - 1, i + gen.rng.randint(1, 300))
            messages[i], messages[j] = messages[j], messages[i]

    if os.path.exists(args.out):
        shutil.rmtree(args.out)
    for sub in ("cur", "new", "tmp"):
        os.makedirs(os.path.join(args.out, "Maildir", sub))
    stats = {"messages": 0, "threads": 0, "singletons": 0, "longest": 0, "withAttachments": 0,
             "noThreadingHeaders": 0, "inReplyToOnly": 0, "referencesOnly": 0, "datedBeforeParent": 0}
    sizes = {}
    with open(os.path.join(args.out, "records.jsonl"), "w", encoding="utf-8") as records:
        for uid, m in enumerate(messages, start=1):
            data, record, seen, flagged = gen.render(m, uid)
            flags = ("F" if flagged else "") + ("S" if seen else "")
            if seen:
                path = os.path.join("cur", "%d.kestrune:2,%s" % (uid, flags))
            else:
                path = os.path.join("new", "%d.kestrune" % uid)
            record["path"] = path
            with open(os.path.join(args.out, "Maildir", path), "wb") as f:
                f.write(data)
            records.write(json.dumps(record, ensure_ascii=False) + "\n")
            sizes[m["thread"]] = sizes.get(m["thread"], 0) + 1
            stats["messages"] += 1
            stats["withAttachments"] += record["hasAttachments"]
            stats["noThreadingHeaders"] += m["mode"] == "none"
            stats["inReplyToOnly"] += m["mode"] == "irt"
            stats["referencesOnly"] += m["mode"] == "refs"
            stats["datedBeforeParent"] += bool(m["parent"]) and m["date"] < m["parent"]["date"]
    stats["threads"] = len(sizes)
    stats["singletons"] = sum(1 for v in sizes.values() if v == 1)
    stats["longest"] = max(sizes.values())
    stats["vocabulary"] = len(gen.vocab)

    # 50 fixed queries: words of several frequencies, pairs, phrases,
    # prefixes and sender names. Drawn from the corpus's own vocabulary.
    qrng = random.Random(args.seed + 1000)
    queries = []
    for rank in [3, 40, 80, 150, 300, 600, 1000, 2000, 3500, 5000, 8000, 12000, 16000, 20000, 30000]:
        queries.append(gen.vocab[rank])
    texts = [m["text"] for m in messages[:2000]]
    while len(queries) < 25:
        words = [w.strip(".?!,>").lower() for w in qrng.choice(texts).split()]
        words = [w for w in words if w.isalpha() and w.isascii() and w not in COMMON[:60]]
        if len(words) >= 2:
            a, b = qrng.sample(words, 2)
            if a != b:
                queries.append("%s %s" % (a, b))
    while len(queries) < 35:
        words = qrng.choice(texts).split()
        if len(words) < 8:
            continue
        i = qrng.randint(0, len(words) - 3)
        phrase = [w.strip(".?!,>").lower() for w in words[i:i + qrng.choice([2, 2, 3])]]
        if all(p.isalpha() and p.isascii() for p in phrase):
            queries.append('"%s"' % " ".join(phrase))
    while len(queries) < 43:
        w = gen.vocab[qrng.randint(100, 20000)]
        if len(w) >= 6:
            queries.append(w[:4] + "*")
    names = []
    for p in gen.people[:400]:
        for part in p[0].split(" "):
            if part.isalpha() and part not in names:
                names.append(part)
    qrng.shuffle(names)
    intl = [n for n in names if not n.isascii()][:3]
    plain = [n for n in names if n.isascii()][:7 - len(intl)]
    queries.extend(intl + plain)
    with open(os.path.join(args.out, "queries.txt"), "w", encoding="utf-8") as f:
        f.write("\n".join(queries[:50]) + "\n")
    with open(os.path.join(args.out, "summary.json"), "w", encoding="utf-8") as f:
        json.dump(stats, f, indent=2)
    print(json.dumps(stats))
    return 0


if __name__ == "__main__":
    sys.exit(main())

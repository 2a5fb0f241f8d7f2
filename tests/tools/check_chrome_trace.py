#!/usr/bin/env python3
"""Checks a trace-event JSON file as timeline viewers read it, and prints what it holds.

Exit status 1 with a message for anything a viewer would trip over: invalid JSON, an event
without its fields, a thread without a name, duration events that overlap without nesting, an
instant event at the same time as the start or end of a duration event of its thread. Otherwise
prints one line per thread: pid/tid, its name, then its calls as a bracketed tree in time order
(name(child child)), then one line per instant event."""
import json
import sys
from collections import defaultdict


def fail(msg):
    print("check_chrome_trace: " + msg)
    sys.exit(1)


def main(path):
    with open(path) as f:
        doc = json.load(f)
    events = doc.get("traceEvents")
    if not isinstance(events, list):
        fail("no traceEvents list")
    names = {}
    spans = defaultdict(list)
    instants = defaultdict(list)
    for e in events:
        ph = e.get("ph")
        if ph == "M":
            if e.get("name") == "thread_name":
                names[(e["pid"], e["tid"])] = e["args"]["name"]
            continue
        for k in ("name", "ts", "pid", "tid"):
            if k not in e:
                fail("event without %s: %r" % (k, e))
        key = (e["pid"], e["tid"])
        if ph == "X":
            if e["dur"] < 0:
                fail("negative duration: %r" % e)
            spans[key].append((e["ts"], e["ts"] + e["dur"], e["name"], e.get("args", {})))
        elif ph == "i":
            instants[key].append((e["ts"], e["name"]))
        else:
            fail("unexpected phase %r" % ph)
    out = []
    for key in sorted(set(spans) | set(instants)):
        if key not in names:
            fail("thread %r has no name" % (key,))
        s = sorted(spans[key], key=lambda x: (x[0], -x[1]))
        edges = set()
        stack = []
        roots = []
        for start, end, name, args in s:
            edges.add(start)
            edges.add(end)
            while stack and stack[-1]["end"] <= start:
                stack.pop()
            if stack and end > stack[-1]["end"]:
                fail("%s overlaps %s on %r without nesting" % (name, stack[-1]["name"], key))
            node = {"name": name, "end": end, "kids": []}
            (stack[-1]["kids"] if stack else roots).append(node)
            stack.append(node)
        for ts, name in instants[key]:
            if ts in edges:
                fail("instant %s at %s shares a duration event's time stamp" % (name, ts))

        def tree(n):
            return n["name"] + ("(" + " ".join(tree(k) for k in n["kids"]) + ")" if n["kids"] else "")

        out.append("%s/%s %s: %s" % (key[0], key[1], names[key], " ".join(tree(r) for r in roots)))
        for ts, name in sorted(instants[key]):
            out.append("%s/%s instant %s" % (key[0], key[1], name))
    print("\n".join(out))


if __name__ == "__main__":
    main(sys.argv[1])

"""The soak's report: what each part of the run shows, then one table of goals (promise,
measured, met) from which the verdict follows."""

import bisect
import collections
import inspect
import json
import os
import signal

from records import Goal

FINAL = (1, 6, 7)
LOST = {"killed": "lost with a dying socket (server killed)", "blackholed": "handed to the socket of a silent link",
        "stopped": "lost around a clean close (1001)", "closed 1001": "lost around a clean close (1001)"}


def clips(r):
    f, final = r.final, [c for c in r.clips.values() if c.state in FINAL]
    after = sum(len(c.states) - 1 - next(i for i, s in enumerate(c.states) if s in FINAL) for c in final)
    states = collections.Counter(c.state for c in final)
    failed = collections.Counter(c.msg[:160].replace("\n", " | ") for c in final if c.state != 6)
    return [Goal("every clip ends confirmed or failed with a reason", "submitted %d; final %d (confirmed %d, failed %d, "
                 "rejected %d); not final %d; states after a final one %d" % (
                     f["clips_submitted"], len(final), states[6], states[7], states[1], f["non_final"], after),
                 f["non_final"] == 0 and len(final) == f["clips_submitted"] and after == 0)], \
        ["%4d x 7 %s" % (n, m) for m, n in failed.most_common()] + [
            "STUCK clip %d in state %d: %s" % (c.n, c.state, c.msg) for c in r.clips.values() if c.state not in FINAL]


def events(r):
    """Places each event that never arrived: written to a connection that then died (the library keeps
    none once written to a socket), or unaccounted (a gap inside one connection), which fails the run."""
    lines, parts, ok = [], [], True
    for key, got in r.received.items():
        submitted, seqs, missing = r.final["events_submitted"][key], sorted(got), collections.defaultdict(list)
        for s in range(1, submitted + 1):
            i = bisect.bisect_left(seqs, s)
            before, after = got[seqs[i - 1]][0] if i > 0 else None, got[seqs[i]][0] if i < len(seqs) else None
            how = r.conns[before].end_how if before in r.conns else None
            if s not in got:
                missing["unaccounted (a gap inside one connection)" if before == after else LOST.get(how) or
                        "lost when the link ended (%s)" % how].append(s)
        parts.append("%s submitted %d, received %d, missing %d, received twice %d" % (
            key, submitted, sum(s <= submitted for s in got), sum(map(len, missing.values())),
            sum(len(v) - 1 for v in got.values())))
        lines += ["%-6s %4d %s  [%s%s]" % (key, len(v), where, ", ".join(map(str, v[:12])), " ..." * (len(v) > 12))
                  for where, v in sorted(missing.items(), key=lambda kv: -len(kv[1]))]
        ok &= not any("unaccounted" in where for where in missing)
    return [Goal("every event arrives, or was written to a connection that then died", "; ".join(parts), ok)], lines


def fds_but_link(sample):
    return sample["fds"] - sum(n for kind, n in sample.get("fd_kinds", {}).items() if kind.startswith("ws:"))


def resources(r):
    s, e = r.final.get("start"), r.final.get("end")
    if not (s and e):
        return [Goal("host resources steady", "no start/end figures", False)], []
    m, b, a = r.final["mid"], r.final["before_connect"], r.final["after_disconnect"]
    pct = lambda x, y: 100.0 * (y - x) / x if x else 0.0
    # Resident memory swings by the 2-3 MB the allocator trims or keeps, and a start in a trough reads
    # as growth: so the goal compares the high-water mark from half-way on with the one before it.
    first = max([x["rss_kb"] for x in r.samples if s["t"] <= x["t"] <= m["t"]] + [s["rss_kb"], m["rss_kb"]])
    second = max([x["rss_kb"] for x in r.samples if x["t"] > m["t"]] + [e["rss_kb"]])
    return [Goal("resident high-water mark within 5%", "%d kB from the start to half-way, %d kB from there to the "
                 "end (%+.1f%%)" % (first, second, pct(first, second)), pct(first, second) <= 5.0),
            # A leak grows: the link's socket comes and goes with the back-off, and a start taken
            # while clips upload holds their files and connections, which the end, drained, does not.
            Goal("no more descriptors at the end than at the start, the link's socket aside", "%d -> %d" % (
                s["fds"], e["fds"]), fds_but_link(e) <= fds_but_link(s)),
            Goal("threads equal at the start and the end", "%d -> %d" % (s["threads"], e["threads"]),
                 s["threads"] == e["threads"])], [
        "(start: every network fault seen once, or near half-way; end: after draining; both with no upload on)",
        "resident memory %d kB at %.0fs -> %d kB at %.0fs (%+.1f%%), half-way %d kB at %.0fs (%+.1f%% from there)" % (
            s["rss_kb"], s["t"], e["rss_kb"], e["t"], pct(s["rss_kb"], e["rss_kb"]), m["rss_kb"], m["t"],
            pct(m["rss_kb"], e["rss_kb"])),
        # Not a goal, a diagnosis: the heap's bytes in use are what a leak moves.
        "heap in use %d -> %d kB (%+.1f%%; half-way %d kB, %+.1f%% from there)" % (
            s["heap_kb"], e["heap_kb"], pct(s["heap_kb"], e["heap_kb"]), m["heap_kb"], pct(m["heap_kb"], e["heap_kb"])),
        "descriptors %s -> %s" % (json.dumps(s["fd_kinds"]), json.dumps(e["fd_kinds"])),
        "over the run (%d samples): %s" % (len(r.samples), ", ".join("%s %d..%d" % (k, min(x[k] for x in r.samples), max(
            x[k] for x in r.samples)) for k in ("rss_kb", "heap_kb", "fds", "threads"))),
        "before connect %d kB, %d fds, %d threads; after disconnect %d kB, %d fds, %d threads" % (
            b["rss_kb"], b["fds"], b["threads"], a["rss_kb"], a["fds"], a["threads"])]


def host(r):
    f, rc = r.final, r.host_rc
    ends = sorted({str(c.end_how) for c in r.conns.values()} - {"killed", "stopped", "closed 1001", "None"})
    crashed = " (CRASHED: %s)" % signal.Signals(-rc).name if rc is not None and rc < 0 else ""
    return [Goal("the host ends cleanly: its summary, disconnect within its bound, no problem on the way",
                 "exit status %s%s, disconnect %s in %.2f s; %d connections (other ends: %s), %s connects and %s "
                 "disconnects heard, %d non-JSON lines; %s" % (
                     rc, crashed, "ok" if f.get("disconnect_ok") else "FAILED", f.get("disconnect_s", -1), len(r.conns),
                     ", ".join(ends) or "none", f["connects"], f["disconnects"], r.other_lines,
                     "; ".join(r.problems) or "no problems"), not crashed and f.get("disconnect_ok") and not r.problems)], []


def report(soak):
    r, goals = soak.records, []
    if r.final is None:
        r.problems.append("NO SUMMARY from the host; its stderr is in %s" % os.path.join(soak.state, "host.stderr"))
        r.final = {"clips_submitted": len(r.clips), "non_final": -1, "events_submitted": {"motion": 0, "access": 0},
                   "connects": -1, "disconnects": -1}
    out = ["", "=" * 78, "FAULT SOAK REPORT: %s, clips of %d bytes every 4 s, a motion and an access event every "
           "second" % ("%.1f h" % (soak.total_s / 3600) if soak.total_s >= 3600 else "%.0f min" % (soak.total_s / 60),
                       soak.args.clip_bytes), "=" * 78]
    for title, judge in [("CLIPS", clips), ("EVENTS (counted by the messaging servers)", events),
                         ("HOST RESOURCES", resources), ("HOST", host)] + [
            ("%s: %s" % (f.name.upper(), " ".join(inspect.getdoc(f).split())), f.judge) for f in soak.faults]:
        found, lines = judge(r)
        goals += found
        out += ["", title] + ["  " + line for line in lines]
    out += ["", "GOALS (promise / measured)"]
    for g in goals:
        out += ["  %-8s %s" % ("MET" if g.met else "NOT MET", g.promise), "  %8s %s" % ("", g.measured)]
    out += ["", "VERDICT: %s" % ("THE LIBRARY HELD" if all(g.met for g in goals) else
                                 "THE LIBRARY DID NOT HOLD (see NOT MET above)")]
    out += ["", "Long soak (by hand, not in CI; about 8 h 2 min; --keep --state DIR keeps the logs): "
            "/usr/bin/python3 tools/soak --hours 8 --host-binary %s" % soak.args.host_binary] * (not soak.args.hours)
    print("\n".join(out), flush=True)
    return all(g.met for g in goals)

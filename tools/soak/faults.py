"""The faults, one class each: of the cloud's services, and of the network through
tools/cloud/fault_relay.py (one relay path to the messaging server, "link", one to the blob
storage, "blob"); and what every fault has in common."""

import json
import random
import re
import time

from driver import DEVICE_MAC, rel, say
from records import Goal, Occurrence

# The sixth ping tick (every 30 s) after the last pong drops the link with a close handshake that a
# silent path leaves to lws' 5 s time-out; ticks, time-out checks and worker passes add 3 s at most.
SILENT_DETECT_MAX_S = 30 * 6 + 5 + 3
# The whole PUT has the host's UploadOpts.confirm_timeout; its thread logs the failure at once,
# state 7 comes with the worker's next pass, which while the link is down only tends the socket.
PUT_LIMIT_S, STALL_GRACE_S, REPORT_AFTER_LINK_S = 60, 2, 2


class Fault:
    """One kind of fault: start() schedules its first occurrence, stop() ends the one on now, observe() sees each
    line of the servers and the host, judge(records) returns the goals promised, as measured, and its notes."""
    armed = on = None

    def __init__(self, soak):
        self.soak, self.rng, self.log = soak, soak.rng, []
        self.name = re.sub(r"(?<=[a-z])(?=[A-Z])", " ", type(self).__name__).lower()

    def stop(self):
        if self.on is not None:
            self.end(self.on)

    def end(self, o):
        self.on = None  # what ends by itself (a service coming back) needs no more

    def observe(self, source, t, ev):
        pass

    def later(self, lo, hi, fn, window=True):
        """fn in lo to hi seconds; with window, only if the fault window is open then."""
        delay = self.rng.uniform(lo, hi)
        self.soak.at(delay, lambda: (not window or self.soak.in_window()) and fn())
        return delay

    def occur(self, what, length=0.0, **fields):
        self.on = o = Occurrence(what, time.monotonic(), length, **fields)
        self.log.append(o)
        if length:
            self.soak.at(length, lambda: self.end(o))
        self.note(o, what + (" for %.1f s" % length if length else ""))
        return o

    def note(self, o, text, t=None):
        """What happened to an occurrence: said at once, and a part of its line in the report."""
        o.notes.append(text)
        say("%s %d: %s" % (self.name, self.log.index(o) + 1, text), t)

    def lines(self, failed=()):
        return ["%2d at %7.1fs: %s%s" % (i, rel(o.at), "; ".join(o.notes), "  NOT MET" if o in failed else "")
                for i, o in enumerate(self.log, 1)]

    def judge(self, r):
        return [], self.lines()


def back_after(fault, t, ev, which):
    """The first connection after a fault's path or service was back notes how long it took."""
    for o in fault.log if ev.get("event") == "connect" else ():
        if which(o) and o.back_at is not None and o.reconnect_at is None and t >= o.back_at:
            o.reconnect_at = t
            fault.note(o, "device back %.2f s later" % (t - o.back_at), t)


def late_returns(r, occurrences):
    """Those whose device was not back within the delay its link drew plus 3 s (2 s, and 1 s
    for next_attempt_at's whole seconds) of the path or service coming back: the first attempt
    due at or after the return is the one that finds it. Not back at all is late only if that
    attempt came due before the next occurrence began."""
    late, starts = [], [o.down_at or o.at for o in occurrences[1:]] + [float("inf")]
    for o, next_start in zip(occurrences, starts):
        dues = [due for at, due in r.attempts_due if at >= (o.down_at or o.at) and due >= o.back_at - 1]
        allowed = max([o.back_at] + dues[:1]) + 3
        if (o.reconnect_at or float("inf")) > allowed and (o.reconnect_at or allowed < next_start):
            late.append(o)
    return late


class ServerRestarts(Fault):
    """The messaging server restarts on its port every 20-40 s, after a clean close (1001) or killed outright."""

    def start(self):
        self.later(0, 15, self.begin)

    def pending(self):
        return any(o.reconnect_at is None or o.extra.get("closing") for o in self.log)

    def begin(self):
        s, server = self.soak, self.soak.server
        if s.link_busy:
            return self.later(10, 10, self.begin)
        o = self.occur(self.rng.choice(["clean", "kill"]), was_connected=s.device_connected(),
                       extra={"old": server.index, "closing": True})
        if o.what == "kill":
            return self.down(o, "killed")
        closing = o.was_connected and server.command(cmd="close", code=1001, reason="restart", seq="restart-close")
        s.at(3.0 if closing else 0, lambda: self.down(o, "stopped"))

    def down(self, o, how):
        if o.extra.pop("closing", False):
            server = self.soak.servers[o.extra["old"]]
            self.soak.end_server(server, how)
            o.down_at = server.ended_at
            self.later(0.5, 3.0, lambda: self.back(o), window=False)

    def back(self, o):
        o.extra["instance"] = self.soak.start_server().index
        self.later(20, 40, self.begin)

    def observe(self, source, t, ev):
        for o in self.log if source == "srv" else ():
            if ev.get("event") == "listening" and o.extra.get("instance") == ev["index"]:
                o.back_at = t
                self.note(o, "listening again %.1f s after going down" % (t - o.down_at), t)
            elif ev.get("event") == "done" and ev.get("seq") == "restart-close" and o.extra["old"] == ev["index"]:
                o.notes.append("close handshake %.2f s" % (t - o.at))
                self.down(o, "stopped")
        back_after(self, t, ev, lambda o: o.extra.get("instance") == ev.get("index"))

    def judge(self, r):
        delays = [o.reconnect_at - o.back_at for o in self.log if o.reconnect_at and o.back_at]
        late = late_returns(r, [o for o in self.log if o.back_at is not None])
        drawn = [due - at for at, due in r.attempts_due]
        kills = sum(o.what == "kill" for o in self.log)
        return [Goal("messaging server restarted: the device is back within the delay it drew plus 2 s of the "
                     "server listening again", "%d restarts (%d killed, %d clean 1001); back after min %.2f s, max "
                     "%.2f s, mean %.2f s; drawn delays %.0f..%.0f s" % (
                         len(self.log), kills, len(self.log) - kills, min(delays or [0]), max(delays or [0]),
                         sum(delays) / max(1, len(delays)), min(drawn or [0]), max(drawn or [0])), not late)], \
            self.lines(late)


class StorageKills(Fault):
    """The blob storage emulator is killed while a clip is being PUT (or at a random moment if
    no upload starts within 20 s) and comes back on its port 2-6 s later."""

    def start(self):
        self.later(40, 80, self.arm)

    def down(self):
        return self.armed is not None or not self.soak.storage.proc.alive()

    def arm(self):
        if self.soak.blob_busy:
            return self.later(10, 10, self.arm)
        self.armed = armed = object()  # for the next upload to start, or 20 s
        self.soak.at(20, lambda: self.armed is armed and self.kill("at a random moment (no upload started in 20 s)"))

    def observe(self, source, t, ev):
        if source == "host" and ev.get("state") == 4 and self.armed is not None:
            self.armed = None
            self.later(0.02, 0.12, lambda: self.kill("during the PUT of clip %d" % ev["clip"]))

    def kill(self, why):
        s, self.armed = self.soak, None
        if s.storage.proc.alive():
            s.storage.kill()
            o = self.occur("killed " + why, clips=s.records.uploading())
            self.later(2, 6, lambda: self.back(o), window=False)

    def back(self, o):
        if self.soak.start_storage():
            o.back_at = time.monotonic()
            self.note(o, "back after %.1f s" % (o.back_at - o.at))
        self.later(60, 120, self.arm)

    def judge(self, r):
        for o in self.log:
            o.notes.append(r.outcomes(o.clips))
        return [], self.lines()


class CloudAnswers(Fault):
    """What the cloud answers for a clip (storage credentials, upload acknowledgements), held back."""
    NAMES = {"storage": "getStorageAccess", "ack": "transactionAck"}

    def start(self):
        self.later(*(50, 100) if self.withhold else (30, 70), self.begin)

    def begin(self):
        keys = self.rng.choice([["storage"], ["ack"], ["storage", "ack"]])
        if self.withhold:
            changes, length = {"auto_" + k: False for k in keys}, self.rng.uniform(15, 35)
        else:
            changes = {k + "_delay": round(self.rng.uniform(22, 30) if self.rng.random() < 0.2 else
                                           self.rng.uniform(1, 8), 1) for k in keys}
            length = self.rng.uniform(20, 45)
        self.soak.apply_flags(**changes)
        self.occur(", ".join(self.NAMES[k] + ("" if self.withhold else " by %.1f s" % changes[k + "_delay"])
                             for k in keys), length, extra=changes)

    def end(self, o):
        if self.on is o:
            self.on = None
            self.soak.apply_flags(**{k: True if self.withhold else 0.0 for k in o.extra})
            self.later(*(70, 140) if self.withhold else (60, 120), self.begin)


class Withholds(CloudAnswers):
    """Storage credentials and/or upload acknowledgements withheld for 15-35 s."""
    withhold = True


class Delays(CloudAnswers):
    """Storage credentials and/or upload acknowledgements delayed for 20-45 s, now and then past
    the clips' 20 s time-out, so that late answers come for clips that have already failed."""
    withhold = False


def hostile_frames():
    """Commands for the server; none asks the device to change anything it keeps."""
    env = lambda subject, content: json.dumps({"id": "h-%d" % random.randrange(1 << 30), "from": "cloud",
                                               "to": DEVICE_MAC, "subject": subject, "content": content})
    texts = ["this is not json {{{", "", "[" * 5000, "x" * (2 * 1024 * 1024 + 7), json.dumps({
        "id": "h-huge", "from": "cloud", "subject": "soakNoSuchSubject", "content": {"blob": "x" * (1536 * 1024)}}),
        '{"id":"h-ns","from":"cloud","content":{"a":1}}', '{"subject":42,"id":"h-t1","from":"cloud"}',
        '{"subject":null}', '{"subject":["pong"],"content":"pong"}', "[1,2,3]", "null", '"just a string"',
        env("getStorageAccess", "not an object"), env("transaction", {"model": 5, "properties": "x"}),
        env("getStorageAccess", {"account": 5, "token": [], "secret": None, "start_at": 17, "camera_mac": {}}),
        env("transactionAck", [1, 2, 3]), env("transactionAck", {"type": "archive", "from": 7, "start_at": None}),
        json.dumps({"id": 5, "from": None, "subject": "details", "content": {}}), env("pong", {"unexpected": True}),
        env("soakUnknownSubject", {"x": 1}), env('soak"quoted\\subject', {})]
    return [{"cmd": "send", "text": t} for t in texts] + [
        {"cmd": "send_binary", "text": '{"subject":"pong","content":"pong"}'},
        {"cmd": "send_binary", "text": "\u0000\u00ff\u0001binary"},
        {"cmd": "send_fragments", "parts": ['{"id":"h-f","from":"cloud","subj', 'ect":"soakFragmented","content":{}}']},
        {"cmd": "send_fragments", "parts": ["{\"subject\":", "\"pong\"}"], "empty_final": True}]


class HostileBursts(Fault):
    """Bursts of hostile frames: not JSON, huge, binary, fragmented, wrong types, unknown subjects."""

    def start(self):
        self.later(25, 50, self.begin)

    def begin(self):
        if self.soak.device_connected() and not self.soak.link_busy:
            frames = hostile_frames()
            for cmd in frames:
                self.soak.server.command(**cmd)
            self.occur("%d frames" % len(frames))
        self.later(30, 60, self.begin)


def figures(values, digits=1):
    p50 = sorted(values)[(len(values) - 1) // 2] if values else float("nan")
    return "p50 %.*f s, max %.*f s" % (digits, p50, digits, max(values or [float("nan")]))


class SilentLink(Fault):
    """The link relay forwards nothing for 185-300 s, every other time with the host's events
    stopped (an idle link, which only the pings can find dead); then the old connection is
    reset, as by a NAT that forgot it."""
    last_pong = None

    def start(self, pause=(10, 30)):  # the first comes first, so that even a short run sees one
        self.soak.silence_due = time.monotonic() + self.later(*pause, self.begin)

    def begin(self):
        s = self.soak
        left = s.fault_until - time.monotonic()
        if left < 190:
            s.silence_due = None
            return
        # Alone on the link and with no upload fault on: it holds back every clip's credentials.
        if s.link_busy or s.blob_busy or s.fault["ServerRestarts"].pending() or not s.device_connected():
            return self.later(5, 5, self.begin)
        quiet = len(self.log) % 2 == 1
        s.silence_due, s.link_busy = None, True
        s.relay.send("link blackhole")
        if quiet:
            s.host.send("events off")
        self.occur("idle link (events stopped)" if quiet else "events flowing", min(self.rng.uniform(185, 300),
                   left - 5), extra={"last_pong_at": self.last_pong, "quiet": quiet,
                                     "conns": [k for k, c in s.records.conns.items() if c.end is None]})

    def end(self, o):
        if self.on is o:
            s, self.on, o.back_at = self.soak, None, time.monotonic()
            s.relay.send("link pass")
            if o.extra["quiet"]:
                s.host.send("events on")
            self.note(o, "the relay passes again" + ("" if o.down_at else " (NOT noticed)"))
            s.at(10, self.done)

    def done(self):
        self.soak.link_busy = False
        self.soak.maybe_baseline()
        self.start((420, 600))

    def close_how(self, key):
        return "blackholed" if any(key in o.extra["conns"] for o in self.log) else None

    def observe(self, source, t, ev):
        if ev.get("event") == "sent" and ev.get("auto") and '"subject":"pong"' in ev.get("text", ""):
            self.last_pong = t
        back_after(self, t, ev, lambda o: True)
        for o in self.log if ev.get("link") == "down" else ():
            if o.down_at is None and t >= o.at:
                o.down_at, pong = t, o.extra["last_pong_at"]
                self.note(o, "noticed %.1f s after the silence began, %s after the last pong (%s)" % (
                    t - o.at, "%.1f s" % (t - pong) if pong else "?", "by the pings" if pong and t - pong >= 150
                    else "by TCP, the socket having stopped taking data"), t)

    def judge(self, r):
        noticed = [o for o in self.log if o.down_at and (o.back_at is None or o.down_at <= o.back_at)]
        since_pong = {o: o.down_at - o.extra["last_pong_at"] for o in noticed if o.extra["last_pong_at"]}
        back = {o: o.reconnect_at - o.back_at for o in self.log if o.reconnect_at and o.back_at}
        late = late_returns(r, [o for o in self.log if o.back_at is not None])
        failed = [o for o in self.log if since_pong.get(o, 1e9) > SILENT_DETECT_MAX_S or o in late]
        return [Goal("silent link: dropped by the keep-alive at most %d s after the last pong, back within the delay "
                     "it drew plus 2 s of the path passing (its events: under EVENTS)" % SILENT_DETECT_MAX_S,
                     "%d silences; noticed after the silence began %s, after the last pong %s; back %s" % (
                         len(self.log), figures([o.down_at - o.at for o in noticed]), figures(list(
                             since_pong.values())), figures(list(back.values()), 2)), not failed)], self.lines(failed)


class StalledUpload(Fault):
    """The blob relay is slowed, then blackholed in the middle of a PUT for longer than the
    clip's transfer limit; the clips it caught are sent again afterwards, as a recorder would."""

    def start(self):
        self.later(*(40, 80) if self.soak.total_s > 600 else (5, 5), self.begin)

    def begin(self):
        s = self.soak
        if s.fault_until - time.monotonic() < PUT_LIMIT_S + 20 + 90:
            return  # no time left to see the clip fail and then go through when sent again
        due = s.silence_due - time.monotonic() if s.silence_due else 1e9
        if due < PUT_LIMIT_S + 90 or s.blob_busy or s.link_busy or s.fault["StorageKills"].down():
            return self.later(*(20, 20) if due < PUT_LIMIT_S + 90 else (10, 10), self.begin)
        # A slower path first, so that the stall surely lands in the middle of a PUT.
        s.blob_busy, self.armed = True, object()
        s.relay.send("blob throttle %d" % (2 * 1024 * 1024))
        s.at(60, lambda armed=self.armed: self.armed is armed and self.skip())

    def skip(self):  # no PUT started in 60 s
        self.armed, self.soak.blob_busy = None, False
        self.soak.relay.send("blob pass")
        self.later(120, 240, self.begin)

    def observe(self, source, t, ev):
        if source == "host" and ev.get("state") == 4 and self.armed is not None:
            self.armed = None
            self.later(1, 3, self.stall, window=False)
        for o in self.log if "resubmit" in ev else ():
            tries = o.extra["tries"].get(ev["resubmit"])
            if tries and tries[-1] is None:
                tries[-1] = ev["as"]

    def stall(self):
        self.soak.relay.send("blob blackhole")
        clips = self.soak.records.uploading()
        self.occur("blackholed in the PUT of clip(s) %s" % clips, PUT_LIMIT_S + self.rng.uniform(10, 20),
                   clips=clips, extra={"tries": {}})

    def end(self, o):
        if self.on is o:
            s, r, self.on, o.back_at = self.soak, self.soak.records, None, time.monotonic()
            # A PUT that began during the stall was stalled as well.
            o.clips += sorted(k for k, c in r.clips.items() if k not in o.clips and k not in r.resubmits
                              and o.at <= c.times.get(4, -1))
            s.relay.send("blob pass")
            s.blob_busy = False
            self.note(o, "the relay passes again")
            s.maybe_baseline()
            s.at(5, lambda: self.resubmit(o, 1))
            self.later(180, 300, self.begin)

    def resubmit(self, o, check):
        """Sends each stalled clip that failed again, as often as that fails too (another fault may be
        on), at most 3 times; checked every 15 s for at most 5 minutes."""
        s, r, still_open = self.soak, self.soak.records, False
        if check > 20:
            return
        for n in o.clips if not s.link_busy and s.device_connected() else ():
            c = r.clips.get(n)
            if c is None or c.state == 6 or 5 in c.states:
                still_open |= c is not None and c.state not in (6, 7)
                continue  # through, or uploaded with only its confirmation failed
            tries = o.extra["tries"].setdefault(n, [])
            last = r.clips.get(tries[-1]) if tries else c
            if c.state != 7 or last is None or last.state not in (1, 7) or 5 in last.states or len(tries) >= 3:
                still_open |= last is None or last.state not in (1, 6, 7) and 5 not in last.states
                continue  # on its way still, uploaded when sent again, or sent often enough
            s.host.send("resubmit %d" % n)
            tries.append(None)  # filled in when the host says which number it got
            still_open = True
            self.note(o, "clip %d sent again (try %d)" % (n, len(tries)))
        if still_open or s.link_busy or not s.device_connected():
            s.at(15, lambda: self.resubmit(o, check + 1))

    def judge(self, r):
        ended, reported, failed = [], [], []
        for o in self.log:
            for n in o.clips:
                c, t4, t7 = r.clips.get(n), r.clip_time(n, 4), r.clip_time(n, 7)
                if c and 5 in c.states:
                    o.notes.append("clip %d got through (uploaded, then state %d)" % (n, c.state))
                    continue
                limit = t4 + PUT_LIMIT_S + STALL_GRACE_S if t4 else 0
                tf = next((t for t in r.upload_failed.get(c.start_time, []) if t >= t4), None) if t7 else None
                back = r.link_back(tf, limit) if tf is not None else None
                reported += [t7 - t4] if t7 else []
                ended += [tf - t4] if tf else []
                nxt = [r.clip_time(m, 4) for m in r.clips if t7 and (r.clip_time(m, 4) or 0) > t7]
                tries = [r.clips[m].state for m in o.extra["tries"].get(n, []) if m in r.clips]
                if not (tf and tf <= limit and nxt and any(5 in r.clips[m].states for m in o.extra["tries"].get(n, [])
                                                           if m in r.clips) and
                        t7 <= (max(limit, back + REPORT_AFTER_LINK_S) if back is not None else limit)):
                    failed.append(o)
                o.notes.append("clip %d: the upload ended %s, state 7 %s after its PUT began (%s); next PUT %s; sent "
                               "again: %s" % (n, "%.1f s" % (tf - t4) if tf else "with NO failure logged",
                                              "%.1f s" % (t7 - t4) if t7 else "NEVER", c.msg[:60] if c else "?",
                                              "%.1f s later" % (min(nxt) - t7) if nxt else "NONE", tries))
        return [Goal("stalled upload: it ends within the PUT limit (%d s) + %d s, state 7 reaches the host then (or "
                     "within %d s of the link's return), the next clip goes, the clip sent again uploads" % (
                         PUT_LIMIT_S, STALL_GRACE_S, REPORT_AFTER_LINK_S),
                     "%d stalls; the upload ended %s after its PUT began, state 7 reported %s" % (
                         len(self.log), figures(ended), figures(reported)), not failed)], self.lines(failed)


class SlowUplink(Fault):
    """The blob relay is throttled around the rate a clip needs to finish in its limit, so that
    some clips finish and some do not; every clip must still end with a reason (under CLIPS)."""
    rates = []

    def start(self):
        self.later(*(80, 140) if self.soak.total_s > 600 else (10, 10), self.begin)

    def begin(self):
        s, now = self.soak, time.monotonic()
        left, due = s.fault_until - now, s.silence_due - now if s.silence_due else 1e9
        stalls = s.fault["StalledUpload"].log
        if left < 60:
            return
        if s.blob_busy or s.link_busy or s.fault["StorageKills"].down() or due < 70 or \
                (stalls and stalls[-1].back_at and now - stalls[-1].back_at < 90):  # stalled clips go again
            return self.later(*(20, 20) if due < 70 else (10, 10), self.begin)
        # The rates go round a shuffled set: even a short run sees one at which no clip can make
        # it, one at which two at a time barely cannot, and faster ones.
        self.rates = self.rates or self.rng.sample([0.7, 1.5, 3.0, 5.0], 4)
        need = s.args.clip_bytes / PUT_LIMIT_S  # one clip alone, just in time
        rate = int(need * self.rates.pop())
        s.blob_busy = True
        s.relay.send("blob throttle %d" % rate)
        self.occur("%d kB/s each way (a clip alone needs %d kB/s)" % (rate // 1000, need // 1000),
                   min(self.rng.uniform(120, 200), min(left, due) - 10))

    def end(self, o):
        if self.on is o:
            self.on, o.back_at, self.soak.blob_busy = None, time.monotonic(), False
            self.soak.relay.send("blob pass")
            self.soak.maybe_baseline()
            self.later(240, 420, self.begin)

    def judge(self, r):
        for o in self.log:
            end = o.back_at or o.at + o.length
            mine = [n for n in r.clips if o.at <= (r.clip_time(n, 4) or -1) < end]
            done = sorted(self.soak.args.clip_bytes / (r.clip_time(n, 5) - r.clip_time(n, 4)) // 1000 for n in mine
                          if (r.clip_time(n, 5) or end + 1) <= end)
            o.notes.append("%d PUTs began, %d uploaded while throttled (%s); after it: %s" % (
                len(mine), len(done), "%d..%d kB/s a clip, p50 %d" % (done[0], done[-1], done[(len(done) - 1) // 2])
                if done else "none", r.outcomes([n for n in mine if r.clip_time(n, 5) is None or
                                                 r.clip_time(n, 5) > end])))
        return [], self.lines()


class ShortResets(Fault):
    """Either relay path closes everything with RST for 0.5-2 s."""

    def start(self):
        self.later(10, 40, self.begin)

    def begin(self):
        s, which = self.soak, self.rng.choice(["link", "blob"])
        if (s.link_busy or s.fault["ServerRestarts"].pending()) if which == "link" else \
                (s.blob_busy or s.fault["StorageKills"].down()):
            return self.later(7, 7, self.begin)
        setattr(s, which + "_busy", True)
        s.relay.send(which + " reset")
        self.occur(which, self.rng.uniform(0.5, 2.0), was_connected=s.device_connected(), clips=s.records.uploading())

    def end(self, o):
        if o.back_at is None:
            s, self.on, o.back_at = self.soak, None, time.monotonic()
            s.relay.send(o.what + " pass")
            s.at(8 if o.what == "link" else 0, lambda: setattr(s, o.what + "_busy", False))
            self.later(60, 120, self.begin)

    def observe(self, source, t, ev):
        back_after(self, t, ev, lambda o: o.what == "link")

    def judge(self, r):
        links = [o for o in self.log if o.what == "link"]
        back = [o.reconnect_at - o.back_at for o in links if o.reconnect_at]
        failed = late_returns(r, [o for o in links if o.was_connected and o.back_at is not None])
        for o in self.log:
            o.notes += [r.outcomes(o.clips)] if o.what == "blob" else []
        return [Goal("short reset of the link: back within the delay it drew plus 2 s of the relay passing",
                     "%d resets (%d link, %d blob); link back %s" % (len(self.log), len(links),
                                                                      len(self.log) - len(links), figures(back, 2)),
                     not failed)], self.lines(failed)

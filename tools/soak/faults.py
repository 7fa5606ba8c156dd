"""The faults of the cloud's services, one class each, and what every fault has in common."""

import json
import random
import re
import time

from driver import DEVICE_MAC, rel, say
from records import Goal, Occurrence


class Fault:
    """One kind of fault: start() schedules its first occurrence, stop() ends the one on now,
    observe() sees each line of the servers and the host, judge(records) returns the goals the
    library promised, as measured, and a line an occurrence, made of its notes."""
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


class ServerRestarts(Fault):
    """The messaging server restarts on its port every 20-40 s, after a clean close (1001) or
    killed outright."""

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
        closing = o.was_connected and server.command(cmd="close", code=1001, reason="restart",
                                                             seq="restart-close")
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
        delays = [o.reconnect_at - o.back_at if o.reconnect_at else float("inf") for o in self.log]
        kills = sum(o.what == "kill" for o in self.log)
        return [Goal("messaging server restarted: the device is back within 7 s of it listening again",
                     "%d restarts (%d killed, %d clean 1001); back after min %.2f s, max %.2f s, mean %.2f s" % (
                         len(self.log), kills, len(self.log) - kills, min(delays or [0]), max(delays or [0]),
                         sum(delays) / max(1, len(delays))), max(delays or [0]) <= 7.0)], \
            self.lines([o for o, d in zip(self.log, delays) if d > 7.0])


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

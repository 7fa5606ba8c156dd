#!/usr/bin/python3
"""Fault soak: runs the soak host (tools/soak_host.cpp, built as build/tools/zel_soak_host)
against the local cloud while breaking the cloud
around it, then reports whether the library held.

Usage:
  soak.py [--host-binary BUILD/tools/zel_soak_host] [--minutes 10 | --hours 8] [--block-bytes N]
          [--clip-bytes N] [--state DIR] [--keep] [--seed N]

Everything listens on 127.0.0.1. The run lasts --minutes (10 by default) or --hours;
faults are injected from 20 s after the start until a quiet minute before the end, so
the last clips and events have a calm cloud to finish with. Faults:
  - the messaging server restarts on the same port every 20-40 s, either after a clean
    close (1001) or killed outright; we time how soon the device is back (goal: 7 s);
  - the blob storage emulator is killed while a clip is being PUT (or at a random
    moment if none starts) and comes back on the same port a few seconds later;
  - storage credentials and/or upload acknowledgements are withheld for a while, or
    delayed (now and then past the clips' 20 s time-out);
  - bursts of hostile frames: not JSON, huge, binary, fragmented, JSON without a
    subject or with the wrong types, unknown subjects;
  - the network itself, through tools/cloud/fault_relay.py (see tools/soak_network.py):
    a silent link, an upload stalled mid-PUT, a slow uplink and short resets.
The report compares clips, events and the host's resources against the goals; the
exit status is 0 only if every goal was met. The 8-hour mode is for a person to start
by hand (it is not part of CI); the report of every run says how.
"""

import argparse
import bisect
import collections
import datetime
import heapq
import json
import os
import queue
import random
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
CLOUD = os.path.join(HERE, "cloud")
sys.path.insert(0, CLOUD)
from blob_storage import BlobStorage  # noqa: E402
sys.path.insert(0, HERE)
from soak_network import NetworkFaults  # noqa: E402

DEVICE_MAC = "001122334455"  # also the blob container, which takes no colons
CAMERA = "0a1b2c3d4e5f"
RECONNECT_GOAL_S = 7.0
QUIET_TAIL_S = 60  # no new faults in the last minute of submitting
FIRST_FAULT_S = 20
CLIP_TIMEOUT_S = 20  # the host's UploadOpts.timeout_seconds

T0 = time.monotonic()


def rel(t=None):
    return (time.monotonic() if t is None else t) - T0


def say(line, t=None):
    print("[%7.1fs] %s" % (rel(t), line), flush=True)


# ---------------------------------------------------------------- local cloud pieces

class ServerInstance:
    """One run of the messaging server; its events go to the shared sink, tagged."""

    def __init__(self, index, certs, port, flags, sink, log_dir):
        self.index = index
        self.port = None
        self.listening_at = None
        self.ended_at = None
        self.end_how = None  # "killed", "stopped" or "exited"
        self.err = open(os.path.join(log_dir, "server-%d.stderr" % index), "w")
        self.proc = subprocess.Popen(
            ["/usr/bin/python3", os.path.join(CLOUD, "messaging_server.py"), "--port", str(port),
             "--cert", os.path.join(certs, "server.pem"), "--key", os.path.join(certs, "server.key"),
             "--ca", os.path.join(certs, "ca.pem"), "--set", json.dumps(flags)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.err, text=True, bufsize=1)
        self.sink = sink
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            t = time.monotonic()
            try:
                obj = json.loads(line)
            except ValueError:
                continue
            self.sink.put(("srv", self.index, t, obj))
        self.sink.put(("srv", self.index, time.monotonic(), {"event": "exit"}))

    def alive(self):
        return self.proc.poll() is None

    def command(self, **cmd):
        if not self.alive():
            return False
        try:
            self.proc.stdin.write(json.dumps(cmd) + "\n")
            self.proc.stdin.flush()
            return True
        except (BrokenPipeError, OSError, ValueError):
            return False

    def kill(self):
        self.end_how = self.end_how or "killed"
        if self.alive():
            self.proc.kill()
        self.proc.wait()
        self._closed()

    def stop(self):
        self.end_how = self.end_how or "stopped"
        self.command(cmd="stop")
        try:
            self.proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self._closed()

    def _closed(self):
        self.ended_at = self.ended_at or time.monotonic()
        try:
            self.proc.stdin.close()
        except (BrokenPipeError, OSError, ValueError):
            pass
        self.err.close()


class BlobDeleter:
    """Deletes blobs of clips that are over, off the main loop, so disk use stays bounded
    however long the soak runs."""

    def __init__(self, ca):
        self.ca = ca
        self.jobs = queue.Queue()
        self.deleted = 0
        threading.Thread(target=self._run, daemon=True).start()

    def delete(self, port, sas, blob):
        self.jobs.put((port, sas, blob))

    def _run(self):
        context = ssl.create_default_context(cafile=self.ca)
        while True:
            port, sas, blob = self.jobs.get()
            url = "https://127.0.0.1:%d/devstoreaccount1/%s?%s" % (port, blob, sas)
            req = urllib.request.Request(url, method="DELETE", headers={"x-ms-version": "2020-04-08"})
            try:
                urllib.request.urlopen(req, context=context, timeout=10).close()
                self.deleted += 1
            except (urllib.error.URLError, OSError, ValueError):
                pass  # not there (never committed) or storage is down: nothing to free


def blob_name(camera, start_time):
    day = datetime.datetime.fromtimestamp(start_time, datetime.timezone.utc).strftime("%Y-%m-%d")
    return "%s/%s/%s/%d.mp4" % (DEVICE_MAC, camera, day, start_time)


# ------------------------------------------------------------------------ hostile frames

def hostile_frames():
    """(command, description) pairs; none of them asks the device to change anything
    it keeps (no certificates, no updates, no actions)."""
    huge_json = json.dumps({"id": "h-huge", "from": "cloud", "subject": "soakNoSuchSubject",
                            "content": {"blob": "x" * (1536 * 1024)}})
    env = lambda subject, content, **extra: json.dumps(dict(
        {"id": "h-%d" % random.randrange(1 << 30), "from": "cloud", "to": DEVICE_MAC,
         "subject": subject, "content": content}, **extra))
    return [
        ({"cmd": "send", "text": "this is not json {{{"}, "not JSON"),
        ({"cmd": "send", "text": ""}, "empty text"),
        ({"cmd": "send", "text": "[" * 5000}, "deeply nested, unterminated"),
        ({"cmd": "send", "text": "x" * (2 * 1024 * 1024 + 7)}, "huge, not JSON (2 MiB)"),
        ({"cmd": "send", "text": huge_json}, "huge JSON with an unknown subject (1.5 MiB)"),
        ({"cmd": "send_binary", "text": '{"subject":"pong","content":"pong"}'}, "binary frame"),
        ({"cmd": "send_binary", "text": "\u0000\u00ff\u0001binary"}, "binary garbage"),
        ({"cmd": "send_fragments", "parts": ['{"id":"h-f","from":"cloud","subj',
                                             'ect":"soakFragmented","content":{}}']},
         "a message in two fragments"),
        ({"cmd": "send_fragments", "parts": ["{\"subject\":", "\"pong\"}"], "empty_final": True},
         "fragments with an empty final frame"),
        ({"cmd": "send", "text": '{"id":"h-ns","from":"cloud","content":{"a":1}}'}, "no subject"),
        ({"cmd": "send", "text": '{"subject":42,"id":"h-t1","from":"cloud"}'}, "numeric subject"),
        ({"cmd": "send", "text": '{"subject":null}'}, "null subject"),
        ({"cmd": "send", "text": '{"subject":["pong"],"content":"pong"}'}, "array subject"),
        ({"cmd": "send", "text": "[1,2,3]"}, "an array"),
        ({"cmd": "send", "text": "null"}, "null"),
        ({"cmd": "send", "text": '"just a string"'}, "a string"),
        ({"cmd": "send", "text": env("getStorageAccess", "not an object")}, "credentials as a string"),
        ({"cmd": "send", "text": env("getStorageAccess", {"account": 5, "token": [], "secret": None,
                                                          "start_at": 17, "camera_mac": {}})},
         "credentials with wrong types"),
        ({"cmd": "send", "text": env("transactionAck", [1, 2, 3])}, "acknowledgement as an array"),
        ({"cmd": "send", "text": env("transactionAck", {"type": "archive", "from": 7, "start_at": None})},
         "acknowledgement with wrong types"),
        ({"cmd": "send", "text": json.dumps({"id": 5, "from": None, "subject": "details",
                                             "content": {}})}, "request with numeric id, null from"),
        ({"cmd": "send", "text": env("pong", {"unexpected": True})}, "pong with an object"),
        ({"cmd": "send", "text": env("soakUnknownSubject", {"x": 1})}, "unknown subject"),
        ({"cmd": "send", "text": env('soak"quoted\\subject', {})}, "unknown subject with quotes"),
        ({"cmd": "send", "text": env("transaction", {"model": 5, "properties": "x"})},
         "transaction with wrong types"),
    ]


# -------------------------------------------------------------------------------- soak

class Soak(NetworkFaults):
    def __init__(self, args):
        self.args = args
        self.total_s = int(args.hours * 3600) if args.hours else int(args.minutes * 60)
        self.rng = random.Random(args.seed)
        random.seed(self.rng.random())
        self.sink = queue.Queue()
        self.timers = []
        self.timer_seq = 0
        self.state = args.state or tempfile.mkdtemp(prefix="zel-soak-")
        self.own_state = args.state is None
        os.makedirs(self.state, exist_ok=True)
        self.certs = os.path.join(self.state, "certs")
        self.blobs = os.path.join(self.state, "blobs")
        self.clip_dir = os.path.join(self.state, "clips")
        os.makedirs(self.clip_dir, exist_ok=True)

        # Cloud behaviour wanted now; every new server instance starts with it.
        self.flags = {"auto_storage": True, "auto_ack": True, "storage_delay": 0.0,
                      "ack_delay": 0.0, "storage_secret": "soak-secret"}
        self.servers = {}
        self.server = None
        self.server_port = 0
        self.storage = None
        self.storage_port = 0
        self.storage_generation = 0
        self.deleter = None

        self.host = None
        self.host_started = None
        self.fault_from = None
        self.fault_until = None

        # Bookkeeping.
        self.conns = {}  # (instance, conn) -> dict
        self.restarts = []  # dicts: how, down_at, back_at, reconnect_at, instance
        self.storage_kills = []
        self.withholds = []
        self.delays = []
        self.bursts = 0
        self.burst_frames = 0
        self.received = {"motion": collections.defaultdict(list), "access": collections.defaultdict(list)}
        self.clips = {}  # n -> {"state","msg","t","start_time","camera","states"}
        self.samples = []
        self.baseline = None
        self.final = None
        self.host_lines_other = 0
        self.unexpected_server_exits = []
        self.armed_kill = None
        self.problems = []
        self.net_init(say, rel)

    # ------------------------------------------------------------------ timers
    def at(self, delay, fn):
        self.timer_seq += 1
        heapq.heappush(self.timers, (time.monotonic() + delay, self.timer_seq, fn))

    def in_fault_window(self):
        now = time.monotonic()
        return self.fault_from <= now < self.fault_until

    def run_timers(self):
        while self.timers and self.timers[0][0] <= time.monotonic():
            _, _, fn = heapq.heappop(self.timers)
            fn()

    # ------------------------------------------------------------- the cloud
    def start_storage(self, first=False):
        last = None
        for attempt in range(5):
            location = self.blobs if attempt < 2 else "%s-%d" % (self.blobs, self.storage_generation + attempt)
            try:
                self.storage = BlobStorage(self.certs, location, self.storage_port)
                self.storage_port = self.storage.port
                self.storage.create_container(DEVICE_MAC)
                self.storage_generation += 1
                return True
            except Exception as exc:  # start failures are reported, and tried again
                last = exc
                if self.storage is not None and self.storage.proc.poll() is None:
                    self.storage.stop()
                time.sleep(1)
        if first:
            raise RuntimeError("blob storage did not start: %s" % last)
        self.problems.append("blob storage did not come back: %s" % last)
        say("storage: did not come back (%s)" % last)
        return False

    def start_server(self):
        index = len(self.servers) + 1
        flags = dict(self.flags, storage_account=self.storage.account if self.storage else "devstoreaccount1",
                     storage_token=self.sas)
        inst = ServerInstance(index, self.certs, self.server_port, flags, self.sink, self.state)
        self.servers[index] = inst
        self.server = inst
        return inst

    def apply_flags(self, **changes):
        self.flags.update(changes)
        if self.server is not None:
            self.server.command(cmd="set", **changes)

    def device_connected(self):
        if self.server is None:
            return False
        return any(c["instance"] == self.server.index and c["end"] is None for c in self.conns.values())

    # ------------------------------------------------------------- faults
    def schedule_restart(self):
        self.at(self.rng.uniform(20, 40), self.restart_server)

    def restart_server(self):
        if not self.in_fault_window():
            return
        if self.link_quiet_needed():
            self.at(10, self.restart_server)
            return
        inst = self.server
        how = self.rng.choice(["clean", "kill"])
        record = {"how": how, "old": inst.index, "down_at": None, "back_at": None,
                  "reconnect_at": None, "instance": None, "was_connected": self.device_connected()}
        self.restarts.append(record)
        if how == "kill":
            inst.kill()
            record["down_at"] = inst.ended_at
            self.end_conns(inst.index, "killed", inst.ended_at)
            say("server: instance %d killed (device was %s)" % (
                inst.index, "connected" if record["was_connected"] else "not connected"))
            self.at(self.rng.uniform(0.5, 3.0), lambda: self.bring_back(record))
        else:
            say("server: instance %d closes the link with 1001, then stops" % inst.index)
            record["closing"] = True
            record["close_sent_at"] = time.monotonic()
            if not inst.command(cmd="close", code=1001, reason="restart", seq="restart-close") or \
                    not record["was_connected"]:
                self.finish_clean_stop(record)
            else:
                self.at(3.0, lambda: self.finish_clean_stop(record))

    def finish_clean_stop(self, record):
        if not record.get("closing"):
            return
        record["closing"] = False
        inst = self.servers[record["old"]]
        inst.stop()
        record["down_at"] = inst.ended_at
        self.end_conns(inst.index, "stopped", inst.ended_at)
        self.at(self.rng.uniform(0.5, 3.0), lambda: self.bring_back(record))

    def bring_back(self, record):
        inst = self.start_server()
        record["instance"] = inst.index
        self.schedule_restart()

    def schedule_storage_kill(self, first=False):
        self.at(self.rng.uniform(40, 80) if first else self.rng.uniform(60, 120), self.arm_storage_kill)

    def arm_storage_kill(self):
        if not self.in_fault_window():
            return
        if self.blob_quiet_needed():
            self.at(10, self.arm_storage_kill)
            return
        # Wait for the next upload to start; if none starts soon, kill at a random moment.
        self.armed_kill = time.monotonic() + 20
        say("storage: armed, waiting for an upload to start")

    def kill_storage(self, why):
        if self.storage is None or self.storage.proc.poll() is not None:
            return
        uploading = sorted(n for n, c in self.clips.items() if c["state"] == 4)
        self.storage.proc.kill()
        self.storage.proc.wait()
        self.storage.log.close()
        record = {"at": time.monotonic(), "why": why, "uploading": uploading, "back_at": None}
        self.storage_kills.append(record)
        say("storage: killed %s (clips uploading: %s)" % (why, uploading or "none"))

        def back():
            if self.start_storage():
                record["back_at"] = time.monotonic()
                say("storage: back on port %d after %.1f s" % (self.storage_port, record["back_at"] - record["at"]))
            self.schedule_storage_kill()
        self.at(self.rng.uniform(2, 6), back)

    def schedule_withhold(self, first=False):
        self.at(self.rng.uniform(50, 100) if first else self.rng.uniform(70, 140), self.withhold)

    def withhold(self):
        if not self.in_fault_window():
            return
        what = self.rng.choice(["storage", "ack", "both"])
        changes = {}
        if what in ("storage", "both"):
            changes["auto_storage"] = False
        if what in ("ack", "both"):
            changes["auto_ack"] = False
        length = self.rng.uniform(15, 35)
        self.apply_flags(**changes)
        self.withholds.append({"what": what, "at": time.monotonic(), "length": length})
        say("cloud: withholding %s for %.0f s" % (
            {"storage": "getStorageAccess", "ack": "transactionAck",
             "both": "getStorageAccess and transactionAck"}[what], length))

        def restore():
            self.apply_flags(**{k: True for k in changes})
            say("cloud: answering again")
            self.schedule_withhold()
        self.at(length, restore)

    def schedule_delay(self, first=False):
        self.at(self.rng.uniform(30, 70) if first else self.rng.uniform(60, 120), self.delay)

    def delay_value(self):
        # Mostly within the clips' time-out; now and then past it, so that late answers
        # arrive for clips that have already failed.
        if self.rng.random() < 0.2:
            return round(self.rng.uniform(CLIP_TIMEOUT_S + 2, CLIP_TIMEOUT_S + 10), 1)
        return round(self.rng.uniform(1, 8), 1)

    def delay(self):
        if not self.in_fault_window():
            return
        which = self.rng.choice(["storage", "ack", "both"])
        changes = {}
        if which in ("storage", "both"):
            changes["storage_delay"] = self.delay_value()
        if which in ("ack", "both"):
            changes["ack_delay"] = self.delay_value()
        length = self.rng.uniform(20, 45)
        self.apply_flags(**changes)
        self.delays.append({"changes": changes, "at": time.monotonic(), "length": length})
        say("cloud: delaying %s for %.0f s" % (
            ", ".join("%s %.1f s" % ("getStorageAccess" if k == "storage_delay" else "transactionAck", v)
                      for k, v in changes.items()), length))

        def restore():
            self.apply_flags(**{k: 0.0 for k in changes})
            say("cloud: no more delays")
            self.schedule_delay()
        self.at(length, restore)

    def schedule_burst(self, first=False):
        self.at(self.rng.uniform(25, 50) if first else self.rng.uniform(30, 60), self.burst)

    def burst(self):
        if not self.in_fault_window():
            return
        if self.device_connected() and not self.link_quiet_needed():
            frames = hostile_frames()
            for cmd, _ in frames:
                self.server.command(**cmd)
            self.bursts += 1
            self.burst_frames += len(frames)
            say("cloud: hostile burst of %d frames" % len(frames))
        self.schedule_burst()

    # ----------------------------------------------------------- bookkeeping
    def end_conns(self, instance, how, t):
        for c in self.conns.values():
            if c["instance"] == instance and c["end"] is None:
                c["end"] = t
                c["end_how"] = how

    def on_server_event(self, index, t, ev):
        kind = ev.get("event")
        inst = self.servers.get(index)
        self.net_server_event(index, t, ev)
        if kind == "listening":
            inst.port = ev["port"]
            inst.listening_at = t
            if not self.server_port:
                self.server_port = ev["port"]
            for r in self.restarts:
                if r["instance"] == index:
                    r["back_at"] = t
                    say("server: instance %d listening again on port %d, %.1f s after going down" % (
                        index, ev["port"], t - r["down_at"]), t)
        elif kind == "connect":
            self.conns[(index, ev["conn"])] = {"instance": index, "conn": ev["conn"], "start": t, "end": None,
                                               "end_how": None, "code": None, "motion": [], "access": []}
            for r in self.restarts:
                if r["instance"] == index and r["reconnect_at"] is None:
                    r["reconnect_at"] = t
                    delay = t - r["back_at"] if r["back_at"] else float("nan")
                    say("device: reconnected to instance %d, %.2f s after it was back" % (index, delay), t)
        elif kind == "close":
            c = self.conns.get((index, ev["conn"]))
            if c is not None and c["end"] is None:
                c["end"] = t
                c["code"] = ev.get("code")
                c["end_how"] = self.net_close_how((index, ev["conn"])) or "closed %s" % ev.get("code")
                if ev.get("code") != 1001:
                    say("device: link on instance %d closed with code %s" % (index, ev.get("code")), t)
        elif kind == "done" and ev.get("cmd") == "close" and ev.get("seq") == "restart-close":
            for r in self.restarts:
                if r["old"] == index and r.get("closing"):
                    r["close_done_s"] = t - r["close_sent_at"]
                    self.finish_clean_stop(r)
        elif kind == "message":
            self.on_device_message(index, t, ev)
        elif kind == "exit":
            if inst.end_how is None:
                inst.end_how = "exited"
                self.unexpected_server_exits.append(index)
                self.problems.append("messaging server instance %d exited by itself" % index)

    def on_device_message(self, index, t, ev):
        text = ev.get("text", "")
        if not text.startswith("{"):
            return
        try:
            msg = json.loads(text)
        except ValueError:
            return
        content = msg.get("content") if isinstance(msg, dict) else None
        if not isinstance(content, dict):
            return
        props = content.get("properties") if isinstance(content.get("properties"), dict) else {}
        model = content.get("model")
        if model == "event":
            key, field, prefix = "motion", "thumbnail", "soak-m-"
        elif model == "accessEvent":
            key, field, prefix = "access", "tag", "soak-a-"
        else:
            return
        mark = props.get(field)
        if not isinstance(mark, str) or not mark.startswith(prefix):
            return
        seq = int(mark[len(prefix):])
        self.received[key][seq].append((index, ev.get("conn")))
        c = self.conns.get((index, ev.get("conn")))
        if c is not None:
            c[key].append(seq)

    def on_host_line(self, t, line):
        try:
            obj = json.loads(line)
        except ValueError:
            self.host_lines_other += 1
            return
        if not isinstance(obj, dict):
            return
        if "clip" in obj:
            n = obj["clip"]
            c = self.clips.setdefault(n, {"state": -1, "msg": "", "states": [], "start_time": obj["start_time"],
                                          "camera": obj.get("camera", CAMERA), "times": {}})
            c["times"].setdefault(obj["state"], t)
            self.net_clip_state(n, obj["state"], t)
            c["state"] = obj["state"]
            c["msg"] = obj.get("msg", "")
            c["states"].append(obj["state"])
            if obj["state"] == 4 and self.armed_kill is not None:
                self.armed_kill = None
                self.at(self.rng.uniform(0.02, 0.12), lambda: self.kill_storage("during the PUT of clip %d" % n))
            if obj["state"] in (6, 7) and self.storage_port:
                self.deleter.delete(self.storage_port, self.sas, blob_name(c["camera"], c["start_time"]))
        elif "rss_kb" in obj:
            self.samples.append(obj)
            if len(self.samples) % 6 == 0:
                say("host: rss %d kB, heap %d kB, %d fds, %d threads, %d clips (%d over), %s" % (
                    obj["rss_kb"], obj.get("heap_kb", -1), obj["fds"], obj["threads"], obj.get("clips", 0), obj.get("clips_final", 0),
                    "connected" if obj.get("connected") else "NOT connected"), t)
        elif "baseline" in obj:
            self.baseline = obj["baseline"]
        elif "link" in obj:
            self.net_host_link(t, obj["link"] == "up")
        elif "log" in obj:
            self.net_host_log(t, obj["log"])
        elif "resubmit" in obj:
            self.net_resubmitted(obj["resubmit"], obj["as"])
        elif obj.get("final"):
            self.final = obj

    # ------------------------------------------------------------------- run
    def run(self):
        subprocess.run(["bash", os.path.join(CLOUD, "make_certs.sh"), self.certs], check=True)
        self.deleter = BlobDeleter(os.path.join(self.certs, "ca.pem"))
        self.start_storage(first=True)
        # One SAS for the whole run (valid for the run plus a day): every server instance
        # hands out the same credentials, as a real cloud would within their lifetime.
        self.sas = self.storage.sas_token(valid_s=self.total_s + 86400)
        say("storage: emulator on https://127.0.0.1:%d" % self.storage_port)
        self.start_server()
        while self.server.listening_at is None:
            item = self.sink.get(timeout=20)
            self.dispatch(item)
        say("server: instance 1 on wss://127.0.0.1:%d/" % self.server_port)

        # The device reaches both services through the fault relay.
        self.net_start()
        env = dict(os.environ, ZEL_BLOB_DOMAIN=".blob.localhost:%d" % self.relay.ports["blob"])
        host_cmd = [self.args.host_binary, "--server", "wss://127.0.0.1:%d/" % self.relay.ports["link"],
                    "--mac", DEVICE_MAC, "--ca", os.path.join(self.certs, "ca.pem"),
                    "--cert", os.path.join(self.certs, "client.pem"), "--key", os.path.join(self.certs, "client.key"),
                    "--camera", CAMERA, "--seconds", str(self.total_s), "--clip-bytes", str(self.args.clip_bytes),
                    "--clip-every", "4", "--dir", self.clip_dir, "--final-wait", "60",
                    "--baseline-on-command", "1", "--block-bytes", str(self.args.block_bytes)]
        self.host_err = open(os.path.join(self.state, "host.stderr"), "w")
        self.host_log = open(os.path.join(self.state, "host.out"), "w", buffering=1)
        self.host = subprocess.Popen(host_cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.host_err,
                                     text=True, bufsize=1, env=env)
        self.host_started = time.monotonic()
        self.fault_from = self.host_started + FIRST_FAULT_S
        self.fault_until = self.host_started + max(FIRST_FAULT_S, self.total_s - QUIET_TAIL_S)
        if self.args.no_faults:
            self.fault_until = self.fault_from
        say("host: started, %d s of clips (%d bytes every 4 s) and events (2 a second); faults until %.0fs" % (
            self.total_s, self.args.clip_bytes, rel(self.fault_until)))

        def read_host():
            for line in self.host.stdout:
                self.host_log.write(line)
                self.sink.put(("host", 0, time.monotonic(), line.rstrip("\n")))
            self.sink.put(("host-exit", 0, time.monotonic(), None))
        threading.Thread(target=read_host, daemon=True).start()

        # The first of each fault comes FIRST_FAULT_S after the host started, at the earliest.
        self.at(FIRST_FAULT_S + self.rng.uniform(0, 15), self.restart_server)
        self.at(FIRST_FAULT_S, lambda: self.schedule_storage_kill(first=True))
        self.at(FIRST_FAULT_S, lambda: self.schedule_withhold(first=True))
        self.at(FIRST_FAULT_S, lambda: self.schedule_delay(first=True))
        self.at(FIRST_FAULT_S, lambda: self.schedule_burst(first=True))
        self.net_schedule()

        # The host submits for total_s, drains for at most 60 s and disconnects within 30 s.
        hard_deadline = self.host_started + self.total_s + 60 + 30 + 30
        host_done = False
        while not host_done:
            self.run_timers()
            self.net_tick()
            if self.armed_kill is not None and time.monotonic() > self.armed_kill:
                self.armed_kill = None
                self.kill_storage("at a random moment (no upload started within 20 s)")
            if time.monotonic() > hard_deadline:
                self.problems.append("the host did not finish in time; killed")
                say("host: did not finish by the deadline; killing it")
                self.host.kill()
                break
            try:
                item = self.sink.get(timeout=0.05)
            except queue.Empty:
                continue
            if item[0] == "host-exit":
                host_done = True
                # What the servers said meanwhile still counts.
                while True:
                    try:
                        self.dispatch(self.sink.get_nowait())
                    except queue.Empty:
                        break
                continue
            self.dispatch(item)
        self.host_rc = self.host.wait()
        self.host_err.close()

    def dispatch(self, item):
        source, index, t, payload = item
        if source == "srv":
            self.on_server_event(index, t, payload)
        elif source == "host":
            self.on_host_line(t, payload)
        elif source == "relay":
            pass  # mode switches are recorded when asked for; closes are in the relay's counters

    def cleanup(self):
        if self.host is not None and self.host.poll() is None:
            self.host.kill()
            self.host.wait()
        for inst in self.servers.values():
            if inst.alive():
                inst.stop()
        if self.storage is not None and self.storage.proc.poll() is None:
            self.storage.stop()
        if self.relay is not None:
            self.relay.stop()
        if self.own_state and not self.args.keep:
            shutil.rmtree(self.state, ignore_errors=True)

    # ---------------------------------------------------------------- report
    def attribute_missing(self, key, submitted):
        """Places each event that never arrived: taken from the queue on a connection
        that then died, still queued at the end, or unaccounted."""
        got = self.received[key]
        first_conn = {seq: arrivals[0] for seq, arrivals in got.items()}
        seqs = sorted(first_conn)
        out = collections.Counter()
        missing = [s for s in range(1, submitted + 1) if s not in got]
        detail = collections.defaultdict(list)
        for s in missing:
            i = bisect.bisect_left(seqs, s)
            before = first_conn[seqs[i - 1]] if i > 0 else None
            after = first_conn[seqs[i]] if i < len(seqs) else None
            if before is None:
                where = "before the first event arrived"
            elif after is not None and after == before:
                where = "unaccounted (a gap inside one connection)"
            else:
                c = self.conns.get(before)
                how = c["end_how"] if c else None
                if how == "killed":
                    where = "lost with a dying socket (server killed)"
                elif how == "blackholed":
                    where = "handed to the socket of a silent link (relay blackhole)"
                elif how is None and after is None:
                    where = "not sent before the host disconnected"
                elif how in ("stopped", "closed 1001"):
                    where = "lost around a clean close (1001)"
                else:
                    where = "lost when the link ended (%s)" % how
            out[where] += 1
            detail[where].append(s)
        duplicates = sum(len(v) - 1 for v in got.values() if len(v) > 1)
        return missing, out, detail, duplicates

    def report(self):
        lines = []
        ok = True
        p = lines.append
        f = self.final
        minutes = self.total_s / 60
        p("")
        p("=" * 78)
        p("FAULT SOAK REPORT: %s, clips of %d bytes every 4 s, a motion and an access event every second" % (
            ("%.1f h" % (self.total_s / 3600)) if self.total_s >= 3600 else "%.0f min" % minutes, self.args.clip_bytes))
        p("=" * 78)
        kills = sum(1 for r in self.restarts if r["how"] == "kill")
        mid_put = [k for k in self.storage_kills if k["uploading"]]
        p("faults injected: %d messaging server restarts (%d killed, %d clean 1001), %d blob storage kills "
          "(%d with a PUT in progress), %d withholds, %d delays, %d hostile bursts (%d frames)" % (
              len(self.restarts), kills, len(self.restarts) - kills, len(self.storage_kills), len(mid_put),
              len(self.withholds), len(self.delays), self.bursts, self.burst_frames))

        if self.host_rc < 0:
            ok = False
            p("HOST CRASHED: signal %d (%s); stderr in %s" % (-self.host_rc, signal.Signals(-self.host_rc).name,
                                                              os.path.join(self.state, "host.stderr")))
        if f is None:
            ok = False
            p("NO SUMMARY from the host (exit status %s); the figures below come from its progress lines" % self.host_rc)
            f = {"clips_submitted": len(self.clips), "final_states": {}, "failed_messages": {}, "non_final": -1,
                 "events_submitted": {"motion": 0, "access": 0}, "connects": -1, "disconnects": -1}

        # Clips.
        p("")
        p("CLIPS")
        fs = f["final_states"]
        finals = sum(fs.values())
        p("  submitted %d; last state final: %d (confirmed %d, failed %d, rejected %d); not final: %d" % (
            f["clips_submitted"], finals, fs.get("6", 0), fs.get("7", 0), fs.get("1", 0), f["non_final"]))
        for msg, n in sorted(f["failed_messages"].items(), key=lambda kv: -kv[1]):
            p("    %4d x 7 %s" % (n, msg.replace("\n", " | ")))
        for c in f.get("non_final_clips", []):
            p("    STUCK clip %d in state %d: %s" % (c["clip"], c["state"], c["msg"]))
        if f.get("states_after_final"):
            p("    %d states were reported after a final state" % f["states_after_final"])
        goal = f["non_final"] == 0 and finals == f["clips_submitted"] and not f.get("states_after_final")
        ok &= goal
        p("  goal, every clip ends confirmed or failed with a reason: %s" % ("MET" if goal else "NOT MET"))
        for k in self.storage_kills:
            outcomes = ["clip %d -> %s %s" % (n, self.clips[n]["state"], self.clips[n]["msg"][:70])
                        for n in k["uploading"] if n in self.clips]
            p("  storage killed at %.1fs %s: %s" % (rel(k["at"]), k["why"], "; ".join(outcomes) or "no PUT in progress"))

        # Events.
        p("")
        p("EVENTS (counted by the messaging servers, all instances)")
        for key in ("motion", "access"):
            submitted = f["events_submitted"][key]
            missing, where, detail, dups = self.attribute_missing(key, submitted)
            received = len([s for s in self.received[key] if s <= submitted])
            p("  %-6s submitted %d, received %d, missing %d, received twice %d" % (
                key, submitted, received, len(missing), dups))
            for w, n in where.most_common():
                seqs = detail[w]
                shown = ", ".join(str(s) for s in seqs[:12]) + (" ..." if len(seqs) > 12 else "")
                p("    %4d %s  [%s]" % (n, w, shown))
        for key in ("motion", "access"):
            _, _, detail, _ = self.attribute_missing(key, f["events_submitted"][key])
            for w, seqs in detail.items():
                if "unaccounted" in w:
                    ok = False
        p("  (the library keeps no event once written to a socket that then died: an event missing between the")
        p("  last event of a connection and the first of the next was written to that connection as it ended;")
        p("  after a clean close this happens only if the server stopped before the device had read the close,")
        p("  see the close handshake times below; a gap inside one connection is unaccounted and fails the run)")

        # Resources.
        p("")
        p("HOST RESOURCES (start = once a silent link, a stalled upload and a slow uplink were each seen, or near")
        p("half-way, with no upload in progress; end = after draining)")
        s, e = f.get("start"), f.get("end")
        if s and e:
            rss_change = 100.0 * (e["rss_kb"] - s["rss_kb"]) / s["rss_kb"]
            m = f.get("mid") or e
            pct = lambda a, b: 100.0 * (b - a) / a if a else 0.0
            p("  resident memory: %d kB at %.0fs -> %d kB at %.0fs (%+.1f%%); half-way %d kB at %.0fs (%+.1f%% from there)" % (
                s["rss_kb"], s["t"], e["rss_kb"], e["t"], rss_change, m["rss_kb"], m["t"], pct(m["rss_kb"], e["rss_kb"])))
            if "heap_kb" in s and "heap_kb" in e:
                p("    anonymous %d -> %d kB, file-backed %d -> %d kB" % (
                    s["rss_anon_kb"], e["rss_anon_kb"], s["rss_file_kb"], e["rss_file_kb"]))
                p("    heap in use %d -> %d kB (%+d kB; half-way %d kB), freed but kept by the allocator %d -> %d kB" % (
                    s["heap_kb"], e["heap_kb"], e["heap_kb"] - s["heap_kb"], m["heap_kb"], s["heap_free_kb"],
                    e["heap_free_kb"]))
            p("  descriptors:     %d -> %d   %s -> %s" % (s["fds"], e["fds"], json.dumps(s["fd_kinds"]),
                                                         json.dumps(e["fd_kinds"])))
            p("  threads:         %d -> %d" % (s["threads"], e["threads"]))
            if self.samples:
                rss = [x["rss_kb"] for x in self.samples]
                heap = [x.get("heap_kb", -1) for x in self.samples]
                p("  over the run (%d samples): rss %d..%d kB, heap %d..%d kB, fds %d..%d, threads %d..%d" % (
                    len(self.samples), min(rss), max(rss), min(heap), max(heap), min(x["fds"] for x in self.samples),
                    max(x["fds"] for x in self.samples), min(x["threads"] for x in self.samples),
                    max(x["threads"] for x in self.samples)))
            b, a = f.get("before_connect"), f.get("after_disconnect")
            if b and a:
                p("  before connect: %d kB, %d fds, %d threads; after disconnect: %d kB, %d fds, %d threads" % (
                    b["rss_kb"], b["fds"], b["threads"], a["rss_kb"], a["fds"], a["threads"]))
            # Resident memory swings by the 2-3 MB the allocator trims from the top of its heap
            # or keeps, with the link's buffers; a start sample taken in a trough reads as
            # growth. So the goal compares like with like: the high-water mark from half-way
            # to the end against the one from the start to half-way.
            first = [x["rss_kb"] for x in self.samples if s["t"] <= x["t"] <= m["t"]] + [s["rss_kb"], m["rss_kb"]]
            second = [x["rss_kb"] for x in self.samples if x["t"] > m["t"]] + [e["rss_kb"]]
            peak_change = pct(max(first), max(second))
            p("  resident high-water mark: %d kB from the start to half-way, %d kB from there to the end (%+.1f%%)" % (
                max(first), max(second), peak_change))
            mem_ok = peak_change <= 5.0
            fds_ok = s["fds"] == e["fds"]
            thr_ok = s["threads"] == e["threads"]
            ok &= mem_ok and fds_ok and thr_ok
            p("  goal, memory high-water mark within 5%%: %s; descriptors equal: %s; threads equal: %s" % (
                "MET" if mem_ok else "NOT MET", "MET" if fds_ok else "NOT MET", "MET" if thr_ok else "NOT MET"))
            if "heap_kb" in s:
                # Not a goal, a diagnosis: resident memory also counts what the allocator keeps after
                # large frees and code paged in by the first faults; bytes in use are what a leak moves.
                p("  diagnosis: heap in use %+.1f%% from the start, %+.1f%% from half-way; resident %+.1f%% from half-way" % (
                    pct(s["heap_kb"], e["heap_kb"]), pct(m["heap_kb"], e["heap_kb"]), pct(m["rss_kb"], e["rss_kb"])))
            if not (s.get("connected") and e.get("connected")):
                p("  note: the link was %s at the start sample and %s at the end sample" % (
                    "up" if s.get("connected") else "down", "up" if e.get("connected") else "down"))
        else:
            ok = False
            p("  no start/end figures")

        # Reconnections.
        p("")
        p("RECONNECTIONS (messaging server listening again -> device connected; goal %.0f s)" % RECONNECT_GOAL_S)
        delays = []
        for i, r in enumerate(self.restarts, 1):
            if r["back_at"] is None:
                p("  %2d %-5s at %.1fs: server did not come back" % (i, r["how"], rel(r["down_at"] or T0)))
                ok = False
                continue
            if r["reconnect_at"] is None:
                p("  %2d %-5s down at %.1fs, back after %.1f s: DEVICE NEVER RECONNECTED" % (
                    i, r["how"], rel(r["down_at"]), r["back_at"] - r["down_at"]))
                ok = False
                continue
            d = r["reconnect_at"] - r["back_at"]
            delays.append(d)
            handshake = ""
            if r["how"] == "clean":
                handshake = ("  (close handshake %.2f s)" % r["close_done_s"]) if "close_done_s" in r else \
                    "  (close handshake not over in 3 s: stopped anyway)" if r["was_connected"] else ""
            p("  %2d %-5s down at %7.1fs, back after %4.1f s, device reconnected %5.2f s later%s%s" % (
                i, r["how"], rel(r["down_at"]), r["back_at"] - r["down_at"], d, handshake,
                "" if d <= RECONNECT_GOAL_S else "  SLOWER THAN %.0f s" % RECONNECT_GOAL_S))
        if delays:
            slow = [d for d in delays if d > RECONNECT_GOAL_S]
            ok &= not slow
            p("  %d reconnections: min %.2f s, max %.2f s, mean %.2f s; goal: %s" % (
                len(delays), min(delays), max(delays), sum(delays) / len(delays),
                "MET" if not slow else "NOT MET (%d slower)" % len(slow)))
        other_closes = collections.Counter(c["end_how"] for c in self.conns.values()
                                           if c["end_how"] not in ("killed", "stopped", "closed 1001", None))
        p("  connections seen by the servers: %d; host callbacks: %s connects, %s disconnects%s" % (
            len(self.conns), f["connects"], f["disconnects"],
            ("; other ends: %s" % dict(other_closes)) if other_closes else ""))

        ok &= self.net_report(p)

        p("")
        p("HOST: exit status %s, disconnect %s in %.2f s, %d non-JSON lines from the library on stdout" % (
            self.host_rc, "ok" if f.get("disconnect_ok") else "FAILED", f.get("disconnect_s", -1),
            self.host_lines_other))
        if not f.get("disconnect_ok"):
            ok = False
        for problem in self.problems:
            p("PROBLEM: %s" % problem)
            ok = False
        p("")
        p("VERDICT: %s" % ("THE LIBRARY HELD" if ok else "THE LIBRARY DID NOT HOLD (see NOT MET / PROBLEM above)"))
        if not self.args.hours:
            p("")
            p("Long soak (by hand, not in CI): /usr/bin/python3 tools/soak.py --hours 8 --host-binary %s" %
              self.args.host_binary)
            p("  It runs about 8 h 2 min, prints the host's figures every minute and each fault as it happens,")
            p("  and ends with this report; add --keep --state DIR to keep the logs.")
        print("\n".join(lines), flush=True)
        self.save_record()
        return ok

    def save_record(self):
        """What the report was made from, for a person looking into a failed run (--keep)."""
        is_time = lambda k: k in ("at", "start", "end") or k.endswith("_at")
        clean = lambda d: {k: (round(rel(v), 3) if is_time(k) and isinstance(v, float) else v) for k, v in d.items()}
        record = {
            "restarts": [clean(r) for r in self.restarts],
            "storage_kills": [clean(k) for k in self.storage_kills],
            "withholds": [clean(w) for w in self.withholds],
            "delays": [clean(d) for d in self.delays],
            "connections": [dict(clean({k: v for k, v in c.items() if k not in ("motion", "access")}),
                                 motion=[min(c["motion"]), max(c["motion"])] if c["motion"] else None,
                                 access=[min(c["access"]), max(c["access"])] if c["access"] else None)
                            for c in self.conns.values()],
        }
        with open(os.path.join(self.state, "soak-record.json"), "w") as out:
            json.dump(record, out, indent=1)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--host-binary", default=os.path.join(
        os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "build", "tools", "zel_soak_host"))
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--hours", type=float, default=0, help="long mode, for a person to start by hand")
    parser.add_argument("--clip-bytes", type=int, default=16 * 1024 * 1024)
    parser.add_argument("--state", help="working directory (default: a temporary one, removed at the end)")
    parser.add_argument("--keep", action="store_true", help="keep the temporary working directory")
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--block-bytes", type=int, default=0,
                        help="upload clips in blocks of this size (Upload::set_block_upload; 0: one PUT)")
    parser.add_argument("--no-faults", action="store_true",
                        help="the same load on a calm cloud: a reference for the resource figures")
    args = parser.parse_args()
    if args.seed is None:
        args.seed = random.randrange(1 << 30)
    if not os.access(args.host_binary, os.X_OK):
        parser.error("not an executable: %s" % args.host_binary)
    soak = Soak(args)
    say("soak: seed %d, working directory %s" % (args.seed, soak.state))
    ok = False
    try:
        soak.run()
        ok = soak.report()
    finally:
        soak.cleanup()
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())

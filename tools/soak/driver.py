"""The soak's driver: the local cloud behind the fault relay, the soak host, the timers, and what the
servers and the host say, turned into records for the faults to act on and judge."""

import heapq
import json
import os
import queue
import random
import re
import subprocess
import sys
import tempfile
import threading
import time

CLOUD = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "cloud")
sys.path.insert(0, CLOUD)
import fault_relay  # noqa: E402
from blob_storage import BlobStorage  # noqa: E402
from formats import blob_path  # noqa: E402
from process import Process  # noqa: E402
from records import Clip, Conn, Records  # noqa: E402

DEVICE_MAC, CAMERA = "001122334455", "0a1b2c3d4e5f"  # the MAC names the blob container: no colons
FIRST_FAULT_S, QUIET_TAIL_S = 20, 60  # no faults in the first 20 s, and none new in the last minute
UPLOAD_FAILED = re.compile(r"Upload failed.*/(\d+)\.mp4 from ")
T0 = time.monotonic()


def rel(t=None):
    return (time.monotonic() if t is None else t) - T0


def say(line, t=None):
    print("[%7.1fs] %s" % (rel(t), line), flush=True)


class Soak:
    def __init__(self, args, fault_kinds):
        self.args, self.total_s = args, int(args.hours * 3600) if args.hours else int(args.minutes * 60)
        self.rng = random.Random(args.seed)
        random.seed(self.rng.random())
        self.sink, self.timers, self.files, self.deletions = queue.Queue(), [], [], queue.Queue()
        self.state = args.state or tempfile.mkdtemp(prefix="zel-soak-")
        self.certs = os.path.join(self.state, "certs")
        # Cloud behaviour wanted now; every new server instance starts with it.
        self.flags = {"auto_storage": True, "auto_ack": True, "storage_delay": 0.0, "ack_delay": 0.0,
                      "storage_secret": "soak-secret"}
        self.servers, self.server, self.server_port, self.storage, self.records = {}, None, 0, None, Records()
        self.link_busy = self.blob_busy = self.baseline_asked = False  # a link (blob) fault is on: none other there
        self.silence_due = None  # when the next silent link is due: upload faults keep clear
        self.faults = [kind(self) for kind in fault_kinds]
        self.fault = {type(f).__name__: f for f in self.faults}

    def at(self, delay, fn):
        heapq.heappush(self.timers, (time.monotonic() + delay, id(fn), fn))

    def in_window(self):
        return self.fault_from <= time.monotonic() < self.fault_until

    def tls(self, who):
        c = lambda name: os.path.join(self.certs, name)
        return ["--ca", c("ca.pem"), "--cert", c(who + ".pem"), "--key", c(who + ".key")]

    def log_file(self, name):
        self.files.append(open(os.path.join(self.state, name), "w"))
        return self.files[-1]

    def start_storage(self):
        for attempt in range(3):  # on the same port; in a fresh location after a failure
            try:
                self.storage = BlobStorage(self.certs, os.path.join(self.state, "blobs-%d" % attempt),
                                           self.storage.port if self.storage else 0)
                self.storage.create_container(DEVICE_MAC)
                return True
            except Exception as exc:  # tried again a second later, and reported if it never starts
                last = exc
                time.sleep(1)
        self.records.problems.append("blob storage did not start: %s" % last)
        return False

    def start_server(self):
        """One run of the messaging server on the same port; its lines go to the sink, tagged."""
        index, flags = len(self.servers) + 1, dict(self.flags, storage_account=self.storage.account,
                                                 storage_token=self.sas)
        self.server = self.servers[index] = Process(
            ["/usr/bin/python3", os.path.join(CLOUD, "messaging_server.py"), "--port", str(self.server_port),
             "--set", json.dumps(flags)] + self.tls("server"), stderr=self.log_file("server-%d.stderr" % index),
            on_line=lambda line: self.sink.put(("srv", index, time.monotonic(), line)))
        self.server.index, self.server.ended_at = index, None
        return self.server

    def end_server(self, server, how):
        server.stop("kill" if how == "killed" else "close")
        server.ended_at = server.ended_at or time.monotonic()
        for c in self.records.conns.values():
            if c.key[0] == server.index and c.end is None:
                c.end, c.end_how = server.ended_at, how

    def apply_flags(self, **changes):
        self.flags.update(changes)
        self.server.command(cmd="set", **changes)

    def device_connected(self):
        return any(c.key[0] == self.server.index and c.end is None for c in self.records.conns.values())

    def maybe_baseline(self):
        """The host's resource baseline comes once a silent link, a stalled upload and a slow uplink
        have each been seen (each sets the allocator's high-water mark once), or before half-way."""
        if all(self.fault[k].log and self.fault[k].log[0].back_at for k in ("SilentLink", "StalledUpload",
                                                                            "SlowUplink")):
            self.at(30, lambda: self.ask_baseline("every network fault seen once"))

    def ask_baseline(self, why):
        if not self.baseline_asked:
            self.baseline_asked = True
            self.host.send("baseline")
            say("host: resource baseline from now on (%s)" % why)

    def on_server(self, index, t, ev):
        kind, r = ev.get("event"), self.records
        c = r.conns.get((index, ev.get("conn")))
        if kind == "listening":
            self.server_port = self.server_port or ev["port"]
        elif kind == "connect":
            r.conns[(index, ev["conn"])] = Conn((index, ev["conn"]))
        elif kind == "close" and c is not None and c.end is None:
            c.end, c.end_how = t, self.fault["SilentLink"].close_how(c.key) or "closed %s" % ev.get("code")
        elif kind == "message":
            # The sequence number rides in a field the library passes through untouched.
            mark = re.search(r'"(?:thumbnail|tag)":\s*"soak-([ma])-(\d+)"', ev.get("text", ""))
            if mark:
                key, seq = "motion" if mark.group(1) == "m" else "access", int(mark.group(2))
                r.received[key].setdefault(seq, []).append((index, ev.get("conn")))
        elif kind == "exit" and self.servers[index].ended_at is None:
            self.servers[index].ended_at = t
            r.problems.append("messaging server instance %d exited by itself" % index)

    def on_host(self, t, obj):
        r = self.records
        if "clip" in obj:
            c = r.clips.setdefault(obj["clip"], Clip(obj["clip"], obj["start_time"], obj.get("camera", CAMERA)))
            c.times.setdefault(obj["state"], t)
            c.state, c.msg = obj["state"], obj.get("msg", "")
            c.states.append(c.state)
            if c.state in (6, 7):  # its blob goes, off the loop: disk use stays bounded however long the run
                self.deletions.put(blob_path(DEVICE_MAC, c.camera, c.start_time))
        elif "rss_kb" in obj:
            r.samples.append(obj)
            if len(r.samples) % 6 == 0:  # a minute
                say("host: %(rss_kb)d kB, %(fds)d fds, %(threads)d threads, %(clips_final)d of %(clips)d clips over, "
                    "connected: %(connected)s" % obj, t)
        elif "link" in obj:
            r.link.append((t, obj["link"] == "up"))
        elif UPLOAD_FAILED.match(obj.get("log", "")):
            r.upload_failed.setdefault(int(UPLOAD_FAILED.match(obj["log"]).group(1)), []).append(t)
        elif "resubmit" in obj:
            r.resubmits[obj["as"]] = obj["resubmit"]
        elif obj.get("final"):
            r.final = obj

    def dispatch(self, item):
        source, index, t, line = item
        if source == "host":
            self.host_log.write("%s\n" % line)
        try:
            obj = json.loads(line) if line is not None else {"event": "exit"}
        except ValueError:
            self.records.other_lines += source == "host"
            return
        if isinstance(obj, dict):
            obj["index"] = index
            if source == "srv":
                self.on_server(index, t, obj)
            else:
                self.on_host(t, obj)
            for fault in self.faults:
                fault.observe(source, t, obj)

    def run(self):
        subprocess.run(["bash", os.path.join(CLOUD, "make_certs.sh"), self.certs], check=True)
        threading.Thread(target=lambda: [self.storage.delete(b) for b in iter(self.deletions.get, None)],
                         daemon=True).start()
        if not self.start_storage():
            raise RuntimeError(self.records.problems[-1])
        # One SAS for the run and a day: each server hands out the same, as a real cloud would.
        self.sas = self.storage.sas_token(valid_s=self.total_s + 86400)
        self.start_server()
        while not self.server_port:
            self.dispatch(self.sink.get(timeout=20))
        # The device reaches both services through the fault relay, one path each.
        self.relay, ports = fault_relay.start(["link=%d" % self.server_port, "blob=%d" % self.storage.port],
                                              stderr=self.log_file("relay.stderr"))
        say("cloud: server on port %d, storage on port %d; relay: link on port %d, blob on port %d" % (
            self.server_port, self.storage.port, ports["link"], ports["blob"]))
        os.makedirs(clips := os.path.join(self.state, "clips"), exist_ok=True)
        self.host_log = self.log_file("host.out")
        self.host = Process(
            [self.args.host_binary, "--server", "wss://127.0.0.1:%d/" % ports["link"], "--mac", DEVICE_MAC,
             "--camera", CAMERA, "--seconds", str(self.total_s), "--clip-bytes", str(self.args.clip_bytes),
             "--clip-every", "4", "--dir", clips, "--final-wait", "60", "--baseline-on-command", "1",
             "--block-bytes", str(self.args.block_bytes)] +
            self.tls("client"), on_line=lambda line: self.sink.put(("host", 0, time.monotonic(), line)),
            stderr=self.log_file("host.stderr"), env=dict(os.environ, ZEL_BLOB_DOMAIN=".blob.localhost:%d" %
                                                          ports["blob"]))
        started = time.monotonic()
        self.fault_from = started + FIRST_FAULT_S
        self.fault_until = started + max(FIRST_FAULT_S, self.total_s - QUIET_TAIL_S)
        say("host: started, %d s of clips (%d bytes every 4 s) and events (2 a second); faults until %.0fs" % (
            self.total_s, self.args.clip_bytes, rel(self.fault_until)))
        self.at(FIRST_FAULT_S, lambda: [f.start() for f in self.faults])
        self.at(self.fault_until - time.monotonic(), lambda: [f.stop() for f in self.faults])
        self.at(max(30, self.total_s / 2 - 60), lambda: self.ask_baseline("half-way is near"))
        # The host submits for total_s, drains for at most 60 s and disconnects within 30 s.
        deadline = started + self.total_s + 60 + 30 + 30
        while time.monotonic() < deadline:
            while self.timers and self.timers[0][0] <= time.monotonic():
                heapq.heappop(self.timers)[2]()
            try:
                item = self.sink.get(timeout=0.05)
            except queue.Empty:
                continue
            if item[0] == "host" and item[3] is None:
                break
            self.dispatch(item)
        else:
            self.records.problems.append("the host did not finish in time; killed")
        self.records.host_rc = self.host.kill()
        while not self.sink.empty():  # what the servers said meanwhile still counts
            self.dispatch(self.sink.get())

    def cleanup(self):
        for process in [getattr(self, "host", None), getattr(self, "relay", None)] + list(self.servers.values()):
            if process is not None:
                process.stop()
        if self.storage is not None:
            self.storage.stop()
        for f in self.files:
            f.close()

"""Network faults for the fault soak (tools/soak.py): the device reaches the messaging
server and blob storage through tools/cloud/fault_relay.py, one relay each, and this
part of the soak breaks the paths rather than the services:

  - silent link: the link relay forwards nothing, either way, for 185-300 s; the device
    has only its own keep-alive to notice (a ping every 30 s, the link dropped once 5 went
    unanswered: 150-180 s after the last pong). When the relay passes again the old
    connection is reset, as a NAT that forgot it would; the device should be back within
    its 5 s reconnection period;
  - stalled upload: the blob relay is slowed, then blackholed in the middle of a PUT for
    longer than the clip's transfer limit; the upload must end within that limit plus 2 s
    (its thread logs the failure), state 7 must reach the host then or, if the link was
    down, within 2 s of its return, the upload thread must take the next clip, and the
    clip sent again later must upload;
  - slow uplink: the blob relay is throttled around the rate a clip needs to finish in
    its limit, so some finish and some do not; every clip must still end with a reason;
  - short resets: either relay closes everything with RST for a second or two.

Each fault is recorded with what was promised and what was measured, for the report.
"""

import json
import os
import re
import subprocess
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
RELAY = os.path.join(HERE, "cloud", "fault_relay.py")

PING_PERIOD_S = 30
MISSED_PONGS = 5
# Detection: the sixth ping tick after the last pong drops the link, i.e. 150-180 s after
# the silence began and at most 180 s after the last pong. The drop is a close handshake,
# which on a silent path only ends when libwebsockets gives up waiting for the answer
# (5 s); the disconnect callback, which is what the host sees, comes then. Ticks fall on
# whole seconds (up to 1 s late), lws checks its time-outs once a second, and the close
# callback reaches the host on the next worker pass: 3 s more at most.
CLOSE_WAIT_S = 5
SILENT_DETECT_MAX_S = PING_PERIOD_S * (MISSED_PONGS + 1) + CLOSE_WAIT_S + 3
RECONNECT_PERIOD_S = 5
# The next attempt comes at most 5 s after the previous one; the TLS and WebSocket
# handshakes on loopback add a fraction of a second.
SILENT_RECOVERY_GOAL_S = RECONNECT_PERIOD_S + 1.0
CONFIRM_TIMEOUT_S = 60  # the host's UploadOpts.confirm_timeout: the whole PUT
STALL_GRACE_S = 2
# An upload thread logs its failure when it happens; the state-7 report comes with the
# worker's next pass, and the worker only services the socket while the link is down: a
# failure during an outage reaches the host once the link is back.
REPORT_AFTER_LINK_S = 2
UPLOAD_FAILED = re.compile(r"Upload failed.*/(\d+)\.mp4 from ")


def p50(values):
    s = sorted(values)
    return s[(len(s) - 1) // 2] if s else float("nan")


class RelayProcess:
    def __init__(self, link_target, blob_target, sink, log_dir):
        self.err = open(os.path.join(log_dir, "relay.stderr"), "w")
        self.proc = subprocess.Popen(
            ["/usr/bin/python3", RELAY, "--relay", "link=%d" % link_target, "--relay", "blob=%d" % blob_target],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.err, text=True, bufsize=1)
        self.ports = {}
        for _ in range(2):
            line = self.proc.stdout.readline()
            if not line:
                raise RuntimeError("the fault relay did not start; see %s" % self.err.name)
            ev = json.loads(line)
            self.ports[ev["relay"]] = ev["port"]
        self.modes = {"link": "pass", "blob": "pass"}

        def read():
            for line in self.proc.stdout:
                try:
                    sink.put(("relay", 0, time.monotonic(), json.loads(line)))
                except ValueError:
                    pass
        threading.Thread(target=read, daemon=True).start()

    def set(self, relay, mode, value=None):
        self.modes[relay] = mode
        try:
            self.proc.stdin.write("%s %s%s\n" % (relay, mode, "" if value is None else " %d" % value))
            self.proc.stdin.flush()
        except (BrokenPipeError, OSError, ValueError):
            return False
        return True

    def stop(self):
        if self.proc.poll() is None:
            try:
                self.proc.stdin.close()
            except (BrokenPipeError, OSError):
                pass
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.err.close()


class NetworkFaults:
    """Mixed into the Soak: uses its timers (at), rng, clips, conns, say and rel."""

    def net_init(self, say, rel):
        self.say = say
        self.rel = rel
        self.relay = None
        self.blackholes = []
        self.stalls = []
        self.throttles = []
        self.resets = []
        self.link_busy = False  # a link fault is on: no restarts or bursts meanwhile
        self.blob_busy = False  # a blob fault is on: no storage kills meanwhile
        self.armed_stall = None
        self.blackhole_at = None  # when the next silent link is due: upload faults keep clear
        self.throttle_rates = []
        self.last_pong = None
        self.event_pauses = []  # [off, on] times of the host's events
        self.baseline_asked = False
        self.resubmits = {}  # new clip number -> original
        self.host_link = []  # (time, up) as the host heard it
        self.upload_failed = {}  # clip start time -> times its upload thread logged a failure

    def net_start(self):
        self.relay = RelayProcess(self.server_port, self.storage_port, self.sink, self.state)
        self.say("relay: link on port %d -> %d, blob on port %d -> %d" % (
            self.relay.ports["link"], self.server_port, self.relay.ports["blob"], self.storage_port))

    def net_schedule(self):
        # The silent link comes first, so that even a short run sees one whole.
        first = self.fault_from + self.rng.uniform(10, 30) - time.monotonic()
        self.blackhole_at = time.monotonic() + max(1.0, first)
        self.at(max(1.0, first), self.start_blackhole)
        self.at(self.rng.uniform(60, 100) if self.total_s > 600 else 25, self.arm_stall)
        self.at(self.rng.uniform(100, 160) if self.total_s > 600 else 30, self.start_throttle)
        self.at(self.rng.uniform(30, 60), self.short_reset)
        self.at(max(30, self.total_s / 2 - 60), lambda: self.ask_baseline("half-way is near"))

    def ask_baseline(self, why):
        """Lets the host take its resource baseline (at its next quiet moment): once a silent
        link, a stalled upload and a slow uplink have each been seen, since each sets the
        allocator's high-water mark once, or at the latest shortly before half-way."""
        if self.baseline_asked:
            return
        self.baseline_asked = True
        self.host_command("baseline")
        self.say("host: resource baseline from now on (%s)" % why)

    def maybe_baseline(self):
        if self.blackholes and self.blackholes[0]["pass_at"] and self.stalls and self.stalls[0]["pass_at"] \
                and self.throttles and self.throttles[0]["end_at"]:
            self.at(30, lambda: self.ask_baseline("every network fault seen once"))

    def clear_of_blackhole(self):
        """Seconds until the next silent link is due (a large number if none is)."""
        if self.blackhole_at is None:
            return 1e9
        return self.blackhole_at - time.monotonic()

    def restart_pending(self):
        return any(r["reconnect_at"] is None for r in self.restarts) or any(
            r.get("closing") for r in self.restarts)

    def link_quiet_needed(self):
        return self.link_busy

    def blob_quiet_needed(self):
        return self.blob_busy

    def storage_down(self):
        return self.storage is None or self.storage.proc.poll() is not None or self.armed_kill is not None

    # ------------------------------------------------------------- silent link
    def start_blackhole(self):
        left = self.fault_until - time.monotonic()
        if not self.in_fault_window() or left < 190:
            self.blackhole_at = None  # none to come
            return
        # Alone on the link, and with no upload fault on: a silent link holds back every
        # clip's credentials, which would spoil the upload faults' figures.
        if self.link_busy or self.blob_busy or self.restart_pending() or not self.device_connected():
            self.at(5, self.start_blackhole)
            return
        length = min(self.rng.uniform(185, 300), left - 5)
        now = time.monotonic()
        self.blackhole_at = None
        open_conns = [k for k, c in self.conns.items() if c["end"] is None]
        # Every other silence (the second, fourth, ...) comes with the host's events stopped: an idle link, which
        # only the pings can find dead. With events flowing the socket fills within a
        # minute, and TCP's own time-out (24 s after it stops taking data, from the
        # keep-alive settings) finds it first.
        quiet = len(self.blackholes) % 2 == 1
        record = {"at": now, "length": length, "last_pong_at": self.last_pong, "down_at": None,
                  "pass_at": None, "reconnect_at": None, "conns": open_conns, "quiet": quiet}
        self.blackholes.append(record)
        self.link_busy = True
        if quiet:
            self.host_command("events off")
            self.event_pauses.append([now, None])
        self.relay.set("link", "blackhole")
        self.say("relay: link blackholed for %.0f s (last pong %.1f s before)%s" % (
            length, now - self.last_pong if self.last_pong else float("nan"),
            ", the host's events stopped" if quiet else ", events flowing"))
        self.at(length, lambda: self.end_blackhole(record))

    def end_blackhole(self, record):
        record["pass_at"] = time.monotonic()
        self.relay.set("link", "pass")
        if record["quiet"]:
            self.host_command("events on")
            self.event_pauses[-1][1] = record["pass_at"]
        self.say("relay: link passes again after %.0f s%s" % (
            record["length"], "" if record["down_at"] else " (the device had NOT noticed)"))

        def done():
            self.link_busy = False
            self.maybe_baseline()
            pause = self.rng.uniform(420, 600)
            self.blackhole_at = time.monotonic() + pause
            self.at(pause, self.start_blackhole)
        self.at(10, done)

    # ---------------------------------------------------------- stalled upload
    def arm_stall(self):
        if not self.in_fault_window():
            return
        if self.fault_until - time.monotonic() < CONFIRM_TIMEOUT_S + 20 + 90:
            return  # no time left to see the clip fail and then go through when sent again
        if self.clear_of_blackhole() < 60 + CONFIRM_TIMEOUT_S + 20 + 10:
            self.at(20, self.arm_stall)
            return
        if self.blob_busy or self.link_busy or self.storage_down():
            self.at(10, self.arm_stall)
            return
        # A slower path first, so the stall surely lands in the middle of a PUT.
        self.blob_busy = True
        self.relay.set("blob", "throttle", 2 * 1024 * 1024)
        self.armed_stall = time.monotonic() + 60
        self.say("relay: blob slowed to 2 MiB/s, stall armed for the next PUT")

    def net_clip_state(self, n, state, t):
        if state == 4 and self.armed_stall is not None:
            self.armed_stall = None
            self.at(self.rng.uniform(1, 3), lambda: self.stall(n))

    def net_tick(self):
        if self.armed_stall is not None and time.monotonic() > self.armed_stall:
            self.armed_stall = None
            self.relay.set("blob", "pass")
            self.blob_busy = False
            self.say("relay: no PUT started within 60 s, stall skipped")
            self.at(self.rng.uniform(120, 240), self.arm_stall)

    def stall(self, n):
        now = time.monotonic()
        uploading = sorted(k for k, c in self.clips.items() if c["state"] == 4)
        length = CONFIRM_TIMEOUT_S + self.rng.uniform(10, 20)
        record = {"at": now, "length": length, "trigger": n, "clips": uploading, "pass_at": None,
                  "resubmitted": {}}
        self.stalls.append(record)
        self.relay.set("blob", "blackhole")
        self.say("relay: blob blackholed for %.0f s in the middle of the PUT of clip(s) %s" % (length, uploading))

        def release():
            record["pass_at"] = time.monotonic()
            # A PUT that began during the stall was stalled as well.
            record["during"] = sorted(k for k, c in self.clips.items() if k not in uploading and
                                      k not in self.resubmits and now <= c["times"].get(4, -1))
            self.relay.set("blob", "pass")
            self.blob_busy = False
            self.say("relay: blob passes again")
            self.maybe_baseline()
            self.at(5, lambda: self.resubmit(record, 1))
            self.at(self.rng.uniform(180, 300), self.arm_stall)
        self.at(length, release)

    def resubmit(self, record, check):
        """Sends each stalled clip that failed once more, as a recorder would, and again if
        that fails too (another fault may be on): at most 3 sends per clip, checked every
        15 s for at most 5 minutes."""
        if check > 20:
            return
        if self.link_busy or not self.device_connected():
            self.at(15, lambda: self.resubmit(record, check + 1))  # it could not succeed now
            return
        open_clips = False
        for n in record["clips"] + record.get("during", []):
            c = self.clips.get(n)
            if c is None or c["state"] == 6:
                continue
            if c["state"] != 7:
                open_clips = True  # still on its way: it may yet fail
                continue
            if 5 in c.get("states", []):
                continue  # uploaded, only its confirmation failed: see below
            tries = record["resubmitted"].setdefault(n, [])
            last = self.clips.get(tries[-1], {}).get("state", -1) if tries else 7
            if last == 6 or (tries and 5 in self.clips.get(tries[-1], {}).get("states", [])):
                # Uploaded. Sending it once more would only re-send its record-end message,
                # whose answer goes to the callback of the submission that uploaded it.
                continue
            if last not in (1, 7) or len(tries) >= 3:
                open_clips = open_clips or last not in (1, 7)
                continue
            self.host_command("resubmit %d" % n)
            tries.append(None)  # filled in when the host says which number it got
            open_clips = True
            self.say("host: clip %d sent again (try %d)" % (n, len(tries)))
        if open_clips:
            self.at(15, lambda: self.resubmit(record, check + 1))

    def host_command(self, line):
        try:
            self.host.stdin.write(line + "\n")
            self.host.stdin.flush()
        except (BrokenPipeError, OSError, ValueError):
            pass

    def net_resubmitted(self, original, new):
        self.resubmits[new] = original
        for record in self.stalls:
            tries = record["resubmitted"].get(original)
            if tries and tries[-1] is None:
                tries[-1] = new

    # ------------------------------------------------------------ slow uplink
    def start_throttle(self):
        if not self.in_fault_window():
            return
        if self.blob_busy or self.link_busy or self.storage_down():
            self.at(10, self.start_throttle)
            return
        left = self.fault_until - time.monotonic()
        if left < 60:
            return
        if self.clear_of_blackhole() < 70:
            self.at(20, self.start_throttle)
            return
        if self.stalls and self.stalls[-1]["pass_at"] and time.monotonic() - self.stalls[-1]["pass_at"] < 90:
            self.at(10, self.start_throttle)  # the stalled clips are being sent again: full speed for them
            return
        left = min(left, self.clear_of_blackhole())
        need = self.args.clip_bytes / float(CONFIRM_TIMEOUT_S)  # one clip alone, just in time
        # The rates go round a shuffled set, so that even a short run sees one at which no
        # clip can make it, one at which two at a time barely cannot, and faster ones.
        if not self.throttle_rates:
            self.throttle_rates = [0.7, 1.5, 3.0, 5.0]
            self.rng.shuffle(self.throttle_rates)
        rate = int(need * self.throttle_rates.pop())
        length = min(self.rng.uniform(120, 200), left - 10)
        record = {"at": time.monotonic(), "rate": rate, "length": length, "end_at": None}
        self.throttles.append(record)
        self.blob_busy = True
        self.relay.set("blob", "throttle", rate)
        self.say("relay: blob throttled to %d kB/s for %.0f s (a clip alone needs %d kB/s)" % (
            rate // 1000, length, need // 1000))

        def end():
            record["end_at"] = time.monotonic()
            self.relay.set("blob", "pass")
            self.blob_busy = False
            self.say("relay: blob at full speed again")
            self.maybe_baseline()
            self.at(self.rng.uniform(240, 420), self.start_throttle)
        self.at(length, end)

    # ------------------------------------------------------------ short resets
    def short_reset(self):
        if not self.in_fault_window():
            return
        which = self.rng.choice(["link", "blob"])
        busy = self.link_busy or self.restart_pending() if which == "link" else \
            self.blob_busy or self.storage_down()
        if busy:
            self.at(7, self.short_reset)
            return
        length = self.rng.uniform(0.5, 2.0)
        now = time.monotonic()
        record = {"relay": which, "at": now, "length": length, "pass_at": None, "reconnect_at": None,
                  "was_connected": self.device_connected(),
                  "uploading": sorted(k for k, c in self.clips.items() if c["state"] == 4)}
        self.resets.append(record)
        if which == "link":
            self.link_busy = True
        else:
            self.blob_busy = True
        self.relay.set(which, "reset")
        self.say("relay: %s reset for %.1f s%s" % (which, length, (" (clips uploading: %s)" % record["uploading"])
                                                    if which == "blob" else ""))

        def back():
            record["pass_at"] = time.monotonic()
            self.relay.set(which, "pass")
            if which == "link":
                self.at(8, lambda: setattr(self, "link_busy", False))
            else:
                self.blob_busy = False
            self.at(self.rng.uniform(60, 120), self.short_reset)
        self.at(length, back)

    # ------------------------------------------------------------ observations
    def net_server_event(self, index, t, ev):
        kind = ev.get("event")
        if kind == "sent" and ev.get("auto") and '"subject":"pong"' in ev.get("text", ""):
            self.last_pong = t
        elif kind == "connect":
            for r in self.blackholes + self.resets:
                if r["pass_at"] is not None and r["reconnect_at"] is None and t >= r["pass_at"]:
                    if r.get("relay", "link") == "link":
                        r["reconnect_at"] = t
                        self.say("device: reconnected %.2f s after the link relay passed again" % (
                            t - r["pass_at"]), t)

    def net_close_how(self, key):
        for r in self.blackholes:
            if key in r["conns"]:
                return "blackholed"
        return None

    def net_host_log(self, t, line):
        m = UPLOAD_FAILED.match(line)
        if m:
            self.upload_failed.setdefault(int(m.group(1)), []).append(t)

    def net_link_back(self, a, b):
        """If the host heard the link was down at some time in [a, b]: when it was up again."""
        before = [up for t, up in self.host_link if t <= a]
        downs = [t for t, up in self.host_link if not up and a < t <= b]
        if (not before or before[-1]) and not downs:
            return None
        start = a if before and not before[-1] else downs[0]
        back = [t for t, up in self.host_link if up and t > start]
        return back[0] if back else float("inf")

    def net_host_link(self, t, up):
        self.host_link.append((t, up))
        if up:
            return
        for r in self.blackholes:
            if r["down_at"] is None and t >= r["at"]:
                r["down_at"] = t
                self.say("device: noticed the silent link %.1f s after it went silent, %.1f s after the last pong" % (
                    t - r["at"], t - r["last_pong_at"] if r["last_pong_at"] else float("nan")), t)

    # ------------------------------------------------------------------ report
    def clip_time(self, n, state):
        c = self.clips.get(n)
        return c["times"].get(state) if c else None

    def net_report(self, p):
        ok = True
        rel = self.rel
        p("")
        p("NETWORK FAULTS (through the fault relay)")
        p("  %d silent links, %d stalled uploads, %d slow uplinks, %d short resets (%d link, %d blob)" % (
            len(self.blackholes), len(self.stalls), len(self.throttles), len(self.resets),
            sum(1 for r in self.resets if r["relay"] == "link"), sum(1 for r in self.resets if r["relay"] == "blob")))

        # Silent link.
        p("")
        p("  SILENT LINK (promise: dropped by the device's own keep-alive on the sixth ping tick after the last pong,")
        p("  %d-%d s after the silence began and at most %d s after the last pong, then up to %d s of unanswered close"
          % (PING_PERIOD_S * MISSED_PONGS, PING_PERIOD_S * (MISSED_PONGS + 1), PING_PERIOD_S * (MISSED_PONGS + 1),
             CLOSE_WAIT_S))
        p("  handshake before the host hears of it: goal %d s after the last pong with the 1 s granularities of the"
          % SILENT_DETECT_MAX_S)
        p("  ticks and of lws' time-out checks; connected again within %d s of the"
          % RECONNECT_PERIOD_S)
        p("  path passing again, goal %.0f s with the handshake; every event either arrives after the reconnection"
          % SILENT_RECOVERY_GOAL_S)
        p("  or was handed to the silent socket)")
        detect, since_pong, recover = [], [], []
        host_t0 = self.host_started
        for i, r in enumerate(self.blackholes, 1):
            d = (r["down_at"] - r["at"]) if r["down_at"] else None
            dp = (r["down_at"] - r["last_pong_at"]) if r["down_at"] and r["last_pong_at"] else None
            rc = (r["reconnect_at"] - r["pass_at"]) if r["reconnect_at"] and r["pass_at"] else None
            first = self.seq_at(r["at"]) + 1
            last = self.seq_at(r["reconnect_at"] or r["pass_at"] or r["at"])
            arrived_after, lost_silent, other, later = 0, 0, 0, 0
            for key in ("motion", "access"):
                for seq in range(first, last + 1):
                    got = self.received[key].get(seq)
                    if got:
                        if any(self.conns.get(a, {}).get("start", 0) >= (r["pass_at"] or 0) for a in got):
                            arrived_after += 1
                        continue
                    where = self.conns_end_how_before(key, seq)
                    if where == "blackholed":
                        lost_silent += 1
                    elif where is None:
                        other += 1  # a gap inside a connection still open: unaccounted
                    else:
                        later += 1  # written to the new link, which a later fault ended
            noticed = r["down_at"] is not None and (r["pass_at"] is None or r["down_at"] <= r["pass_at"])
            good = noticed and dp is not None and dp <= SILENT_DETECT_MAX_S and rc is not None and \
                rc <= SILENT_RECOVERY_GOAL_S and other == 0
            ok &= good
            if d is not None and noticed:
                detect.append(d)
            if dp is not None and noticed:
                since_pong.append(dp)
            if rc is not None:
                recover.append(rc)
            how = "?" if dp is None else "by the pings" if dp >= PING_PERIOD_S * MISSED_PONGS else \
                "by TCP, the socket having stopped taking data"
            p("  %2d at %7.1fs for %3.0f s, %s: noticed %s after the silence began (%s after the last pong, %s);"
              % (i, rel(r["at"]), r["length"], "idle link (events stopped)" if r["quiet"] else "events flowing",
                 "%.1f s" % d if noticed else "NOT (before the relay passed)",
                 "%.1f s" % dp if dp is not None else "?", how))
            p("     back %s after the relay passed; %s%s" % (
                "%.2f s" % rc if rc is not None else "NEVER",
                "events %d-%d (motion and access): %d arrived on the new link, %d were handed to the silent "
                "socket, %d were lost with the new link when a later fault ended it, %d unaccounted" % (
                    first, last, arrived_after, lost_silent, later, other)
                if first <= last else "no events were submitted meanwhile", "" if good else "  NOT MET"))
        if self.blackholes:
            p("  detection after the silence began p50 %.1f s max %.1f s; after the last pong p50 %.1f s max %.1f s;"
              " reconnection p50 %.2f s max %.2f s" % (
                  p50(detect), max(detect or [float("nan")]), p50(since_pong), max(since_pong or [float("nan")]),
                  p50(recover), max(recover or [float("nan")])))
            p("  (an idle link is found by the pings alone: the relay's kernel still answers TCP keep-alive probes, as a")
            p("  middlebox holding the socket would; on a path that drops packets the 15 s + 3 x 3 s TCP keep-alive")
            p("  of the link's socket would find an idle link sooner. A busy link fills its socket and TCP's user")
            p("  time-out of 24 s ends it.)")
        p("  goal: %s" % ("MET" if ok else "NOT MET"))

        # Stalled uploads.
        stall_ok = True
        p("")
        p("  STALLED UPLOAD (promise: the upload ends within the PUT limit of %d s + %d s, state 7 reaches the host"
          % (CONFIRM_TIMEOUT_S, STALL_GRACE_S))
        p("  then, or within %d s of the link coming back if it was down; the upload thread takes the next clip;"
          % REPORT_AFTER_LINK_S)
        p("  the clip sent again later uploads)")
        ended_after, reported_after = [], []
        for i, r in enumerate(self.stalls, 1):
            parts = []
            for n in r["clips"] + r.get("during", []):
                t4, t7 = self.clip_time(n, 4), self.clip_time(n, 7)
                c = self.clips.get(n, {})
                if 5 in c.get("states", []):
                    parts.append("clip %d got through (uploaded, then %s)" % (
                        n, "confirmed" if c.get("state") == 6 else "state %s: %s" % (c.get("state"), c.get("msg", "")[:50])))
                elif t7 is not None:
                    limit = t4 + CONFIRM_TIMEOUT_S + STALL_GRACE_S
                    tf = next((t for t in self.upload_failed.get(c.get("start_time"), []) if t >= t4), None)
                    back = self.net_link_back(tf, limit) if tf is not None else None
                    deadline = max(limit, back + REPORT_AFTER_LINK_S) if back is not None else limit
                    reported_after.append(t7 - t4)
                    if tf is not None:
                        ended_after.append(tf - t4)
                    nxt = [self.clip_time(m, 4) for m in self.clips if m != n and
                           (self.clip_time(m, 4) or 0) > t7]
                    freed = ("next PUT %.1f s later" % (min(nxt) - t7)) if nxt else "NO PUT AFTER IT"
                    tries = r["resubmitted"].get(n, [])
                    outcome = [self.clips.get(m, {}).get("state") for m in tries if m is not None]
                    uploaded = any(5 in self.clips.get(m, {}).get("states", []) for m in tries if m is not None)
                    again = "sent again: %s" % ("confirmed" if 6 in outcome else
                                               "uploaded, confirmation %s" % outcome[-1] if uploaded else
                                               "states %s" % outcome if outcome else "NOT SENT AGAIN")
                    good = tf is not None and tf <= limit and t7 <= deadline and bool(nxt) and uploaded
                    stall_ok &= good
                    parts.append("clip %d ended %s after its PUT began, reported %.1f s after%s (%s); %s; %s%s" % (
                        n, "%.1f s" % (tf - t4) if tf is not None else "WITH NO FAILURE LOGGED", t7 - t4,
                        "" if back is None or t7 <= limit else ", %.1f s after the link was back" % (t7 - back),
                        c.get("msg", "")[:60], freed, again, "" if good else "  NOT MET"))
                else:
                    stall_ok = False
                    parts.append("clip %d: state %s, NOT FAILED" % (n, c.get("state")))
            p("  %2d at %7.1fs for %3.0f s: %s" % (i, rel(r["at"]), r["length"], "; ".join(parts) or "no PUT in progress"))
        if reported_after:
            p("  upload ended after the PUT began: p50 %.1f s, max %.1f s; state 7 reported: p50 %.1f s, max %.1f s" % (
                p50(ended_after), max(ended_after or [float("nan")]), p50(reported_after), max(reported_after)))
        ok &= stall_ok
        p("  goal: %s" % ("MET" if stall_ok else "NOT MET"))

        # Slow uplink.
        p("")
        p("  SLOW UPLINK (promise: every clip ends in a final state with a reason; throughput beside the relay's rate)")
        for i, r in enumerate(self.throttles, 1):
            end = r["end_at"] or r["at"] + r["length"]
            mine = [n for n in self.clips if (self.clip_time(n, 4) or -1) >= r["at"] and self.clip_time(n, 4) < end]
            done, late, rates, failed = 0, 0, [], {}
            for n in mine:
                t4, t5 = self.clip_time(n, 4), self.clip_time(n, 5)
                c = self.clips[n]
                if t5 is not None and t5 <= end:
                    done += 1
                    rates.append(self.args.clip_bytes / max(0.001, t5 - t4))
                elif t5 is not None:
                    late += 1
                elif c["state"] == 7:
                    failed[c["msg"][:70]] = failed.get(c["msg"][:70], 0) + 1
            p("  %2d at %7.1fs for %3.0f s at %d kB/s each way (a clip alone needs %d kB/s to finish in %d s):" % (
                i, rel(r["at"]), r["length"], r["rate"] // 1000, self.args.clip_bytes / CONFIRM_TIMEOUT_S // 1000,
                CONFIRM_TIMEOUT_S))
            p("     %d PUTs began; %d uploaded while throttled (%s); %d finished after full speed came back;"
              " %d failed%s" % (
                  len(mine), done, ("%d..%d kB/s per clip, p50 %d, two clips at a time sharing the rate" % (
                      min(rates) // 1000, max(rates) // 1000, p50(rates) // 1000) if rates else "none"),
                  late, sum(failed.values()), "".join("\n       %3d x 7 %s" % (v, k) for k, v in failed.items())))
        p("  (every clip's final state is checked under CLIPS above)")

        # Short resets.
        p("")
        p("  SHORT RESETS (link: back within %.0f s of the relay passing; blob: clips in flight end final)" %
          SILENT_RECOVERY_GOAL_S)
        link_back = []
        for i, r in enumerate(self.resets, 1):
            if r["relay"] == "link":
                rc = (r["reconnect_at"] - r["pass_at"]) if r["reconnect_at"] and r["pass_at"] else None
                good = (rc is not None and rc <= SILENT_RECOVERY_GOAL_S) or not r["was_connected"]
                ok &= good
                if rc is not None:
                    link_back.append(rc)
                p("  %2d link at %7.1fs for %.1f s: back %s after the relay passed%s" % (
                    i, rel(r["at"]), r["length"], "%.2f s" % rc if rc is not None else "NEVER",
                    "" if good else "  NOT MET"))
            else:
                outs = ["clip %d -> %s %s" % (n, self.clips[n]["state"], self.clips[n]["msg"][:50])
                        for n in r["uploading"] if n in self.clips]
                p("  %2d blob at %7.1fs for %.1f s: %s" % (i, rel(r["at"]), r["length"], "; ".join(outs) or
                                                           "no PUT in progress"))
        if link_back:
            p("  link back after a reset: p50 %.2f s, max %.2f s" % (p50(link_back), max(link_back)))
        return ok

    def seq_at(self, t):
        """The last event number submitted by time t: one a second from the host's start,
        none while they were stopped."""
        paused = sum(max(0.0, min(t, on or t) - off) for off, on in self.event_pauses if off < t)
        return int(t - self.host_started - paused)

    def conns_end_how_before(self, key, seq):
        """How the connection that carried the last event before seq ended."""
        got = self.received[key]
        for s in range(seq - 1, 0, -1):
            if s in got:
                c = self.conns.get(got[s][0])
                return c["end_how"] if c else None
        return None

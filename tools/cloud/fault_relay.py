#!/usr/bin/python3
"""A TCP relay on loopback that breaks the network between the device and the local cloud.

    /usr/bin/python3 tools/cloud/fault_relay.py --relay link=TARGET_PORT[:LISTEN_PORT]
                                                [--relay blob=TARGET_PORT[:LISTEN_PORT]] ...

Each relay listens on 127.0.0.1 (port 0: any free one) and forwards every connection to
127.0.0.1:TARGET_PORT. It carries bytes, not TLS, so certificates stay end to end. Its
behaviour is switched at run time with one line on stdin, "NAME MODE [VALUE]":

  pass                 forward everything
  blackhole            forward nothing, either way, and keep both sockets open; the relay
                       stops reading, so the sender's window fills and its writes stall as
                       on a path that lost its packets (its sockets announce 1448-byte
                       segments and keep small buffers, so this takes tens of kilobytes,
                       as on a real path, not the megabytes loopback would allow). Connections accepted meanwhile are
                       held (their first bytes wait in the kernel) and go through once the
                       relay passes again. Connections that lived through a blackhole are
                       reset when it ends: the path has forgotten them (as a NAT does).
  delay MS             deliver every chunk MS milliseconds after it was read
  throttle BYTES_PER_S at most that many bytes a second in each direction, shared by all
                       connections of the relay (an uplink, not a per-socket limit)
  reset                close every connection with RST, and reset new ones at once, until
                       the next switch

"status" prints every relay's mode and counters. Events are JSON lines on stdout:
  {"event":"listening","relay":..,"port":N,"target":N}
  {"event":"mode","relay":..,"mode":..,"value":..,"reset":N}   (N connections reset by it)
  {"event":"accept","relay":..,"conn":N}
  {"event":"closed","relay":..,"conn":N,"how":..,"up":bytes,"down":bytes}
  {"event":"status","relays":[..]}   {"event":"error","message":..}
"up" counts bytes from the connecting side (the device) to the target. The relay exits
when stdin closes.
"""

import argparse
import asyncio
import collections
import json
import os
import socket
import struct
import sys
import threading
import time

MODES = ("pass", "blackhole", "delay", "throttle", "reset")
CHUNK = 64 * 1024
# Loopback would let a sender have megabytes in flight (64 KiB segments, socket buffers
# sized for them), so a blackhole would take an hour to stall a socket that a real path
# stalls in seconds. The relay's sockets announce an Ethernet-sized segment and keep a
# small receive buffer, so that the device's send buffer is sized as on a real path and
# a blackhole swallows only a few tens of kilobytes before the sender's writes stall.
PATH_MSS = 1448
SOCKET_RCVBUF = 16 * 1024
# Bytes read but not yet delivered, per direction: enough for a delay line on loopback,
# small enough that a throttled sender feels the limit instead of filling the relay.
MAX_BUFFERED = 256 * 1024


def emit(obj):
    sys.stdout.write(json.dumps(obj) + "\n")
    sys.stdout.flush()


class Bucket:
    """A shared pace for one direction of a relay: slices are released one after another
    at the relay's rate, whichever connection they belong to."""

    def __init__(self):
        self.next_free = 0.0

    async def take(self, n, rate):
        loop = asyncio.get_running_loop()
        now = loop.time()
        start = max(now, self.next_free)
        self.next_free = start + n / float(rate)
        await asyncio.sleep(self.next_free - now)


def path_socket():
    sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, PATH_MSS)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SOCKET_RCVBUF)
    return sock


def hard_close(writer):
    """Close with RST instead of FIN."""
    sock = writer.get_extra_info("socket")
    try:
        if sock is not None:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    except OSError:
        pass
    writer.transport.abort()


class Pair:
    def __init__(self, relay, conn, client_reader, client_writer):
        self.relay = relay
        self.conn = conn
        self.client = (client_reader, client_writer)
        self.upstream = None
        self.blackholed = False  # lived through a blackhole: reset when it ends
        self.closed = False
        self.tasks = []
        self.bytes = {"up": 0, "down": 0}

    def start(self, up_reader, up_writer):
        self.upstream = (up_reader, up_writer)
        for direction, src, dst in (("up", self.client[0], up_writer), ("down", up_reader, self.client[1])):
            line = Line()
            self.tasks.append(asyncio.ensure_future(self.read(direction, src, line)))
            self.tasks.append(asyncio.ensure_future(self.write(direction, dst, line)))

    async def read(self, direction, src, line):
        relay = self.relay
        try:
            while True:
                await relay.flowing()
                await line.room()
                data = await src.read(CHUNK)
                if not data:
                    break
                line.put(data)
        except (ConnectionError, OSError):
            pass
        line.put(None)

    async def write(self, direction, dst, line):
        relay = self.relay
        try:
            while True:
                arrived, data = await line.get()
                if data is None:
                    break
                while True:
                    await relay.flowing()
                    if relay.mode != "delay":
                        break
                    wait = arrived + relay.value / 1000.0 - time.monotonic()
                    if wait <= 0:
                        break
                    await relay.changed_or(wait)
                view = memoryview(data)
                while view:
                    await relay.flowing()
                    if relay.mode == "throttle" and relay.value > 0:
                        n = max(512, min(len(view), relay.value // 20))
                        await relay.buckets[direction].take(n, relay.value)
                        # A blackhole switched on during the wait holds the slice back too.
                        await relay.flowing()
                    else:
                        n = len(view)
                    dst.write(bytes(view[:n]))
                    await dst.drain()
                    self.bytes[direction] += n
                    relay.bytes[direction] += n
                    view = view[n:]
        except (ConnectionError, OSError):
            pass
        self.close("closed by the %s" % ("device" if direction == "up" else "target"))

    def close(self, how, rst=False):
        if self.closed:
            return
        self.closed = True
        for _, writer in (self.client, self.upstream or (None, None)):
            if writer is None:
                continue
            if rst:
                hard_close(writer)
            else:
                writer.close()
        for task in self.tasks:
            if task is not asyncio.current_task():
                task.cancel()
        self.relay.pairs.discard(self)
        emit({"event": "closed", "relay": self.relay.name, "conn": self.conn, "how": how,
              "up": self.bytes["up"], "down": self.bytes["down"]})


class Line:
    """Chunks read from one side and not yet written to the other, with their arrival time."""

    def __init__(self):
        self.items = collections.deque()
        self.size = 0
        self.event = asyncio.Event()

    def put(self, data):
        self.items.append((time.monotonic(), data))
        self.size += len(data) if data else 0
        self.event.set()

    async def get(self):
        while not self.items:
            self.event.clear()
            await self.event.wait()
        arrived, data = self.items.popleft()
        self.size -= len(data) if data else 0
        self.event.set()
        return arrived, data

    async def room(self):
        while self.size >= MAX_BUFFERED:
            self.event.clear()
            await self.event.wait()


class Relay:
    def __init__(self, name, target_port, listen_port=0):
        self.name = name
        self.target_port = target_port
        self.listen_port = listen_port
        self.port = None
        self.mode = "pass"
        self.value = 0
        self.pairs = set()
        self.conns = 0
        self.bytes = {"up": 0, "down": 0}
        self.buckets = {"up": Bucket(), "down": Bucket()}
        self.changed = asyncio.Event()

    async def start(self):
        sock = path_socket()
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(("127.0.0.1", self.listen_port))
        self.server = await asyncio.start_server(self.accept, sock=sock, limit=SOCKET_RCVBUF)
        self.port = self.server.sockets[0].getsockname()[1]
        emit({"event": "listening", "relay": self.name, "port": self.port, "target": self.target_port})

    async def flowing(self):
        while self.mode == "blackhole":
            await self.changed.wait()

    async def changed_or(self, seconds):
        try:
            await asyncio.wait_for(asyncio.shield(self.changed.wait()), seconds)
        except asyncio.TimeoutError:
            pass

    def switch(self, mode, value=0):
        reset = 0
        if mode == "reset" or (self.mode == "blackhole" and mode != "blackhole"):
            for pair in list(self.pairs):
                if mode == "reset" or pair.blackholed:
                    pair.close("reset by the relay" if mode == "reset" else "reset after a blackhole", rst=True)
                    reset += 1
        if mode == "blackhole":
            for pair in self.pairs:
                if pair.upstream is not None:
                    pair.blackholed = True
                    # Not a byte more off either socket: what is sent now stays with the sender.
                    for _, writer in (pair.client, pair.upstream):
                        writer.transport.pause_reading()
        self.mode = mode
        self.value = int(value)
        for bucket in self.buckets.values():
            bucket.next_free = 0.0
        # Wake everything waiting on the old mode, then arm a fresh event for the next switch.
        self.changed.set()
        self.changed = asyncio.Event()
        emit({"event": "mode", "relay": self.name, "mode": mode, "value": self.value, "reset": reset})

    async def accept(self, reader, writer):
        self.conns += 1
        conn = self.conns
        pair = Pair(self, conn, reader, writer)
        self.pairs.add(pair)
        emit({"event": "accept", "relay": self.name, "conn": conn})
        # A connection made during a blackhole waits here, unread, like a SYN sent again later.
        while self.mode == "blackhole" and not pair.closed:
            await self.changed.wait()
        if pair.closed:
            return
        if self.mode == "reset":
            pair.close("reset by the relay", rst=True)
            return
        try:
            sock = path_socket()
            sock.setblocking(False)
            try:
                await asyncio.wait_for(asyncio.get_running_loop().sock_connect(
                    sock, ("127.0.0.1", self.target_port)), 10)
            except BaseException:
                sock.close()
                raise
            up_reader, up_writer = await asyncio.open_connection(sock=sock, limit=SOCKET_RCVBUF)
        except (OSError, asyncio.TimeoutError):
            pair.close("target unreachable", rst=True)
            return
        if pair.closed:
            up_writer.close()
            return
        pair.start(up_reader, up_writer)

    def status(self):
        return {"relay": self.name, "port": self.port, "target": self.target_port, "mode": self.mode,
                "value": self.value, "open": len(self.pairs), "accepted": self.conns,
                "up": self.bytes["up"], "down": self.bytes["down"]}


async def serve(paths):
    relays = {}
    for name, target, listen in paths:
        relay = Relay(name, target, listen)
        await relay.start()
        relays[name] = relay
    loop = asyncio.get_running_loop()
    lines = asyncio.Queue()

    def read_stdin():
        for raw in sys.stdin:
            loop.call_soon_threadsafe(lines.put_nowait, raw)
        loop.call_soon_threadsafe(lines.put_nowait, None)
    threading.Thread(target=read_stdin, daemon=True).start()

    while True:
        raw = await lines.get()
        if raw is None:
            break
        words = raw.split()
        if not words:
            continue
        if words[0] == "status":
            emit({"event": "status", "relays": [r.status() for r in relays.values()]})
            continue
        relay = relays.get(words[0])
        mode = words[1] if len(words) > 1 else ""
        if relay is None or mode not in MODES:
            emit({"event": "error", "message": "usage: NAME pass|blackhole|delay MS|throttle BYTES_PER_S|reset "
                                               "(relays: %s) or status" % ", ".join(relays)})
            continue
        try:
            value = int(words[2]) if mode in ("delay", "throttle") else 0
            if value < 0 or (mode == "throttle" and value == 0):
                raise ValueError
        except (IndexError, ValueError):
            emit({"event": "error", "message": "%s needs a positive number" % mode})
            continue
        relay.switch(mode, value)
    for relay in relays.values():
        relay.server.close()
        for pair in list(relay.pairs):
            pair.close("relay stopped", rst=True)


def parse_path(text):
    name, _, ports = text.partition("=")
    target, _, listen = ports.partition(":")
    if not name or not target.isdigit() or (listen and not listen.isdigit()):
        raise argparse.ArgumentTypeError("expected NAME=TARGET_PORT[:LISTEN_PORT], got %r" % text)
    return name, int(target), int(listen or 0)


def start(paths, **options):
    """The relay as a child (paths: "NAME=TARGET_PORT[:LISTEN_PORT]", ...): it and its ports by name."""
    from process import Process
    relay = Process(["/usr/bin/python3", os.path.abspath(__file__)] + [a for path in paths for a in ("--relay", path)],
                    events=True, **options)
    return relay, {event["relay"]: event["port"] for event in [relay.wait_live() for _ in paths]}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--relay", type=parse_path, action="append", required=True,
                        help="NAME=TARGET_PORT[:LISTEN_PORT] (repeatable)")
    args = parser.parse_args()
    try:
        asyncio.run(serve(args.relay))
    except KeyboardInterrupt:
        pass
    except OSError as exc:  # a listening port already taken
        print("fault_relay: %s" % exc, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

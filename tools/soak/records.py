"""What the soak saw, as records: clips, connections, events, fault occurrences and goals."""

from collections import namedtuple
from dataclasses import dataclass, field


@dataclass(eq=False)
class Clip:
    n: int
    start_time: int
    camera: str
    state: int = -1
    msg: str = ""
    states: list = field(default_factory=list)
    times: dict = field(default_factory=dict)  # state -> when it was first reported


@dataclass
class Conn:  # one connection of the device to one messaging server instance
    key: tuple  # (instance, conn)
    end: float = None
    end_how: str = None  # "killed", "stopped", "closed CODE" or "blackholed"


@dataclass(eq=False)  # each is itself: judges keep them in sets and dicts
class Occurrence:  # one occurrence of a fault, with the times its judge needs
    what: str
    at: float
    length: float = 0.0
    down_at: float = None  # the device (or the server) was down from
    back_at: float = None  # the path or the service was back at
    reconnect_at: float = None
    was_connected: bool = False
    clips: list = field(default_factory=list)  # clips uploading when it began
    extra: dict = field(default_factory=dict)
    notes: list = field(default_factory=list)  # what happened, in words, for the report


Goal = namedtuple("Goal", "promise measured met")  # one row of the report's table


@dataclass
class Records:
    clips: dict = field(default_factory=dict)  # n -> Clip
    conns: dict = field(default_factory=dict)  # (instance, conn) -> Conn
    received: dict = field(default_factory=lambda: {"motion": {}, "access": {}})  # seq -> [conn key]
    link: list = field(default_factory=list)  # (time, up) as the host heard it
    upload_failed: dict = field(default_factory=dict)  # clip start time -> times its thread logged it
    resubmits: dict = field(default_factory=dict)  # new clip number -> the clip it sent again
    samples: list = field(default_factory=list)
    final: dict = None
    host_rc: int = None
    other_lines: int = 0
    problems: list = field(default_factory=list)

    def clip_time(self, n, state):
        c = self.clips.get(n)
        return c.times.get(state) if c else None

    def outcomes(self, clips):
        return "; ".join("clip %d -> %s %s" % (n, self.clips[n].state, self.clips[n].msg[:70]) for n in clips
                         if n in self.clips) or "no PUT in progress"

    def uploading(self):
        return sorted(n for n, c in self.clips.items() if c.state == 4)

    def link_back(self, a, b):
        """If the host heard the link was down at some time in [a, b]: when it was up again."""
        before = [up for t, up in self.link if t <= a]
        downs = [t for t, up in self.link if not up and a < t <= b]
        if (not before or before[-1]) and not downs:
            return None
        start = a if before and not before[-1] else downs[0]
        return next((t for t, up in self.link if up and t > start), float("inf"))

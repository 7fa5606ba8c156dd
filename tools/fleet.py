#!/usr/bin/python3
"""A fleet in a box: N small recorders (tools/fleet/host.cpp, each its own process and MAC)
against one messaging server, which is stopped for an outage and started again on the same
port. The report says how the fleet came back: when 95 % and all of it were linked again,
how many upgrade requests reached the server in each second (the load that keeps a
recovering server down), the attempts that failed, the shortest gap any one recorder left
between two attempts, and what the fleet cost.

  /usr/bin/python3 tools/fleet.py --devices 200 [--outage 30] [--shed N[:S]] [--plot FILE.png]
                                  [--compare REV] [--host-binary PATH]

--compare REV builds the host against the library of another revision (the commit before a
change, say) and runs the same fleet with it in the same run; the figures stand side by side.
"""

import argparse
import collections
import os
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(HERE, "cloud"))
from process import Process  # noqa: E402


class Fleet:
    """The hosts' lines, by host, on the wall clock the hosts print."""

    def __init__(self, binary, uri, ca, devices):
        self.lock = threading.Lock()
        self.lines = collections.defaultdict(list)  # host -> [(what, t)]
        self.hosts = []
        for i in range(devices):
            mac = "02:00:00:%02x:%02x:%02x" % (i >> 16 & 255, i >> 8 & 255, i & 255)
            self.hosts.append(Process([binary, uri, ca, mac], on_line=self.reader(i),
                                      stderr=subprocess.DEVNULL))

    def reader(self, host):
        def on_line(line):
            if line and " " in line:
                what, t = line.split(" ", 1)
                with self.lock:
                    self.lines[host].append((what, float(t)))
        return on_line

    def linked(self):
        """How many hosts have their link up now."""
        with self.lock:
            return sum(1 for h in range(len(self.hosts))
                       if any(w in ("up", "down") for w, _ in self.lines[h])
                       and [w for w, _ in self.lines[h] if w in ("up", "down")][-1] == "up")

    def wait_linked(self, count, timeout):
        end = time.time() + timeout
        while time.time() < end and self.linked() < count:
            time.sleep(0.2)
        return self.linked() >= count

    def resources(self):
        rss = threads = 0
        for h in self.hosts:
            try:
                with open("/proc/%d/status" % h.proc.pid) as f:
                    for line in f:
                        if line.startswith("VmRSS:"):
                            rss += int(line.split()[1])
                        elif line.startswith("Threads:"):
                            threads += int(line.split()[1])
            except OSError:
                pass
        return rss, threads

    def stop(self):
        for h in self.hosts:
            h.proc.stdin.close()
        for h in self.hosts:
            h.stop(timeout=40)


def server(certs, port, shed, on_line):
    argv = ["/usr/bin/python3", os.path.join(HERE, "cloud", "messaging_server.py"),
            "--cert", os.path.join(certs, "server.pem"), "--key", os.path.join(certs, "server.key"),
            "--ca", os.path.join(certs, "ca.pem"), "--port", str(port), "--quiet"]
    if shed:
        argv += ["--shed", shed]
    s = Process(argv, on_line=on_line)
    return s


def run(binary, args, certs):
    """One fleet through one outage; returns its figures."""
    upgrades = []  # (t, refused)
    live = threading.Event()
    port = [0]

    def on_line(line):
        if not line:
            return
        if '"listening"' in line:
            port[0] = int(line.split('"port":')[1].split("}")[0].split(",")[0])
            live.set()
        elif '"upgrade"' in line:
            upgrades.append((time.time(), '"refused": true' in line or '"refused":true' in line))

    srv = server(certs, 0, args.shed, on_line)
    if not live.wait(30):
        raise SystemExit("the messaging server did not start")
    uri = "wss://127.0.0.1:%d/" % port[0]
    fleet = Fleet(binary, uri, os.path.join(certs, "ca.pem"), args.devices)
    started = time.time()
    if not fleet.wait_linked(args.devices, 60 + args.devices * 0.5):
        print("  only %d of %d linked at the start" % (fleet.linked(), args.devices))
    linked_in = time.time() - started
    rss, threads = fleet.resources()
    down_at = time.time()
    srv.stop()
    time.sleep(args.outage)
    live.clear()
    srv = server(certs, port[0], args.shed, on_line)
    if not live.wait(30):
        raise SystemExit("the messaging server did not come back on port %d" % port[0])
    back_at = time.time()
    fleet.wait_linked(args.devices, 130)
    time.sleep(1)
    fleet.stop()
    srv.stop()

    ups, attempts, gaps = [], 0, []
    for h in range(args.devices):
        lines = fleet.lines[h]
        tried = [t for w, t in lines if w == "attempt" and t >= down_at]
        attempts += len(tried)
        gaps += [b - a for a, b in zip(tried, tried[1:])]
        first_up = [t for w, t in lines if w == "up" and t >= back_at]
        if first_up:
            ups.append(first_up[0] - back_at)
    ups.sort()
    per_second = collections.Counter(int(t - back_at) for t, _ in upgrades if t >= back_at)

    def share(q):
        k = int(q * args.devices + 0.999) - 1
        return ups[k] if k < len(ups) else None

    return {
        "linked_in": linked_in, "rss_kb": rss, "threads": threads,
        "back_95": share(0.95), "back_100": share(1.0), "back": len(ups),
        "peak": max(per_second.values()) if per_second else 0,
        "refused": sum(1 for t, r in upgrades if r and t >= back_at),
        "failed": attempts - len(ups), "attempts": attempts,
        "min_gap": min(gaps) if gaps else None,
        "per_second": [per_second.get(s, 0) for s in range(0, 130)],
    }


def build_at(rev, build_dir):
    """The fleet host of this tree against the library of another revision."""
    src = os.path.join(build_dir, "src")
    if not os.path.isdir(src):
        os.makedirs(src)
        archive = subprocess.run(["git", "-C", ROOT, "archive", rev], stdout=subprocess.PIPE, check=True)
        subprocess.run(["tar", "-x", "-C", src], input=archive.stdout, check=True)
    lib = os.path.join(build_dir, "lib")
    subprocess.run(["cmake", "-S", src, "-B", lib, "-DCMAKE_BUILD_TYPE=Release", "-DZEL_BUILD_TESTS=OFF",
                    "-DZEL_BUILD_EXAMPLES=OFF", "-DZEL_BUILD_BENCH=OFF", "-DZEL_BUILD_SOAK=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", lib, "-j2", "--target", "zel-cloud"], check=True, stdout=subprocess.DEVNULL)
    binary = os.path.join(build_dir, "zel_fleet_host")
    subprocess.run(["g++", "-std=c++17", "-O2", "-I", os.path.join(src, "include"), "-I", lib,
                    os.path.join(HERE, "fleet", "host.cpp"), "-o", binary, "-L", lib, "-lzel-cloud",
                    "-Wl,-rpath," + lib], check=True)
    return binary


def show(name, f):
    fmt = lambda v: "-" if v is None else "%.1f s" % v  # noqa: E731
    print("  %-14s 95%% back %-8s all back %-8s (%d)  peak %3d upgrades/s  refused %4d  failed attempts %4d"
          "  shortest gap %s  hosts %d MB RSS, %d threads" % (
              name, fmt(f["back_95"]), fmt(f["back_100"]), f["back"], f["peak"], f["refused"], f["failed"],
              fmt(f["min_gap"]), f["rss_kb"] // 1024, f["threads"]))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--devices", type=int, default=200)
    parser.add_argument("--outage", type=float, default=30)
    parser.add_argument("--shed", help="N[:S]: the server refuses upgrades past N a second (503, Retry-After S)")
    parser.add_argument("--plot", help="upgrade requests per second after the server's return, as a PNG")
    parser.add_argument("--compare", metavar="REV", help="also run the fleet on the library of this revision")
    parser.add_argument("--host-binary", default=os.path.join(ROOT, "build", "tools", "zel_fleet_host"))
    args = parser.parse_args()

    certs = os.path.join(tempfile.mkdtemp(prefix="zel-fleet-"), "certs")
    subprocess.run(["bash", os.path.join(HERE, "cloud", "make_certs.sh"), certs], check=True)
    builds = [("this build", args.host_binary)]
    if args.compare:
        builds.insert(0, (args.compare, build_at(args.compare, os.path.join(ROOT, "build", "fleet-" + args.compare))))
    print("%d recorders, %.0f s outage%s" % (args.devices, args.outage, ", shedding " + args.shed if args.shed else ""))
    results = []
    for name, binary in builds:
        results.append((name, run(binary, args, certs)))
        show(name, results[-1][1])
    quarter = args.devices / 4
    for name, f in results:
        print("  goals for %s: at most %d upgrades in any second: %s; 95%% within 45 s: %s; all within 62 s: %s;"
              " no two attempts within 5 s: %s" % (
                  name, quarter, "MET" if f["peak"] <= quarter else "NOT MET",
                  "MET" if f["back_95"] is not None and f["back_95"] <= 45 else "NOT MET",
                  "MET" if f["back_100"] is not None and f["back_100"] <= 62 else "NOT MET",
                  "MET" if f["min_gap"] is None or f["min_gap"] >= 4.95 else "NOT MET"))
    if args.plot:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
        fig, ax = plt.subplots(figsize=(9, 4))
        for name, f in results:
            ax.plot(range(len(f["per_second"])), f["per_second"], label=name)
        ax.set_xlabel("seconds after the server came back (%.0f s outage)" % args.outage)
        ax.set_ylabel("upgrade requests per second")
        ax.set_title("%d recorders%s" % (args.devices, ", server shedding " + args.shed if args.shed else ""))
        ax.legend()
        fig.tight_layout()
        fig.savefig(args.plot)
        print("plot: " + args.plot)


if __name__ == "__main__":
    main()

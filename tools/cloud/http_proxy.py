#!/usr/bin/python3
"""An HTTP proxy in front of the local cloud: Debian's tinyproxy on loopback.

Used by tools/demo.py and tools/cloud/local_cloud.py (--proxy). It tunnels with CONNECT to
the messaging server and to the blob storage emulator, optionally asks for Basic
authentication, and logs every tunnel it opens, which shows which paths went through it.

Machine mode, for the tests (JSON lines; a command's "seq" comes back in its answer):
  http_proxy.py --machine DIR [--auth USER:PASSWORD] [--conf LINE]...
  {"event":"listening","port":N}
  {"cmd":"stop"} kills tinyproxy as a crash would, {"cmd":"start"} brings it back on the
  same port -> {"event":"done"}; {"cmd":"tunnels","to":"host:port"} -> {"event":"tunnels",
  "count":N}. The proxy ends with the input.
"""

import argparse
import json
import os
import sys
import shutil
import socket
import subprocess
import time
import urllib.parse

from process import Process


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class HttpProxy:
    def __init__(self, location, port=0, auth=None, conf_lines=()):
        """auth: "user:password" (tinyproxy accepts letters, digits, '.', '-' and '_')."""
        if shutil.which("tinyproxy") is None:
            raise RuntimeError("tinyproxy is not installed: run tools/setup.sh")
        os.makedirs(location, exist_ok=True)
        self.port = port or free_port()
        self.auth = auth
        self.log_path = os.path.join(location, "tinyproxy.log")
        self.pid_path = os.path.join(location, "tinyproxy.pid")
        if os.path.exists(self.log_path):
            os.remove(self.log_path)
        self.conf = os.path.join(location, "tinyproxy.conf")
        with open(self.conf, "w") as f:
            f.write("Port %d\nListen 127.0.0.1\nTimeout 60\nLogLevel Connect\n" % self.port)
            f.write('LogFile "%s"\nPidFile "%s"\n' % (self.log_path, self.pid_path))
            if auth:
                f.write("BasicAuth %s\n" % auth.replace(":", " ", 1))
            f.writelines(line + "\n" for line in conf_lines)
        self.start()

    def start(self):
        # Retried: the port of a proxy just killed may not be free again at once.
        deadline = time.time() + 10
        while time.time() < deadline:
            if os.path.exists(self.pid_path):
                os.remove(self.pid_path)
            self.proc = Process(["tinyproxy", "-d", "-c", self.conf], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL, stdin=False)
            while time.time() < deadline and self.proc.alive():
                if os.path.exists(self.pid_path) and os.path.getsize(self.pid_path) > 0:  # once it listens
                    return
                time.sleep(0.05)
            self.stop(crash=True)
        raise RuntimeError("tinyproxy did not start on port %d; see %s" % (self.port, self.conf))

    @property
    def uri(self):
        """The URI a host gives to zel::Upload::set_proxy (or https_proxy)."""
        userinfo = ""
        if self.auth:
            user, _, password = self.auth.partition(":")
            userinfo = "%s:%s@" % (urllib.parse.quote(user, safe=""), urllib.parse.quote(password, safe=""))
        return "http://%s127.0.0.1:%d" % (userinfo, self.port)

    @property
    def redacted_uri(self):
        return "http://%s127.0.0.1:%d" % (self.auth.partition(":")[0] + ":***@" if self.auth else "", self.port)

    def tunnels(self):
        """The "host:port" of every CONNECT the proxy received, in order."""
        try:
            with open(self.log_path) as f:
                lines = f.readlines()
        except OSError:
            return []
        found = []
        for line in lines:
            _, sep, request = line.partition("): CONNECT ")
            if sep:
                found.append(request.split(" ")[0])
        return found

    def stop(self, crash=False):
        self.proc.stop("kill" if crash else "terminate")


def machine(args):
    proxy = HttpProxy(args.machine, auth=args.auth, conf_lines=args.conf)

    def emit(obj, seq=None):
        if seq is not None:
            obj["seq"] = seq
        sys.stdout.write(json.dumps(obj) + "\n")
        sys.stdout.flush()

    try:
        emit({"event": "listening", "port": proxy.port})
        for line in sys.stdin:
            cmd = json.loads(line)
            name, seq = cmd.get("cmd"), cmd.get("seq")
            if name == "stop":
                proxy.stop(crash=True)
                emit({"event": "done"}, seq)
            elif name == "start":
                proxy.start()
                emit({"event": "done"}, seq)
            elif name == "tunnels":
                emit({"event": "tunnels", "count": proxy.tunnels().count(cmd["to"])}, seq)
            else:
                emit({"event": "error", "message": "unknown command"}, seq)
    finally:
        proxy.stop()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--machine", metavar="DIR", required=True)
    parser.add_argument("--auth", metavar="USER:PASSWORD")
    parser.add_argument("--conf", action="append", default=[], metavar="LINE")
    machine(parser.parse_args())

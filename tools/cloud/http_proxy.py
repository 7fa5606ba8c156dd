"""An HTTP proxy in front of the local cloud: Debian's tinyproxy on loopback.

Used by tools/demo.py and tools/cloud/local_cloud.py (--proxy). It tunnels with CONNECT to
the messaging server and to the blob storage emulator, optionally asks for Basic
authentication, and logs every tunnel it opens, which shows which paths went through it.
"""

import os
import shutil
import socket
import subprocess
import time
import urllib.parse


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class HttpProxy:
    def __init__(self, location, port=0, auth=None):
        """auth: "user:password" (tinyproxy accepts letters, digits, '.', '-' and '_')."""
        if shutil.which("tinyproxy") is None:
            raise RuntimeError("tinyproxy is not installed: run tools/setup.sh")
        os.makedirs(location, exist_ok=True)
        self.port = port or free_port()
        self.auth = auth
        self.log_path = os.path.join(location, "tinyproxy.log")
        pid_path = os.path.join(location, "tinyproxy.pid")
        for stale in (self.log_path, pid_path):
            if os.path.exists(stale):
                os.remove(stale)
        conf = os.path.join(location, "tinyproxy.conf")
        with open(conf, "w") as f:
            f.write("Port %d\nListen 127.0.0.1\nTimeout 60\nLogLevel Connect\n" % self.port)
            f.write('LogFile "%s"\nPidFile "%s"\n' % (self.log_path, pid_path))
            if auth:
                f.write("BasicAuth %s\n" % auth.replace(":", " ", 1))
        self.proc = subprocess.Popen(["tinyproxy", "-d", "-c", conf], stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
        deadline = time.time() + 10
        while time.time() < deadline and self.proc.poll() is None:
            if os.path.exists(pid_path) and os.path.getsize(pid_path) > 0:  # written once it listens
                return
            time.sleep(0.05)
        self.stop()
        raise RuntimeError("tinyproxy did not start on port %d; see %s" % (self.port, conf))

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

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()

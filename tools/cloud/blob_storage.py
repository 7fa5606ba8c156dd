"""The blob storage side of the local cloud: the Azurite emulator over HTTPS.

Used by tools/demo.py and tools/cloud/local_cloud.py. The emulator comes from npm,
pinned in package.json / package-lock.json next to this file (tools/setup.sh runs
`npm ci` here). It serves the published development account devstoreaccount1 at
https://devstoreaccount1.blob.localhost:PORT, which the library reaches when
ZEL_BLOB_DOMAIN is ".blob.localhost:PORT".
"""

import base64
import datetime
import hashlib
import hmac
import os
import socket
import ssl
import subprocess
import time
import urllib.parse
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
ACCOUNT = "devstoreaccount1"
# The emulator's published development key: not a secret.
ACCOUNT_KEY = "Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw=="


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class BlobStorage:
    def __init__(self, certs, location, port=0):
        self.account = ACCOUNT
        self.port = port or free_port()
        self.ca = os.path.join(certs, "ca.pem")
        os.makedirs(location, exist_ok=True)
        program = os.path.join(HERE, "node_modules", ".bin", "azurite-blob")
        if not os.path.exists(program):
            raise RuntimeError("the blob storage emulator is not installed: run tools/setup.sh")
        self.log = open(os.path.join(location, "azurite.log"), "w")
        self.proc = subprocess.Popen(
            [program, "--blobHost", "127.0.0.1", "--blobPort", str(self.port),
             "--cert", os.path.join(certs, "server.pem"), "--key", os.path.join(certs, "server.key"),
             "--location", location, "--skipApiVersionCheck", "--disableTelemetry"],
            stdout=self.log, stderr=subprocess.STDOUT)
        deadline = time.time() + 30
        while time.time() < deadline:
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=1):
                    return
            except OSError:
                if self.proc.poll() is not None:
                    break
                time.sleep(0.2)
        raise RuntimeError("the blob storage emulator did not start; see %s" % self.log.name)

    @property
    def blob_domain(self):
        return ".blob.localhost:%d" % self.port

    def sas_token(self, permissions="racwdl", valid_s=86400):
        """An account SAS for the development account."""
        now = datetime.datetime.now(datetime.timezone.utc)
        fmt = "%Y-%m-%dT%H:%M:%SZ"
        start = (now - datetime.timedelta(hours=1)).strftime(fmt)
        expiry = (now + datetime.timedelta(seconds=valid_s)).strftime(fmt)
        version = "2020-04-08"
        to_sign = "\n".join([ACCOUNT, permissions, "b", "sco", start, expiry, "", "https", version, ""])
        sig = base64.b64encode(hmac.new(base64.b64decode(ACCOUNT_KEY), to_sign.encode(),
                                        hashlib.sha256).digest()).decode()
        query = {"sv": version, "ss": "b", "srt": "sco", "sp": permissions, "st": start,
                 "se": expiry, "spr": "https", "sig": sig}
        return urllib.parse.urlencode(query)

    def _open(self, method, path, query=""):
        url = "https://127.0.0.1:%d/%s/%s?%s%s" % (self.port, ACCOUNT, path, query, self.sas_token())
        req = urllib.request.Request(url, method=method, headers={"x-ms-version": "2020-04-08"})
        if method == "PUT":
            req.data = b""
        return urllib.request.urlopen(req, context=ssl.create_default_context(cafile=self.ca), timeout=30)

    def create_container(self, name):
        try:
            self._open("PUT", name, "restype=container&").close()
        except urllib.error.HTTPError as e:
            if e.code != 409:  # already there
                raise

    def blob_size(self, path):
        with self._open("HEAD", path) as reply:
            return int(reply.headers.get("Content-Length", "-1"))

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
        self.log.close()

"""The blob storage side of the local cloud: the Azurite emulator over HTTPS.

Used by tools/demo.py, tools/soak and tools/cloud/local_cloud.py, and by the tests in
machine mode (JSON lines, like messaging_server.py):

    blob_storage.py --machine --certs DIR [--container NAME ...]

Data stays in memory; the emulator listens on a port of its choosing. Events:
  {"event":"listening","port":N,"blob_domain":".blob.localhost:N","account":..}
  {"event":"recording","port":N}      a recording endpoint is up (see "record")
  {"event":"request","head":..,"length":N,"sha256":..}   one request it received
Commands (an optional "seq" is echoed in the answer):
  {"cmd":"sas","permissions":"racwdl","valid_s":86400}  -> {"event":"sas","token":..}
  {"cmd":"container","name":..}         -> {"event":"done"}
  {"cmd":"blob","path":"container/name"} -> {"event":"blob","status":N,"length":N,
                                             "blob_type":..,"sha256":..}
  {"cmd":"record","status":N,"headers":{..},"body":..}: an HTTPS endpoint with the same
      certificate that answers every request so and reports it (what the emulator never
      answers, and the exact request head); "when":{"comp=blocklist":{"status":400,..}} answers
      requests whose request line holds that text so instead
  {"cmd":"silent"} -> {"event":"silent","port":N}: an endpoint that takes connections
      and never reads or answers a byte (a peer that stopped answering)
  {"cmd":"stop"} kills the emulator as a crash would; {"cmd":"start"} brings it back on
  the same port. The program ends when its input ends. The emulator comes from npm,
pinned in package.json / package-lock.json next to this file (tools/setup.sh runs
`npm ci` here). It serves the published development account devstoreaccount1 at
https://devstoreaccount1.blob.localhost:PORT, which the library reaches when
ZEL_BLOB_DOMAIN is ".blob.localhost:PORT".
"""

import argparse
import base64
import datetime
import hashlib
import hmac
import http.server
import json
import os
import re
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.parse
import urllib.request

from process import Process

HERE = os.path.dirname(os.path.abspath(__file__))
ACCOUNT = "devstoreaccount1"
# The emulator's published development key: not a secret.
ACCOUNT_KEY = "Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw=="


def sas_token(permissions="racwdl", valid_s=86400):
    """An account SAS for the development account, valid for valid_s seconds from now."""
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


class BlobStorage:
    """The emulator; location None keeps the data in memory. Port 0: its own choice."""

    def __init__(self, certs, location=None, port=0):
        self.account = ACCOUNT
        self.certs = certs
        self.ca = os.path.join(certs, "ca.pem")
        self.location = location
        self.scratch = None
        if location is None:
            self.scratch = tempfile.mkdtemp(prefix="zel-blob-")
        else:
            os.makedirs(location, exist_ok=True)
        self.start(port)

    def start(self, port=None):
        port = self.port if port is None else port
        program = os.path.join(HERE, "node_modules", ".bin", "azurite-blob")
        if not os.path.exists(program):
            raise RuntimeError("the blob storage emulator is not installed: run tools/setup.sh")
        log_path = os.path.join(self.location or self.scratch, "azurite.log")
        self.log = open(log_path, "w")
        store = ["--location", self.location] if self.location else ["--inMemoryPersistence"]
        self.proc = Process(
            [program, "--blobHost", "127.0.0.1", "--blobPort", str(port),
             "--cert", os.path.join(self.certs, "blob.pem"),
             "--key", os.path.join(self.certs, "blob.key"),
             "--skipApiVersionCheck", "--disableTelemetry"] + store,
            stdout=self.log, stderr=subprocess.STDOUT, cwd=self.location or self.scratch, stdin=False)
        deadline = time.time() + 30
        while time.time() < deadline and self.proc.alive():
            with open(log_path) as f:
                found = re.search(r"successfully listens on https://127\.0\.0\.1:(\d+)", f.read())
            if found:
                self.port = int(found.group(1))
                return
            time.sleep(0.1)
        raise RuntimeError("the blob storage emulator did not start; see %s" % log_path)

    @property
    def blob_domain(self):
        return ".blob.localhost:%d" % self.port

    def sas_token(self, permissions="racwdl", valid_s=86400):
        return sas_token(permissions, valid_s)


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

    def delete(self, path):
        """Deletes a blob, if the storage is up and has it."""
        try:
            self._open("DELETE", path).close()
        except (OSError, ValueError):
            pass

    def blob_size(self, path):
        with self._open("HEAD", path) as reply:
            return int(reply.headers.get("Content-Length", "-1"))

    def blob(self, path):
        """Status, type, length and SHA-256 of a stored blob."""
        try:
            with self._open("GET", path) as reply:
                data = reply.read()
                return {"status": reply.status, "length": len(data),
                        "blob_type": reply.headers.get("x-ms-blob-type", ""),
                        "sha256": hashlib.sha256(data).hexdigest()}
        except urllib.error.HTTPError as e:
            return {"status": e.code, "length": -1, "blob_type": "", "sha256": ""}

    def kill(self):
        self.proc.kill()
        self.log.close()

    def stop(self):
        self.proc.stop("terminate")
        self.log.close()
        if self.scratch:
            shutil.rmtree(self.scratch, ignore_errors=True)


def recorder(certs, answer, emit):
    """An HTTPS endpoint that answers every request with `answer` and reports it."""

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_PUT(self):
            body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
            head = self.requestline + "\r\n" + "".join(
                "%s: %s\r\n" % (k, v) for k, v in self.headers.items())
            emit({"event": "request", "head": head, "length": len(body),
                  "sha256": hashlib.sha256(body).hexdigest()})
            # "when": {"text in the request line": answer}, the first match replacing the default.
            reply = next((alt for text, alt in answer.get("when", {}).items() if text in self.requestline), answer)
            payload = reply.get("body", "").encode()
            self.send_response(int(reply.get("status", 201)))
            for name, value in reply.get("headers", {}).items():
                self.send_header(name, value)
            self.send_header("Content-Length", str(len(payload)))
            self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(payload)
            self.close_connection = True

        def log_message(self, *args):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(os.path.join(certs, "blob.pem"), os.path.join(certs, "blob.key"))
    server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def machine(args):
    lock = threading.Lock()

    def emit(obj, seq=None):
        if seq is not None:
            obj["seq"] = seq
        with lock:
            sys.stdout.write(json.dumps(obj) + "\n")
            sys.stdout.flush()

    storage = BlobStorage(args.certs)
    recorders = []
    silent = []
    try:
        for name in args.container:
            storage.create_container(name)
        emit({"event": "listening", "port": storage.port, "blob_domain": storage.blob_domain,
              "account": storage.account})
        for line in sys.stdin:
            cmd = None
            try:
                cmd = json.loads(line)
                seq, name = cmd.get("seq"), cmd.get("cmd")
                if name == "sas":
                    emit({"event": "sas", "token": storage.sas_token(cmd.get("permissions", "racwdl"),
                                                                   int(cmd.get("valid_s", 86400)))}, seq)
                elif name == "container":
                    storage.create_container(cmd["name"])
                    emit({"event": "done"}, seq)
                elif name == "blob":
                    emit(dict(storage.blob(cmd["path"]), event="blob"), seq)
                elif name == "record":
                    recorders.append(recorder(args.certs, cmd, emit))
                    emit({"event": "recording", "port": recorders[-1].server_address[1]}, seq)
                elif name == "silent":
                    # The kernel completes connections from the backlog; nobody reads them.
                    silent.append(socket.socket())
                    silent[-1].bind(("127.0.0.1", 0))
                    silent[-1].listen(64)
                    emit({"event": "silent", "port": silent[-1].getsockname()[1]}, seq)
                elif name == "stop":
                    storage.kill()
                    emit({"event": "done"}, seq)
                elif name == "start":
                    storage.start()
                    emit({"event": "done"}, seq)
                else:
                    emit({"event": "error", "message": "unknown command"}, seq)
            except Exception as e:  # one bad command must not end the peer
                emit({"event": "error", "message": str(e)}, cmd.get("seq") if isinstance(cmd, dict) else None)
    finally:
        for r in recorders:
            r.shutdown()
        storage.stop()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--machine", action="store_true", required=True)
    parser.add_argument("--certs", required=True)
    parser.add_argument("--container", action="append", default=[])
    machine(parser.parse_args())

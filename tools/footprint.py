#!/usr/bin/python3
"""Drives tools/footprint_host.cpp and prints what it measured as one JSON object.

Usage: footprint.py --host-binary PATH [--emulator PREFIX] [--offline-only] [--state DIR]

Online (against the local messaging server and blob storage emulator): resident size and
threads of a connected idle host, then the peak while 1 and then 4 upload threads upload
256,000,000-byte clips. Offline (the link down): heap bytes per queued motion event and per
queued clip, 10,000 of each. --offline-only for a host under an emulator, whose resident size
is the emulator's.
"""
import argparse
import json
import os
import shlex
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
CLOUD = os.path.join(HERE, "cloud")
sys.path.insert(0, HERE)
sys.path.insert(0, CLOUD)
from demo import DEVICE_MAC, SECRET, start_server  # noqa: E402

CLIP_BYTES = 256000000  # the largest clip the library takes
COUNT = 10000


class Host:
    def __init__(self, cmd, env=None):
        self.proc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                     bufsize=1, env=env)

    def ask(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        for out in self.proc.stdout:
            if out.startswith("{"):
                return json.loads(out)
        raise RuntimeError("footprint host ended before answering %r" % line)

    def quit(self):
        self.proc.stdin.write("quit\n")
        self.proc.stdin.close()
        self.proc.wait(timeout=60)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--host-binary", required=True)
    parser.add_argument("--emulator", default="")
    parser.add_argument("--offline-only", action="store_true")
    parser.add_argument("--state", default=os.path.join(HERE, "..", "build", "footprint-state"))
    args = parser.parse_args()
    state = os.path.abspath(args.state)
    certs = os.path.join(state, "certs")
    subprocess.run(["bash", os.path.join(CLOUD, "make_certs.sh"), certs], check=True,
                   stdout=subprocess.DEVNULL)
    tls = ["--ca", os.path.join(certs, "ca.pem"), "--cert", os.path.join(certs, "client.pem"),
           "--key", os.path.join(certs, "client.key"), "--mac", DEVICE_MAC]
    host_cmd = shlex.split(args.emulator) + [args.host_binary]
    small = os.path.join(state, "small.bin")
    with open(small, "wb") as f:
        f.write(os.urandom(100000))
    result = {}

    # The link down: a port nothing listens on (this one was just free).
    import socket
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        closed = s.getsockname()[1]
    host = Host(host_cmd + ["--server", "wss://127.0.0.1:%d/" % closed] + tls)
    host.ask("offline")
    result["per_event"] = host.ask("events %d" % COUNT)
    result["per_clip"] = host.ask("clips %d %s" % (COUNT, small))
    host.quit()
    if args.offline_only:
        print(json.dumps(result))
        return 0

    from blob_storage import BlobStorage
    storage = BlobStorage(certs, os.path.join(state, "blobs"))
    server = start_server(certs, state)
    try:
        server.command(cmd="set", auto_storage=True, auto_ack=True, storage_account=storage.account,
                       storage_token=storage.sas_token(), storage_secret=SECRET)
        storage.create_container(DEVICE_MAC.lower())
        big = os.path.join(state, "big-clip.bin")
        with open(big, "wb") as f:
            for _ in range(CLIP_BYTES // 8000000):
                f.write(os.urandom(8000000))
        host = Host(host_cmd + ["--server", "wss://127.0.0.1:%d/" % server.port] + tls,
                    env=dict(os.environ, ZEL_BLOB_DOMAIN=storage.blob_domain))
        if not host.ask("connect")["connected"]:
            raise RuntimeError("the footprint host did not connect")
        time.sleep(5)  # past the announcements: a connected host with nothing to do
        result["idle"] = host.ask("sample")
        for threads in (1, 4):
            result["upload_%d" % threads] = host.ask("upload %d %s" % (threads, big))
        host.quit()
        os.unlink(big)
    finally:
        server.stop()
        storage.stop()
        shutil.rmtree(os.path.join(state, "blobs"), ignore_errors=True)
    print(json.dumps(result))
    return 0


if __name__ == "__main__":
    sys.exit(main())

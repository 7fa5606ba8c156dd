#!/usr/bin/python3
"""Runs the example NVR host against the local cloud and tells the story of it.

Usage: demo.py --host-binary PATH [--state DIR] [--clip-bytes N] [--no-storage] [--web [PORT]]
               [--proxy [--proxy-auth USER:PASSWORD]]

It makes certificates under DIR (tools/cloud/state by default), starts the messaging
server (and the blob storage emulator unless --no-storage), starts the host, shows
what each side says, asks the host to perform an action from the cloud side, and
exits 0 only if every step of the story happened. The host uploads a short real MP4
(a test pattern made once by ffmpeg) and then a large random file for the upload figures
(--clip-bytes 0 leaves it out). With --web the browser console watches the messaging
server, and the cloud and the page stay up after the story until Ctrl-C.
With --proxy the host reaches both through an HTTP proxy (tinyproxy on loopback), whose
own log then shows each tunnel.
"""

import argparse
import json
import os
import queue
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
CLOUD = os.path.join(HERE, "cloud")
DEVICE_MAC = "001122334455"  # also the blob container, which takes no colons
CAMERA = "0a1b2c3d4e5f"
SECRET = "demo-secret"
sys.path.insert(0, CLOUD)
from formats import blob_path, iso_to_epoch  # noqa: E402
from process import Process  # noqa: E402


def say(line):
    print(line, flush=True)


def start_server(certs, state, web=None, blob_port=None):
    """The local messaging server in machine mode (events in, commands out); with web, the
    local cloud's wiring runs it with the browser console beside it."""
    if web is None:
        argv = [os.path.join(CLOUD, "messaging_server.py"), "--cert", os.path.join(certs, "server.pem"),
                "--key", os.path.join(certs, "server.key"), "--ca", os.path.join(certs, "ca.pem")]
    else:
        argv = [os.path.join(CLOUD, "local_cloud.py"), "--machine", "--state", state, "--web", str(web)] + \
            (["--blob-port", str(blob_port)] if blob_port else [])
    server = Process(["/usr/bin/python3"] + argv + ["--port", "0"], events=True)
    ports = {}  # the console's port comes first, when there is one
    while "listening" not in ports or (web is not None and "web" not in ports):
        event = server.wait_live(("listening", "web"), timeout=15)
        ports[event["event"]] = event["port"]
    server.port, server.web_port = ports["listening"], ports.get("web")
    return server


def describe(text):
    """One line about a message the device sent."""
    try:
        msg = json.loads(text)
    except ValueError:
        return "a frame that is not JSON"
    subject = msg.get("subject")
    content = msg.get("content")
    if "original_id" in msg:
        status = content.get("status") if isinstance(content, dict) else "?"
        return "reply to %s (%s): %s" % (msg["original_id"], subject, json.dumps(content.get("details") if isinstance(content, dict) else content)[:100]) if status else text[:120]
    if subject == "version":
        return "version announcement %s" % json.dumps(content)[:100]
    if subject == "ping":
        return "ping"
    if subject == "register":
        data = content.get("data", {}) if isinstance(content, dict) else {}
        return "registration of %s '%s'" % (content.get("type"), data.get("name", ""))
    if subject == "storage_access_request":
        return "storage access request for camera %s, %s bytes" % (
            content["properties"]["cameraMac"], content["properties"]["bytes"])
    if subject == "transaction" and isinstance(content, dict):
        model = content.get("model")
        props = content.get("properties", {})
        if model == "camera":
            return "camera announcement for %s" % props.get("mac_address")
        if model == "event":
            return "motion event %s from camera %s" % (props.get("event_type"), props.get("camera_mac"))
        if model == "accessEvent":
            return "access event %s from device %s" % (props.get("event_type"), content.get("device_uuid"))
        if model == "archive":
            return "record-end transaction for clip %s (%s bytes)" % (props.get("start_at"), props.get("bytes"))
        return "transaction %s" % model
    return "%s message" % subject


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--host-binary", required=True)
    parser.add_argument("--state", default=os.path.join(CLOUD, "state"))
    parser.add_argument("--clip-bytes", type=int, default=48 * 1024 * 1024)
    parser.add_argument("--no-storage", action="store_true")
    parser.add_argument("--web", type=int, nargs="?", const=8080, metavar="PORT",
                        help="serve the browser console and stay up after the story until Ctrl-C")
    parser.add_argument("--proxy", action="store_true")
    parser.add_argument("--proxy-auth", metavar="USER:PASSWORD")
    args = parser.parse_args()

    certs = os.path.join(args.state, "certs")
    subprocess.run(["bash", os.path.join(CLOUD, "make_certs.sh"), certs], check=True)
    storage = None
    if not args.no_storage and os.path.exists(os.path.join(CLOUD, "blob_storage.py")):
        from blob_storage import BlobStorage  # noqa: E402 (only needed with storage)
        storage = BlobStorage(certs, os.path.join(args.state, "blobs"))
        say("[cloud] blob storage emulator on https://127.0.0.1:%d (account %s)" % (storage.port, storage.account))

    server = start_server(certs, args.state, args.web, storage.port if storage else None)
    say("[cloud] messaging server on wss://127.0.0.1:%d/" % server.port)
    if server.web_port:
        say("[cloud] browser console on http://127.0.0.1:%d/" % server.web_port)
    if storage:
        server.command(cmd="set", auto_storage=True, auto_ack=True, storage_account=storage.account,
                       storage_token=storage.sas_token(), storage_secret=SECRET)

    host_cmd = [args.host_binary, "--server", "wss://127.0.0.1:%d/" % server.port, "--mac", DEVICE_MAC,
                "--ca", os.path.join(certs, "ca.pem"), "--cert", os.path.join(certs, "client.pem"),
                "--key", os.path.join(certs, "client.key"), "--camera", CAMERA, "--wait", "20"]
    proxy = None
    if args.proxy:
        from http_proxy import HttpProxy  # noqa: E402 (only needed with a proxy)
        proxy = HttpProxy(os.path.join(args.state, "proxy"), auth=args.proxy_auth)
        say("[proxy] tinyproxy on %s, in front of both; its log: %s" % (proxy.redacted_uri, proxy.log_path))
        host_cmd += ["--proxy", proxy.uri]
    env = dict(os.environ)
    recording = os.path.join(args.state, "recording.mp4")
    if storage:
        subprocess.run(["bash", os.path.join(CLOUD, "make_clip.sh"), recording], check=True)
        host_cmd += ["--clip", recording]
        if args.clip_bytes > 0:
            big_clip = os.path.join(args.state, "big-clip.bin")
            with open(big_clip, "wb") as f:
                f.write(os.urandom(args.clip_bytes))
            host_cmd += ["--big-clip", big_clip]
        env["ZEL_BLOB_DOMAIN"] = storage.blob_domain
        storage.create_container(DEVICE_MAC.lower())
    host_lines = queue.Queue()
    host = Process(host_cmd, on_line=host_lines.put, env=env, stdin=False)

    seen = set()
    archives = []
    asked = False
    action_reply = None
    deadline = time.time() + 240
    host_done = False
    while time.time() < deadline and not host_done:
        try:
            while True:
                line = host_lines.get_nowait()
                if line is None:
                    host_done = True
                    break
                say(line)
        except queue.Empty:
            pass
        try:
            event = server.events.get(timeout=0.1)
        except queue.Empty:
            continue
        kind = event.get("event")
        if kind == "connect":
            say("[cloud] device connected (client certificate: %s)" % ("yes" if event.get("client_cert") else "no"))
        elif kind == "close":
            say("[cloud] device closed the link with code %s" % event.get("code"))
            seen.add("close-%s" % event.get("code"))
        elif kind == "message":
            line = describe(event["text"])
            if not line.startswith("ping"):
                say("[cloud] <- " + line)
            msg = json.loads(event["text"]) if event["text"].startswith("{") else {}
            if msg.get("original_id") == "demo-action":
                action_reply = msg.get("content")
            if isinstance(msg.get("content"), dict) and msg["content"].get("model") == "archive":
                archives.append(msg["content"]["properties"])
            content = msg.get("content") if isinstance(msg.get("content"), dict) else {}
            seen.add(content.get("model") or msg.get("subject"))
            if not asked and "accessEvent" in seen:
                asked = True
                say("[cloud] -> asking the device to open door-1")
                server.command(cmd="request", subject="action", id="demo-action",
                               content={"device": "door-1", "action": "open", "value": 5})
    rc = host.proc.wait(timeout=30)
    blob_ok = False
    if storage:
        clips = [recording] + ([big_clip] if args.clip_bytes > 0 else [])
        blob_ok = len(archives) == len(clips) and all(
            check_blob(storage, archive, path) for archive, path in zip(archives, clips))
    tunnels = []
    if proxy:
        proxy.stop()
        tunnels = proxy.tunnels()
        for tunnel in tunnels:
            say("[proxy] CONNECT %s (%s)" % (tunnel, "the link" if tunnel == "127.0.0.1:%d" % server.port
                                               else "the upload" if tunnel.startswith("devstoreaccount1.") else "?"))

    checks = {
        "version announced": "version" in seen,
        "camera announced": "camera" in seen,
        "items registered": "register" in seen,
        "motion event received": "event" in seen,
        "access event received": "accessEvent" in seen,
        "action answered OK": isinstance(action_reply, dict) and action_reply.get("status") == "OK",
        "closed cleanly (4003)": "close-4003" in seen,
        "host finished every step": rc == 0,
    }
    if storage:
        checks["clip uploaded and confirmed"] = "archive" in seen and rc == 0
        checks["blob stored encrypted at its path"] = blob_ok
    if proxy:
        checks["link went through the proxy"] = "127.0.0.1:%d" % server.port in tunnels
        if storage:
            checks["upload went through the proxy"] = any(t.startswith("devstoreaccount1.") for t in tunnels)
    say("")
    for name, ok in checks.items():
        say("%s %s" % ("ok  " if ok else "FAIL", name))
    if server.web_port:
        say("\nThe local cloud and its console stay up: open http://127.0.0.1:%d/ (Ctrl-C to stop)"
            % server.web_port)
        try:
            server.proc.wait()
        except KeyboardInterrupt:
            pass
    server.stop()
    if storage:
        storage.stop()
    return 0 if all(checks.values()) else 1


def check_blob(storage, archive, path):
    """The blob at the clip's path decrypts, with the secret handed out, to the clip itself;
    for the large clip its size is enough."""
    blob = blob_path(DEVICE_MAC, CAMERA, iso_to_epoch(archive["start_at"]))
    size = os.path.getsize(path)
    expected = size // 16 * 16 + 16
    try:
        if size > 16 * 1024 * 1024:
            stored = storage.blob_size(blob)
            say("[cloud] blob %s holds %d bytes (encrypted size of the %d-byte clip: %d)" %
                (blob, stored, size, expected))
            return stored == expected
        with storage._open("GET", blob) as reply:
            sealed = reply.read()
        clear = subprocess.run(["openssl", "enc", "-d", "-aes-192-cbc", "-md", "md5", "-nosalt",
                                "-pass", "pass:" + SECRET], input=sealed, capture_output=True).stdout
        with open(path, "rb") as f:
            same = clear == f.read()
        say("[cloud] blob %s holds %d bytes and decrypts to the %d-byte recording: %s" %
            (blob, len(sealed), size, "yes" if same else "NO"))
        return same and len(sealed) == expected
    except Exception as exc:  # reported as a failed check
        say("[cloud] blob %s: %s" % (blob, exc))
        return False


if __name__ == "__main__":
    sys.exit(main())

"""The local cloud's browser console: one page, its JSON endpoints and a live feed.

Runs in the same asyncio loop as the messaging server, so the page sees every envelope the
moment the server does, in the exact text that crossed the link: local_cloud.py --web hands
Console.observe to the server as its event callback, and the server to serve(). Everything listens on 127.0.0.1 and refuses any peer, Host
or Origin that is not loopback: the page can send requests to a recorder, and a page from
elsewhere must not be able to do that through a developer's browser.

    GET  /                                   the page (tools/cloud/web/)
    GET  /api/feed                           WebSocket: a snapshot, then every change
    GET  /api/sample?subject=S               sample content for a request subject
    POST /api/request {"subject","content"}  send a request; content is JSON text
    GET  /api/clips/CAMERA/START/prepare     fetch and decrypt a clip's blob
    GET  /api/clips/CAMERA/START/video       the decrypted clip (?download=1 to save it)
"""

import asyncio
import datetime
import email.utils
import ipaddress
import json
import os
import shutil
import ssl
import subprocess
import tempfile
import urllib.parse
import urllib.request

from aiohttp import web

from formats import blob_path, iso_to_epoch

HERE = os.path.dirname(os.path.abspath(__file__))
WEB_DIR = os.path.join(HERE, "web")
# Enough for an afternoon of pings; the oldest envelopes go first.
MAX_ENVELOPES = 5000
LOOPBACK_NAMES = ("127.0.0.1", "localhost", "::1")
SHORT_NAMES = {"commonName": "CN", "organizationName": "O", "organizationalUnitName": "OU",
               "countryName": "C", "localityName": "L", "stateOrProvinceName": "ST"}
# Nothing inline and nothing from elsewhere: a stray <script> in an envelope cannot run.
PAGE_POLICY = ("default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
               "media-src 'self'; img-src 'self'; base-uri 'none'; form-action 'none'")


def stamp():
    now = datetime.datetime.now(datetime.timezone.utc)
    return now.isoformat(timespec="milliseconds").replace("+00:00", "Z")


def cert_subject(ws):
    """The client certificate's subject as "CN=device", or None when none was presented."""
    ssl_object = ws.transport.get_extra_info("ssl_object") if ws is not None else None
    try:
        cert = ssl_object.getpeercert() if ssl_object is not None else None
    except ValueError:
        cert = None
    if not cert:
        return None
    parts = ["%s=%s" % (SHORT_NAMES.get(k, k), v) for rdn in cert.get("subject", ()) for k, v in rdn]
    return ", ".join(parts)


class Console:
    def __init__(self, storage, cache_dir=None):
        self.cloud = None  # the messaging server, set by serve(): what the page's requests go to
        self.storage = storage  # anything with .port and .ca (BlobStorage), or None
        # Decrypted clips, fetched again after a restart: nothing here outlives the console.
        self.temporary_cache = cache_dir is None
        self.cache = cache_dir or tempfile.mkdtemp(prefix="zel-console-")
        if cache_dir:
            shutil.rmtree(cache_dir, ignore_errors=True)
        self.feeds = set()
        self.pages = set()  # their WebSockets, closed when the cloud stops
        self.envelopes = []
        self.counter = 0
        self.link = {"connected": False, "since": None, "mac": None, "version": None,
                     "version_n": None, "cert_subject": None, "connections": 0,
                     "reconnections": 0, "peer": None, "close_code": None, "close_reason": None,
                     "server_cert": None, "blob_cert": None}
        self.clips = {}
        self.credentials = {}  # clip key -> (account, token, secret); never sent to the page
        self.locks = {}

    # ------------------------------------------------------------- what happens
    def broadcast(self, message):
        text = json.dumps(message)
        for queue in self.feeds:
            queue.put_nowait(text)

    def observe(self, obj):
        kind = obj.get("event")
        if kind == "connect":
            self.link.update(connected=True, since=stamp(), connections=self.link["connections"] + 1,
                             cert_subject=cert_subject(self.cloud.current),
                             close_code=None, close_reason=None)
            self.link["reconnections"] = max(0, self.link["connections"] - 1)
            self.broadcast({"type": "link", "link": self.link})
        elif kind == "close":
            self.link.update(connected=False, since=stamp(), close_code=obj.get("code"),
                             close_reason=obj.get("reason"))
            self.broadcast({"type": "link", "link": self.link})
        elif kind in ("message", "sent"):
            self.envelope("in" if kind == "message" else "out", obj)
        elif kind == "error":
            self.broadcast({"type": "notice", "text": obj.get("message", "")})

    def envelope(self, direction, obj):
        text = obj.get("text", "")
        try:
            msg = json.loads(text)
        except ValueError:
            msg = None
        msg = msg if isinstance(msg, dict) else {}
        self.counter += 1
        record = {"n": self.counter, "time": stamp(), "dir": direction, "text": text,
                  "subject": msg.get("subject") if isinstance(msg.get("subject"), str) else "",
                  "id": str(msg.get("id", "")), "original_id": msg.get("original_id"),
                  "auto": bool(obj.get("auto")), "binary": bool(obj.get("binary"))}
        self.envelopes.append(record)
        del self.envelopes[:-MAX_ENVELOPES]
        self.broadcast({"type": "envelope", "envelope": record})
        if msg:
            self.follow(direction, msg, record)

    def follow(self, direction, msg, record):
        """Keeps the link and clip panels up to date from what the envelopes say."""
        subject, content = msg.get("subject"), msg.get("content")
        content = content if isinstance(content, dict) else {}
        if direction == "in" and subject == "version" and "original_id" not in msg:
            self.link.update(version=msg.get("content"), version_n=record["n"], mac=msg.get("from"))
            self.broadcast({"type": "link", "link": self.link})
        props = content.get("properties") if isinstance(content.get("properties"), dict) else {}
        if direction == "in" and subject == "storage_access_request":
            clip = self.clip(props.get("cameraMac"), props.get("start_at"), create=True)
            if clip:
                clip.update(nvr=msg.get("nvrId") or content.get("nvrId") or msg.get("from"),
                            end_at=props.get("end_at"), bytes=props.get("bytes"),
                            requested_at=record["time"])
                self.changed(clip)
        elif direction == "out" and subject == "getStorageAccess":
            clip = self.clip(content.get("camera_mac"), content.get("start_at"))
            if clip:
                self.credentials[clip["key"]] = (content.get("account"), content.get("token"),
                                                 content.get("secret"))
                clip["credentials_at"] = record["time"]
                self.changed(clip)
        elif direction == "in" and subject == "transaction" and content.get("model") == "archive":
            clip = self.clip(props.get("mac_address"), props.get("start_at"), create=True)
            if clip:
                clip.update(uploaded_at=record["time"], uploaded_bytes=props.get("bytes"),
                            upload_start_at=props.get("upload_start_at"),
                            upload_end_at=props.get("upload_end_at"), nvr=clip.get("nvr") or
                            content.get("nvrMac"), stored_at=None, stored_bytes=None)
                shutil.rmtree(os.path.join(self.cache, clip["key"].replace("/", "-")), True)
                self.changed(clip)
                asyncio.ensure_future(self.look_at_blob(clip))
        elif direction == "out" and subject == "transactionAck":
            clip = self.clip(content.get("from"), content.get("start_at"))
            if clip:
                clip.update(ack_at=record["time"], ack_id=msg.get("id"))
                self.changed(clip)
        elif direction == "in" and "original_id" in msg:
            for clip in self.clips.values():
                if clip.get("ack_id") == msg["original_id"]:
                    clip["ack_reply"] = content.get("status")
                    self.changed(clip)

    def clip(self, camera, start, create=False):
        try:
            epoch = int(iso_to_epoch(start)) if not str(start).isdigit() else int(start)
        except (ValueError, TypeError):
            return None
        if not isinstance(camera, str):
            return None
        key = "%s/%d" % (camera.lower(), epoch)
        if key not in self.clips and create:
            self.clips[key] = {"key": key, "camera": camera.lower(), "start": epoch,
                               "start_at": start if isinstance(start, str) else None}
        return self.clips.get(key)

    def changed(self, clip):
        if clip.get("nvr"):
            clip["blob"] = blob_path(clip["nvr"], clip["camera"], clip["start"])
        if clip.get("credentials_at") and clip.get("uploaded_at"):
            took = (datetime.datetime.fromisoformat(clip["uploaded_at"].replace("Z", "+00:00")) -
                    datetime.datetime.fromisoformat(clip["credentials_at"].replace("Z", "+00:00")))
            clip["took_s"] = round(took.total_seconds(), 3)
        clip["playable"] = bool(self.storage and clip.get("uploaded_at") and clip["key"] in self.credentials)
        self.broadcast({"type": "clip", "clip": clip})

    # ------------------------------------------------------------ blob storage
    def blob_url(self, key):
        account, token, _ = self.credentials[key]
        return "https://127.0.0.1:%d/%s/%s?%s" % (self.storage.port, account,
                                                  urllib.parse.quote(self.clips[key]["blob"]), token)

    def open_blob(self, key, method):
        request = urllib.request.Request(self.blob_url(key), method=method,
                                         headers={"x-ms-version": "2020-04-08"})
        return urllib.request.urlopen(request, timeout=60,
                                      context=ssl.create_default_context(cafile=self.storage.ca))

    async def look_at_blob(self, clip):
        """When the storage says the PUT landed, and how large the stored blob is."""
        if self.storage is None or clip["key"] not in self.credentials:
            return
        try:
            with await asyncio.to_thread(self.open_blob, clip["key"], "HEAD") as reply:
                modified = email.utils.parsedate_to_datetime(reply.headers["Last-Modified"])
                clip["stored_at"] = modified.strftime("%Y-%m-%dT%H:%M:%SZ")
                clip["stored_bytes"] = int(reply.headers.get("Content-Length", "-1"))
                clip.pop("stored_error", None)
        except Exception as exc:  # shown on the clip's row
            clip["stored_error"] = str(exc)
        self.changed(clip)

    def decrypt(self, key):
        """Fetches the blob and decrypts it with the secret this cloud handed out, the way
        `openssl enc -d` does; the result is kept until the clip is uploaded again."""
        folder = os.path.join(self.cache, key.replace("/", "-"))
        clear = os.path.join(folder, "clip.mp4")
        if os.path.exists(clear):
            return clear
        os.makedirs(folder, exist_ok=True)
        sealed = os.path.join(folder, "blob.enc")
        with self.open_blob(key, "GET") as reply, open(sealed, "wb") as out:
            shutil.copyfileobj(reply, out, 1 << 20)
        env = dict(os.environ, ZEL_CLIP_SECRET=self.credentials[key][2] or "")
        done = subprocess.run(["openssl", "enc", "-d", "-aes-192-cbc", "-md", "md5", "-nosalt",
                               "-pass", "env:ZEL_CLIP_SECRET", "-in", sealed, "-out", clear + ".part"],
                              env=env, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            raise RuntimeError("openssl could not decrypt the blob: " + done.stderr.strip())
        os.replace(clear + ".part", clear)
        return clear

    async def clear_clip(self, request):
        key = "%s/%s" % (request.match_info["camera"], request.match_info["start"])
        if key not in self.clips or not self.clips[key].get("playable"):
            raise web.HTTPNotFound(text="No uploaded clip %s with credentials from this cloud" % key)
        lock = self.locks.setdefault(key, asyncio.Lock())
        async with lock:
            try:
                return await asyncio.to_thread(self.decrypt, key)
            except Exception as exc:
                raise web.HTTPBadGateway(text="Could not fetch or decrypt the blob: %s" % exc)

    # --------------------------------------------------------------- endpoints
    async def page(self, request):
        return web.FileResponse(os.path.join(WEB_DIR, "index.html"),
                                headers={"Content-Security-Policy": PAGE_POLICY})

    async def feed(self, request):
        ws = web.WebSocketResponse(heartbeat=20)
        await ws.prepare(request)
        queue = asyncio.Queue()
        self.feeds.add(queue)
        self.pages.add(ws)
        snapshot = {"type": "snapshot", "link": self.link, "envelopes": self.envelopes,
                    "clips": list(self.clips.values()), "subjects": self.cloud.SUBJECTS,
                    "storage": self.storage is not None}
        pump = asyncio.ensure_future(self.pump(ws, queue, json.dumps(snapshot)))
        try:
            async for _ in ws:  # the page only listens; this ends when it goes away
                pass
        finally:
            self.feeds.discard(queue)
            self.pages.discard(ws)
            pump.cancel()
        return ws

    async def pump(self, ws, queue, first):
        await ws.send_str(first)
        while True:
            await ws.send_str(await queue.get())

    async def sample(self, request):
        subject = request.query.get("subject", "")
        if subject not in self.cloud.SUBJECTS:
            raise web.HTTPNotFound(text="No sample for that subject")
        try:
            content = await asyncio.to_thread(self.cloud.sample_content, subject)
        except Exception as exc:  # openssl failures when issuing a certificate
            return web.json_response({"error": "Could not make a sample: %s" % exc}, status=500)
        return web.json_response({"content": json.dumps(content, indent=2)})

    async def send_request(self, request):
        try:
            body = await request.json()
        except ValueError:
            return web.json_response({"error": "The request body is not JSON"}, status=400)
        subject = body.get("subject") if isinstance(body, dict) else None
        if not isinstance(subject, str) or not subject.strip() or len(subject) > 200:
            return web.json_response({"error": "A request needs a subject"}, status=400)
        try:
            content = json.loads(body.get("content", ""))
        except (ValueError, TypeError) as exc:
            return web.json_response({"error": "Not sent: the content is not valid JSON (%s)" % exc},
                                     status=400)
        text = self.cloud.envelope(subject.strip(), content)
        if not await self.cloud.send_text(text):
            return web.json_response({"error": "Not sent: no recorder is connected"}, status=409)
        return web.json_response({"id": json.loads(text)["id"], "text": text})

    async def prepare(self, request):
        path = await self.clear_clip(request)
        return web.json_response({"bytes": os.path.getsize(path)})

    async def video(self, request):
        path = await self.clear_clip(request)
        headers = {"Content-Type": "video/mp4", "Cache-Control": "no-store"}
        if request.query.get("download"):
            name = "%s-%s.mp4" % (request.match_info["camera"], request.match_info["start"])
            headers["Content-Disposition"] = 'attachment; filename="%s"' % name
        return web.FileResponse(path, headers=headers)

    def app(self):
        app = web.Application(middlewares=[loopback_only], client_max_size=4 << 20)
        clip = "/api/clips/{camera:[0-9a-f:]{1,32}}/{start:[0-9]{1,12}}"
        app.router.add_get("/", self.page)
        app.router.add_static("/static/", WEB_DIR)
        app.router.add_get("/api/feed", self.feed)
        app.router.add_get("/api/sample", self.sample)
        app.router.add_post("/api/request", self.send_request)
        app.router.add_get(clip + "/prepare", self.prepare)
        app.router.add_get(clip + "/video", self.video)
        return app


def is_loopback_name(name):
    name = (name or "").strip("[]").lower()
    if name in LOOPBACK_NAMES:
        return True
    try:
        return ipaddress.ip_address(name).is_loopback
    except ValueError:
        return False


@web.middleware
async def loopback_only(request, handler):
    # The peer must be this machine; the Host and Origin must name it too, so that another
    # site cannot reach the console through a browser by rebinding its own name to 127.0.0.1.
    host = urllib.parse.urlsplit("//" + (request.host or "")).hostname
    origin = request.headers.get("Origin")
    allowed = (is_loopback_name((request.remote or "").split("%")[0]) and is_loopback_name(host) and
               (origin is None or is_loopback_name(urllib.parse.urlsplit(origin).hostname)))
    if request.method == "POST" and request.content_type != "application/json":
        allowed = False  # a plain cross-site form cannot send this type
    if not allowed:
        raise web.HTTPForbidden(text="The local cloud console answers only on this machine")
    return await handler(request)


async def serve(console, cloud, port):
    """Runs the messaging server with the console beside it until the server stops."""
    console.cloud = cloud
    runner = web.AppRunner(console.app(), access_log=None)
    await runner.setup()
    # Open pages hold their feed for ever: do not wait for them when the cloud stops.
    site = web.TCPSite(runner, "127.0.0.1", port, shutdown_timeout=1.0)
    await site.start()
    port = runner.addresses[0][1]
    if cloud.interactive:
        print("web console on http://127.0.0.1:%d/" % port, flush=True)
    else:
        cloud.emit({"event": "web", "port": port})
    try:
        await cloud.main()
    finally:
        for ws in list(console.pages):
            await ws.close(message=b"the local cloud stopped")
        await runner.cleanup()
        if console.temporary_cache:
            shutil.rmtree(console.cache, ignore_errors=True)

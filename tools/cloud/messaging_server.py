#!/usr/bin/python3
"""Local cloud messaging server: a TLS WebSocket peer for the device.

Machine mode (default): every event is one JSON object per line on stdout and
commands are read as JSON lines from stdin. The server exits when stdin closes.

Events:
  {"event":"listening","port":N}
  {"event":"connect","conn":N,"path":..,"origin":..|null,"client_cert":bool,
   "subprotocol":..|null,"headers":{..}}
  {"event":"message","conn":N,"text":..,"binary":bool,"length":bytes}
  {"event":"close","conn":N,"code":N,"reason":..,"sent_code":N|null}
  {"event":"sent","text":..,"binary":bool,"auto":bool[,"seq":..]}
  {"event":"done","cmd":..[,"seq":..]}          (set, close, drop)
  {"event":"error","message":..[,"seq":..]}
  {"event":"web","port":N}        (local_cloud.py --machine --web: the browser console's port)
  {"event":"upgrade","refused":bool}           (every upgrade request; --shed refuses some)

Commands (an optional "seq" is echoed in the event that answers the command):
  {"cmd":"send","text":..}            {"cmd":"send_binary","text":..}
  {"cmd":"send_fragments","parts":[..],"binary":false,"empty_final":false}
      (empty_final: every part non-final, then an empty final frame)
  {"cmd":"request","subject":..,"content":..,"id":..,"from":..,"to":..,"date":..,
   "sample":false}
  {"cmd":"close","code":4000,"reason":""}   {"cmd":"drop"}
  {"cmd":"set", <flag>: <value>, ...}       {"cmd":"stop"}
Each device has its own connection and is answered on it; "mac" in a command picks the
device (by the Origin it gave), otherwise the one that connected last is meant.

Interactive mode (--interactive): a small console for people; type "help".
"""

import argparse
import asyncio
import collections
import http
import json
import os
import shutil
import ssl
import subprocess
import sys
import tempfile
import threading
import time

import websockets
import websockets.exceptions
from websockets.legacy.server import WebSocketServerProtocol

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import blob_storage  # noqa: E402  (the development account's token signer)
from formats import iso_to_epoch, now_iso

SERVER_NAME = "zel-cloud"


class AnyProtocol(WebSocketServerProtocol):
    """Accepts whatever subprotocol the client offers first (or none)."""

    def process_subprotocol(self, headers, available_subprotocols):
        offered = []
        for value in headers.get_all("Sec-WebSocket-Protocol"):
            offered += [p.strip() for p in value.split(",") if p.strip()]
        return offered[0] if offered else None


class Cloud:
    """The server. on_event, if given, also hears every event (the browser console does)."""

    def __init__(self, cert=None, key=None, ca=None, host="127.0.0.1", port=0, plain=False,
                 interactive=False, flags=None, on_event=None, quiet=False):
        self.cert, self.key, self.ca, self.host, self.port = cert, key, ca, host, port
        self.plain = plain
        self.interactive = interactive
        self.on_event = on_event
        self.upgrades = collections.deque()  # when the last second's upgrade requests came
        self.quiet = quiet  # no "message" and "sent" events: a fleet's traffic is not news
        self.current = None  # the latest device; commands without "mac" address it
        self.devices = {}    # every connected device by its MAC (the Origin it gives)
        self.conn_counter = 0
        self.req_counter = 0
        self.device = None
        self.stop_event = None
        self.send_lock = None
        self.loop = None
        self.flags = {
            "auto_pong": True,
            "auto_version": True,
            "auto_storage": False,
            "auto_ack": False,
            "storage_delay": 0.0,
            "ack_delay": 0.0,
            "storage_account": "devstoreaccount1",
            "storage_token": "sv=2020-08-04&sig=test",
            "storage_secret": "secret",
            # > 0: every storage reply carries a token of its own, valid this many seconds
            "storage_sas_lifetime": 0,
            # [N, S]: past N upgrade requests in a second, refuse with 503 and Retry-After: S.
            "shed": None,
            "version_reply": {
                "registered": True,
                "enabled": True,
                "account_id": 42,
                "device_uuid": "dev-uuid-1",
                "partner_id": 7,
            },
        }
        unknown = [k for k in flags or {} if k not in self.flags]
        if unknown:
            raise ValueError("unknown flags: " + ", ".join(sorted(unknown)))
        self.flags.update(flags or {})

    # ----------------------------------------------------------------- output
    def emit(self, obj):
        if self.quiet and obj.get("event") in ("message", "sent"):
            return
        if self.interactive:
            self.show(obj)
        else:
            sys.stdout.write(json.dumps(obj, ensure_ascii=True) + "\n")
            sys.stdout.flush()
        if self.on_event is not None:
            try:
                self.on_event(obj)
            except Exception as exc:  # the link must keep working whatever a watcher makes of it
                print("messaging_server: an event watcher failed: %r" % exc, file=sys.stderr, flush=True)

    def show(self, obj):
        kind = obj.get("event")
        if kind == "message":
            text = obj["text"]
            try:
                parsed = json.loads(text)
                subject = parsed.get("subject") if isinstance(parsed, dict) else None
                if subject is None and isinstance(parsed, dict) and "original_id" in parsed:
                    subject = "reply to " + str(parsed["original_id"])
                body = json.dumps(parsed, indent=2, ensure_ascii=False)
            except ValueError:
                subject, body = "not json", text
            print("<- [%s] %s" % (subject, body), flush=True)
        elif kind == "sent":
            print("-> %s%s" % ("(auto) " if obj.get("auto") else "", obj["text"]), flush=True)
        elif kind == "connect":
            print("** device connected: path %s, client certificate: %s"
                  % (obj["path"], "yes" if obj["client_cert"] else "no"), flush=True)
        elif kind == "close":
            print("** device disconnected: code %s %s" % (obj["code"], obj["reason"]), flush=True)
        elif kind == "error":
            print("!! " + obj["message"], flush=True)
        elif kind == "listening":
            scheme = "ws" if self.plain else "wss"
            print("local cloud listening on %s://%s:%d/  (type help)"
                  % (scheme, self.host, obj["port"]), flush=True)

    # ------------------------------------------------------------- connection
    async def handler(self, ws):
        self.conn_counter += 1
        conn = self.conn_counter
        self.current = ws
        mac = ws.request_headers.get("Origin")
        self.devices[mac] = ws
        peer_cert = False
        ssl_object = ws.transport.get_extra_info("ssl_object")
        if ssl_object is not None:
            try:
                peer_cert = bool(ssl_object.getpeercert())
            except ValueError:
                peer_cert = False
        headers = {}
        for name, value in ws.request_headers.raw_items():
            headers[name] = headers[name] + ", " + value if name in headers else value
        self.emit({
            "event": "connect",
            "conn": conn,
            "path": ws.path,
            "origin": ws.request_headers.get("Origin"),
            "client_cert": peer_cert,
            "subprotocol": ws.subprotocol,
            "headers": headers,
        })
        try:
            while True:
                data = await ws.recv()
                self.on_message(conn, data, ws)
        except websockets.exceptions.ConnectionClosed:
            pass
        await ws.wait_closed()
        if self.current is ws:
            self.current = None
        if self.devices.get(mac) is ws:
            del self.devices[mac]
        self.emit({
            "event": "close",
            "conn": conn,
            "code": ws.close_code,
            "reason": ws.close_reason or "",
            "sent_code": ws.close_sent.code if ws.close_sent is not None else None,
        })

    def admit(self, path, headers):
        """Each upgrade request; while more than N came in the last second, a 503."""
        now = time.monotonic()
        self.upgrades.append(now)
        while self.upgrades and self.upgrades[0] < now - 1:
            self.upgrades.popleft()
        shed = self.flags["shed"]
        refused = bool(shed) and len(self.upgrades) > shed[0]
        self.emit({"event": "upgrade", "refused": refused})
        if refused:
            return http.HTTPStatus.SERVICE_UNAVAILABLE, [("Retry-After", str(shed[1]))], b"busy\n"
        return None

    def on_message(self, conn, data, ws=None):
        binary = isinstance(data, bytes)
        text = data.decode("utf-8", errors="replace") if binary else data
        length = len(data) if binary else len(data.encode("utf-8"))
        self.emit({"event": "message", "conn": conn, "text": text, "binary": binary,
                   "length": length})
        try:
            msg = json.loads(text)
        except ValueError:
            return
        if not isinstance(msg, dict):
            return
        for key in ("from", "device"):
            if isinstance(msg.get(key), str) and msg[key]:
                self.device = msg[key]
                break
        if "original_id" in msg:
            return  # a reply from the device: report only
        subject = msg.get("subject")
        content = msg.get("content")
        flags = self.flags
        if subject == "ping" and flags["auto_pong"]:
            self.spawn(self.send_request("pong", "pong", auto=True, ws=ws))
        elif subject == "version" and flags["auto_version"]:
            self.spawn(self.send_request("version", flags["version_reply"], auto=True, ws=ws))
        elif subject == "storage_access_request" and flags["auto_storage"]:
            self.spawn(self.storage_reply(content, ws))
        elif (subject == "transaction" and flags["auto_ack"] and isinstance(content, dict)
              and content.get("model") == "archive"):
            self.spawn(self.ack_reply(content, ws))

    def spawn(self, coro):
        task = asyncio.ensure_future(coro)
        task.add_done_callback(lambda t: t.cancelled() or t.exception())

    async def storage_reply(self, content, ws=None):
        props = content.get("properties") if isinstance(content, dict) else None
        props = props if isinstance(props, dict) else {}
        try:
            start = iso_to_epoch(props.get("start_at"))
        except (ValueError, TypeError) as exc:
            self.emit({"event": "error", "message": "storage request start_at: %s" % exc})
            start = None
        mac = props.get("cameraMac")
        reply = {
            "account": self.flags["storage_account"],
            "token": (blob_storage.sas_token(valid_s=int(self.flags["storage_sas_lifetime"]))
                      if self.flags["storage_sas_lifetime"] else self.flags["storage_token"]),
            "secret": self.flags["storage_secret"],
            # The device matches credentials by text: the start second in decimal.
            "start_at": None if start is None else str(start),
            "camera_mac": mac.lower() if isinstance(mac, str) else mac,
        }
        if self.flags["storage_delay"]:
            await asyncio.sleep(float(self.flags["storage_delay"]))
        await self.send_request("getStorageAccess", reply, auto=True, ws=ws)

    async def ack_reply(self, content, ws=None):
        props = content.get("properties")
        props = props if isinstance(props, dict) else {}
        reply = {"type": "archive", "from": props.get("mac_address"),
                 "start_at": props.get("start_at")}
        if self.flags["ack_delay"]:
            await asyncio.sleep(float(self.flags["ack_delay"]))
        await self.send_request("transactionAck", reply, auto=True, ws=ws)

    # ---------------------------------------------------------------- sending
    def envelope(self, subject, content, has_content=True, msg_id=None, sender=None,
                 to=None, date=None):
        if msg_id is None:
            self.req_counter += 1
            msg_id = "req-%d" % self.req_counter
        env = {
            "id": msg_id,
            "from": SERVER_NAME if sender is None else sender,
            "to": self.device if to is None else to,
            "subject": subject,
            "date": now_iso() if date is None else date,
        }
        if has_content:
            env["content"] = content
        return json.dumps(env, separators=(",", ":"), ensure_ascii=False)

    async def send_request(self, subject, content, auto=False, seq=None, ws=None):
        await self.send_text(self.envelope(subject, content), auto=auto, seq=seq, ws=ws)

    async def send_text(self, payload, binary=False, auto=False, seq=None, ws=None):
        ws = ws or self.current
        if ws is None:
            self.reply_error("no device connected", seq)
            return False
        try:
            async with self.send_lock:
                await ws.send(payload.encode("utf-8") if binary else payload)
        except websockets.exceptions.ConnectionClosed:
            self.reply_error("connection closed", seq)
            return False
        event = {"event": "sent", "text": payload, "binary": binary, "auto": auto}
        if seq is not None:
            event["seq"] = seq
        self.emit(event)
        return True

    def reply_error(self, message, seq=None):
        event = {"event": "error", "message": message}
        if seq is not None:
            event["seq"] = seq
        self.emit(event)

    def reply_done(self, cmd, seq):
        event = {"event": "done", "cmd": cmd}
        if seq is not None:
            event["seq"] = seq
        self.emit(event)

    # --------------------------------------------------------------- commands
    async def command(self, cmd):
        if not isinstance(cmd, dict) or not isinstance(cmd.get("cmd"), str):
            self.reply_error("a command is a JSON object with a \"cmd\" string")
            return
        seq = cmd.get("seq")
        name = cmd["cmd"]
        ws = self.devices.get(cmd["mac"]) if "mac" in cmd else self.current
        if "mac" in cmd and ws is None:
            self.reply_error("no device %s connected" % cmd["mac"], seq)
            return
        if name == "send":
            await self.send_text(str(cmd.get("text", "")), seq=seq, ws=ws)
        elif name == "send_binary":
            await self.send_text(str(cmd.get("text", "")), binary=True, seq=seq, ws=ws)
        elif name == "send_fragments":
            parts = cmd.get("parts")
            if not isinstance(parts, list) or not parts or \
                    not all(isinstance(p, str) for p in parts):
                self.reply_error("send_fragments needs a non-empty list of strings", seq)
                return
            if ws is None:
                self.reply_error("no device connected", seq)
                return
            binary = bool(cmd.get("binary"))
            frames = [p.encode("utf-8") for p in parts]
            try:
                async with self.send_lock:
                    if cmd.get("empty_final"):
                        # The websockets way: every part non-final, then an empty final frame.
                        await ws.send(frames if binary else list(parts))
                    else:
                        # The last part carries FIN.
                        for i, data in enumerate(frames):
                            opcode = (2 if binary else 1) if i == 0 else 0
                            await ws.write_frame(i == len(frames) - 1, opcode, data)
            except (websockets.exceptions.ConnectionClosed,
                    websockets.exceptions.InvalidState):
                self.reply_error("connection closed", seq)
                return
            event = {"event": "sent", "text": "".join(parts), "binary": binary,
                     "auto": False, "parts": len(parts)}
            if seq is not None:
                event["seq"] = seq
            self.emit(event)
        elif name == "request":
            subject = cmd.get("subject")
            if not isinstance(subject, str):
                self.reply_error("request needs a subject", seq)
                return
            if cmd.get("sample"):
                try:
                    content, has_content = self.sample_content(subject), True
                except Exception as exc:  # openssl failures and the like
                    self.reply_error("sample content for %s: %s" % (subject, exc), seq)
                    return
            else:
                content, has_content = cmd.get("content"), "content" in cmd
            text = self.envelope(subject, content, has_content, msg_id=cmd.get("id"),
                                 sender=cmd.get("from"), to=cmd.get("to"),
                                 date=cmd.get("date"))
            await self.send_text(text, seq=seq, ws=ws)
        elif name == "close":
            if ws is None:
                self.reply_error("no device connected", seq)
                return
            await ws.close(code=int(cmd.get("code", 1000)), reason=str(cmd.get("reason", "")))
            self.reply_done(name, seq)
        elif name == "drop":
            if ws is None:
                self.reply_error("no device connected", seq)
                return
            ws.transport.abort()
            self.reply_done(name, seq)
        elif name == "set":
            unknown = [k for k in cmd if k not in self.flags and k not in ("cmd", "seq")]
            if unknown:
                self.reply_error("unknown flags: " + ", ".join(sorted(unknown)), seq)
                return
            for key, value in cmd.items():
                if key in self.flags:
                    self.flags[key] = value
            self.reply_done(name, seq)
        elif name == "stop":
            self.reply_done(name, seq)
            self.stop_event.set()
        else:
            self.reply_error("unknown command: " + name, seq)

    # ------------------------------------------------------ interactive mode
    SUBJECTS = ["details", "status", "version", "actions", "action", "update",
                "issueCertificate", "transaction", "transactionAck", "getStorageAccess",
                "pong"]

    def sample_content(self, subject):
        if subject == "version":
            return self.flags["version_reply"]
        if subject == "actions":
            return {"options": {"device": "door-1"}}
        if subject == "action":
            return {"device": "door-1", "action": "open", "value": 5}
        if subject == "update":
            return {"url": "https://example.invalid/fw.bin", "hash": "abc", "device": "nvr"}
        if subject == "issueCertificate":
            return {"contents": self.issue_certificate()}
        if subject == "transaction":
            return {"model": "archive", "properties": {"mac_address": self.device,
                                                       "start_at": now_iso()}}
        if subject == "transactionAck":
            return {"type": "archive", "from": self.device, "start_at": now_iso()}
        if subject == "getStorageAccess":
            return {"account": self.flags["storage_account"],
                    "token": self.flags["storage_token"],
                    "secret": self.flags["storage_secret"],
                    "start_at": str(iso_to_epoch(now_iso())), "camera_mac": self.device}
        if subject == "pong":
            return "pong"
        return {}

    def issue_certificate(self):
        if not self.ca:
            raise RuntimeError("--ca is needed to issue certificates")
        ca_key = os.path.join(os.path.dirname(os.path.abspath(self.ca)), "ca.key")
        work = tempfile.mkdtemp(prefix="zel-issue-")
        try:
            ext = os.path.join(work, "client.ext")
            with open(ext, "w") as f:
                f.write("basicConstraints=CA:FALSE\n"
                        "keyUsage=digitalSignature,keyEncipherment\n"
                        "extendedKeyUsage=clientAuth\n")
            key, csr, cert = (os.path.join(work, n) for n in ("new.key", "new.csr", "new.pem"))
            run = lambda *a: subprocess.run(a, check=True, stdout=subprocess.DEVNULL,
                                            stderr=subprocess.PIPE)
            run("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
                "-out", csr, "-subj", "/CN=device")
            run("openssl", "x509", "-req", "-in", csr, "-CA", self.ca, "-CAkey", ca_key,
                "-set_serial", str(int.from_bytes(os.urandom(8), "big")), "-out", cert,
                "-days", "825", "-extfile", ext)
            with open(cert) as f:
                cert_pem = f.read()
            with open(key) as f:
                key_pem = f.read()
            return {"cert": cert_pem, "key": key_pem}
        finally:
            shutil.rmtree(work, ignore_errors=True)

    async def console_line(self, line):
        line = line.strip()
        if not line:
            return
        if line.startswith("{"):
            try:
                await self.command(json.loads(line))
            except ValueError as exc:
                self.reply_error("bad JSON: %s" % exc)
            return
        word, _, rest = line.partition(" ")
        rest = rest.strip()
        if word.startswith("@"):  # "@MAC <line>": the same, to that device
            target = self.devices.get(word[1:])
            if target is None:
                return self.reply_error("no device %s connected (%s)" % (word[1:], ", ".join(self.devices)))
            current, self.current = self.current, target
            try:
                return await self.console_line(rest)
            finally:
                self.current = current
        if word in ("help", "?"):
            print("subjects: " + " ".join(self.SUBJECTS) + "\n"
                  "  <subject>              send a request with sample content\n"
                  "  <subject> <json>       send a request with this content\n"
                  "  raw <text>             send text as it is\n"
                  "  close [code]           close the connection; drop: cut it\n"
                  "  {\"cmd\":...}            a machine-mode command (\"mac\" picks the device)\n"
                  "  @<mac> <line>          the same, to one device of several\n"
                  "  quit", flush=True)
        elif word == "raw":
            await self.send_text(rest)
        elif word == "close":
            await self.command({"cmd": "close", "code": int(rest or 1000)})
        elif word == "drop":
            await self.command({"cmd": "drop"})
        elif word in ("quit", "exit"):
            self.stop_event.set()
        else:
            try:
                content = json.loads(rest) if rest else self.sample_content(word)
            except ValueError as exc:
                self.reply_error("bad JSON content: %s" % exc)
                return
            except Exception as exc:
                self.reply_error("cannot make %s content: %s" % (word, exc))
                return
            await self.send_request(word, content)

    # ------------------------------------------------------------------ main
    def read_stdin(self, queue):
        stdin = sys.stdin.buffer
        while True:
            raw = stdin.readline()
            if not raw:
                break
            self.loop.call_soon_threadsafe(queue.put_nowait, raw.decode("utf-8", "replace"))
        self.loop.call_soon_threadsafe(queue.put_nowait, None)

    async def process_input(self, queue):
        while True:
            line = await queue.get()
            if line is None:
                self.stop_event.set()
                return
            if self.interactive:
                await self.console_line(line)
                continue
            if not line.strip():
                continue
            try:
                cmd = json.loads(line)
            except ValueError as exc:
                self.reply_error("bad JSON command: %s" % exc)
                continue
            try:
                await self.command(cmd)
            except Exception as exc:  # keep serving whatever a command did
                self.reply_error("command failed: %r" % exc,
                                 cmd.get("seq") if isinstance(cmd, dict) else None)

    async def main(self):
        self.loop = asyncio.get_running_loop()
        self.stop_event = asyncio.Event()
        self.send_lock = asyncio.Lock()
        context = None
        if not self.plain:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(self.cert, self.key)
            if self.ca:
                context.load_verify_locations(cafile=self.ca)
                context.verify_mode = ssl.CERT_OPTIONAL
        server = await websockets.serve(
            self.handler, self.host, self.port, ssl=context,
            create_protocol=AnyProtocol, max_size=None, compression=None,
            ping_interval=None, origins=None, close_timeout=3, process_request=self.admit)
        port = server.sockets[0].getsockname()[1]
        self.emit({"event": "listening", "port": port})
        queue = asyncio.Queue()
        threading.Thread(target=self.read_stdin, args=(queue,), daemon=True).start()
        input_task = asyncio.ensure_future(self.process_input(queue))
        await self.stop_event.wait()
        input_task.cancel()
        server.close()
        await server.wait_closed()


def main():
    parser = argparse.ArgumentParser(description="Local cloud messaging server")
    parser.add_argument("--host", default="127.0.0.1")
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--cert", help="server certificate (PEM)")
    parser.add_argument("--key", help="server private key (PEM)")
    parser.add_argument("--ca", help="CA (PEM) for optional client certificates")
    parser.add_argument("--plain", action="store_true", help="plain ws, no TLS")
    parser.add_argument("--interactive", action="store_true", help="console for people")
    parser.add_argument("--shed", metavar="N[:S]",
                        help="refuse upgrades past N a second with 503 and Retry-After: S (default 10)")
    parser.add_argument("--quiet", action="store_true", help="no message or sent events")
    parser.add_argument("--set", default="{}", metavar="JSON",
                        help='initial behaviour flags, e.g. \'{"auto_storage":true}\'')
    args = parser.parse_args()
    if not args.plain and not (args.cert and args.key):
        parser.error("--cert and --key are needed (or --plain)")
    code = 0
    try:
        flags = json.loads(args.set)
        if args.shed:
            n, _, seconds = args.shed.partition(":")
            flags["shed"] = [int(n), int(seconds or 10)]
        asyncio.run(Cloud(args.cert, args.key, args.ca, args.host, args.port, args.plain, args.interactive,
                          flags, quiet=args.quiet).main())
    except KeyboardInterrupt:
        pass
    except Exception as exc:  # bind failures and bad certificates end up here
        print("messaging_server: %s" % exc, file=sys.stderr)
        code = 1
    sys.stdout.flush()
    sys.stderr.flush()
    # The stdin reader thread may still be blocked in read(): leave without
    # waiting for it (a normal interpreter exit aborts on its buffer lock).
    os._exit(code)


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""The local cloud on its own, for a person: messaging server (interactive) and blob storage.

    /usr/bin/python3 tools/cloud/local_cloud.py [--port 8443] [--blob-port 10000] [--web [8080]]
                                                [--proxy [--proxy-auth user:password]] [--relay]
                                                [--server-cert KIND | --cert-name NAME]
                                                [--sas-lifetime S]

Certificates are made on first run in tools/cloud/state/certs. The values a host needs
(CloudConnect and ZEL_BLOB_DOMAIN) are printed, then the console reads subjects to send
("details", "status", "actions", "action", "update", "issueCertificate", ...; "help").
Storage requests and record-end transactions are answered automatically. With --web the
messaging server runs in this process and a browser console (web_console.py) watches it.
With --proxy, tinyproxy listens on loopback in front of both, and the proxy URI to use is
printed.

The messaging server presents server.pem (localhost and 127.0.0.1, signed by the local CA)
unless --server-cert picks another certificate of make_certs.sh: "chain" (signed by an
intermediate CA, served with it), "root2" (signed by a second root: ca_path must then be
roots.pem, which holds both), "other" (the local CA's, for other.example only); or
--cert-name NAME, a certificate of the local CA for NAME only. The blob emulator has a
certificate of its own (blob.pem). The pins of each are printed.

With --machine (for tools/demo.py) only the messaging server runs, in machine mode (JSON
lines, see messaging_server.py) with the browser console beside it, which fetches clips from
the blob storage already on --blob-port.

With --relay, the device reaches both services through fault_relay.py (on --port and
--blob-port; the services move to free ports behind it) and the console also takes
"link MODE [VALUE]" and "blob MODE [VALUE]" with MODE pass, blackhole, delay MS,
throttle BYTES_PER_S or reset, and "relay status".

With --sas-lifetime S, every storage reply carries a token of its own that the storage
accepts for S seconds only: a block upload (Upload::set_block_upload) that outlives its
token asks for a fresh one in the middle of the clip.
"""

import argparse
import asyncio
import json
import os
import subprocess
import sys
import threading
import types

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import fault_relay  # noqa: E402
from blob_storage import BlobStorage  # noqa: E402
from formats import describe_cert  # noqa: E402
from http_proxy import HttpProxy, free_port  # noqa: E402
from process import Process  # noqa: E402


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=8443)
    parser.add_argument("--blob-port", type=int, default=10000)
    parser.add_argument("--state", default=os.path.join(HERE, "state"))
    parser.add_argument("--recorder", action="append", default=[],
                        help="recorder MAC whose blob container to create (repeatable)")
    parser.add_argument("--web", type=int, nargs="?", const=8080, metavar="PORT",
                        help="also serve the browser console on http://127.0.0.1:PORT/ (8080; 0 picks one)")
    parser.add_argument("--proxy", action="store_true", help="start an HTTP proxy in front of both")
    parser.add_argument("--proxy-port", type=int, default=3128)
    parser.add_argument("--proxy-auth", metavar="USER:PASSWORD",
                        help="the proxy asks for Basic authentication")
    parser.add_argument("--sas-lifetime", type=int, default=0, metavar="S",
                        help="hand out storage tokens valid for S seconds (block mode asks again)")
    parser.add_argument("--relay", action="store_true",
                        help="put the fault relay in front of both services (console: link/blob MODE)")
    parser.add_argument("--server-cert", choices=["server", "chain", "root2", "other"], default="server",
                        help="the messaging server's certificate (see above)")
    parser.add_argument("--cert-name", metavar="NAME",
                        help="serve a certificate of the local CA for NAME only")
    parser.add_argument("--machine", action="store_true",
                        help="only the messaging server, in machine mode, with --web beside it (demo.py)")
    args = parser.parse_args()
    if args.proxy_auth and not args.proxy:
        parser.error("--proxy-auth needs --proxy")
    if args.relay and (args.web is not None or args.proxy):
        parser.error("--relay goes alone, without --web or --proxy")
    certs = os.path.join(args.state, "certs")
    subprocess.run(["bash", os.path.join(HERE, "make_certs.sh"), certs] +
                   (["--cert-name", args.cert_name] if args.cert_name else []), check=True)
    args.served = "name-" + args.cert_name if args.cert_name else args.server_cert
    args.ca_path = os.path.join(certs, "roots.pem" if args.served == "root2" else "ca.pem")
    if args.machine:
        # The storage belongs to the caller: the console only needs where it is and whom to trust.
        storage = types.SimpleNamespace(port=args.blob_port, ca=os.path.join(certs, "ca.pem"),
                                        certs=certs, stop=lambda: None) if args.blob_port else None
        return run_with_console(args, certs, {}, storage)
    storage = BlobStorage(certs, os.path.join(args.state, "blobs"), 0 if args.relay else args.blob_port)
    flags = {"auto_storage": True, "auto_ack": True, "storage_account": storage.account,
             "storage_token": storage.sas_token(), "storage_secret": "local-cloud-secret",
             "storage_sas_lifetime": args.sas_lifetime}
    if args.relay:
        return run_with_relay(args, certs, storage, flags)
    print("Local cloud is up. Point the host at it with:")
    print("  CloudConnect.server_uri = wss://127.0.0.1:%d/" % args.port)
    print("  CloudConnect.ca_path    = %s" % args.ca_path)
    print("  CloudConnect.cert_path  = %s" % os.path.join(certs, "client.pem"))
    print("  CloudConnect.key_path   = %s" % os.path.join(certs, "client.key"))
    print("  export ZEL_BLOB_DOMAIN=%s" % storage.blob_domain)
    print_certificates(certs, args.served)
    for mac in args.recorder or ["001122334455"]:
        storage.create_container(mac.lower())
        print("  blob container for recorder %s is ready" % mac.lower())
    proxy = None
    if args.proxy:
        try:
            proxy = HttpProxy(os.path.join(args.state, "proxy"), args.proxy_port, args.proxy_auth)
        except Exception:
            storage.stop()
            raise
        print("  HTTP proxy in front of both: %s" % proxy.uri)
        print("    zel::Upload::set_proxy(\"%s\"), or export https_proxy=%s" % (proxy.uri, proxy.uri))
        print("    its log (one CONNECT line per tunnel): %s" % proxy.log_path)
    sys.stdout.flush()
    if args.web is not None:
        run_with_console(args, certs, flags, storage)
    try:
        subprocess.run(["/usr/bin/python3", os.path.join(HERE, "messaging_server.py"), "--interactive",
                        "--port", str(args.port), "--cert", os.path.join(certs, args.served + ".pem"),
                        "--key", os.path.join(certs, args.served + ".key"), "--ca", os.path.join(certs, "ca.pem"),
                        "--set", json.dumps(flags)])
    except KeyboardInterrupt:
        pass
    finally:
        storage.stop()
        if proxy:
            proxy.stop()


def print_certificates(certs, served):
    """Which certificates the two services present, and the pins TlsPolicy takes."""
    print("  messaging server presents %s.pem: %s" % (served, describe_cert(os.path.join(certs, served + ".pem"))))
    print("  blob storage presents blob.pem: %s" % describe_cert(os.path.join(certs, "blob.pem")))
    for base, what in (("server", "server.pem"), ("inter", "the intermediate CA"), ("ca", "the local CA"),
                       ("blob", "blob.pem (storage_pinned_sha256)")):
        with open(os.path.join(certs, base + ".pin")) as f:
            print("  pin of %s: %s" % (what, f.read().strip()))


def run_with_console(args, certs, flags, storage):
    """The messaging server in this process, next to the console that watches it."""
    import web_console
    from messaging_server import Cloud
    console = web_console.Console(storage, None if args.machine else os.path.join(args.state, "web"))
    cloud = Cloud(os.path.join(certs, args.served + ".pem"), os.path.join(certs, args.served + ".key"),
                  os.path.join(certs, "ca.pem"), port=args.port, interactive=not args.machine, flags=flags,
                  on_event=console.observe)
    # Which certificates the device is shown (make_certs.sh made several).
    console.link["server_cert"] = describe_cert(cloud.cert)
    if storage is not None:
        console.link["blob_cert"] = describe_cert(os.path.join(storage.certs, "blob.pem"))
    code = 0
    try:
        asyncio.run(web_console.serve(console, cloud, args.web or 0))
    except KeyboardInterrupt:
        pass
    except Exception as exc:  # ports in use, bad certificates
        print("local_cloud: %s" % exc, file=sys.stderr)
        code = 1
    finally:
        if storage is not None:
            storage.stop()
    sys.stdout.flush()
    # Like messaging_server.py: the server's stdin reader may still sit in read().
    os._exit(code)


def run_with_relay(args, certs, storage, flags):
    """The same cloud behind the fault relay; the console feeds both."""
    server_port, server, relay = free_port(), None, None
    try:  # the relay listens on the asked ports, or on free ones for 0
        relay, ports = fault_relay.start(["link=%d:%d" % (server_port, args.port),
                                          "blob=%d:%d" % (storage.port, args.blob_port)])
        threading.Thread(target=lambda: [print("relay: " + json.dumps(e), flush=True)
                                         for e in iter(relay.events.get, {"event": "exit"})], daemon=True).start()
        print("Local cloud is up, behind the fault relay. Point the host at it with:")
        print("  CloudConnect.server_uri = wss://127.0.0.1:%d/" % ports["link"])
        print("  CloudConnect.ca_path    = %s" % args.ca_path)
        print("  CloudConnect.cert_path  = %s" % os.path.join(certs, "client.pem"))
        print("  CloudConnect.key_path   = %s" % os.path.join(certs, "client.key"))
        print("  export ZEL_BLOB_DOMAIN=.blob.localhost:%d" % ports["blob"])
        print_certificates(certs, args.served)
        for mac in args.recorder or ["001122334455"]:
            storage.create_container(mac.lower())
            print("  blob container for recorder %s is ready" % mac.lower())
        print("Console: a subject, or \"link|blob pass|blackhole|delay MS|throttle BYTES_PER_S|reset\", "
              "\"relay status\"", flush=True)
        server = Process(
            ["/usr/bin/python3", os.path.join(HERE, "messaging_server.py"), "--interactive",
             "--port", str(server_port), "--cert", os.path.join(certs, args.served + ".pem"),
             "--key", os.path.join(certs, args.served + ".key"), "--ca", os.path.join(certs, "ca.pem"),
             "--set", json.dumps(flags)])
        for line in sys.stdin:
            words = line.split()
            target = server
            if words and words[0] in ("link", "blob"):
                target = relay
            elif words[:2] == ["relay", "status"]:
                target, line = relay, "status"
            if not target.alive() or not target.send(line.rstrip("\n")):
                break
    except KeyboardInterrupt:
        pass
    finally:
        for proc in (server, relay):
            if proc is not None:
                proc.stop()
        storage.stop()


if __name__ == "__main__":
    main()

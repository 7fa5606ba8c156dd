"""Texts both sides of the local cloud read and write: ISO times on the wire, where a clip's
blob lies, and a served certificate in one line for the people at the console."""

import datetime
import subprocess


def describe_cert(path):
    """A served certificate in one line: "CN=localhost (DNS:localhost, IP:127.0.0.1) by CN=Local Cloud Test CA"."""
    out = subprocess.run(["openssl", "x509", "-in", path, "-noout", "-subject", "-issuer", "-ext",
                          "subjectAltName", "-nameopt", "compat"], capture_output=True, text=True)
    if out.returncode != 0:
        return "unreadable (%s)" % path
    lines = [line.strip() for line in out.stdout.splitlines()]
    field = lambda key: next((l.split("=", 1)[1] for l in lines if l.startswith(key + "=")), "?")
    names = next((lines[i + 1] for i, l in enumerate(lines) if l.startswith("X509v3 Subject Alt")), "")
    return "%s (%s) by %s" % (field("subject").lstrip("/"), names.replace("IP Address", "IP"),
                              field("issuer").lstrip("/"))


def now_iso():
    return datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def iso_to_epoch(text):
    """ISO 8601 time (Z, offset or naive = UTC; optional fraction) -> epoch seconds."""
    if not isinstance(text, str):
        raise ValueError("start_at is not a string")
    value = text.strip()
    if value.endswith(("Z", "z")):
        value = value[:-1] + "+00:00"
    moment = datetime.datetime.fromisoformat(value)
    if moment.tzinfo is None:
        moment = moment.replace(tzinfo=datetime.timezone.utc)
    seconds = moment.timestamp()
    return int(seconds) if seconds == int(seconds) else seconds


def blob_path(recorder, camera, start):
    """Where the device puts a clip: container (the recorder's MAC), camera, UTC day, start second."""
    day = datetime.datetime.fromtimestamp(start, datetime.timezone.utc).strftime("%Y-%m-%d")
    return "%s/%s/%s/%d.mp4" % (recorder, camera, day, start)

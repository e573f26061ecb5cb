#!/usr/bin/env python3
"""An independent client of the development backend, written with pyca/cryptography only.

It checks the sealed channel against a second implementation: X25519 key agreement, HKDF-SHA256
(salt = the KDF nonce, info = the additional data, 32 bytes) and AES-256-GCM in the combined form
(12-byte nonce || ciphertext || 16-byte tag), carried as the four-string JSON record. It signs in
with a code from the outbox and lists the groups.

Usage: python_client.py <path of the built backend>
Exits 0 when every check holds, 1 (with the reason on stderr) otherwise.
"""

import base64
import http.client
import json
import os
import selectors
import shutil
import socket
import subprocess
import sys
import tempfile
import time

from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric.x25519 import X25519PrivateKey, X25519PublicKey
from cryptography.hazmat.primitives.ciphers.aead import AESGCM
from cryptography.hazmat.primitives.kdf.hkdf import HKDF

BEGIN = "-----BEGIN PUBLIC KEY-----\n"
END = "\n-----END PUBLIC KEY-----"
ADDRESS = "python.client@example.org"


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def b64(data):
    return base64.b64encode(data).decode("ascii")


def unb64(text):
    return base64.b64decode(text.encode("ascii"), validate=True)


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def derive_key(shared, salt, info):
    return HKDF(algorithm=hashes.SHA256(), length=32, salt=salt, info=info).derive(shared)


class Channel:
    def __init__(self, private_key, peer_public_key):
        self.shared = private_key.exchange(peer_public_key)

    def seal(self, plaintext, additional_data):
        salt = os.urandom(32)
        nonce = os.urandom(12)
        key = derive_key(self.shared, salt, additional_data)
        combined = nonce + AESGCM(key).encrypt(nonce, plaintext, additional_data)
        # Key order as the backend writes it; the backend reads any order.
        return json.dumps(
            {
                "KDFNonce": b64(salt),
                "Ciphertext": b64(combined),
                "AEADNonce": b64(nonce),
                "AdditionalData": b64(additional_data),
            },
            separators=(",", ":"),
        ).encode("utf-8")

    def open(self, body):
        record = json.loads(body)
        check(
            list(record.keys()) == ["KDFNonce", "Ciphertext", "AEADNonce", "AdditionalData"],
            "reply record keys are %r" % list(record.keys()),
        )
        salt = unb64(record["KDFNonce"])
        additional_data = unb64(record["AdditionalData"])
        combined = unb64(record["Ciphertext"])
        check(len(salt) == 32, "reply salt is %d bytes" % len(salt))
        check(combined[:12] == unb64(record["AEADNonce"]), "box does not begin with the nonce")
        key = derive_key(self.shared, salt, additional_data)
        plaintext = AESGCM(key).decrypt(combined[:12], combined[12:], additional_data)
        return plaintext, additional_data


class Backend:
    def __init__(self, binary):
        self.private_key = X25519PrivateKey.generate()
        raw_public = self.private_key.public_key().public_bytes(
            serialization.Encoding.Raw, serialization.PublicFormat.Raw
        )
        self.token = b64(raw_public)
        self.port = free_port()
        self.state = tempfile.mkdtemp(prefix="kovrit-py-")
        env = dict(os.environ)
        env["KOVRIT_DEV_STATE"] = self.state
        env.pop("KOVRIT_DEV_FAULT", None)
        env.pop("KOVRIT_DEV_CODE", None)
        self.process = subprocess.Popen(
            [binary, "-token=" + self.token, "-port=%d" % self.port],
            stdout=subprocess.PIPE,
            stderr=sys.stderr,
            env=env,
        )
        self.output = b""
        self.channel = Channel(self.private_key, self.read_public_key())
        self.last_timestamp = None

    def read_public_key(self):
        selector = selectors.DefaultSelector()
        selector.register(self.process.stdout, selectors.EVENT_READ)
        deadline = time.monotonic() + 15
        fd = self.process.stdout.fileno()
        while time.monotonic() < deadline:
            text = self.output.decode("utf-8", "replace")
            start = text.find(BEGIN)
            if start >= 0:
                end = text.find(END, start + len(BEGIN))
                if end >= 0:
                    body = text[start + len(BEGIN) : end]
                    raw = unb64(body)
                    check(len(raw) == 32, "backend key is %d bytes" % len(raw))
                    return X25519PublicKey.from_public_bytes(raw)
            if selector.select(timeout=0.5):
                chunk = os.read(fd, 65536)
                if not chunk:
                    raise Failure("backend closed its output before printing a key")
                self.output += chunk
        raise Failure("no public key within 15 s; output so far: %r" % self.output)

    def wait_for_output(self, text, timeout=5):
        selector = selectors.DefaultSelector()
        selector.register(self.process.stdout, selectors.EVENT_READ)
        deadline = time.monotonic() + timeout
        while text not in self.output and time.monotonic() < deadline:
            if selector.select(timeout=0.2):
                chunk = os.read(self.process.stdout.fileno(), 65536)
                if not chunk:
                    break
                self.output += chunk
        return text in self.output

    def post_raw(self, body, headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        try:
            connection.request("POST", "/request", body=body, headers=headers)
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def headers(self, token=None):
        return {
            "Authorization": "Bearer " + (token if token is not None else self.token),
            "Content-Type": "application/json",
        }

    def post(self, type_, id_="", data=""):
        envelope = json.dumps({"Type": type_, "ID": id_, "Data": data}, separators=(",", ":"))
        now_ms = int(round(time.time() * 1000))
        body = self.channel.seal(envelope.encode("utf-8"), str(now_ms).encode("ascii"))
        status, reply = self.post_raw(body, self.headers())
        check(status == 200, "%s: HTTP status %d" % (type_, status))
        plaintext, additional_data = self.channel.open(reply)
        timestamp = int(additional_data.decode("ascii"))
        check(str(timestamp) == additional_data.decode("ascii"), "timestamp is not plain decimal")
        check(
            abs(timestamp - int(round(time.time() * 1000))) < 2000,
            "reply timestamp %d is far from this clock" % timestamp,
        )
        if self.last_timestamp is not None:
            check(
                timestamp > self.last_timestamp,
                "reply timestamp %d does not increase (last %d)" % (timestamp, self.last_timestamp),
            )
        self.last_timestamp = timestamp
        return json.loads(plaintext) if plaintext else None

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        shutil.rmtree(self.state, ignore_errors=True)


def run(binary):
    backend = Backend(binary)
    try:
        reply = backend.post("getGroups")
        check(
            reply == {"Type": "auth request", "ID": "", "Data": ""},
            "signed out getGroups answered %r" % reply,
        )
        print("ok: signed out, getGroups asks for authentication")

        reply = backend.post("requestCode", ADDRESS)
        check(reply == {"status": "success"}, "requestCode answered %r" % reply)
        with open(os.path.join(backend.state, "outbox", ADDRESS), encoding="utf-8") as f:
            code = f.read().strip()
        check(len(code) == 6 and code.isdigit(), "outbox holds %r" % code)
        line = ("sign-in code for %s: %s\n" % (ADDRESS, code)).encode()
        check(backend.wait_for_output(line), "no line %r on standard output" % line)
        print("ok: requestCode wrote a 6-digit code to the outbox")

        wrong = "000000" if code != "000000" else "111111"
        reply = backend.post("auth", ADDRESS, wrong)
        check(
            reply == {"status": "error", "error": "Invalid or expired code"},
            "wrong code answered %r" % reply,
        )
        reply = backend.post("auth", ADDRESS, code)
        check(reply == {"status": "success"}, "right code answered %r" % reply)
        print("ok: a wrong code is refused, the right one signs in")

        reply = backend.post("getGroups")
        check(isinstance(reply, list) and len(reply) == 2, "getGroups answered %r" % reply)
        check(
            [(g["GroupID"], g["Name"], g["WalkPaths"]) for g in reply]
            == [(1, "Personal", []), (2, "Family", [])],
            "groups are %r" % reply,
        )
        check(
            all(list(g.keys())[:3] == ["GroupID", "Name", "WalkPaths"] for g in reply),
            "group keys are out of order: %r" % reply,
        )
        print("ok: getGroups lists 1 Personal and 2 Family")

        reply = backend.post("ping")
        check(reply == {"Type": "ping", "ID": "", "Data": ""}, "ping answered %r" % reply)
        print("ok: ping without folders answers a ping message")

        # A record sealed for this channel but changed on the way does not open: 400.
        envelope = b'{"Type":"getGroups","ID":"","Data":""}'
        now = str(int(round(time.time() * 1000))).encode()
        record = json.loads(backend.channel.seal(envelope, now))
        box = bytearray(unb64(record["Ciphertext"]))
        box[20] ^= 0x01
        record["Ciphertext"] = b64(bytes(box))
        status, _ = backend.post_raw(json.dumps(record).encode(), backend.headers())
        check(status == 400, "tampered record got %d" % status)
        # The same record twice: the second is a replay.
        sealed = backend.channel.seal(envelope, str(int(round(time.time() * 1000))).encode())
        status, _ = backend.post_raw(sealed, backend.headers())
        check(status == 200, "fresh record got %d" % status)
        status, _ = backend.post_raw(sealed, backend.headers())
        check(status == 400, "replayed record got %d" % status)
        # Another client's key as bearer: 401.
        other = b64(os.urandom(32))
        status, _ = backend.post_raw(sealed, backend.headers(token=other))
        check(status == 401, "wrong bearer got %d" % status)
        print("ok: tampered 400, replayed 400, wrong bearer 401")
    finally:
        backend.close()


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    binary = sys.argv[1]
    if not os.access(binary, os.X_OK):
        print("FAIL: backend %s is missing or not executable" % binary, file=sys.stderr)
        return 1
    try:
        run(binary)
    except Failure as failure:
        print("FAIL: %s" % failure, file=sys.stderr)
        return 1
    print("PASS: independent client agrees with the backend")
    return 0


if __name__ == "__main__":
    sys.exit(main())

"""A password is in nothing that a host prints, logs, traces, reports, serves or shows to ps, however it logs in."""

import base64
import hashlib
import os
import socket
import subprocess
import time
import unittest
import urllib.parse
import urllib.request

import faulty_device
from programs import CREDENTIALS, LOST, OK, PASSWORD, REFUSED, USER, HostTest, command

TOLD_IN_URL = "top_secret"
GROWN = 1000  # bytes, of what a session tells at the least at the level of debugging
REALMS = ("zr_rtsp_device", "cam")
DIGEST = 'WWW-Authenticate: Digest realm="cam", nonce="{nonce}", qop="auth", algorithm='
HTTP_BASIC = "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=cam\r\n\r\n"


def secrets():
    """The password as it is, as URLs have it, with its user in Basic, and what stands for it in Digest."""
    yield PASSWORD
    yield urllib.parse.quote(PASSWORD, safe="")
    for password in (PASSWORD, faulty_device.PASSWORD):
        yield base64.b64encode(f"{USER}:{password}".encode()).decode()
        for realm in REALMS:
            for digest in (hashlib.md5, hashlib.sha256):
                yield digest(f"{USER}:{realm}:{password}".encode()).hexdigest()
    yield faulty_device.PASSWORD
    yield 'response="'
    yield TOLD_IN_URL


class SecretsTest(HostTest):
    def setUp(self):
        super().setUp()
        self.told = self.file("told")
        os.mkdir(self.told)
        self.secret = self.file("secret")
        with open(self.secret, "w", encoding="utf-8") as file:
            file.write(PASSWORD + "\n")
        os.chmod(self.secret, 0o600)
        certificate, key = self.file("camera.pem"), self.file("camera.key")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-keyout", key, "-out", certificate, "-subj", "/CN=camera", "-addext",
                        "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)
        self.trust = ("--ca", certificate)
        self.tls = ("--tls", certificate, key)

    def output(self, name):
        return os.path.join(self.told, name)

    def tell(self, expected, *arguments, shown=False, during=None, environment=None):
        """Everything that it can tell goes into the folder. @param shown  the user himself shows the password"""
        line = command(*arguments, "--log-level", "debug", "--log-file", self.output("log"), "--trace-file",
                       self.output("trace"))
        seen = ""
        with open(self.output("out"), "a+b") as out:
            process = subprocess.Popen(line, stdout=out, stderr=out, env={**os.environ, **(environment or {})})
            self.addCleanup(process.kill)
            while process.poll() is None:
                if not shown:
                    with open(f"/proc/{process.pid}/cmdline", encoding="utf-8", errors="replace") as shown_by_ps:
                        seen += shown_by_ps.read()
                during = during and during()  # what it has still to do
                time.sleep(0.05)
            out.seek(0)
            self.assertEqual(process.returncode, expected, out.read().decode())
        with open(self.output("ps"), "a", encoding="utf-8") as file:
            file.write(seen)

    def check(self):
        for name in ("log", "trace", "out"):
            self.assertGreater(os.path.getsize(self.output(name)), GROWN, name)
        for name in os.listdir(self.told):
            with open(self.output(name), "rb") as file:
                text = file.read()
            for secret in secrets():
                at = text.find(secret.encode())
                self.assertEqual(at, -1, f"{name}: {text[max(at - 200, 0):at + 80]!r}")

    def test_devices(self):
        known = ("--user", USER, "--password", PASSWORD, "--vod-length", "2")
        login = ("--user", USER, "--password-file", self.secret)
        digest, basic = self.device(*known), self.device(*known, *self.tls, "--auth", "basic")
        for device, how in ((digest, ()), (digest, ("--http", "--json")), (basic, self.trust),
                            (basic, (*self.trust, "--http"))):
            for tag in ("onvif", "plain"):
                self.tell(OK, "play", device.url("live"), *login, "--tcp", "--duration", "0.3", "--tag", tag, *how,
                          "--record", self.output("kept.mkv"), "--force")
        self.tell(OK, "check", basic.url("vod"), *login, *self.trust, "--report", self.output("page.html"))
        self.tell(OK, "describe", digest.url("vod"), "--user", USER, environment={"ZR_RTSP_PASSWORD": PASSWORD})
        cameras = self.file("cameras.toml")
        with open(cameras, "w", encoding="utf-8") as file:
            file.write(f'[door]\nurl = "{digest.url("vod")}"\nuser = "{USER}"\npassword-file = "{self.secret}"\n')
        for ask in (("play", "door", "--duration", "0.3"), ("cameras", "--json")):
            self.tell(OK, *ask, "--cameras", cameras)
        inside = f"rtsp://{USER}:{urllib.parse.quote(PASSWORD, safe='')}@"
        self.tell(OK, "play", digest.url("live").replace("rtsp://", inside), "--duration", "0.3", shown=True)
        self.check()

    def test_watch(self):
        device = self.device("--user", USER, "--password", PASSWORD)
        inside = f"rtsp://{USER}:{urllib.parse.quote(PASSWORD, safe='')}@"
        listed = self.file("list")
        with open(listed, "w", encoding="utf-8") as file:
            for url in (device.url("live"), device.url("missing"), "rtsp://127.0.0.1:1/"):
                file.write(url.replace("rtsp://", inside) + "\n")
        os.chmod(listed, 0o600)
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]

        def fetch():
            try:
                with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=20) as answer:
                    told = answer.read()
            except OSError:
                return fetch  # it does not serve yet
            with open(self.output("metrics"), "wb") as file:
                file.write(told)
            return None if b'/missing"} 0' in told else fetch

        self.tell(LOST, "watch", listed, "--json", "--metrics", str(port), "--duration", "3", during=fetch)
        self.assertGreater(os.path.getsize(self.output("metrics")), GROWN)
        self.check()

    def test_refusals(self):
        """What fails tells why, and with whose account."""
        login = ("--user", USER, "--password", faulty_device.PASSWORD)
        for auth in ({"takes": "nothing", "lines": [DIGEST + "SHA-256"]}, {"takes": "SHA-256", "lines": [DIGEST + "SHA-256"]},
                     {"once": True, "lines": [DIGEST + "MD5"]}, {"takes": "Basic", "lines": ["WWW-Authenticate: Basic realm=cam"]}):
            for tag in ("onvif", "plain"):
                device = faulty_device.Device({"auth": auth})
                self.addCleanup(device.close)
                self.tell(CREDENTIALS if auth.get("takes") == "nothing" else OK, "play",
                          f"rtsp://127.0.0.1:{device.port}/s", *login, "--tcp", "--duration", "0.2", "--tag", tag, shown=True)
        device = faulty_device.Device({"GET": {"answer": HTTP_BASIC, "end": "close"}})
        self.addCleanup(device.close)
        self.tell(CREDENTIALS, "play", f"rtsp://127.0.0.1:{device.port}/s", *login, "--http", shown=True)
        self.check()

    def test_repeated(self):
        """A server may repeat what it was told, and a URL may hold a password of its own."""
        password, query = faulty_device.PASSWORD, "password=" + TOLD_IN_URL
        basic = base64.b64encode(f"{USER}:{password}".encode()).decode()
        login = ("--user", USER, "--password", password)
        repeated = f"{basic} {USER}:{password}"
        body = f"v=0\r\ns={repeated}\r\nt=0 0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n"
        device = faulty_device.Device({"DESCRIBE": {"body": body}, "SETUP": {"status": f"400 Bad {repeated}"}})
        self.addCleanup(device.close)
        for number, path in enumerate((f"s?user=a&{query}", f"user=a_{query}_channel=1.sdp")):
            url, listed = f"rtsp://127.0.0.1:{device.port}/{path}", self.file("list")
            with open(listed, "w", encoding="utf-8") as file:
                file.write(url + "\n")
            for form in ((), ("--json",)):
                self.tell(OK, "describe", url, *login, *form, shown=True)
                self.tell(REFUSED, "play", url, *login, *form, "--tcp", shown=True)
                self.tell(LOST, "watch", listed, *login, *form, "--duration", "0.3", shown=True)
            self.tell(REFUSED, "check", url, *login, "--report", self.output(f"page{number}.html"), shown=True)
        self.check()
        self.assertIn(repeated, self.run_host(OK, "describe", url, *login, "--sdp").out)  # as it came


if __name__ == "__main__":
    unittest.main()

"""What goes wrong is told: an exit code for scripts, and words for people."""

import socket
import subprocess
import threading
import time
import unittest

from programs import (CREDENTIALS, NO_MEDIA, OK, OUTPUT, PASSWORD, REFUSED, UNREACHABLE, USAGE, USER, Device, HostTest,
                      command)


class ScriptedServer:
    """Answers each request of one connection by a function from method, CSeq and headers to bytes."""

    def __init__(self, answer):
        self.answer = answer
        self.methods = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = f"rtsp://127.0.0.1:{self.listener.getsockname()[1]}/stream"
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        try:
            connection, _ = self.listener.accept()
        except OSError:
            return
        with connection, connection.makefile("rb") as lines:
            method, headers = None, {}
            for line in lines:
                words = line.split()
                if not words and method:
                    self.methods.append(method)
                    connection.sendall(self.answer(method, headers.get("cseq"), headers))
                    method, headers = None, {}
                elif words and method is None:
                    method = words[0].decode()
                elif words:
                    name, _, value = line.decode().partition(":")
                    headers[name.strip().lower()] = value.strip()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join(10)


def described(cseq, sdp):
    return (f"RTSP/1.0 200 OK\r\nCSeq: {cseq}\r\nContent-Type: application/sdp\r\n"
            f"Content-Length: {len(sdp)}\r\n\r\n{sdp}").encode()


class FailuresTest(HostTest):
    def scripted(self, answer):
        server = ScriptedServer(answer)
        self.addCleanup(server.close)
        return server

    def failure(self, code, text, *arguments):
        result = self.run_host(code, *arguments)
        self.assertIn(text, result.err)
        return result

    def test_credentials(self):
        for method in ("basic", "digest"):
            device = self.device("--user", USER, "--password", PASSWORD, "--auth", method)
            with self.subTest(method=method):
                self.failure(CREDENTIALS, "refused the user name or the password", "play", device.url("live"), "--user",
                             USER, "--password", "wrong")
                self.failure(CREDENTIALS, "asks for credentials", "describe", device.url("live"))
                self.failure(CREDENTIALS, "asks for credentials", "play", device.url("live"), "--tag", "plain")

    def test_unreachable(self):
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        url = f"rtsp://127.0.0.1:{port}/live"
        self.failure(UNREACHABLE, "cannot be reached", "play", url)
        begin = time.monotonic()
        with subprocess.Popen(command("play", url), stderr=subprocess.PIPE, text=True) as run:
            self.assertIn("cannot be reached", run.stderr.readline())
            # not the 25 s of a lost answer; what a sanitizer does at the end does not count
            self.assertLess(time.monotonic() - begin, 5)

    def test_refused(self):
        device = self.device()
        self.failure(REFUSED, "no such stream", "describe", device.url("nothing"))
        # the path would be taken for the tail that carries credentials, were it not escaped
        self.failure(REFUSED, "no such stream", "describe", device.url("auth/username=/password="))

    def test_nothing_arrives(self):
        sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track\r\n"

        def answer(method, cseq, _):
            if method == "DESCRIBE":
                return described(cseq, sdp)
            return (f"RTSP/1.0 200 OK\r\nCSeq: {cseq}\r\nSession: 1\r\n"
                    "Transport: RTP/AVP;unicast;client_port=1-2;server_port=3-4\r\n\r\n").encode()

        server = self.scripted(answer)
        self.failure(NO_MEDIA, "no media arrived", "play", server.url, "--udp")
        course = [method for method in server.methods if method not in ("OPTIONS", "GET_PARAMETER", "SET_PARAMETER")]
        self.assertEqual(course, ["DESCRIBE", "SETUP", "PLAY", "TEARDOWN"])

    def test_hostile_description(self):
        sdp = "v=0\r\ns=\x1b]0;owned\x07\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264\x1b[2J/90000\r\na=control:t\r\n"
        result = self.run_host(OK, "describe", self.scripted(lambda _, cseq, __: described(cseq, sdp)).url)
        self.assertIn("owned", result.out)
        self.assertNotIn("\x1b", result.out)

    def test_usage_and_output(self):
        for arguments in ((), ("play",), ("play", "http://127.0.0.1/"), ("play", "rtsp://127.0.0.1:99999/"),
                          ("play", "rtsp://127.0.0.1/", "--speed", "3"), ("play", "rtsp://127.0.0.1/", "--tcp", "--udp"),
                          ("play", "rtsp://127.0.0.1/", "--record", self.file("no/such/folder/x.mkv"))):
            with self.subTest(arguments=arguments):
                self.failure(USAGE, "reading the command line failed", *arguments)
        self.failure(OUTPUT, "could not be written", "play", self.device().url("video"), "--duration", "1",
                     "--snapshot", self.folder)

    def test_device_says_why_it_cannot_serve(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            with self.assertRaisesRegex(RuntimeError, "did not start"):
                Device("--port", str(taken.getsockname()[1]), "--vod-length", "2")


if __name__ == "__main__":
    unittest.main()

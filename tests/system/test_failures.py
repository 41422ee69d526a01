"""What goes wrong is told: an exit code for scripts, and words for people."""

import socket
import time
import unittest

from programs import CREDENTIALS, OUTPUT, PASSWORD, REFUSED, UNREACHABLE, USAGE, USER, Device, HostTest


class FailuresTest(HostTest):
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
        begin = time.monotonic()
        process = self.start("play", f"rtsp://127.0.0.1:{port}/live")
        self.assertIn("cannot be reached", process.stderr.readline())
        # not the 25 s of a lost answer; what a sanitizer does at the end does not count
        self.assertLess(time.monotonic() - begin, 5)
        self.assertEqual(process.wait(20), UNREACHABLE)

    def test_refused(self):
        device = self.device()
        self.failure(REFUSED, "no such stream", "describe", device.url("nothing"))
        # the path would be taken for the tail that carries credentials, were it not escaped
        self.failure(REFUSED, "no such stream", "describe", device.url("auth/username=/password="))

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

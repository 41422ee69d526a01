"""Recordings are fetched whole, and relayed to a TV wall."""

import signal
import struct
import unittest

from programs import INTERRUPTED, LOST, OK, REFUSED, HostTest
from test_failures import ScriptedServer, described


class DownloadTest(HostTest):
    def test_download(self):
        device = self.device("--vod-length", "12")
        recording = self.file("r.mkv")
        for seconds, options in ((4, ("--from", "3", "--to", "7", "--udp")), (12, ("--speed", "1"))):
            with self.subTest(options=options):
                result = self.run_host(OK, "download", device.url("vod"), recording, "--force", *options)
                self.assertIn("the end was reached", result.out)
                self.check_recording(recording, seconds, "video/x-h264", "audio/x-alaw")

    def test_what_is_not_whole_is_no_success(self):
        for end, code in ((lambda device, process: device.kill(), LOST),
                          (lambda device, process: process.send_signal(signal.SIGINT), INTERRUPTED)):
            device = self.device("--vod-length", "12")
            process = self.start("download", device.url("vod"), self.file("r.mkv"), "--force")
            with self.subTest(code=code):
                self.assertTrue(any(line.startswith("media arrives") for line in process.stdout))
                end(device, process)
                rest = process.stdout.read()
                self.assertEqual(process.wait(20), code)
                self.assertNotIn("downloaded", rest)


class ServerTest(HostTest):
    SDP = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track\r\n"

    def scripted(self, location="", after_play=b""):
        """A server that sends three packets after PLAY and after each TEARDOWN; and the requests that it will have got."""
        requests = []

        def answer(method, cseq, headers):
            requests.append((method, headers.get("transport", ""), headers.get("session", "")))
            if method == "DESCRIBE":
                return described(cseq, self.SDP).replace(b"\r\n", location.encode() + b"\r\n", 1)
            transport = headers.get("transport", "") + ";source=127.0.0.1;server_port=7000-7001"
            text = f"RTSP/1.0 200 OK\r\nCSeq: {cseq}\r\nSession: 1\r\nTransport: {transport}\r\n\r\n"
            first = 3 * [request[0] for request in requests].count("TEARDOWN")
            packets = [struct.pack(">cBHBBHII", b"$", 0, 13, 0x80, 96, first + n, 0, 1) + b"\x01" for n in range(3)]
            media = b"".join(packets) if method in ("PLAY", "TEARDOWN") else b""
            return text.encode() + media + (after_play if method == "PLAY" else b"")

        server = ScriptedServer(answer)
        self.addCleanup(server.close)
        return server.url, requests

    def relay(self, code, location, *options):
        url, requests = self.scripted(location)
        result = self.run_host(code, "tv", url, "--to", "127.0.0.9:6000", "--tcp", *options)
        return result, [request for request in requests if request[0] in ("SETUP", "PLAY", "TEARDOWN")]

    def test_relation(self):
        result, requests = self.relay(OK, "\r\nContent-Location: relay", "--duration", "0.5")
        self.assertIn("received 6 packets, ", result.out)  # it plays on after the relation
        self.assertEqual([method for method, _, _ in requests], ["SETUP", "PLAY", "SETUP", "TEARDOWN", "TEARDOWN"])
        self.assertEqual(requests[2][1:], ("RTP/AVP/TCP;unicast;destination=127.0.0.9;client_port=6000-6001", "1"))

    def test_no_relation_is_told(self):
        result, requests = self.relay(REFUSED, "")
        self.assertIn("offers no relation to a TV wall", result.err)
        self.assertEqual([method for method, _, _ in requests], ["SETUP", "PLAY", "TEARDOWN"])

    def test_announcements_are_told(self):
        for notice, exit_code, text in ((2101, OK, "the server ended the session (101, end of stream)"),
                                        (5402, LOST, "the server ended the session (102, "),
                                        (4400, LOST, "the server ended the session (100)")):
            announce = f"ANNOUNCE * RTSP/1.0\r\nCSeq: 7\r\nSession: 1\r\nNotice: {notice}\r\n\r\n"
            with self.subTest(notice=notice):
                url, _ = self.scripted(after_play=announce.encode())
                self.assertIn(text, self.run_host(exit_code, "play", url, "--tcp").out)


if __name__ == "__main__":
    unittest.main()

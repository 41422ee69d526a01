"""Recordings are fetched whole, and relayed to a TV wall."""

import signal
import struct
import unittest

from programs import INTERRUPTED, LOST, NO_MEDIA, OK, REFUSED, HostTest
from test_failures import ScriptedServer, described


class DownloadTest(HostTest):
    def test_download(self):
        device = self.device("--vod-length", "12")
        recording = self.file("r.mkv")
        for seconds, options in ((4, ("--from", "3", "--to", "7", "--udp")), (12, ("--speed", "1"))):
            with self.subTest(options=options):
                result = self.run_host(OK, "download", device.url("vod"), recording, *options)
                self.assertIn("the end was reached", result.out)
                self.check_recording(recording, seconds, "video/x-h264", "audio/x-alaw")

    def test_what_is_not_whole_is_no_success(self):
        for end, code in ((lambda device, process: device.kill(), LOST),
                          (lambda device, process: process.send_signal(signal.SIGINT), INTERRUPTED)):
            device = self.device("--vod-length", "12")
            process = self.start("download", device.url("vod"), self.file("r.mkv"))
            with self.subTest(code=code):
                self.assertTrue(any(line.startswith("media arrives") for line in process.stdout))
                end(device, process)
                rest = process.stdout.read()
                self.assertEqual(process.wait(20), code)
                self.assertNotIn("downloaded", rest)


class RelationTest(HostTest):
    SDP = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track\r\n"

    def relay(self, code, location, *options):
        requests = []

        def answer(method, cseq, headers):
            requests.append((method, headers.get("transport", ""), headers.get("session", "")))
            if method == "DESCRIBE":
                return described(cseq, self.SDP).replace(b"\r\n", location.encode() + b"\r\n", 1)
            transport = headers.get("transport", "") + ";source=127.0.0.1;server_port=7000-7001"
            text = f"RTSP/1.0 200 OK\r\nCSeq: {cseq}\r\nSession: 1\r\nTransport: {transport}\r\n\r\n"
            packets = [struct.pack(">cBHBBHII", b"$", 0, 13, 0x80, 96, number, 0, 1) + b"\x01" for number in range(3)]
            return text.encode() + b"".join(packets if method == "PLAY" else [])

        server = ScriptedServer(answer)
        self.addCleanup(server.close)
        result = self.run_host(code, "tv", server.url, "--to", "127.0.0.9:6000", "--tcp", *options)
        return result, [request for request in requests if request[0] in ("SETUP", "PLAY", "TEARDOWN")]

    def test_relation(self):
        _, requests = self.relay(OK, "\r\nContent-Location: relay", "--duration", "0.5")
        self.assertEqual([method for method, _, _ in requests], ["SETUP", "PLAY", "SETUP", "TEARDOWN", "TEARDOWN"])
        self.assertEqual(requests[2][1:], ("RTP/AVP/TCP;unicast;destination=127.0.0.9;client_port=6000-6001", "1"))

    def test_no_relation_is_told(self):
        result, requests = self.relay(REFUSED, "")
        self.assertIn("offers no relation to a TV wall", result.err)
        self.assertEqual([method for method, _, _ in requests], ["SETUP", "PLAY", "TEARDOWN"])


if __name__ == "__main__":
    unittest.main()

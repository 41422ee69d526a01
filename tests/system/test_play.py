"""The host plays every mount of the device, over both transports, with and without authentication."""

import json
import struct
import unittest

from faulty_device import Device as FaultyDevice
from programs import OK, PASSWORD, UNREACHABLE, USER, HostTest

SDP = """v=0
m=audio 0 RTP/AVP 0
a=control:sound
m=application 0 RTP/AVP 98
a=rtpmap:98 vnd.onvif.metadata/90000
a=control:metadata
"""


class PlayTest(HostTest):
    def play(self, device, mount, transport, *options):
        picture = self.file("picture.png")
        result = self.run_host(OK, "play", device.url(mount), transport, "--duration", "1.5", "--snapshot", picture, "--force",
                               *options)
        self.check_picture(picture)
        self.assertIn(f"set up video over {transport[2:].upper()}", result.out)
        self.assertRegex(result.out, r"received [1-9]\d+ packets, .* lost 0\n")
        self.assertEqual("set up audio" in result.out, mount != "video")
        return result

    def test_everybody_may_come_in(self):
        device = self.device()
        for mount, transport in (("live", "--udp"), ("live", "--tcp"), ("video", "--udp"), ("video", "--tcp"),
                                 ("vod", "--udp"), ("vod", "--tcp")):
            with self.subTest(mount=mount, transport=transport):
                self.play(device, mount, transport)
        with self.subTest("a source that is not ONVIF"):
            self.play(device, "live", "--udp", "--tag", "plain")

    def test_authentication(self):
        for method in ("basic", "digest"):
            device = self.device("--user", USER, "--password", PASSWORD, "--auth", method)
            for mount, transport in (("live", "--tcp"), ("vod", "--udp")):
                with self.subTest(method=method, mount=mount, transport=transport):
                    self.play(device, mount, transport, "--user", USER, "--password", PASSWORD)

    def test_credentials_in_the_url(self):
        device = self.device("--user", "a", "--password", "p@ss")
        url = device.url("video").replace("rtsp://", "rtsp://a:p%40ss@")
        result = self.run_host(OK, "play", url, "--duration", "0.5")
        self.assertNotIn("p@ss", result.out + result.err)
        self.assertNotIn("p%40ss", result.out + result.err)

    def test_tunnel(self):
        device, wire = self.device("--user", USER, "--password", PASSWORD), self.file("wire.txt")
        for mount, tag in (("live", "onvif"), ("vod", "plain")):
            with self.subTest(mount=mount):
                self.play(device, mount, "--tcp", "--http", "--user", USER, "--password", PASSWORD, "--tag", tag,
                          "--trace-file", wire)
        with open(wire, encoding="utf-8") as traced:
            self.assertRegex(traced.read(), r"(?s) > GET /live HTTP/1.0\n.* < HTTP/1.0 200 .*closed: from here\n"
                                            r".* > POST /vod HTTP/1.0\n.* > DESCRIBE rtsp:.*interleaved frames received.*"
                                            r" > TEARDOWN .* < RTSP/1.0 200 ")
        self.assertRegex(self.run_host(UNREACHABLE, "play", device.url("live"), "--http-one").err,
                         r"POST on the GET's connection: 400 .*\n.*try: .* --http where it was --http-one")

    def test_recording(self):
        device = self.device()
        for mount, transport, audio in (("live", "--udp", "audio/x-mulaw"), ("live", "--tcp", "audio/x-mulaw"),
                                        ("vod", "--tcp", "audio/x-alaw")):
            with self.subTest(mount=mount, transport=transport):
                recording = self.file(f"{mount}{transport}.mkv")
                result = self.run_host(OK, "play", device.url(mount), transport, "--duration", "4", "--record", recording,
                                       "--metadata")
                self.assertIn("warning: metadata is left out", result.err)  # there is none
                self.check_recording(recording, 4, "video/x-h264", audio, "width=(int)640")

    def test_metadata(self):
        sound = "".join(f"<<rtp pt=0 seq={n} ts={160 * n} size=172>>" for n in range(50))
        pieces = [struct.pack(">BBHII", 0x80, 98 | last << 7, n, 90000, 9) + text
                  for n, (last, text) in enumerate(((0, b"<tt:MetadataStream>"), (1, b"a\"b</tt:MetadataStream>")))]
        metadata = "".join((struct.pack(">cBH", b"$", 2, len(piece)) + piece).decode("latin-1") for piece in pieces)
        answer = {"after": sound + metadata}
        without_rate = SDP.replace("vnd.onvif.metadata/90000", "VND.ONVIF.Metadata")
        for name, options, plays, sdp in (("tcp", ["--tcp"], [answer], without_rate),
                                          ("from silent UDP to tcp", [], [{}, answer], SDP)):
            with self.subTest(name):
                device = FaultyDevice({"DESCRIBE": {"body": sdp}, "media": [], "PLAY": plays})
                self.addCleanup(device.close)
                recording = self.file(name + ".mkv")
                self.run_host(OK, "play", f"rtsp://127.0.0.1:{device.port}/a", *options, "--tag", "plain", "--record",
                              recording, "--metadata", "--duration", "0.5")
                self.check_recording(recording, 1, "audio/x-mulaw")
                with open(self.file(name + ".metadata.jsonl"), encoding="utf-8") as file:
                    documents = [json.loads(line)["xml"] for line in file]
                self.assertEqual(documents, ['<tt:MetadataStream>a"b</tt:MetadataStream>'])


if __name__ == "__main__":
    unittest.main()

"""What a session puts on the wire when nothing is ordered beside it, byte by byte: devices have got used to it."""

import re
import unittest

from faulty_device import Device
from programs import OK, HostTest, host

SDP = ("v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n"
       "m=audio 0 RTP/AVP 0\r\na=control:audio\r\n")
AGENT = "User-Agent: zr_rtsp/{version}"
DESCRIBE = ["DESCRIBE {url} RTSP/1.0", "CSeq: {n}", AGENT, "Accept: application/sdp"]
SETUP_VIDEO = ["SETUP {url}/video RTSP/1.0", "CSeq: {n}", AGENT, "Transport: {video}"]
SETUP_AUDIO = ["SETUP {url}/audio RTSP/1.0", "CSeq: {n}", AGENT, "Session: 4711", "Transport: {audio}"]
PLAY_FROM = ["PLAY {url} RTSP/1.0", "CSeq: {n}", AGENT, "Session: 4711", "{scale}", "Range: npt=5-50"]
PAUSE = ["PAUSE {url} RTSP/1.0", "CSeq: {n}", AGENT, "Session: 4711"]
PLAY_ON = ["PLAY {url} RTSP/1.0", "CSeq: {n}", AGENT, "Session: 4711", "{scale}"]
OPTIONS = ["OPTIONS {url} RTSP/1.0", "CSeq: {n}", AGENT, "Session: 4711"]
TEARDOWN = ["TEARDOWN {url} RTSP/1.0", "CSeq: {n}", AGENT, "Session: 4711"]
SESSION = [DESCRIBE, SETUP_VIDEO, SETUP_AUDIO, PLAY_FROM, PAUSE, PLAY_ON, TEARDOWN]


class WireTest(HostTest):
    def test_bytes(self):
        version = host("--version").out.split()[-1]
        interleaved = {"video": "RTP/AVP/TCP;unicast;interleaved=0-1", "audio": "RTP/AVP/TCP;unicast;interleaved=2-3"}
        for options, transports, scale in ((("--tcp",), interleaved, ""), (("--udp",), None, ""),
                                           (("--tcp", "--tag", "plain"), interleaved, "Scale: 1.0")):
            with self.subTest(options=options):
                device = Device({"DESCRIBE": {"body": SDP}})
                self.addCleanup(device.close)
                url = f"rtsp://127.0.0.1:{device.port}/stream"
                self.run_host(OK, "play", url, *options, "--from", "5", "--to", "50", "--pause-at", "0.3", "--pause-for",
                              "0.2", "--duration", "0.8")
                if transports is None:
                    port = int(re.search(r"client_port=(\d+)", device.heads[1])[1])
                    transports = {track: f"RTP/AVP;unicast;client_port={port + 2 * n}-{port + 2 * n + 1}"
                                  for n, track in enumerate(("video", "audio"))}
                # signs of life have their own times
                session = iter(SESSION)
                wanted = [OPTIONS if method == "OPTIONS" else next(session, TEARDOWN) for method in device.asked]
                self.assertIsNone(next(session, None))
                for number, (lines, head) in enumerate(zip(wanted, device.heads), 1):
                    given = {"url": url, "n": number, "version": version, "scale": scale, **transports}
                    filled = [line.format(**given) for line in lines]
                    self.assertEqual(head, "\r\n".join(line for line in filled if line))


if __name__ == "__main__":
    unittest.main()

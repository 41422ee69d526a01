"""The course of a session: its events, seeking, pausing, and its end."""

import signal
import socket
import subprocess
import time
import unittest

from PIL import Image, ImageChops

from programs import INTERRUPTED, OK, HostTest


class SessionTest(HostTest):
    def test_events(self):
        device = self.device()
        result = self.run_host(OK, "play", device.url("live"), "--json", "--pause-at", "0.5", "--pause-for", "0.5",
                               "--duration", "1.5")
        events = result.events()
        names = [event["event"] for event in events if event["event"] != "progress"]
        self.assertEqual(names, ["described", "set_up", "set_up", "playing", "media", "paused", "playing", "received",
                                 "ended"])
        self.assertEqual([event["media"] for event in events if event["event"] == "set_up"], ["video", "audio"])
        received = next(event for event in events if event["event"] == "received")
        self.assertGreater(received["packets"], 30)
        self.assertAlmostEqual(received["seconds"], 1.5, delta=0.7)

        tracks = [event for event in self.run_host(OK, "describe", device.url("vod"), "--json").events()
                  if event["event"] == "track"]
        self.assertEqual([track["codec"] for track in tracks], ["H264", "PCMA"])

    def test_seek(self):
        device = self.device()
        recording = self.file("part.mkv")
        result = self.run_host(OK, "play", device.url("vod"), "--tcp", "--from", "5", "--to", "8", "--record", recording,
                               "--snapshot", self.file("5.png"))
        self.assertIn("the recording ended", result.out)
        self.check_recording(recording, 3, "video/x-h264")
        self.run_host(OK, "play", device.url("vod"), "--tcp", "--duration", "0.5", "--snapshot", self.file("0.png"))
        with Image.open(self.file("5.png")) as late, Image.open(self.file("0.png")) as early:
            # above the bars stands the recording's time
            parts = [image.convert("RGB").crop((0, 0, 640, 80)) for image in (late, early)]
        difference = ImageChops.difference(*parts).getextrema()
        self.assertGreater(max(high for _, high in difference), 100)

    def test_interrupt_tears_down(self):
        process = self.start("play", self.device().url("live"))
        for line in process.stdout:
            if line.startswith("media arrives"):
                break
        process.send_signal(signal.SIGINT)
        rest = process.stdout.read()
        self.assertEqual(process.wait(20), OK)
        self.assertIn("ended the session", rest)

    def test_second_interrupt_ends_a_request(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            process = self.start("describe", f"rtsp://127.0.0.1:{silent.getsockname()[1]}/")
            connection, _ = silent.accept()
            with connection:
                connection.recv(4096)
                process.send_signal(signal.SIGINT)
                with self.assertRaises(subprocess.TimeoutExpired):
                    process.wait(0.5)
                process.send_signal(signal.SIGINT)
                begin = time.monotonic()
                self.assertEqual(process.wait(20), INTERRUPTED)
                self.assertLess(time.monotonic() - begin, 5)


if __name__ == "__main__":
    unittest.main()

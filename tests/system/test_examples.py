"""The examples do what their first line says."""

import os
import subprocess
import unittest

from programs import HOST, HostTest


class ExamplesTest(HostTest):
    def start_example(self, name, device, mount, *arguments):
        program = os.path.join(os.path.dirname(HOST), f"example_{name}")
        return self.start_program([program, "127.0.0.1", device.port(), f"/{mount}", *arguments], subprocess.STDOUT)

    def ended(self, process):
        out = process.communicate(timeout=60)[0]
        self.assertEqual(process.returncode, 0, out)
        return out

    def test_play(self):
        out = self.ended(self.start_example("play", self.device(), "vod", self.file("p.png")))
        self.check_picture(self.file("p.png"))
        self.assertRegex(out, r"played: \d+ packets, 0 lost\npaused: \d+ packets")

    def test_download(self):
        self.ended(self.start_example("download", self.device(), "vod", "2", "6", self.file("o.mkv")))
        self.check_recording(self.file("o.mkv"), 4, "video/x-h264")

    def test_reconnect(self):
        device = self.device()
        process = self.start_example("reconnect", device, "live", "4")
        self.assertEqual(process.stdout.readline(), "playing\n")
        device.kill()
        self.assertTrue(any("once more" in line for line in process.stdout))
        self.device("--port", device.port())
        self.assertIn("playing", self.ended(process))

    def test_readme(self):
        """The program in README.md."""
        device = self.device()
        program = os.path.join(os.path.dirname(HOST), "example_readme")
        url = f"rtsp://127.0.0.1:{device.port()}/live"
        out = self.ended(self.start_program([program, url, "127.0.0.1", device.port()], subprocess.STDOUT))
        self.assertIn("playing: 0\n", out)

    def test_host_guide(self):
        """The program that docs/host-guide.md is."""
        device = self.device("--user", "viewer", "--password", "secret")
        out = self.ended(self.start_example("host_guide", device, "vod", self.file("o.mkv")))
        self.check_recording(self.file("o.mkv"), 2, "video/x-h264")
        self.assertRegex(out, r"asked for the position \S+\nnotice 0\ndescribe 404, refused with 404")
        self.assertRegex(out, r"wall 13951\n4 sessions play\n$")


if __name__ == "__main__":
    unittest.main()

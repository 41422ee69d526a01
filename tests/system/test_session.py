"""The course of a session: its events, seeking, pausing, and its end."""

import os
import pty
import re
import select
import shlex
import signal
import subprocess
import termios
import unittest

from PIL import Image, ImageChops

from faulty_device import SDP, Device as FaultyDevice
from programs import OK, REFUSED, HostTest, command


class SessionTest(HostTest):
    def test_events(self):
        device = self.device()
        result = self.run_host(OK, "play", device.url("live"), "--udp", "--json", "--pause-at", "0.5", "--pause-for", "0.5",
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

    def test_there_is_nothing_behind_the_end(self):
        url = self.device().url("vod")
        for asked, where in ((("--from", "99"), "behind 1:39: the recording ends at 0:09"), (("--from", "9"), "behind 0:09"),
                             (("--from", "0", "--speed=-1"), "before 0:00: the recording begins at 0:00")):
            with self.subTest(asked=asked):
                result = self.run_host(REFUSED, "play", url, *asked)
                self.assertIn("nothing lies " + where, result.err)
                self.assertNotIn("set up", result.out)
        # more than there is ends with it, and is no stream that stopped
        self.assertIn("the recording ended", self.run_host(OK, "play", url, "--tcp", "--from", "8", "--to", "99").out)
        back = self.run_host(OK, "play", url, "--tcp", "--from", "2", "--speed=-1")
        self.assertIn("the recording's begin was reached", back.out)

    def test_keys(self):
        url = self.device("--vod-length", "40").url("vod")
        shell, terminal = pty.fork()
        if shell == 0:
            os.execvp("bash", ["bash", "--norc", "--noediting", "-i"])
        self.addCleanup(os.waitpid, shell, 0)
        self.addCleanup(os.close, terminal)
        self.addCleanup(os.killpg, shell, signal.SIGHUP)

        def until(text):
            seen = ""
            while re.search(text, seen, re.S) is None:
                self.assertTrue(select.select([terminal], [], [], 30)[0], f"no {text!r} in {seen!r}")
                seen += os.read(terminal, 4096).decode(errors="replace")
            return seen

        def mode():
            return termios.tcgetattr(terminal)[3] & (termios.ECHO | termios.ICANON)

        os.write(terminal, f"cd {self.folder}; PS1=ready:; echo\n".encode())
        until("\nready:")
        usual = mode()
        os.write(terminal, shlex.join(command("play", url)).encode() + b"\n")
        until("[?] keys")
        self.assertEqual((usual, mode()), (termios.ECHO | termios.ICANON, 0))
        for keys, text in ((b" ", "paused  0:0"), (b"r", "nothing comes to record"), (b" ", "playing on.*playing  0:(0[1-9]|1)"),
                           # gst-rtsp-server gives up, now and then, where a seek comes before the former PLAY's media
                           (b"\x1b[C", "playing from 0:1"),
                           (b"+", " at speed x2"), (b"s", "wrote the picture zr_rtsp-"), (b"i", "jitter"),
                           (b"\x1a", "ready:"), (b"fg\n", "  x2  "), (b"\x1b[6~", "playing from 0:00")):
            os.write(terminal, keys)
            until(text)
        self.assertEqual(mode(), 0)
        os.write(terminal, b"q")
        until("ready:")
        self.assertEqual(mode(), usual)
        os.write(terminal, shlex.join(command("describe", url, "--user", "joe")).encode() + b"\n")
        until("password of joe")
        self.assertEqual(mode(), termios.ICANON)
        os.write(terminal, b"unseen\n")
        self.assertNotIn("unseen", until("H264 video"))

    def test_interrupt_tears_down(self):
        process = self.start("play", self.device().url("live"))
        for line in process.stdout:
            if line.startswith("media arrives"):
                break
        process.send_signal(signal.SIGINT)
        rest = process.stdout.read()
        self.assertEqual(process.wait(20), OK)
        self.assertIn("ended the session", rest)


class DescribeTest(HostTest):
    def device_with(self, fault):
        device = FaultyDevice(fault)
        self.addCleanup(device.close)
        return device, f"rtsp://127.0.0.1:{device.port}/stream"

    def test_whether_it_is_a_replay(self):
        unsupported = {"status": "551 Option not supported", "lines": ["Unsupported: onvif-replay"]}
        for known, requests, fault in (
                (False, 2, {"OPTIONS": [unsupported, {}]}),  # the second one for its methods
                (True, 2, {"GET_PARAMETER": unsupported}),
                (None, 2, {}),  # it takes all that is required
                (None, 2, {"OPTIONS": [{"status": "403 Forbidden"}, {}]}),
                (None, 1, {"OPTIONS": {"answer": "", "end": "close"}}),
                (True, 1, {"DESCRIBE": {"body": SDP + "a=x-onvif-track:VIDEO001\r\n"}})):
            with self.subTest(fault=fault):
                device, url = self.device_with(fault)
                told = {event["event"]: event for event in self.run_host(OK, "describe", url, "--json").events()}
                self.assertIs(told["onvif_replay"]["replay"], known)
                self.assertTrue(told["onvif_replay"]["reason"])
                self.assertEqual("end" not in fault.get("OPTIONS", {}), "methods" in told)
                self.assertEqual(len(device.asked), 1 + requests, device.asked)
        result = self.run_host(OK, "describe", self.device("--replay-from", "20261120T100000Z").url("live"))
        self.assertIn("ONVIF replay: no (", result.out)

    def test_description_as_it_came(self):
        for sdp, tag, code in ((SDP, "onvif", OK), ("\n" + SDP + "m=audio 0 RTP/AVP 0\ns=\x1b\xfc\0rest\n\n", "plain", OK),
                               (SDP.replace("video", "audio"), "onvif", REFUSED)):  # who asks is to see why
            _, url = self.device_with({"DESCRIBE": {"body": sdp}})
            run = subprocess.run(command("describe", url, "--sdp", "--tag", tag), capture_output=True, timeout=60)
            with self.subTest(sdp=sdp):
                self.assertEqual((run.returncode, run.stdout), (code, sdp.encode("latin-1")), run.stderr)


if __name__ == "__main__":
    unittest.main()

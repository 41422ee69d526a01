"""Recordings are fetched whole, and relayed to a TV wall."""

import fcntl
import json
import os
import signal
import time
import unittest

from faulty_device import PASSWORD as SECRET, USER, Device as FaultyDevice
from programs import CREDENTIALS, INTERRUPTED, LOST, OK, OUTPUT, REFUSED, USAGE, HostTest, frames


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

    def test_what_was_cut_goes_on_without_a_gap(self):
        device = self.device("--vod-length", "9")
        whole, file = self.file("whole.mkv"), self.file("r.mkv")
        complete = self.start("download", device.url("vod"), whole)
        for end, code, until, left in ((signal.SIGKILL, -signal.SIGKILL, 3, False), (signal.SIGKILL, -signal.SIGKILL, 5, False),
                                       (signal.SIGINT, INTERRUPTED, 6, True)):
            process = self.start("download", device.url("vod"), file, "--continue", "--json")
            told = []
            # some pictures more than it began with, which a killed one may not have written all
            while not told or told[-1]["event"] != "progress" or told[-1]["seconds"] < until:
                told.append(json.loads(process.stdout.readline()))
            self.assertEqual("joined" in [event["event"] for event in told], left)  # what a killed one had fetched
            process.send_signal(end)
            process.stdout.read()
            self.assertEqual(process.wait(20), code)
        left, used, other = (f"{file}.{end}" for end in ("1-0.part", "1-1.part", "1x-0.part"))
        for name in (left, used, other):
            open(name, "w").close()
        with open(used, "w") as held:
            fcntl.lockf(held, fcntl.LOCK_EX, 1, 1 << 62)
            result = self.run_host(OK, "download", device.url("vod"), file, "--continue")
        self.assertIn("downloaded 9.0 s", result.out)
        complete.communicate(timeout=30)
        self.assertEqual(frames(file), frames(whole))
        self.check_recording(file, 9, "video/x-h264", "audio/x-alaw")
        self.assertEqual({os.path.join(self.folder, name) for name in os.listdir(self.folder)}, {file, whole, used, other})

    def test_what_is_live_has_no_rest(self):
        url, file = self.device().url("live"), self.file("r.mkv")
        process = self.start("download", url, file)
        self.assertTrue(any("live and has no end" in line for line in process.stdout))
        process.stdout.readline()  # where it is after some seconds
        process.send_signal(signal.SIGINT)
        _, said = process.communicate(timeout=30)
        self.assertEqual(process.returncode, INTERRUPTED)
        self.assertRegex(said, "the stream is live and has no end, .* holds [1-9].*\n.*play URL --record")
        size = os.path.getsize(file)
        result = self.run_host(REFUSED, "download", url, file, "--continue")
        self.assertIn("continuing failed: the stream is live", result.err)
        self.assertNotIn("set up", result.out)
        self.assertEqual((os.listdir(self.folder), os.path.getsize(file)), (["r.mkv"], size))

    def test_what_is_whole_stays_as_it_is(self):
        url, file = self.device().url("vod"), self.file("r.mkv")
        for asked in (("--from", "2", "--to", "5"), ("--from", "6", "--to", "99")):
            self.run_host(OK, "download", url, file, "--force", *asked)
            before = os.stat(file)
            result = self.run_host(OK, "download", url, file, "--continue", "--json", *asked)
            told = {event["event"]: event for event in result.events()}
            with self.subTest(asked=asked):
                self.assertIn("r.mkv is already whole, 3.0 s", told["downloaded"]["text"])
                self.assertNotIn("playing", told)
                self.assertEqual((os.stat(file).st_mtime_ns, os.listdir(self.folder)), (before.st_mtime_ns, ["r.mkv"]))
        result = self.run_host(OK, "download", url, file, "--continue", "--from", "2")  # of which it holds but a part
        self.assertIn("playing from ", result.out)

    def test_files_of_a_length(self):
        device = self.device("--vod-length", "9")
        whole, file = self.file("whole.mkv"), self.file("r.mkv")
        complete = self.start("download", device.url("vod"), whole)
        began = time.time()
        result = self.run_host(OK, "download", device.url("vod"), file, "--segment-length", "3", "--json")
        told = [event for event in result.events() if event["event"] == "recorded_file"]
        self.assertEqual([event["end"] for event in told], ["length"] * (len(told) - 1) + ["ended"], str(result))
        self.assertIn(len(told), (2, 3))  # the device has a key frame every now and then
        complete.communicate(timeout=30)
        files = [event["file"] for event in told]
        self.assertEqual(files[:2], [file, self.file("r-002.mkv")])
        self.assertEqual(sum(len(frames(name)) for name in files), len(frames(whole)))
        for event in told:
            self.check_recording(event["file"], event["seconds"], "video/x-h264", "audio/x-alaw")
            self.assertAlmostEqual(event["begin"], began + 5, delta=20)
        clocks = [event["clock"] for event in told]  # the device's first report may come after the first file's end
        self.assertEqual((clocks, clocks[-1]), (sorted(clocks), "sender"))
        self.run_host(USAGE, "download", device.url("vod"), file, "--segment-length", "3", "--continue")

    def test_no_other_file_is_continued(self):
        device = self.device()
        file = self.file("letter.mkv")
        with open(file, "w", encoding="utf-8") as letter:
            letter.write("Dear")
        result = self.run_host(OUTPUT, "download", device.url("vod"), file, "--continue")
        self.assertIn("it is no recording", result.err)
        self.assertEqual(os.path.getsize(file), 4)


class RelationTest(HostTest):
    def relay(self, code, device, *options):
        device = FaultyDevice(device)
        self.addCleanup(device.close)
        url = f"rtsp://127.0.0.1:{device.port}/stream"
        result = self.run_host(code, "tv", url, "--to", "127.0.0.9:6000", "--tcp", *options)
        return result, [head for head in device.heads if head.split()[0] in ("SETUP", "PLAY", "TEARDOWN")]

    def test_relation(self):
        device = {"DESCRIBE": {"lines": ["Content-Location: relay"]}, "media": [],
                  "PLAY": {"after": "<<rtp seq=0>><<rtp seq=1>><<rtp seq=2>>"},
                  "TEARDOWN": [{"after": "<<rtp seq=3>><<rtp seq=4>><<rtp seq=5>>"}, {}]}
        result, requests = self.relay(OK, device, "--duration", "0.5")
        self.assertIn("received 6 packets, ", result.out)  # it plays on after the relation
        self.assertEqual([head.split()[0] for head in requests], ["SETUP", "PLAY", "SETUP", "TEARDOWN", "TEARDOWN"])
        for relation in (requests[2], requests[3]):
            self.assertRegex(relation, r"^\w+ rtsp://127.0.0.1:\d+/relay RTSP/1.0\r\n(.*\r\n)*Session: 4711(\r\n|$)")
        self.assertIn("\r\nTransport: RTP/AVP/TCP;unicast;destination=127.0.0.9;client_port=6000-6001", requests[2])

    def test_credentials(self):
        device = {"DESCRIBE": {"lines": ["Content-Location: relay"]},
                  "auth": {"lines": ['WWW-Authenticate: Digest realm="wall", nonce="{nonce}"']}}
        result, _ = self.relay(OK, device, "--duration", "0.5", "--user", USER, "--password", SECRET)
        self.assertIn("sends to 127.0.0.9:6000 as well", result.out)
        result, _ = self.relay(CREDENTIALS, device, "--user", USER, "--password", "wrong")
        self.assertIn("check --user and --password", result.err)

    def test_no_relation_is_told(self):
        result, requests = self.relay(REFUSED, {})
        self.assertIn("offers no relation to a TV wall", result.err)
        self.assertEqual([head.split()[0] for head in requests], ["SETUP", "PLAY", "TEARDOWN"])


if __name__ == "__main__":
    unittest.main()

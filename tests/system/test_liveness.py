"""Sessions that are lost are noticed, told and begun again; many of them do not disturb each other."""

import json
import os
import signal
import time
import unittest

from programs import LOST, OK, USAGE, HostTest

NOTICED_WITHIN = 8.0 if os.environ.get("ZR_SANITIZE") else 2.0  # seconds


class LivenessTest(HostTest):
    def event(self, process, name, **fields):
        """The process's next event of this name and these fields."""
        for line in process.stdout:
            event = json.loads(line)
            if event["event"] == name and fields.items() <= event.items():
                return event
        return self.fail(f"no {name} event; {process.stderr.read()}")

    def playing(self, *arguments):
        process = self.start("play", *arguments, "--json")
        self.event(process, "media")
        return process

    def test_a_dead_device_is_told_at_once(self):
        for transport in ("--tcp", "--udp"):
            device = self.device()
            process = self.playing(device.url("live"), transport)
            with self.subTest(transport=transport):
                device.kill()
                begin = time.monotonic()
                error = self.event(process, "error")
                self.assertLess(time.monotonic() - begin, NOTICED_WITHIN)
                self.assertEqual(process.wait(20), LOST)
                self.assertEqual(error["exit_code"], LOST)
                self.assertRegex(error["text"], "the connection to the server was lost|the server is gone")

    def test_plays_again_when_the_device_is_back(self):
        device = self.device()
        recording = self.file("r.mkv")
        process = self.playing(device.url("live"), "--tcp", "--reconnect", "--duration", "3", "--record", recording)
        device.kill()
        self.assertEqual(self.event(process, "notice")["code"], 105)
        self.assertEqual(self.event(process, "reconnecting")["seconds"], 1)
        self.assertEqual(self.event(process, "reconnecting")["seconds"], 2)  # nobody was there
        self.device("--port", device.port())
        self.event(process, "media")
        process.stdout.read()
        self.assertEqual(process.wait(20), OK)
        self.check_recording(self.file("r.2.mkv"), 3, "video/x-h264")

    def test_silence_is_told(self):
        device = self.device()
        process = self.playing(device.url("live"), "--tcp", "--silence", "1", "--duration", "8")
        device.process.send_signal(signal.SIGSTOP)
        self.event(process, "silent")
        device.process.send_signal(signal.SIGCONT)
        self.assertEqual(self.event(process, "media")["text"], "media arrives again")
        process.send_signal(signal.SIGINT)
        process.stdout.read()
        self.assertEqual(process.wait(20), OK)

    def test_watch(self):
        devices = [self.device("--vod-length", "24") for _ in range(2)]
        urls = [device.url(mount) for device in devices for mount in 5 * ("live", "vod")]
        listed = self.file("urls")
        with open(listed, "w", encoding="ascii") as file:
            file.write("# two devices\n\n" + "\n".join(urls))
        process = self.start("watch", listed, "--json", "--duration", "15")
        streams = {self.event(process, "media")["stream"] for _ in urls}
        self.assertEqual(streams, set(range(1, 21)))
        begin = time.monotonic()
        while time.monotonic() - begin < 8:
            summary = self.event(process, "summary")
            self.assertEqual((summary["alive"], summary["silent"], summary["lost"]), (20, 0, 0), summary)
        self.assertGreater(summary["packets_per_s"], 20 * 50)

        devices[1].kill()
        begin = time.monotonic()
        lost = {self.event(process, "notice")["stream"] for _ in range(10)}
        self.assertLess(time.monotonic() - begin, NOTICED_WITHIN)
        self.assertEqual(lost, set(range(11, 21)))  # of the device that died
        rest = [json.loads(line) for line in process.stdout]
        self.assertEqual(process.wait(20), LOST)
        told = [event for event in rest if event["event"] == "stream"]  # a line each, in every round
        self.assertFalse([event for event in rest if "stream" in event and event not in told], "others were disturbed")
        for event in told[-20:]:
            alive = event["stream"] <= 10
            self.assertEqual((event["state"], event["kbit_per_s"] > 0), ("alive" if alive else "lost", alive), event)
            self.assertEqual(event["reason"] == "", alive)
        self.assertEqual([event["alive"] for event in rest if event["event"] == "watched"], [10])

    def test_watch_is_content_when_all_are_alive(self):
        device = self.device("--user", "u", "--password", "in a file")
        listed = self.file("urls")
        for line, code in ((device.url("live"), OK), ("rtsp://127.0.0.1:1/", LOST), ("http://x", USAGE)):
            with open(listed, "w", encoding="ascii") as file:
                file.write(f"{device.url('video')}\n{line}\n")
            with self.subTest(line=line):
                self.run_host(code, "watch", listed, "--user", "u", "--password", "in a file", "--duration", "2")


if __name__ == "__main__":
    unittest.main()

"""A recording is replayed by the clock: from a scripted recorder, and from one that GStreamer's ONVIF server is."""

import re
import shlex
import unittest

import faulty_device
from programs import OK, REFUSED, USAGE, HostTest, command
from test_terminal import Terminal

BEGIN = 1795168800  # 2026-11-20T10:00:00Z
CLEAN, LAST, JUMP, TERMINAL = 0x80, 0x40, 0x20, 0x10


def group(seconds, count, last=0):
    """A group of pictures, 20 ms apart, so many seconds behind the begin."""
    return [{"count": 1, "time": BEGIN + seconds, "marks": CLEAN | JUMP}, {"count": count - 2, "marks": 0},
            {"count": 1, "marks": last}]


class ReplayTest(HostTest):
    def recorder(self, media):
        device = faulty_device.Device({"media": media})
        self.addCleanup(device.close)
        return device, f"rtsp://127.0.0.1:{device.port}/recording"

    def replay(self, url, *options):
        """The host's events by their names, of each the last one."""
        result = self.run_host(OK, "replay", url, "--json", *options)
        return {event["event"]: event for event in result.events()}

    def check(self, told, first, last, *counts):
        self.assertEqual((told["first"], told["time"]), (f"2026-11-20T10:00:{first}Z", f"2026-11-20T10:00:{last}Z"))
        self.assertEqual((told["frames"], told["clean_points"], told["discontinuities"]), counts)

    def check_head(self, head, *lines):
        for line in lines:
            self.assertRegex(head + "\r\n", f"\r\n{line}\r\n")

    def terminal(self, url, begin):
        terminal = Terminal(self.folder)
        self.addCleanup(terminal.close)
        terminal.type(shlex.join(command("replay", url, "--tcp", "--from", begin)) + "\n")
        return terminal

    def test_requests(self):
        device, url = self.recorder(group(0, 60, LAST | TERMINAL))
        told = self.replay(url, "--tcp", "--from", "2026-11-20T10:00:00Z", "--to", "20261120T100010.5Z", "--speed", "2",
                           "--frames", "intra", "--interval", "4000", "--rate-control", "no", "--immediate")
        heads = dict(zip(device.asked, device.heads))
        self.assertNotIn("onvif", heads["DESCRIBE"])
        self.check_head(heads["SETUP"], "Require: onvif-replay")
        self.check_head(heads["PLAY"], "Require: onvif-replay", r"Range: clock=20261120T100000Z-20261120T100010\.5Z",
                        r"Scale: 2(\.0+)?", "Rate-Control: no", "Immediate: yes", "Frames: intra/4000")
        self.check(told["replayed"], "00.000", "01.180", 60, 1, 1)
        self.assertEqual((told["replayed"]["section_ends"], told["replayed"]["terminal"]), (1, True))
        self.assertEqual(told["end_of_stream"]["time"], "2026-11-20T10:00:01.180Z")
        self.assertRegex(told["progress"]["time"], r"2026-11-20T10:00:0[01]\.\d{3}Z")
        self.assertEqual(int(told["progress"]["position"]) // 10, BEGIN // 10)

    def test_files_of_a_length(self):
        url = self.device("--replay-from", "20261120T100000Z").url("replay")
        result = self.run_host(OK, "replay", url, "--tcp", "--from", "2026-11-20T10:00:00Z", "--record", self.file("r.mkv"),
                               "--segment-length", "4", "--json")
        files = [event for event in result.events() if event["event"] == "recorded_file"]
        self.assertEqual([event["end"] for event in files], ["length"] * (len(files) - 1) + ["ended"], str(result))
        self.assertEqual([event["file"] for event in files][:2], [self.file("r.mkv"), self.file("r-002.mkv")])
        self.assertAlmostEqual(sum(event["seconds"] for event in files), 9, delta=0.5)

    def test_backwards(self):
        device, url = self.recorder(group(5, 10) + group(4, 10, LAST))
        told = self.replay(url, "--udp", "--from", "2026-11-20T10:00:00Z", "--to", "2026-11-20T10:00:06Z", "--speed", "-1")
        self.check_head(device.heads[device.asked.index("PLAY")], r"Scale: -1(\.0+)?",
                        "Range: clock=20261120T100006Z-20261120T100000Z")
        self.check(told["replayed"], "05.000", "04.180", 20, 2, 2)
        self.assertFalse(told["replayed"]["terminal"])

    def test_no_times(self):
        _, url = self.recorder([{}])
        told = self.replay(url, "--tcp", "--from", "20261120T100000Z", "--duration", "0.6")
        self.assertIn("no_times", told)
        self.assertNotIn("time", told["media"])

    def test_keys(self):
        device, url = self.recorder(group(0, 3)[:2] + [{}])
        terminal = self.terminal(url, "2026-11-20T10:00:00Z")
        terminal.after("playing  2026-11-20 10:00:0")
        terminal.type("\x1b[D")
        terminal.after("playing from 2026-11-20 09:59:5")
        terminal.type("-")
        terminal.after("at speed x0.5")
        terminal.type("q")
        terminal.after("replayed 2026-11-20 10:00:00 to ")
        ranges = [re.search(r"Range: (\S+)", head)[1] for method, head in zip(device.asked, device.heads)
                  if method == "PLAY"]
        self.assertEqual(ranges[0], "clock=20261120T100000Z-")
        self.assertRegex(ranges[1], r"clock=20261120T09595\d\.\d{3}Z-")
        self.assertRegex(ranges[2], r"clock=20261120T\d{6}\.\d{3}Z-")

    def test_usage(self):
        url, begin = "rtsp://127.0.0.1:1/r", ("--from", "2026-11-20T10:00:00Z")
        for wrong in ((), ("--from", "noon"), ("--from", "2026-11-20"), ("--from", "12"),
                      (*begin, "--to", "2026-11-20T09:00:00Z"), (*begin, "--interval", "40"),
                      (*begin, "--frames", "all", "--interval", "40"), (*begin, "--frames", "some")):
            with self.subTest(wrong=wrong):
                self.run_host(USAGE, "replay", url, *wrong)

    def test_another_recorder(self):
        url = self.device("--replay-from", "20261120T100000Z").url("replay")
        recording = self.file("replay.mkv")
        told = self.replay(url, "--tcp", "--from", "2026-11-20T10:00:02Z", "--to", "2026-11-20T10:00:05Z",
                           "--record", recording)["replayed"]
        self.check(told, "02.000", "04.960", 75, 3, 1)
        self.assertEqual((told["section_ends"], told["terminal"]), (1, True))
        self.check_recording(recording, 3, "video/x-h264", "width=(int)640")
        told = self.replay(url, "--udp", "--from", "2026-11-20T10:00:06Z", "--to", "2026-11-20T10:00:03Z", "--speed", "-2")
        self.check(told["replayed"], "05.000", "03.960", 75, 3, 3)
        events = self.replay(url, "--from", "2026-11-20T10:00:01Z", "--to", "2026-11-20T10:00:05Z", "--frames", "intra",
                             "--rate-control", "no")
        self.assertEqual(events["set_up"]["transport"], "TCP")
        self.assertEqual(events["replayed"]["frames"], events["replayed"]["clean_points"])

    def test_keys_at_another_recorder(self):
        url = self.device("--replay-from", "20261120T100000Z").url("replay")
        terminal = self.terminal(url, "2026-11-20T09:59:00Z")
        terminal.after("nothing lies before 2026-11-20 09:59:00: the recording begins at 2026-11-20 10:00:00")
        terminal.after("playing  2026-11-20 10:00:0")
        for key, said in (("+", "at speed x2"), (" ", "paused"), (" ", "playing on"), ("\x1b[D", "10:00:00 at speed x2"),
                          ("\x1b[5~", "10:00:08 at speed x2"), ("q", "replayed 2026-11-20 10:00:00 to ")):
            terminal.type(key)
            terminal.after(said)
        result = self.run_host(REFUSED, "replay", url, "--from", "2026-11-20T10:00:09Z")
        self.assertIn("nothing lies behind 2026-11-20 10:00:09: the recording ends at 2026-11-20 10:00:09", result.err)


if __name__ == "__main__":
    unittest.main()

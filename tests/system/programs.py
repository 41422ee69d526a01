"""The programs under test: the host, and the demo device it plays."""

import json
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from PIL import Image

HOST = os.environ["ZR_RTSP_HOST"]
DEVICE = os.environ["ZR_RTSP_DEVICE"]
PLUGIN = os.environ["ZR_RTSP_PLUGIN"]

USER = "viewer"
PASSWORD = "pass-w0rd&word="

# exit codes, as zr_rtsp_host --help-all tells them
OK, INTERNAL, USAGE, UNREACHABLE, CREDENTIALS, REFUSED, NO_MEDIA, OUTPUT, LOST, INTERRUPTED = 0, 1, 2, 3, 4, 5, 6, 7, 8, 130

# The bars of the device's picture from left to right, in its upper half.
BARS = [(255, 255, 255), (255, 255, 0), (0, 255, 255), (0, 255, 0), (255, 0, 255), (255, 0, 0), (0, 0, 255)]


class Device:
    """A running demo device."""

    def __init__(self, *options):
        self.process = subprocess.Popen([DEVICE, *options], stdout=subprocess.PIPE, text=True)
        urls = [self.process.stdout.readline().split() for _ in range(3)]
        if any(len(words) != 2 or words[0] != "listening" for words in urls):
            self.process.wait()
            self.process.stdout.close()
            raise RuntimeError(f"the device did not start: {urls}")
        self.base = urls[0][1].rsplit("/", 1)[0]

    def url(self, mount):
        return f"{self.base}/{mount}"

    def port(self):
        return self.base.rsplit(":", 1)[1]

    def kill(self):
        """Ends it as a power cut does, but for the kernel, which closes its sockets."""
        self.process.kill()
        self.process.wait()

    def stop(self):
        """Ends it as a service manager does, and says its exit code."""
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(20)
        self.process.stdout.close()
        return self.process.returncode


class Result:
    """What a run of the host printed, and its exit code."""

    def __init__(self, code, out, err):
        self.code = code
        self.out = out
        self.err = err

    def events(self):
        return [json.loads(line) for line in self.out.splitlines()]

    def __str__(self):
        return f"exit code {self.code}\n{self.out}{self.err}"


def command(*arguments):
    return [HOST, *arguments, "--plugin", PLUGIN]


def host(*arguments, timeout=60):
    run = subprocess.run(command(*arguments), capture_output=True, text=True, timeout=timeout)
    return Result(run.returncode, run.stdout, run.stderr)


def frames(file, format="video/x-h264"):
    """The sizes of a recording's frames of a format, and their times in ms after the first, as its reader finds them."""
    line = ["gst-launch-1.0", "-v", "filesrc", f"location={file}", "!", "matroskademux", "!", format, "!",
            "fakesink", "silent=false"]
    told = subprocess.run(line, capture_output=True, text=True, timeout=60, check=True).stdout
    found = [(int(size), (int(minutes) * 60 + float(seconds)) * 1000)
             for size, minutes, seconds in re.findall(r"\((\d+) bytes, dts: \S+, pts: 0:(\d+):(\S+), ", told)]
    return [(size, round(time - found[0][1])) for size, time in found]  # audio may have begun a little before


class HostTest(unittest.TestCase):
    """A test of the host, with a folder for what it writes."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="zr_rtsp_")
        self.addCleanup(shutil.rmtree, self.folder)

    def device(self, *options):
        if "--vod-length" not in options:  # a short recording is made soon
            options += ("--vod-length", "9")
        device = Device(*options)
        self.addCleanup(lambda: self.assertIn(device.stop(), (0, -signal.SIGKILL)))
        return device

    def start(self, *arguments):
        """A running host."""
        process = self.start_program(command(*arguments), subprocess.PIPE)
        self.addCleanup(process.stderr.close)
        return process

    def start_program(self, line, stderr):
        process = subprocess.Popen(line, stdout=subprocess.PIPE, stderr=stderr, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def file(self, name):
        return os.path.join(self.folder, name)

    def run_host(self, expected, *arguments):
        result = host(*arguments)
        self.assertEqual(result.code, expected, str(result))
        self.assertNotIn(PASSWORD, result.out + result.err)
        return result

    def check_picture(self, file):
        """The bars are where the device paints them."""
        with Image.open(file) as image:
            picture = image.convert("RGB")
        self.assertEqual(picture.size, (640, 360))
        for number, colour in enumerate(BARS):
            seen = picture.getpixel((45 + number * 91, 180))
            self.assertTrue(all(abs(a - b) < 40 for a, b in zip(seen, colour)), f"bar {number} is {seen}, not {colour}")

    def check_recording(self, file, seconds, *formats):
        """It can be read, is about so long and holds these formats."""
        told = subprocess.run(["gst-discoverer-1.0", "-v", file], capture_output=True, text=True, timeout=60).stdout
        length = re.search(r"Duration: (\d+):(\d\d):(\d\d\.\d+)", told)
        self.assertIsNotNone(length, told)
        hours, minutes, rest = length.groups()
        self.assertAlmostEqual(int(hours) * 3600 + int(minutes) * 60 + float(rest), seconds, delta=1.2, msg=told)
        for wanted in formats:
            self.assertIn(wanted, told)

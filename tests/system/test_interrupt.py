"""Ctrl-C while something is waited for: the program says what it does, does it, and ends."""

import signal
import socket
import time
import unittest

import test_terminal
from faulty_device import Device
from programs import INTERRUPTED, HostTest

TERMINATED = 143
SILENT = {"answer": ""}


class InterruptTest(HostTest):
    run_in_terminal = test_terminal.TerminalTest.run_in_terminal

    def silent_device(self, **fault):
        device = Device(fault)
        self.addCleanup(device.close)
        return device, f"rtsp://127.0.0.1:{device.port}/x"

    def wait_for(self, what):
        end = time.monotonic() + 20
        while not what():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.01)

    def interrupt(self, process, code, number=signal.SIGINT):
        """@return what it says"""
        begin = time.monotonic()
        process.send_signal(number)
        out, err = process.communicate(timeout=20)
        self.assertEqual(process.returncode, code, out + err)
        self.assertLess(time.monotonic() - begin, 15)  # an answer is waited for 25 s
        return out + err

    def test_no_command_waits_for_the_answer(self):
        table = (("describe", "DESCRIBE"), ("check", "DESCRIBE"), ("play", "DESCRIBE"), ("play", "SETUP"),
                 ("play", "PLAY"), ("download", "PLAY", self.file("x.mkv")), ("replay", "SETUP", "--from", "20261123T100000Z"),
                 ("tv", "PLAY", "--to", "127.0.0.1:9000"), ("watch", "DESCRIBE"))
        for command, method, *options in table:
            with self.subTest(command=command, method=method):
                device, url = self.silent_device(**{method: SILENT})
                with open(self.file("urls"), "w", encoding="ascii") as listed:
                    listed.write(url + "\n")
                process = self.start(command, listed.name if command == "watch" else url, *options)
                self.wait_for(lambda: method in device.asked)
                said = self.interrupt(process, INTERRUPTED)
                self.assertRegex(said, "interrupted while 1 stream was" if command == "watch" else
                                 "^(.*\n)*interrupted: ending, 2 s at most; Ctrl-C again .*\n(.*\n)*.* failed: interrupted")
                if method == "PLAY":  # a session that was set up is ended on the device as well
                    self.wait_for(lambda: device.asked[-1] == "TEARDOWN")

    def test_signals(self):
        device, url = self.silent_device(DESCRIBE=SILENT)
        process = self.start("play", url)
        self.wait_for(lambda: device.asked)
        self.interrupt(process, TERMINATED, signal.SIGTERM)
        with socket.socket() as full:  # a connection is never made: what arrives is dropped
            full.bind(("127.0.0.1", 0))
            full.listen(0)
            with socket.create_connection(full.getsockname()):
                process = self.start("check", f"rtsp://127.0.0.1:{full.getsockname()[1]}/x")
                for line in process.stdout:
                    if " route " in line:
                        break
                self.assertIn("checking failed: interrupted", self.interrupt(process, INTERRUPTED))

    def test_the_second_one_ends_at_once(self):
        device, url = self.silent_device()
        process = self.start("play", url, "--tcp", "--snapshot", self.file("x.png"))  # no picture ever comes, for 10 s
        self.wait_for(lambda: "PLAY" in device.asked)
        for line in process.stdout:
            if "media arrives" in line:
                break
        time.sleep(0.1)
        process.send_signal(signal.SIGINT)
        self.assertRegex(process.stdout.readline(), "^interrupted: waiting for a picture before it ends, .* s at most")
        self.interrupt(process, TERMINATED, signal.SIGTERM)

    def test_what_was_recorded_is_whole(self):
        device = self.device()
        process = self.start("play", device.url("video"), "--record", self.file("r.mkv"), "--pause-at", "3", "--tcp")
        for line in process.stdout:
            if "media arrives" in line:
                break
        time.sleep(2)
        device.process.send_signal(signal.SIGSTOP)
        time.sleep(2)  # by now it waits for the answer to PAUSE
        self.assertIn("interrupted: ending", self.interrupt(process, INTERRUPTED))
        device.process.send_signal(signal.SIGCONT)
        self.check_recording(self.file("r.mkv"), 2, "video/x-h264")

    def test_terminal(self):
        _, url = self.silent_device(DESCRIBE=SILENT)
        terminal = self.run_in_terminal("play", url)
        terminal.after("waiting for the answer to describe, 1 s of 25 at most  (Ctrl-C ends it)")
        self.assertFalse(terminal.is_usual())
        terminal.type("\x03")
        terminal.after("interrupted: ending")
        terminal.after("prompt> ")
        self.assertTrue(terminal.is_usual())
        terminal.type("echo code $?\n")
        terminal.after("code 130\r\n")


if __name__ == "__main__":
    unittest.main()

"""What is seen at a terminal: the host runs under a shell with job control, on a terminal of its own."""

import fcntl
import os
import pty
import select
import shlex
import signal
import socket
import struct
import subprocess
import termios
import time
import unittest
import urllib.request

from programs import HOST, HostTest, command, frames

PROGRAMS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/programs")
ENTERS, LEAVES = "\x1b[?1049h", "\x1b[?1049l"
PROMPT = "prompt> "


class Terminal:
    """A shell on a terminal, as a person sees it who can read escape sequences."""

    def __init__(self, folder):
        self.shell, self.fd = pty.fork()
        if self.shell == 0:
            os.chdir(folder)
            environment = {**os.environ, "PS1": PROMPT, "TERM": "xterm-256color", "LC_ALL": "C.UTF-8"}
            os.execvpe("bash", ["bash", "--norc", "--noprofile", "--noediting", "-i"], environment)
        self.seen = ""
        self.resize(30, 100)
        self.after(PROMPT)

    def resize(self, rows, columns):
        fcntl.ioctl(self.fd, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, text):
        os.write(self.fd, text.encode())

    def after(self, text):
        """Waits until this is seen; what was seen before it, and never looks there again."""
        end = time.monotonic() + 60
        while text not in self.seen:
            ready, _, _ = select.select([self.fd], [], [], max(end - time.monotonic(), 0))
            if not ready:
                raise AssertionError(f"{text!r} was not seen, but {self.seen[-2000:]!r}")
            self.seen += os.read(self.fd, 65536).decode(errors="replace")
        before, _, self.seen = self.seen.partition(text)
        return before

    def plays_past(self, seconds):
        """Not each of them is seen on a busy machine."""
        position = -1
        while position < seconds:
            self.after("playing  ")
            minutes, rest = self.after("  x").split(":")
            position = int(minutes) * 60 + int(rest)

    def is_usual(self):
        mode = termios.tcgetattr(self.fd)[3]
        return bool(mode & termios.ECHO and mode & termios.ICANON)

    def close(self):
        os.kill(self.shell, signal.SIGHUP)
        os.close(self.fd)
        os.waitpid(self.shell, 0)


class TerminalTest(HostTest):
    def run_in_terminal(self, *arguments):
        terminal = Terminal(self.folder)
        self.addCleanup(terminal.close)
        terminal.type(shlex.join(command(*arguments)) + "\n")
        return terminal

    def leave(self, terminal):
        """By its key; what is printed then on the usual screen."""
        terminal.type("q")
        terminal.after(LEAVES)
        said = terminal.after(PROMPT)
        self.assertTrue(terminal.is_usual())
        terminal.type("echo code $?\n")
        terminal.after("code 0\r\n")
        return said

    def test_preview(self):
        terminal = self.run_in_terminal("play", self.device().url("live"), "--tcp", "--preview")
        terminal.after(ENTERS)
        terminal.after("\u2584")  # half a block of the picture
        terminal.after(" frames ")
        self.assertFalse(terminal.is_usual())
        terminal.type("r")
        terminal.after("  rec  ")
        terminal.plays_past(4)
        terminal.type("\x1a")
        terminal.after(LEAVES)
        terminal.after(PROMPT)
        self.assertTrue(terminal.is_usual())
        terminal.type("fg\n")
        terminal.after(ENTERS)
        self.assertFalse(terminal.is_usual())
        terminal.resize(10, 40)
        terminal.after("\x1b[10;1H\x1b[K\x1b[7mplaying")  # the status line stands below
        terminal.plays_past(8)
        terminal.type("r")
        terminal.after("recorded zr_rtsp-")
        self.assertIn("received ", self.leave(terminal))
        recordings = [name for name in os.listdir(self.folder) if name.endswith(".mkv")]
        self.assertEqual(len(recordings), 1)
        self.assertGreater(len(frames(self.file(recordings[0]))), 50)

    def test_status_line_in_a_terminal_that_becomes_narrow(self):
        terminal = self.run_in_terminal("play", self.device().url("vod"), "--tcp")
        terminal.type("xyx")
        terminal.after("that key does nothing here: ? for help\r\n")
        terminal.after("  ? keys")
        terminal.resize(30, 30)
        terminal.after("\x1b[2A\x1b[J")  # it had become three lines, which are gone
        self.assertRegex(terminal.after("\r\x1b[K"), r"^playing  0:\d\d/0:09  \? keys$")
        terminal.type("\x1b[1;2C")
        terminal.after("playing from 0:08")  # a minute on is beyond the end
        terminal.type("q")
        terminal.after(PROMPT)
        self.assertTrue(terminal.is_usual())

    def test_lines_break_between_words(self):
        terminal = self.run_in_terminal("describe", self.device().url("vod"))
        terminal.after("PAUSE, PLAY, RECORD, SETUP, SET_PARAMETER,\r\n    TEARDOWN\r\n")
        self.assertNotIn("8 b\r\n", terminal.after("/vod/stream=1\r\n"))

    def test_keys_at_a_download_are_for_nobody(self):
        terminal = self.run_in_terminal("download", self.device().url("vod"), self.file("day.mkv"))
        terminal.after(" of 0:09 ")
        terminal.type("zyx\nzyx")
        seen = terminal.after(" of 0:09 ") + terminal.after(" of 0:09 ")
        terminal.type("\x1a")
        seen += terminal.after("Stopped") + terminal.after(PROMPT)
        self.assertTrue(terminal.is_usual())
        terminal.type("fg\n")
        terminal.after(" of 0:09 ")
        self.assertFalse(terminal.is_usual())
        seen += terminal.after("downloaded 9.") + terminal.after(PROMPT)
        terminal.type("echo end\n")
        self.assertNotIn("zyx", seen + terminal.after("\nend"))
        self.assertTrue(terminal.is_usual())

    def test_shells_complete_names_of_cameras(self):
        os.mkdir(self.file("zr_rtsp"))
        other = self.file("site.toml")
        for file, names in ((self.file("zr_rtsp/cameras.toml"), ("door", "yard", '"$(touch${IFS}run)"')), (other, ("site",))):
            with open(file, "w", encoding="utf-8") as written:
                written.write("".join(f'[{name}]\nurl = "rtsp://127.0.0.1/"\n' for name in names))
        path = f"{os.path.dirname(HOST)}:{os.environ['PATH']}"
        environment = {**os.environ, "XDG_CONFIG_HOME": self.folder, "PATH": path}
        for line, offered in (("play ya", ["yard"]), ("download --tcp d", ["door"]), ("wat", ["watch"]),
                              ("play ", ["$(touch${IFS}run)", "door", "yard"]), (f"check --cameras {other} ", ["site"]),
                              (f"tv --cameras {other}.none ", []), ("replay door --frames i", ["intra"])):
            bash = (f"source {PROGRAMS}/zr_rtsp_host.bash; COMP_WORDS=(zr_rtsp_host \"$@\"); COMP_CWORD=$#;"
                    '_zr_rtsp_host zr_rtsp_host; eval "printf \'%s\\n\' ${COMPREPLY[*]}"')
            fish = f"source {PROGRAMS}/zr_rtsp_host.fish; complete -C $argv[1]"
            for shell in (["bash", "-c", bash, "bash", *line.split(" ")],
                          ["fish", "--no-config", "-c", fish, "zr_rtsp_host " + line]):
                with self.subTest(line=line, shell=shell[0]):
                    run = subprocess.run(shell, env=environment, cwd=self.folder, capture_output=True, text=True, timeout=60)
                    told = [one.partition("\t")[0] for one in run.stdout.splitlines() if one]
                    self.assertEqual(told, offered, run.stderr)
        terminal = Terminal(self.folder)
        self.addCleanup(terminal.close)
        terminal.type(f"XDG_CONFIG_HOME={self.folder} PATH={shlex.quote(path)} zsh -f\n")
        terminal.type(f"fpath=({PROGRAMS} $fpath); autoload -U compinit; compinit -u -D; PROMPT='zsh''> '\n")
        terminal.after("zsh> ")
        terminal.type("zr_rtsp_host play \t")
        terminal.after("door ")
        terminal.after("yard")
        self.assertFalse(os.path.exists(self.file("run")))

    def test_watch_table_and_metrics(self):
        device = self.device()
        with open(self.file("list"), "w", encoding="utf-8") as urls:
            urls.write("".join(f"{device.url(mount)}\n" for mount in ("live", "video", "missing")))
        terminal = self.run_in_terminal("watch", self.file("list"), "--reconnect", "--metrics", "0")
        terminal.after("--metrics: it takes a port")
        terminal.after(PROMPT)
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        terminal.resize(24, 80)
        terminal.type(shlex.join(command("watch", self.file("list"), "--reconnect", "--metrics", str(port))) + "\n")
        terminal.after(ENTERS)
        terminal.after("2 alive, 1 failed, ")
        terminal.after("\x1b[4;1H")  # the third below the head
        row = terminal.after("rtsp://")
        self.assertRegex(row, r"   3 failed      \d\d:\d\d:\d\d        0      0  $")
        self.assertIn("\x1b[5;1H\x1b[K\x1b[31m     describe failed: the server has no such stream", terminal.after("\x1b[6;1H"))
        terminal.after("media arrives")
        self.assertRegex(terminal.after("\x1b[0m\x1b[1;1H"), r"\x1b\[24;1H.* packets lost +q quit$")
        terminal.resize(7, 40)  # no room for that, and none for the URL
        terminal.after("\x1b[3;1H\x1b[K\x1b[32m   2 alive ")
        terminal.after("page keys, q quit")
        terminal.type("\x1b[B")
        terminal.after("\x1b[3;1H\x1b[K\x1b[31m   3 failed ")
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=20) as answer:
            told = answer.read().decode()
        for number, mount, up in ((1, "live", 1), (3, "missing", 0)):
            self.assertIn(f'zr_rtsp_stream_up{{stream="{number}",url="{device.url(mount)}"}} {up}\n', told)
            for state in ("alive", "lost", "failed"):
                self.assertIn(f'url="{device.url(mount)}",state="{state}"}} {int(state == ("alive" if up else "failed"))}\n',
                              told)
        self.assertRegex(told, r'zr_rtsp_stream_packets_total\{stream="2",url="[^"]*"\} [1-9]')
        terminal.type("q")
        terminal.after(LEAVES)
        self.assertIn("2 of 3 streams are alive", terminal.after(PROMPT))
        self.assertTrue(terminal.is_usual())


if __name__ == "__main__":
    unittest.main()

"""Each fault of faults.toml is played to the host, which must take it as the table says; then the device is healthy."""

import contextlib
import json
import os
import re
import signal
import subprocess
import tempfile
import threading
import time
import tomllib
import unittest
from concurrent.futures import ThreadPoolExecutor

from faulty_device import PASSWORD, USER, Device, why_no_multicast
from programs import CREDENTIALS, LOST, NO_MEDIA, OK, REFUSED, UNREACHABLE, command

AT_ONCE = 16  # most of them wait
SANITIZED = os.environ.get("ZR_SANITIZE", "")
ONLY = os.environ.get("ZR_FAULTS", "")  # to look at some: a part of their names
WITHIN = 15  # seconds, unless a fault says otherwise: a program's start on a busy machine
MEMORY = 24  # MB, likewise
EXITS = {"ok": OK, "unreachable": UNREACHABLE, "credentials": CREDENTIALS, "refused": REFUSED, "no media": NO_MEDIA,
         "lost": LOST}


def run(arguments, folder, limit):
    """@return exit code, its own words, the libraries' log, seconds, MB at the peak."""
    log = os.path.join(folder, "log")
    begin = time.monotonic()
    with open(os.path.join(folder, "out"), "w+", encoding="utf-8", errors="replace") as out:
        process = subprocess.Popen(command(*arguments, "--log-file", log), stdout=out, stderr=out)
        peak = 0
        # the resource usage of an ended child begins with what Python had when it made it; so it is asked while it runs
        while process.poll() is None:
            with contextlib.suppress(OSError), open(f"/proc/{process.pid}/status", encoding="ascii") as status:
                peak = max([peak] + [int(kb) for kb in re.findall(r"VmHWM:\s+(\d+)", status.read())])
            if time.monotonic() - begin > limit:
                process.kill()
            time.sleep(0.02)
        seconds = time.monotonic() - begin
        out.seek(0)
        words = out.read()
    with open(log, encoding="utf-8", errors="replace") as lines:
        return process.returncode, words, lines.read(), seconds, peak / 1024


def judge(fault, code, words, log, seconds, memory, asked):
    """What is not as the table says."""
    if code != EXITS[fault["exit"]]:
        yield f"exit code {code}, not {EXITS[fault['exit']]} ({fault['exit']})"
    for where, text in (("says", words), ("log", log), ("asked", " ".join(asked))):
        wanted = fault.get(where, [])
        for pattern in [wanted] if isinstance(wanted, str) else wanted:
            if not re.search(pattern, text):
                yield f"{where}: no {pattern!r}"
    if PASSWORD in words + log or "runtime error" in words or "Sanitizer" in words:
        yield "the password is shown, or a sanitizer complains"
    if seconds > fault.get("within", WITHIN):
        yield f"{seconds:.1f} s, more than {fault.get('within', WITHIN)}"
    if not SANITIZED and memory > fault.get("memory", MEMORY):
        yield f"{memory:.1f} MB, more than {fault.get('memory', MEMORY)}"


def play(fault):
    """@return a line of the table, and what was wrong with its texts."""
    device = Device(dict(fault.get("device", {})))
    url = f"rtsp://127.0.0.1:{device.port}/stream"
    host = fault.get("host", "play --tcp --duration 0.3").split()
    login = ["--user", USER, "--password", PASSWORD] if "auth" in device.fault else []
    with tempfile.TemporaryDirectory(prefix="zr_rtsp_") as folder:
        code, words, log, seconds, memory = run([host[0], url, *host[1:], *login], folder, 2 * WITHIN + 40)
        asked = [method for method in device.asked if method not in ("OPTIONS", "GET_PARAMETER", "SET_PARAMETER")]
        wrong = device.broken + list(judge(fault, code, words, log, seconds, memory, asked))
        device.heal()
        again = run(["play", url, "--tcp", "--duration", "0.2"], folder, 2 * WITHIN)
        if again[0] != 0:
            wrong.append("the next session failed: " + again[1])
    told = [line for line in words.splitlines() if "failed" in line or "server" in line] or words.splitlines()[-1:]
    line = f"{fault['group']:14} {fault['name']:52} {code:4} {seconds:6.1f} s {memory:6.1f} MB  {' '.join(told)[:90]}"
    if wrong:
        wrong.append("asked: " + " ".join(device.asked) + "\n" + words + log)
    device.close()
    return line, wrong


class FaultsTest(unittest.TestCase):
    def table(self):
        with open("faults.toml", "rb") as file:
            table = tomllib.load(file)["fault"]
        self.assertGreaterEqual(len({fault["name"] for fault in table}), 60)
        return table

    def test_one_process_outlives_all(self):
        """It meets all faults at once; when they are over, each stream plays, or is told to be silent."""
        faults = [fault for fault in self.table() if fault["exit"] != "credentials" and not fault.get("lasting")]
        devices = [Device(dict(fault.get("device", {}))) for fault in faults]
        with tempfile.NamedTemporaryFile("w") as listed:
            listed.write("\n".join(f"rtsp://127.0.0.1:{device.port}/" for device in devices))
            listed.flush()
            watch = command("watch", listed.name, "--reconnect", "--json", "--user", USER, "--password", PASSWORD)
            with subprocess.Popen(watch, stdout=subprocess.PIPE, text=True) as process:
                timers = [threading.Timer(4, lambda: [device.heal() for device in devices]),
                          threading.Timer(150, process.kill)]
                for timer in timers:
                    timer.start()
                state, alive = {}, 0
                for event in map(json.loads, process.stdout):
                    if event["event"] != "stream":  # what is told in every round is no news
                        state[event.get("stream")] = event["event"]
                    alive = sum(told in ("media", "silent") for told in state.values())
                    if alive == len(devices) and timers[0].finished.is_set():
                        break
                process.send_signal(signal.SIGINT)
                process.stdout.read()
                for timer in timers:
                    timer.cancel()
        for device in devices:
            device.close()
        self.assertEqual((alive, process.wait()), (len(devices), EXITS["lost"]), str(state))  # some fell silent for good

    def test_faults(self):
        table = self.table()
        missing = why_no_multicast()
        if missing:
            with self.subTest("multicast"):
                self.skipTest(f"the loopback interface carries no multicast: {missing}")
            table = [fault for fault in table if fault["group"] != "multicast"]
        chosen = sorted((fault for fault in table if ONLY in fault["name"]), key=lambda fault: -fault.get("within", 0))
        begin = time.monotonic()
        with ThreadPoolExecutor(AT_ONCE) as pool:
            results = dict(zip((fault["name"] for fault in chosen), pool.map(play, chosen)))
        bad = {name: wrong for name, (_, wrong) in results.items() if wrong}
        print("\ngroup          fault                                                exit      time     memory  its words")
        for name in (fault["name"] for fault in table if fault in chosen):
            print(results[name][0] + ("   WRONG" if name in bad else ""))
        print(f"{len(chosen)} faults, {len(bad)} wrong, {time.monotonic() - begin:.0f} s")
        if SANITIZED:
            print(f"memory bounds are not judged: the shadow memory of -fsanitize={SANITIZED} is most of it")
        for name, wrong in bad.items():
            with self.subTest(fault=name):
                self.fail("\n".join(wrong))

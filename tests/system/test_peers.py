"""The host plays servers that others wrote. gst-rtsp-server is behind the demo device; here is VLC."""

import ctypes
import socket
import subprocess
import sys
import unittest

from programs import OK, REFUSED, HostTest, command

ENCODED = ("videotestsrc num-buffers=500 ! video/x-raw,format=I420,width=640,height=360,framerate=25/1 ! "
           "x264enc speed-preset=ultrafast tune=zerolatency key-int-max=25 ! h264parse ! mux. "
           "audiotestsrc num-buffers=1000 samplesperbuffer=160 wave=ticks ! audio/x-raw,rate=8000,channels=1 ! alawenc ! mux. "
           "matroskamux name=mux ! filesink location=")


# A network of its own whose one interface carries multicast, and sends it from the address that is asked: first words
# are the server, behind "--" the host, which comes when the server answers.
NETWORK = ("unshare", "--net", "--map-root-user", "sh", "-c", '''
ip link set lo up && ip address add $0/32 dev lo && ip route add 224.0.0.0/4 dev lo src $0 || exit 77
server= ; while [ "$1" != -- ]; do server="$server $1"; shift; done; shift
$server >&2 & trap "kill $!" EXIT
for attempt in $(seq 100); do "$1" describe rtsp://$0:8554/v >&2 && break; sleep 0.1; done
"$@"''')
ADDRESS, GROUP = "198.51.100.1", "239.254.7.7"  # of nobody else's (RFC 5737)


class VlcTest(HostTest):
    """It serves over UDP alone, names its streams by absolute URLs, and stops a second before a recording's end."""

    def setUp(self):
        super().setUp()
        try:
            ctypes.CDLL("libvlc.so.5")
        except OSError as missing:
            self.skipTest(f"there is no VLC, which scripts/setup installs: {missing}")
        self.served = file = self.file("served.mkv")
        subprocess.run(["gst-launch-1.0", "-q", *(ENCODED + file).split()], check=True, timeout=60)

    def test_group(self):
        recording = self.file("group.mkv")
        play = command("play", f"rtsp://{ADDRESS}:8554/v", "--multicast", "--duration", "2", "--record", recording)
        server = (sys.executable, "vlc_server.py", "8554", self.served, ADDRESS, GROUP)
        ran = subprocess.run([*NETWORK, ADDRESS, *server, "--", *play], capture_output=True, text=True, timeout=60)
        if ran.returncode == 77 or "unshare" in ran.stderr:
            self.skipTest(f"there is no network of its own: {ran.stderr}")
        self.assertEqual(ran.returncode, OK, ran.stdout + ran.stderr)
        self.assertRegex(ran.stdout, r"(?s)set up audio over multicast\n.*, lost 0\n")
        self.check_recording(recording, 2, "video/x-h264", "audio/x-alaw")

    def test_vlc(self):
        file = self.served
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        server = self.start_program([sys.executable, "vlc_server.py", str(port), file], subprocess.DEVNULL)
        self.assertEqual(server.stdout.readline(), "listening\n")
        url = f"rtsp://127.0.0.1:{port}/v"

        tracks = [event for event in self.run_host(OK, "describe", url, "--json").events() if event["event"] == "track"]
        self.assertEqual(sorted(track["codec"] for track in tracks), ["H264", "PCMA"])

        result = self.run_host(OK, "play", url, "--duration", "2", "--pause-at", "1", "--pause-for", "0.3", "--trace")
        self.assertRegex(result.out, "(?s)video over UDP.*audio over UDP.*paused.*playing on.*, lost 0\n")
        self.assertRegex(result.err, "(?s)> TEARDOWN .*< RTSP/1.0 200 ")

        part = self.file("part.mkv")
        result = self.run_host(OK, "play", url, "--from", "10", "--duration", "3", "--record", part, "--trace")
        self.assertRegex(result.err, r"(?s)> PLAY .*> Range: npt=10.*< Range: npt=10\.")
        self.check_recording(part, 3, "video/x-h264", "audio/x-alaw")

        result = self.run_host(REFUSED, "play", url, "--tcp")
        self.assertIn("does not offer this transport", result.err)
        fetched = self.file("fetched.mkv")
        result = self.run_host(OK, "download", url, fetched, "--from", "12", "--to", "16")
        self.assertIn("the server does not offer TCP: opening a new session over UDP", result.out)
        self.check_recording(fetched, 4, "video/x-h264", "audio/x-alaw")
        result = self.run_host(OK, "download", url, fetched, "--udp", "--from", "16", "--force")
        self.assertIn("the end was reached", result.out)


if __name__ == "__main__":
    unittest.main()

"""The host plays servers that others wrote: VLC, and gst-rtsp-server with other launch lines than the demo device's."""

import ctypes
import socket
import subprocess
import sys
import time
import unittest

from programs import OK, OUTPUT, PASSWORD, REFUSED, USER, HostTest, command, frames, host

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

# A router that hides an inner network behind its own address. First word: what it does with UDP from inside; then the
# server outside and, behind "--", the host inside.
NAT = ("unshare", "--net", "--map-root-user", "sh", "-c", '''
unshare --net sleep 60 & inside=$!
unshare --net sleep 60 & outside=$!
trap 'kill $inside $outside $server' EXIT
for other in $inside $outside; do
  until [ $(readlink /proc/$other/ns/net) != $(readlink /proc/$$/ns/net) ]; do sleep 0.1; done
done
ip link add in type veth peer name eth0 netns $inside && ip link add out type veth peer name eth0 netns $outside &&
ip address add 192.0.2.1/24 dev in && ip address add 198.51.100.2/24 dev out && ip link set in up && ip link set out up &&
nsenter -t $inside -n sh -c "ip address add 192.0.2.2/24 dev eth0 && ip link set lo up && ip link set eth0 up &&
  ip route add default via 192.0.2.1" &&
nsenter -t $outside -n sh -c "ip address add 198.51.100.1/24 dev eth0 && ip link set eth0 up" &&
echo 1 >/proc/sys/net/ipv4/ip_forward && nft "table ip nat {
  chain hide { type nat hook postrouting priority 100; oifname out masquerade; }
  chain pass { type filter hook forward priority 0; iifname in ip protocol udp $0; }
}" || exit 77
command=; while [ "$1" != -- ]; do command="$command '$1'"; shift; done; shift
eval exec nsenter -t $outside -n $command >&2 & server=$!
for attempt in $(seq 100); do nsenter -t $inside -n "$1" describe rtsp://198.51.100.1:8554/v >&2 && break; sleep 0.1; done
nsenter -t $inside -n "$@"''')


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as free:
        return str(free.getsockname()[1])


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
        output = f"rtp{{dst={GROUP},port=5004,sdp=rtsp://{ADDRESS}:8554/v}}"
        server = (sys.executable, "vlc_server.py", "8554", self.served, ADDRESS, output)
        ran = subprocess.run([*NETWORK, ADDRESS, *server, "--", *play], capture_output=True, text=True, timeout=60)
        if ran.returncode == 77 or "unshare" in ran.stderr:
            self.skipTest(f"there is no network of its own: {ran.stderr}")
        self.assertEqual(ran.returncode, OK, ran.stdout + ran.stderr)
        self.assertRegex(ran.stdout, r"(?s)set up audio over multicast\n.*, lost 0\n")
        self.check_recording(recording, 2, "video/x-h264", "audio/x-alaw")

    def test_vlc(self):
        file = self.served
        port = free_port()
        server = self.start_program([sys.executable, "vlc_server.py", port, file], subprocess.DEVNULL)
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

    def wait_for(self, happened):
        until = time.monotonic() + 30
        while not happened():
            self.assertLess(time.monotonic(), until)
            time.sleep(0.1)

    def test_g726(self):
        port = free_port()
        output = f"transcode{{acodec=g726,ab=32,channels=1,samplerate=8000}}:rtp{{sdp=rtsp://127.0.0.1:{port}/v}}"
        server = self.start_program([sys.executable, "vlc_server.py", port, self.served, "127.0.0.1", output], None)
        self.assertEqual(server.stdout.readline(), "listening\n")
        url, recording = f"rtsp://127.0.0.1:{port}/v", self.file("g726.mkv")
        self.wait_for(lambda: host("describe", url).code == OK)
        self.run_host(OK, "play", url, "--udp", "--duration", "3", "--record", recording)
        self.assertGreater(sum(size for size, _ in frames(recording, "audio/x-adpcm,layout=g726")), 4000)  # bytes a second


def video(encoder):
    return f"videotestsrc is-live=true ! video/x-raw,format=I420,width=640,height=360,framerate=25/1 ! {encoder} name=pay0 "


def audio(encoder):
    return f"audiotestsrc is-live=true ! {encoder} name=pay1"


H264 = "x264enc speed-preset=ultrafast tune=zerolatency key-int-max=25 ! rtph264pay config-interval=-1"
H265 = "x265enc speed-preset=ultrafast tune=zerolatency key-int-max=25 ! rtph265pay config-interval=-1"
MJPEG = "jpegenc ! rtpjpegpay"


class GstreamerTest(HostTest):
    """It serves any launch line of GStreamer's elements."""

    def serve(self, *mounts):
        server = self.start_program([sys.executable, "-W", "ignore", "gst_server.py", "127.0.0.1", "0", *mounts], None)
        return f"127.0.0.1:{server.stdout.readline().strip()}"

    def test_media(self):
        base = self.serve(
            f"h265={video(H265)} {audio('voaacenc ! rtpmp4gpay pt=97')}",
            f"latm={video(MJPEG)} {audio('voaacenc ! rtpmp4apay pt=97')}",
            f"mjpeg={video(MJPEG)} {audio('mulawenc ! rtppcmupay')}",
            f"same={video(H264).replace('pay0', 'pay1')} {audio('voaacenc ! rtpmp4gpay pt=96').replace('pay1', 'pay0')}",
        )
        decodes_h265 = subprocess.run(["gst-inspect-1.0", "--exists", "avdec_h265"]).returncode == 0
        for mount, transport, *formats in (
            ("h265", "--udp", "video/x-h265", "audio/mpeg"),
            ("h265", "--tcp", "video/x-h265", "audio/mpeg"),
            ("latm", "--udp", "image/jpeg", "audio/mpeg"),
            ("mjpeg", "--tcp", "image/jpeg", "audio/x-mulaw"),
            ("same", "--tcp", "video/x-h264", "audio/mpeg"),  # one payload type for both, and the audio is first
        ):
            with self.subTest(mount, transport=transport):
                file, picture = self.file(f"{mount}{transport}.mkv"), self.file(f"{mount}{transport}.png")
                shown = decodes_h265 or mount != "h265"
                result = self.run_host(OK if shown else OUTPUT, "play", f"rtsp://{base}/{mount}", transport,
                                       "--duration", "2", "--record", file, "--snapshot", picture)
                self.assertRegex(result.out, ", lost 0\n")
                seen, heard = (frames(file, of) for of in formats)
                self.assertGreater(len(seen), 10)  # of 50, were the machine idle
                self.assertGreater(heard[-1][1], 500)
                if shown:
                    self.check_picture(picture)
                else:
                    self.assertIn("a picture needs a decoder", result.err)

    def test_another_size(self):
        line = video(H264).replace("!", "! videoscale ! capsfilter name=size caps=", 1).replace("caps= ", "caps=")
        file = self.file("size.mkv")
        base = self.serve(f"v=sizes:{line}")
        self.run_host(OK, "play", f"rtsp://{base}/v", "--duration", "5", "--record", file)
        for part, size in ((file, "width=640"), (self.file("size-002.mkv"), "width=320")):
            self.assertGreater(len(frames(part, f"video/x-h264,{size}")), 5)

    def test_nonces_end(self):
        base = self.serve(f"v=digest:{video(H264)}")
        result = self.run_host(OK, "play", f"rtsp://{base}/v", "--user", USER, "--password", PASSWORD, "--duration", "2",
                               "--pause-at", "1", "--pause-for", "0.2", "--trace")
        self.assertRegex(result.err, "(?s)> SETUP .*401.*> SETUP .*> PLAY ")

    def test_behind_nat(self):
        """UDP comes in where the host has sent first; where the router lets nothing out, TCP follows."""
        server = (sys.executable, "-W", "ignore", "gst_server.py", ADDRESS, "8554", f"v={video(H264)}")
        for udp, told in (("accept", r"(?s)over UDP.*media arrives(?!.*over TCP).*, lost 0\n"),
                          ("drop", "(?s)over UDP.*over TCP.*media arrives")):
            play = command("play", f"rtsp://{ADDRESS}:8554/v", "--duration", "1")
            ran = subprocess.run([*NAT, udp, *server, "--", *play], capture_output=True, text=True, timeout=60)
            if ran.returncode == 77 or "unshare" in ran.stderr:
                self.skipTest(f"there is no network of its own: {ran.stderr}")
            self.assertEqual(ran.returncode, OK, ran.stdout + ran.stderr)
            self.assertRegex(ran.stdout, told)


if __name__ == "__main__":
    unittest.main()

"""An RTSP device that plays one fault, which is data: faults.toml tells the keys. Without one it behaves well."""

import base64
import contextlib
import hashlib
import re
import select
import socket
import struct
import threading
import time
from collections import deque

USER, PASSWORD = "viewer", "pass-w0rd"
SDP = "v=0\r\ns=-\r\nt=0 0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n"
OWN_HEADERS = {"DESCRIBE": "Content-Type: application/sdp\r\n", "SETUP": "Transport: {transport}\r\nSession: {session}\r\n",
               "OPTIONS": "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER\r\n"}


GROUP_PORT = 5004
LOOPBACK = struct.pack("4s4si", bytes(4), bytes(4), socket.if_nametoindex("lo"))


def multicast_socket(address):
    """One that sends to groups by the loopback interface."""
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, LOOPBACK)
    sender.bind((address, 0))
    return sender


def why_no_multicast():
    """Empty: the loopback interface carries it."""
    group = socket.inet_aton("239.254.0.1")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver, multicast_socket("127.0.0.1") as sender:
        try:
            receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group + LOOPBACK[4:])
            receiver.bind(("239.254.0.1", 0))
            receiver.settimeout(5)
            sender.sendto(b"x", receiver.getsockname())
            receiver.recv(1)
        except OSError as failed:
            return str(failed)
    return ""


def end(stream, how):
    with contextlib.suppress(OSError):  # it is closed
        stream.shutdown(how)


class Device:
    """Listens on a port of its own and serves each connection on a thread."""

    def __init__(self, fault):
        self.fault = fault
        self.asked = []  # methods, over all connections
        self.heads = []  # of the requests
        self.broken = []  # what of the fault could not be played
        self.uses, self.nonce, self.connections = {}, 1, []
        self.agreed = None  # the connection of the last SETUP
        self.holder = socket.socket()  # keeps the port while nobody listens
        self.holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
        self.holder.bind(("127.0.0.1", 0))
        self.port = self.holder.getsockname()[1]
        self.group = f"239.254.{self.port >> 8}.{self.port & 255}"  # of its own
        self.listen()

    def listen(self):
        self.listener = socket.create_server(("127.0.0.1", self.port), backlog=64, reuse_port=True)
        threading.Thread(target=self.accept, args=(self.listener,), daemon=True).start()

    def accept(self, listener):
        while "deaf" in self.fault:
            time.sleep(0.05)
        with contextlib.suppress(OSError):  # it is closed
            while True:
                connection = Connection(self, listener.accept()[0])
                self.connections.append(connection)
                threading.Thread(target=connection.run, daemon=True).start()

    def restart(self, seconds):
        self.hang_up()
        time.sleep(seconds)
        self.listen()

    def heal(self):
        self.fault, self.uses = {}, {}

    def close(self):
        self.hang_up()
        self.holder.close()
        for connection in self.connections:
            for sender in connection.udp.values():
                sender.close()

    def hang_up(self):
        end(self.listener, socket.SHUT_RDWR)
        self.listener.close()
        for connection in self.connections:
            end(connection.stream, socket.SHUT_RDWR)

    def step(self, method):
        """What the fault does when this method comes for the n-th time; the last of a list stays."""
        steps = self.fault.get(method, {})
        if isinstance(steps, dict):
            return steps
        self.uses[method] = self.uses.get(method, -1) + 1
        return steps[min(self.uses[method], len(steps) - 1)]

    def admits(self, method, value):
        auth = self.fault.get("auth")
        if auth is None or method in auth.get("open", ()):
            return True
        if method == auth.get("stale_at") and self.nonce == 1:
            self.nonce = 2
        given = {name: quoted or bare for name, quoted, bare in re.findall(r'(\w+)=(?:"([^"]*)"|([^\s,]*))', value)}
        if auth.get("takes") == "Basic":
            return value == "Basic " + base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()
        realm = auth.get("realm", given.get("realm"))
        strong = given.get("algorithm") == "SHA-256"
        digest = lambda text: (hashlib.sha256 if strong else hashlib.md5)(text.encode("latin-1")).hexdigest()
        nonce = f"nonce{self.nonce}" + (f":{given['nc']}:{given['cnonce']}:auth" if "qop" in given else "")
        response = digest(f"{digest(f'{USER}:{realm}:{PASSWORD}')}:{nonce}:{digest(method + ':' + given.get('uri', ''))}")
        known = auth.get("takes", "MD5") == ("SHA-256" if strong else "MD5")
        if auth.get("insists") and not (given.get("opaque") == "0" and given.get("qop") == "auth"):
            return False
        right = known and value.startswith("Digest ") and given.get("response") == response
        if right and auth.get("once"):
            self.nonce += 1
        return right


class Connection:
    """Reads requests and sends, each at its time, what the fault or good manners answer, and media after PLAY."""

    def __init__(self, device, stream):
        self.device = device
        self.stream = stream
        self.values = {"ue": "\xfc", "long": 4000 * "A", "port": device.port, "group": device.group, "crlf": "\r\n", "session": "4711", "cseq": "0", "url": ""}
        self.plan = deque()  # (when, bytes or an action)
        self.playing = None  # when the next packet is due
        self.phases = deque()
        self.rtp = {"channel": 0, "pt": 96, "seq": 100, "ts": 0, "ssrc": 0x5EED, "size": 100, "source": "127.0.0.1",
                    "time": 0, "marks": 0}  # of the ONVIF replay extension: seconds since 1970, 0: there is none
        self.udp = {}
        self.receiver = None
        self.leaving = False  # with the next request unread

    def run(self):
        with self.stream, contextlib.suppress(OSError):  # the host has hung up, or the device
            self.act("CONNECT", "")
            self.serve()

    def serve(self):
        received = b""
        while True:
            due = [self.plan[0][0]] if self.plan else []
            due += [self.playing] if self.playing and not self.answering() else []
            wait = max(0, min(due) - time.monotonic()) if due else None
            if select.select([self.stream], [], [], wait)[0]:
                if self.leaving:
                    return  # TCP says so, by a reset
                more = self.stream.recv(65536)
                if not more:
                    return
                received = self.take(received + more)
            while self.plan and self.plan[0][0] <= time.monotonic():
                what = self.plan.popleft()[1]
                self.stream.sendall(what) if isinstance(what, bytes) else what()
            if self.playing and not self.answering() and self.playing <= time.monotonic():
                self.send_packet()

    def answering(self):
        return self.plan and isinstance(self.plan[0][1], bytes)

    def take(self, received):
        """Acts on whole requests; the host's frames and answers are passed over."""
        while received:
            if received[:1] == b"$":
                size = 4 + int.from_bytes(received[2:4], "big")
                if len(received) < max(size, 4):
                    break
                received = received[size:]
                continue
            head, blank, rest = received.partition(b"\r\n\r\n")
            if not blank:
                break
            received = rest
            if not head.startswith(b"RTSP/"):
                self.act(head.split()[0].decode(), head.decode("latin-1"))
        return received

    def act(self, method, head):
        header = lambda name: (re.findall(rf"(?im)^{name}: (.*?)\r?$", head) or [""])[0]
        device, values = self.device, self.values
        if head:
            device.asked.append(method)
            device.heads.append(head)
            values.update(cseq=header("CSeq"), url=head.split()[1])
        admitted = not head or device.admits(method, header("Authorization"))
        values["nonce"] = f"nonce{device.nonce}"
        step = device.step(method) if admitted else {"status": "401 Unauthorized", "lines": device.fault["auth"]["lines"]}
        if method == "SETUP" and admitted:
            self.set_up(header("Transport"))
            device.agreed = self
        elif method == "PLAY" and device.agreed:  # a session over UDP is no connection's
            self.udp, self.receiver = device.agreed.udp, device.agreed.receiver
        answer = step.get("answer", self.answer(method, step) if head else "")
        data = self.expand(step.get("before", "") + answer + step.get("after", ""))
        begin = max(time.monotonic(), self.plan[-1][0] if self.plan else 0) + step.get("delay", 0)
        size = step.get("pieces", max(len(data), 1))
        self.plan += [(begin + at // size * step.get("every", 0), data[at:at + size]) for at in range(0, len(data), size)]
        ends = {"close": lambda: end(self.stream, socket.SHUT_RDWR), "half": lambda: end(self.stream, socket.SHUT_WR),
                "reset": self.reset, "unread": self.leave, "restart": threading.Thread(target=device.restart, args=(step.get("away", 0),)).start}
        if "end" in step:
            self.plan.append((time.monotonic() + step.get("delay", 0) + step.get("after_s", 0), ends[step["end"]]))
        if method == "PLAY" and admitted and step.get("status", "200")[0] == "2":
            self.phases = deque(step.get("media", device.fault.get("media", [{}])))
            self.playing = time.monotonic() if self.phases else None
        elif method in ("PAUSE", "TEARDOWN"):
            self.playing = None

    def answer(self, method, step):
        status = step.get("status", "200 OK")
        well = status[0] == "2"
        body = step.get("body", SDP if method == "DESCRIBE" and well else "")
        head = f"RTSP/1.0 {status}\r\nCSeq: {{cseq}}\r\n" + (OWN_HEADERS.get(method, "Session: {session}\r\n") if well else "")
        head += "".join(line + "\r\n" for line in step.get("lines", ()))
        head += f"Content-Length: {len(self.expand(body))}\r\n\r\n" if body else "\r\n"
        for pattern, replacement in step.get("edit", ()):
            head, found = re.subn(pattern, replacement, head)
            if not found:
                self.device.broken.append(f"{pattern} is not in the answer to {method}")
        return head + body

    def expand(self, text):
        """{name} is a value, <<TEXT*N>> a repetition, <<rtp KEY=N ...>> an interleaved frame; characters are bytes."""
        for name, value in self.values.items():
            text = text.replace("{" + name + "}", str(value))
        frame = lambda match: self.frame({**self.rtp, **{k: int(v) for k, v in re.findall(r"(\w+)=(\d+)", match[1])}})
        text = re.sub(r"<<rtp(.*?)>>", lambda match: frame(match).decode("latin-1"), text)
        text = re.sub(r"(?s)<<(.*?)\*(\d+)>>", lambda match: match[1] * int(match[2]), text)
        return text.encode("latin-1")

    def set_up(self, asked):
        ports = re.search(r"client_port=(\d+)", asked)
        if ports or "multicast" in asked:
            self.receiver = ("127.0.0.1", int(ports[1])) if ports else (self.device.group, GROUP_PORT)
            self.udp = self.udp or {address: multicast_socket(address) for address in ("127.0.0.1", "127.0.0.2")}
            port = self.udp["127.0.0.1"].getsockname()[1]
            # RTCP comes from there as well
            asked += f";server_port={port}-{port}" if ports else \
                f";destination={self.device.group};port={GROUP_PORT}-{GROUP_PORT + 1};ttl=1"
        self.values["transport"] = asked

    def packet(self, rtp):
        if "bye" in rtp:  # a receiver report, for a compound packet begins with one (RFC 3550, 6.1), and the goodbye
            return struct.pack(">BBHIBBHI", 0x80, 201, 1, rtp["ssrc"], 0x81, 203, 1, rtp["ssrc"])
        extended = 0x10 if rtp["time"] else 0
        head = struct.pack(">BBHII", 0x80 | extended, rtp["pt"], rtp["seq"] & 0xFFFF, rtp["ts"] & 0xFFFFFFFF, rtp["ssrc"])
        if extended:
            ntp = int((rtp["time"] + 2208988800) * 2**32)
            head += struct.pack(">HHQBBH", 0xABAC, 3, ntp, rtp["marks"], 0, 0)
        return (head + b"\x41" + bytes(max(0, rtp["size"] - 13)))[:rtp["size"]]

    def frame(self, rtp):
        packet = self.packet(rtp)
        return struct.pack(">cBH", b"$", rtp["channel"] + ("bye" in rtp), len(packet)) + packet

    def send_packet(self):
        """The next packet of the media's first phase that is not over: {count, every, and what changes from there on}."""
        phase = self.phases[0]
        if "left" not in phase:
            phase = self.phases[0] = {**phase, "left": phase.get("count", 1 << 30)}
            self.rtp.update({key: value for key, value in phase.items() if key in self.rtp or key == "bye"})
            self.rtp["seq"] += phase.get("jump", 0)
        if self.udp:
            host, port = self.receiver
            self.udp[self.rtp["source"]].sendto(self.packet(self.rtp), (host, port + ("bye" in self.rtp)))
        else:
            self.stream.sendall(self.frame(self.rtp))
        self.rtp["seq"] += 1
        self.rtp["ts"] += 1800
        self.rtp["time"] += 0.02 if self.rtp["time"] else 0
        self.playing += phase.get("every", 0.02)
        phase["left"] -= 1
        if phase["left"] == 0:
            self.rtp.pop("bye", None)
            self.phases.popleft()
            self.playing = self.playing if self.phases else None

    def leave(self):
        self.leaving = True

    def reset(self):
        self.stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        raise ConnectionResetError

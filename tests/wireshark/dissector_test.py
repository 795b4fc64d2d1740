#!/usr/bin/python3
"""dissector_test.py BIN-FOLDER: tests the Wireshark dissectors on captures from a virtual board, and on malformed
packets.

The board runs the unchanged program. dumpcap listens on the bench while kvtool searches, asks and upgrades.
"""
import json
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
PROTOCOLS = ("kvmini", "kvdisc", "kvbeat")
SECONDS = 60
BIN = TOP / "build/bin"
ADDRESS = "192.168.10.2"
CLIENT, DEVICE = bytes([10, 0, 0, 1]), bytes([10, 0, 0, 2])


def run(*command, check=True, **options):
    done = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=SECONDS, check=False, **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def leaves(tree):
    """All pairs of field name and value below a node of tshark's JSON. Names repeat, so objects are lists of pairs."""
    for name, value in tree:
        if isinstance(value, list) and value and isinstance(value[0], tuple):
            yield name, ""
            yield from leaves(value)
        else:
            for text in value if isinstance(value, list) else [value]:
                yield name, text


class Packet:
    def __init__(self, layers):
        self.fields = {}
        for name, value in leaves(layers):
            self.fields.setdefault(name, []).append(value)

    def __getitem__(self, name):
        return self.fields[name][0] if name in self.fields else None

    def has(self, name):
        return name in self.fields


def dissect(capture):
    """The packets of a capture that the dissectors claim. The dissectors are installed as a user would install
    them, in a home folder of their own.
    """
    with tempfile.TemporaryDirectory(prefix="kv-shark-home-") as home:
        shutil.copytree(TOP / "packaging/wireshark", pathlib.Path(home) / ".local/lib/wireshark/plugins/kv")
        # While the capture is being written, it may end within a packet: status 2.
        done = subprocess.run(["tshark", "-n", "-2", "-r", str(capture), "-T", "json"], text=True, capture_output=True,
                              env={**os.environ, "HOME": home}, timeout=SECONDS, check=False)
    if done.returncode not in (0, 2) or "lua" in done.stderr.lower() or "_ws.lua.error" in done.stdout:
        raise AssertionError(f"tshark ended with {done.returncode}: {done.stderr}{done.stdout[-3000:]}")
    packets = json.loads(done.stdout, object_pairs_hook=list)
    found = [Packet(dict(dict(packet)["_source"])["layers"]) for packet in packets]
    return [packet for packet in found if any(packet.has(name) for name in PROTOCOLS)]


def write_capture(path, packets):
    """A capture of raw IPv4 packets. Each is (protocol, port, payload, whether it goes to the port) and a conversation
    of its own, unless (other port, sequence number) follow.
    """
    with open(path, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 0xFFFF, 101))
        for number, (protocol, port, payload, to_port, *place) in enumerate(packets):
            other, sequence = place or (10000 + number, 1)
            ports = (other, port) if to_port else (port, other)
            if protocol == "udp":
                header = struct.pack(">HHHH", *ports, 8 + len(payload), 0)
            else:
                header = struct.pack(">HHIIBBHHH", *ports, sequence, 1, 0x50, 0x18, 8192, 0, 0)
            size = 20 + len(header) + len(payload)
            ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, size, number, 0, 64, 17 if protocol == "udp" else 6, 0,
                             *((CLIENT, DEVICE) if to_port else (DEVICE, CLIENT)))
            out.write(struct.pack("<IIII", number, 0, size, size) + ip + header + payload)


def frame(command, data_length=0, count=0, kind=0):
    words = [(kind, 2), (0x0101, 2), (command, 2), (0, 2), (0, 4), (data_length, 4), (count, 4)]
    return b"".join(value.to_bytes(size, "little") for value, size in words) + bytes(12)


SEARCH = b"searching..\0\n"
ANSWER = SEARCH[:12] + b"\x0b"
PACKAGE = b"PRT7K".ljust(16, b"\0") + (24).to_bytes(4, "little") + bytes(4)
UPLOAD = frame(0x2002, len(PACKAGE) + 37, 1) + PACKAGE
# What a device refuses or no device sends, and the remark that says so.
REFUSED = [
    ("kvdisc.short", "udp", 6789, SEARCH[:12]),
    ("kvdisc.bad_magic", "udp", 6789, b"Searching..\0\n"),
    ("kvdisc.unsupported", "udp", 6789, SEARCH[:12] + b"\x11"),
    ("kvdisc.bad_size", "udp", 6789, ANSWER),
    ("kvdisc.unterminated", "udp", 6789, ANSWER + b"x" * 531),
    ("kvdisc.constant", "udp", 6789, ANSWER.ljust(544, b"\0")),
    ("kvbeat.short", "udp", 5555, b"cameraMain".ljust(32, b"\0")),
    ("kvbeat.stranger", "udp", 5555, b"camera".ljust(33, b"\0")),
    ("kvmini.bad_kind", "tcp", 80, frame(6, kind=1)),
    ("kvmini.unknown", "tcp", 80, frame(0x77)),
    ("kvmini.lost", "tcp", 80, frame(6) * 2),
    ("kvmini.lost", "tcp", 9180, frame(6) * 2),  # found without the port
    ("kvmini.upload.tiny", "tcp", 80, frame(0x2002, 36, 1)),
    ("kvmini.package.refused", "tcp", 80, UPLOAD),
    ("kvmini.trailer.bad", "tcp", 80, UPLOAD + b"MD5:" + b"A" * 33),
    ("kvmini.behind.ignored", "tcp", 80, UPLOAD + b"MD5:" + b"a" * 33 + b"x"),
]


class Malformed(unittest.TestCase):
    def dissect(self, packets):
        folder = pathlib.Path(tempfile.mkdtemp(prefix="kv-shark-"))
        self.addCleanup(shutil.rmtree, folder)
        write_capture(folder / "packets.pcap", packets)
        return dissect(folder / "packets.pcap")

    def test_what_a_device_refuses_is_marked(self):
        packets = self.dissect([(protocol, port, payload, True) for _, protocol, port, payload in REFUSED])
        self.assertEqual(len(packets), len(REFUSED))
        for (field, *_), packet in zip(REFUSED, packets):
            self.assertTrue(packet.has(field), f"no {field} in {packet.fields}")

    def test_a_reply_in_pieces_is_one(self):
        reply = frame(0x0101, 8, 1) + b"serial!!"
        packets = self.dissect([("tcp", 80, frame(0x0101), True, 9999, 1), ("tcp", 80, reply[:20], False, 9999, 1),
                                ("tcp", 80, reply[20:35], False, 9999, 21), ("tcp", 80, reply[35:], False, 9999, 36)])
        self.assertEqual((packets[-1]["kvmini.response_to"], packets[-1]["kvmini.serial"]), ("1", b"serial!!".hex(":")))

    def test_a_package_for_another_model_is_marked(self):
        device = frame(0x2003, 464, 1) + bytes(432) + b"PRT7K".ljust(16, b"\0") + b"38QX".ljust(16, b"\0")
        packages = [frame(0x2002, 101, 1) + b"PRT7K".ljust(8, b"\0") + sensor.ljust(56, b"\0")
                    for sensor in (b"38QX", b"38QY")]
        uploads = [("tcp", 80, package, True) for package in packages]
        asked = [("tcp", 80, frame(0x2003), True, 9999, 1), ("tcp", 80, device, False, 9999, 1)]
        packets = self.dissect(uploads + asked + uploads)
        self.assertEqual([packet.has("kvmini.package.identity") for packet in packets], [False] * 5 + [True])

    def test_a_heartbeat_is_read_as_the_device_reads_it(self):
        beats = [b"x" * 32 + b"\x02 cameraMain", b"\0cameraMain".ljust(33, b"\0")]
        packets = self.dissect([("udp", 5555, beat, True) for beat in beats])
        self.assertEqual([packet.has("kvbeat.stranger") for packet in packets], [False, True])

    def test_cut_and_broken_packets_do_not_disturb_it(self):
        packets = [("tcp", 80, b"GET / HTTP/1.1\r\nHost: camera.example\r\n\r\n", True)]
        for _, protocol, port, whole in REFUSED:
            for size in {0, 1, 11, 13, 31, 32, 33, 40, 57, 90, len(whole) // 2, len(whole) - 1}:
                for fill in (b"\0", b"\xff"):
                    broken = whole[:size // 2] + fill * (size - size // 2)
                    packets += [(protocol, port, payload, to_port) for payload in (whole[:size], broken)
                                for to_port in (True, False)]
        for path in (TOP / "tests/fuzz").glob("seeds/*/*"):
            packets += [(protocol, port, path.read_bytes()[:1400], to_port) for to_port in (True, False)
                        for protocol, port in (("tcp", 80), ("udp", 6789), ("udp", 5555))]
        marked = self.dissect(packets)
        self.assertGreater(len(marked), len(packets) / 4)
        self.assertNotIn("1", [packet["frame.number"] for packet in marked], "HTTP was taken for commands")


class OnABoard(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="kv-shark-"))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.capture = cls.folder / "capture.pcapng"
        with open(cls.folder / "runner.log", "w", encoding="utf-8") as log:
            command = [BIN / "vboard", "--state", cls.folder / "board", "run", "--quiet", "--no-wifi", "--",
                       BIN / "upgradeMain"]
            cls.runner = subprocess.Popen(command, stdout=log, stderr=log)
        cls.addClassCleanup(cls.end, cls.runner)
        cls.board("wait", "--timeout", "60", "--log", "app file not exist!")
        cls.packets = cls.record()

    @staticmethod
    def end(process):
        process.send_signal(signal.SIGTERM)
        process.wait(SECONDS)

    @classmethod
    def board(cls, *words):
        return run(BIN / "vboard", "--state", cls.folder / "board", *words)

    @classmethod
    def record(cls):
        image = cls.folder / "image"
        image.write_bytes(bytes(range(256)) * 400)
        package = cls.folder / "firmware.FLS"
        run(BIN / "kvtool", "pack", "-o", package, f"rootfs={image}")
        # Every packet passes the bench's other interfaces too, so listen on one.
        interface = json.loads(cls.board("exec", "--", "ip", "-j", "route", "get", ADDRESS))[0]["dev"]
        command = [BIN / "vboard", "--state", cls.folder / "board", "exec", "--", "dumpcap", "-q", "-i", interface,
                   "-w", cls.capture]
        with subprocess.Popen(command, stderr=subprocess.PIPE, text=True) as dumpcap:
            try:
                while not (line := dumpcap.stderr.readline()).startswith("File:"):
                    if not line:
                        raise AssertionError("dumpcap ended")
                for words in (["discover", "--timeout", "6"], ["info", ADDRESS],
                              ["upgrade", "--no-follow", ADDRESS, package]):
                    cls.board("exec", "--", BIN / "kvtool", *words)
                # dumpcap writes with a delay.
                packets, end = [], time.monotonic() + SECONDS
                while time.monotonic() < end and not any(packet.has("kvmini.accepted") for packet in packets):
                    packets = dissect(cls.capture)
            finally:
                cls.end(dumpcap)
        return packets

    def of(self, **wanted):
        return [packet for packet in self.packets
                if all(packet[name.replace("__", ".")] == value for name, value in wanted.items())]

    def test_discovery_is_read_and_opened(self):
        answer = self.of(kvdisc__type="11")[0]
        self.assertEqual(answer["kvdisc.firmware"], "PRT7K_38QX_QJT_V1.0.0.241127_R1")
        self.assertEqual((answer["kvdisc.port.command"], answer["kvdisc.deciphered"]), ("80", "admin"))
        search = [p for p in self.packets if p["frame.number"] == answer["kvdisc.response_to"]][0]
        self.assertEqual(search["kvdisc.type"], "10")

    def test_each_reply_has_its_request(self):
        frames = {packet["frame.number"]: packet for packet in self.packets}
        replies = [packet for packet in self.packets if packet.has("kvmini.response_to")]
        self.assertGreaterEqual(len(replies), 5)
        for reply in replies:
            request = frames[reply["kvmini.response_to"]]
            self.assertEqual(request["kvmini.command"], reply["kvmini.command"])
            self.assertEqual(request["kvmini.response_in"], reply["frame.number"])
            self.assertGreaterEqual(float(reply["kvmini.time"]), 0)
        device = [packet for packet in replies if packet.has("kvmini.device.ic")][0]
        self.assertEqual((device["kvmini.device.ic"], device["kvmini.device.sensor"]), ("PRT7K", "38QX"))

    def test_the_upload_is_followed_to_its_trailer(self):
        pieces = [packet for packet in self.packets if packet.has("kvmini.upload.offset")]
        self.assertEqual(pieces[0]["kvmini.entry.name"], "rootfs")
        size = int([p for p in self.packets if p.has("kvmini.upload.size")][0]["kvmini.upload.size"])
        trailer = [packet for packet in self.packets if packet.has("kvmini.md5")]
        self.assertEqual(len(trailer), 1)
        self.assertGreaterEqual(int(trailer[0]["kvmini.upload.offset"]), size - 37 - 65536)
        self.assertTrue(any(packet.has("kvmini.accepted") for packet in self.packets))
        for fault in ("kvmini.lost", "kvmini.trailer.bad", "kvmini.behind", "kvmini.bad_reply",
                      "kvmini.package.identity", "kvdisc.constant"):
            self.assertFalse(any(packet.has(fault) for packet in self.packets), fault)


if __name__ == "__main__":
    BIN = pathlib.Path(sys.argv.pop(1)) if len(sys.argv) > 1 and not sys.argv[1].startswith("-") else BIN
    unittest.main()

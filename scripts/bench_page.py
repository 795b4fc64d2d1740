#!/usr/bin/python3
"""bench_page.py [SECONDS]: measures the CPU time and the memory of `kvtool serve` while 500 devices answer its
searches, 20 of them are being upgraded and two pages are open, one of which never reads. Everything runs in a network
namespace of its own. The script plays the devices; each takes its upload slowly. The exit status is 1 if the CPU time
reaches 5 % of one core.
"""
import asyncio
import http.client
import json
import os
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile
import time

TOOL = pathlib.Path(__file__).resolve().parent.parent / "build/bin/kvtool"
DEVICES, UPGRADES, GOAL = 500, 20, 5.0
IP_PKTINFO = 8  # of linux/in.h, which the socket module lacks
RATE = 30000  # bytes a second that a device takes
# The part of an answer that is enciphered, for a device with the account "admin".
CIPHER = bytes.fromhex("DA35085C06730268B031E200540590A8DE88003A00D34F7EAF3EE93901675B9A")
FIRMWARE = b"PRT7K_38QX_QJT_V1.0.0.241127_R1"


def address_of(number):
    return f"10.7.{8 + number // 250}.{number % 250 + 1}"


def mac_of(number):
    return f"02:00:5E:00:{number // 256:02X}:{number % 256:02X}"


def answer_of(number):
    answer = bytearray(544)
    fields = {0: b"searching..", 12: b"\x0b", 16: b"\xbe\0\0\0\x01", 24: address_of(number).encode(),
              40: b"255.255.0.0", 104: mac_of(number).encode(), 140: b"\x02\x13\0\0IPC",
              240: b"\0\0\0\x50\0\0\x02\x2a", 256: b"\0\0\0\x50", 292: b"\x2c\0\0\0\0\0\0\0\xf4\x01\0\0IPCAMERA",
              384: FIRMWARE, 480: b"admin", 512: CIPHER}
    for at, value in fields.items():
        answer[at:at + len(value)] = value
    return bytes(answer)


class Discovery(asyncio.Protocol):
    """Answers searches. All devices answer a broadcast; one device answers a search at its address."""

    def __init__(self):
        self.answers = {address_of(n): answer_of(n) for n in range(DEVICES)}
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        self.socket.bind(("0.0.0.0", 6789))
        self.socket.setblocking(False)
        asyncio.get_running_loop().add_reader(self.socket, self.take)

    def take(self):
        _, notes, _, peer = self.socket.recvmsg(2048, 128)
        asked = socket.inet_ntoa(notes[0][2][8:12])
        for address in [asked] if asked in self.answers else self.answers:
            info = struct.pack("=I4s4s", 0, socket.inet_aton(address), b"\0" * 4)
            self.socket.sendmsg([self.answers[address]], [(socket.IPPROTO_IP, IP_PKTINFO, info)], 0, peer)


def reply(command, payload=b""):
    return struct.pack("<HHHHIII12x", 0, 0x0101, command, 0, 7, len(payload), 1 if payload else 0) + payload


async def serve_device(reader, writer):
    record = struct.pack("4s64s100s200s64s16s16s", b"\0\x1b", b"PRT7K", b"12345678", b"ZH8C4", FIRMWARE, b"PRT7K",
                         b"38QX")
    try:
        while True:
            command, = struct.unpack_from("<H", await reader.readexactly(32), 4)
            if command == 0x2002:
                while await reader.read(RATE // 4):
                    await asyncio.sleep(0.25)
                return
            writer.write(reply(command, {0x0101: b"12345678", 0x2003: record}.get(command, b"")))
    except (asyncio.IncompleteReadError, ConnectionError):
        pass
    finally:
        writer.close()


class Client:
    def __init__(self, address):
        self.port = int(address.split(":")[2].split("/")[0])
        self.cookie = f"kvtool_{self.port}={address.split('=')[1]}"

    def ask(self, method, path, body=None, kind="application/json"):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        headers = {"Cookie": self.cookie, "Content-Type": kind, "Origin": f"http://127.0.0.1:{self.port}"}
        connection.request(method, path, body, headers)
        return json.load(connection.getresponse())

    def open_page(self):
        page = socket.create_connection(("127.0.0.1", self.port))
        page.sendall((f"GET /api/events HTTP/1.1\r\nHost: 127.0.0.1:{self.port}\r\n"
                      f"Cookie: {self.cookie}\r\n\r\n").encode())
        return page


def cpu_seconds(process):
    fields = pathlib.Path(f"/proc/{process}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory(process):
    lines = pathlib.Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines()
    return next(int(line.split()[1]) / 1024 for line in lines if line.startswith("VmRSS"))


def drain(page, seconds):
    """Reads what a page gets in this time. Returns its bytes."""
    end, count = time.monotonic() + seconds, 0
    while (left := end - time.monotonic()) > 0:
        page.settimeout(left)
        try:
            count += len(page.recv(65536))
        except socket.timeout:
            break
    return count


def measure(client, process, what, page, seconds):
    start, cpu = time.monotonic(), cpu_seconds(process)
    count = drain(page, seconds)
    wall, used = time.monotonic() - start, cpu_seconds(process) - cpu
    share = 100 * used / wall
    print(f"{what}: {share:.2f} % of one core, {memory(process):.1f} MiB, {count / wall / 1024:.1f} KiB/s to a page",
          flush=True)
    return share


def use(work, seconds):
    image = work / "image"
    image.write_bytes(os.urandom(RATE * (seconds + 120)))
    large = ["--size", "rootfs=64M"]
    subprocess.run([TOOL, "pack", "-o", work / "package", f"rootfs={image}", *large], check=True,
                   stdout=subprocess.DEVNULL)
    tool = subprocess.Popen([TOOL, "serve", "--json", "--no-browser", "--journal", work / "journal",
                             "--stall-timeout", "60", *large], stdout=subprocess.PIPE, text=True)
    try:
        client = Client(json.loads(tool.stdout.readline())["address"])
        page, sleeper = client.open_page(), client.open_page()
        while len(client.ask("GET", "/api/state")["devices"]) < DEVICES:
            time.sleep(0.5)
        measure(client, tool.pid, f"{DEVICES} devices are listed", page, seconds)
        client.ask("POST", "/api/package?name=package", (work / "package").read_bytes(), "application/octet-stream")
        plan = client.ask("POST", "/api/plan", json.dumps({"devices": [mac_of(n) for n in range(UPGRADES)]}))
        client.ask("POST", "/api/run", json.dumps({"plan": plan["id"]}))
        while sum(one["state"] == "uploading" for one in client.ask("GET", "/api/state")["run"]["members"]) < UPGRADES:
            time.sleep(0.5)
        share = measure(client, tool.pid, f"{DEVICES} devices, {UPGRADES} upgrades under way", page, seconds)
        still = sum(one["state"] == "uploading" for one in client.ask("GET", "/api/state")["run"]["members"])
        assert still == UPGRADES, f"only {still} upgrades were under way"
        sleeper.close()
        return share
    finally:
        tool.kill()


async def main(seconds):
    for command in ["link set lo up", "link add lan type veth peer name far", "address add 10.7.0.1/16 brd + dev lan",
                    "link set lan up", "link set far up", "route add local 10.7.8.0/21 dev lo"]:
        subprocess.run(["ip", *command.split()], check=True)
    _ = Discovery()
    await asyncio.start_server(serve_device, "0.0.0.0", 80, limit=RATE)
    with tempfile.TemporaryDirectory() as folder:
        share = await asyncio.to_thread(use, pathlib.Path(folder), seconds)
    print(f"goal: below {GOAL:.0f} % of one core")
    return share >= GOAL


if __name__ == "__main__":
    if os.environ.get("KV_BENCH_PAGE") is None:
        os.execvpe("unshare", ["unshare", "--user", "--map-root-user", "--net", sys.executable, *sys.argv],
                   {**os.environ, "KV_BENCH_PAGE": "inside"})
    try:
        sys.exit(asyncio.run(main(int(sys.argv[1]) if len(sys.argv) > 1 else 20)))
    except KeyboardInterrupt:
        sys.exit(130)

"""What Wireshark says of every exchange, so that the dissector and the program can't drift apart.

$TQ_SAMPLE names a file to keep the frames of the conversation in; docs/sample.pcap was made so.
"""
import base64
import os
import random
import re
import socket
import struct
import subprocess

import lan
from lan import CHANGE, LIST_REQUEST, SEARCH, SETUP, VERIFY, kirvex_credentials, kirvex_request, kirvex_settings, package

SAMPLE = lan.TOP / "docs/sample.pcap"
CLEAR = " [Credentials in Base64, readable by all]"
CAM = "cam1 is at 192.168.1.21/24 on eth0, QVR-7140-16T, NVR: hall"
# Once each, in order of first appearance; what comes over TCP has a T before it.
CONVERSATION = f"""
QVR-7140-16T asks who is there
{CAM}
wide is at 192.168.77.3/16 on eth0, QVR-7140-16T, Nas: a [12 fields: receivers take the first 11]
bare is at 192.168.1.23/24 on eth0, QVR-7140-16T, NVR:  [Note is empty: receivers drop the package]
Asks for the list of all units
List of 2 units: wide, cam1
T Asks for the list of all units
T List of 2 units: wide, cam1
Sets up cam1 (02:00:5E:00:00:03, eth0): 10.0.0.7/8, gateway 10.255.255.254, name server 10.0.0.53
Not a package [Not a package: receivers drop it]
Unknown type 7 [Unknown type: receivers drop it]
Asks who is there
QVR-7140-16T is at 192.168.1.31/24, gateway 192.168.1.1, web port 8080
Asks 192.168.1.31 for its options
Has no options
Asks 192.168.1.31 what "admin" may do{CLEAR}
Administrator
Asks 192.168.1.31 what "guest" may do{CLEAR}
Ordinary user
Asks 192.168.1.31 to change the password, as "admin"{CLEAR}
Refused: The new password is not of digits alone (1013)
Changed
Sets up 192.168.1.31, as "admin": DHCP{CLEAR}
Refused
Written; look again in 3 s
Sets up 192.168.1.31, as "admin": 192.168.1.77/24, gateway 192.168.1.1, name server 10.0.0.9{CLEAR}
Set basic information, request, too short [22 bytes of 239: the unit completes it from an earlier datagram]
Not a KIRVEX packet [Not a KIRVEX packet: receivers drop it]
""".strip().split("\n")


def write_pcap(path, frames):
    """Of (time in ns, bytes) each."""
    with open(path, "wb") as file:
        file.write(struct.pack("=IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for when, data in frames:
            file.write(struct.pack("=IIII", when // 10**9, when // 1000 % 10**6, len(data), len(data)) + data)


def tshark(path, *arguments):
    done = subprocess.run(["tshark", "-X", f"lua_script:{lan.TOP}/wireshark/tq.lua", "-r", path, *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=True, encoding="utf-8", timeout=300)
    assert "Lua" not in done.stderr and "Lua Error" not in done.stdout, done.stdout + done.stderr
    return done.stdout


def conversation(path):
    said = []
    for line in tshark(path, "-Y", "(tq || kirvex) && !icmp", "-T", "fields", "-e", "ip.proto", "-e", "_ws.col.Info",
                       "-e", "_ws.expert.message").splitlines():
        protocol, info, *notes = line.split("\t")
        over_tcp = protocol == "6"  # which has notes of its own
        said.append(f"T {info}" if over_tcp else f"{info} [{notes[0]}]" if notes and notes[0] else info)
    return list(dict.fromkeys(said))


def datagram(payload, port):
    """A frame that carries it; receivers that check no checksum take it."""
    addresses = socket.inet_aton("192.168.1.21") + socket.inet_aton("192.168.1.20")
    return (b"\2\0\x5e\0\0\1\2\0\x5e\0\0\2\x08\0" +
            struct.pack(">BBHHHBBH", 0x45, 0, 28 + len(payload), 0, 0, 64, 17, 0) + addresses +
            struct.pack(">HHHH", 40000, port, 8 + len(payload), 0) + payload)


def scrambled(text):
    return base64.b64encode(bytes(byte ^ 0xFF for byte in text))


def mutated(data, dice):
    data = bytearray(data)
    for _ in range(dice.randint(1, 4)):
        at, end = sorted((dice.randint(0, len(data)), dice.randint(0, len(data))))
        data[at:end] = dice.choice([b"", data[at:end] * 2, bytes(end - at), dice.randbytes(end - at), b",", b"\n", b"=",
                                    b"\xff", b"0x", b"-1", b"%n"])
    return bytes(data[:1472])


def test_mutated_frames_raise_no_error_in_it(tmp_path):
    text = b"Moravelle,01,m,p,n,10.0.0.1,80,255.0.0.0,10.0.0.2,10.0.0.3,02:00:00:00:00:01,eth0,note\0"
    account = kirvex_credentials("admin", "1234", "guest", "5")
    texts = [text, text * 3, text.replace(b",01,", b",03,"), text.replace(b",01,", b",00,")]
    header = kirvex_request(SEARCH)
    packets = [mark + bytes([0x12, 0x34, operation, 0]) + header[6:16] + mode + header[18:] + body
               for mark in (b"\xfd\xfd", b"\xee\xfe") for operation in range(0xA0, 0xA7) for mode in (b"ww", b"\0\0")
               for body in (b"", bytes(312), account + account[:217 - 128])]
    dice, frames = random.Random(1), []
    for i in range(3000):
        frame = dice.choice([
            lambda: datagram(scrambled(mutated(dice.choice(texts), dice)), lan.CLIENT_PORT),
            lambda: datagram(mutated(lan.package(1, "x" * 40), dice), lan.SERVER_PORT),
            lambda: datagram(mutated(dice.choice(packets), dice), lan.KIRVEX_PORT)])()
        frames.append((i * 1000, frame))
    write_pcap(tmp_path / "mutated.pcap", frames)
    assert tshark(tmp_path / "mutated.pcap", "-V").count("\nFrame ") == len(frames) - 1


def test_every_exchange_in_words(net, tmp_path):
    files = {"etc/TQ.conf": "NETSETUP=YES\n", "mtd1/interfaces": "auto eth0\niface eth0 inet dhcp\n"}
    cam, wide, bare, recorder = (
        net.host(name, address, gateway="192.168.1.1", files=files, **options).start_tq() for name, address, options in (
            ("cam1", "192.168.1.21/24", {}), ("wide", "192.168.77.3/16", {"proj": "Nas", "note": "a,b"}),
            ("bare", "192.168.1.23/24", {"note": ""}), ("recorder", "192.168.1.31/24", {"brand": 16, "port": "8080"})))
    recorder.serve_account_pages("basic")
    lan.ip("link set eth0 gso_max_segs 1", host=cam)
    capture = lan.Capture("desk.0")
    net.desk.tq("-I", "eth0")
    net.desk.ask(LIST_REQUEST, to="192.168.1.21")
    with net.desk.socket(kind=socket.SOCK_STREAM) as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, 120)  # the list takes several segments
        client.connect(("192.168.1.21", lan.SERVER_PORT))
        client.sendall(LIST_REQUEST)
        while client.recv(65536):
            pass
    settings = {"ip": "10.0.0.7", "netmask": "255.0.0.0", "gateway": "10.255.255.254", "dns": "10.0.0.53"}
    for data in (package(3, *cam.record(**settings)) + b"\0", b"nonsense", package(7)):
        net.desk.ask(data, to="192.168.1.21", patience=0)
    accounts = [kirvex_credentials(*texts) for texts in (
        ("admin", "1234"), ("guest", ""), ("admin", "1234", "admin", "letters"), ("admin", "1234", "admin", "98765"),
        ("admin", "98765"))]
    static = kirvex_settings("QVR", "192.168.1.77", "255.255.255.0", "192.168.1.1", "10.0.0.9", 0)
    for request, answers in (
            (kirvex_request(SEARCH), 1), (kirvex_request(0xA5, recorder), 1), (kirvex_request(VERIFY, recorder, accounts[0]), 1),
            (kirvex_request(VERIFY, recorder, accounts[1]), 1), (kirvex_request(CHANGE, recorder, accounts[2]), 1),
            (kirvex_request(CHANGE, recorder, accounts[3]), 1),
            (kirvex_request(SETUP, recorder, accounts[0] + static[:-1] + b"\1"), 1),
            (kirvex_request(SETUP, recorder, accounts[4] + static[:-1] + b"\1"), 1),
            (kirvex_request(SETUP, recorder, accounts[4] + static), 1),
            (kirvex_request(SETUP, recorder), 1), (b"\xfd\xfd", 0)):
        assert len(net.desk.ask_kirvex(request, patience=10 if answers else 0)) == answers
    frames = [(when, data) for when, data, _ in capture.frames()]
    path = os.environ.get("TQ_SAMPLE", tmp_path / "frames.pcap")
    write_pcap(path, frames)
    for kept in (path, SAMPLE):  # who answers a broadcast first is chance
        assert sorted(conversation(kept)) == sorted(CONVERSATION)


def test_every_byte_that_the_documents_show_is_in_the_sample():
    frames = SAMPLE.read_bytes()
    text = (lan.TOP / "docs/protocols.md").read_text()
    shown = [bytes.fromhex(line) for line in re.findall(r"(?m)^    ((?:[0-9a-f]{2} )*[0-9a-f]{2})(?:   .*)?$", text)]
    shown += [line.encode() for line in re.findall(r"(?m)^    ([\w+/]{30,}=*)$", text)]
    shown += [line.encode() + b"\0" for line in re.findall(r"(?m)^    (Moravelle,.*)$", text)]
    assert len(shown) > 30
    assert not [data.hex(" ") for data in shown
                if not any(form in frames for form in (data, base64.b64encode(data), scrambled(data)))]

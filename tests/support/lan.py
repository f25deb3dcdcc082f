"""A virtual LAN: hosts in private namespaces, veth pairs to bridges, captured and dissected frames.

    lan.enter()                             # from here on nothing can leave this process tree
    with lan.Lan() as net:
        cam = net.host("cam1", "192.168.1.21/24", gateway="192.168.1.1")
        cam.start_tq("-I", "eth0")          # TQ -D, its output in cam.log()
        print(net.host("desk", "192.168.1.20/24").tq())

Each host has its own network, mounts, host name, IPC, root folder (see tests/support/root) and process table,
whose number 1 is called "init" and notes the signals that it gets. The caller's own network namespace, also a
private one, is the switch.
"""
import base64
import ctypes
import ipaddress
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
from collections import namedtuple

TOP = pathlib.Path(__file__).resolve().parents[2]
# A private tmpfs once enter() has been through.
BASE = pathlib.Path("/srv" if TOP.is_relative_to("/mnt") else "/mnt")
NO_ADDRESS = "000.000.000.000"
SERVER_PORT, CLIENT_PORT, KIRVEX_PORT = 6666, 6667, 62976
SKIPPED = 77

_libc = ctypes.CDLL(None, use_errno=True)
_NEWNS, _NEWUTS, _NEWIPC, _NEWUSER, _NEWPID, _NEWNET = (
    0x20000, 0x4000000, 0x8000000, 0x10000000, 0x20000000, 0x40000000)
_PRIVATE = _NEWNS | _NEWUTS | _NEWIPC | _NEWPID | _NEWNET
_PR_SET_PDEATHSIG, _ETH_P_ALL, _SO_TIMESTAMPNS = 1, 3, 35


def _call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def _skip(what):
    print(f"lan: no virtual LAN here: {what}", file=sys.stderr)
    os._exit(SKIPPED)


def enter(farewell=""):
    """Goes on in a child in namespaces of its own, number 1 of their process table, so that all that
    it starts or mounts ends with it; and it ends with the caller, however that ends. The caller waits
    for it and exits with its status; when a signal ends the caller, it says `farewell` first."""
    user, group = os.getuid(), os.getgid()
    try:
        _call(_libc.unshare, _PRIVATE | (_NEWUSER if user else 0))
    except OSError as error:
        _skip(f"this kernel or user can't make private namespaces ({error.strerror})")
    if user:
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
            pathlib.Path("/proc/self", name).write_text(text)
    sys.stdout.flush()
    inner = os.fork()
    if inner == 0:
        _call(_libc.prctl, _PR_SET_PDEATHSIG, signal.SIGKILL)
        os.setsid()
        setup = (f"mount --make-rprivate / && mount -t proc proc /proc && mount -t tmpfs lan {BASE} && "
                 "ip link set lo up")
        done = subprocess.run(["sh", "-c", setup], stderr=subprocess.PIPE, text=True, check=False)
        if done.returncode:
            _skip(done.stderr.strip().replace("\n", "; "))
        return

    def stop(number, _frame):
        os.kill(inner, signal.SIGKILL)
        os.waitpid(inner, 0)
        if farewell:
            print(farewell, flush=True)
        os._exit(128 + number)

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    status = os.waitstatus_to_exitcode(os.waitpid(inner, 0)[1])
    os._exit(status if status >= 0 else 128 - status)


def package(kind, *fields):
    """A native package as it stands in a datagram, without the closing zero byte."""
    text = ",".join(["Moravelle", kind if isinstance(kind, str) else f"{kind:02d}", *fields])
    return base64.b64encode(bytes(byte ^ 0xFF for byte in text.encode("latin1") + b"\0"))


def records(data):
    """The records of one package, or of a list reply: [kind, model, proj, ...] each."""
    text = bytes(byte ^ 0xFF for byte in base64.b64decode(data.rstrip(b"\0"), validate=True))
    assert text.endswith(b"\0")
    return [record.split(",")[1:] for record in text[:-1].decode("latin1").split("\0")]


QUERY = package(0, "tool") + b"\0"
LIST_REQUEST = package(2, *(["x"] * 3), "1.1.1.1", "80", "255.0.0.0", *(["x"] * 2), "00:00:00:00:00:00",
                       *(["x"] * 2))
SEARCH, SETUP, VERIFY, CHANGE = range(0xA1, 0xA5)


def kirvex_request(operation, host=None, body=b"", mode=b"ww"):
    """A KIRVEX datagram for one host, or for all."""
    target = (bytes.fromhex(host.macs[0].replace(":", "")) + socket.inet_aton(host.record()[3]) if host else
              b"\xff" * 6 + bytes(4))
    return b"\xfd\xfd\x12\x34" + struct.pack("<H10s2sHH", operation, target, mode, 1, len(body)) + body


def kirvex_credentials(*texts):
    return b"".join(base64.b64encode(text.encode()).ljust(64, b"\0") for text in texts)


def kirvex_settings(name, address, netmask, gateway, dns, dhcp):
    quad = socket.inet_aton
    return (name.encode().ljust(64, b"\0") + quad(address) + bytes(4) + quad(netmask) + quad(gateway) + quad(dns) +
            bytes(4) + bytes([dhcp]))


# An executable of TQ, and what runs it when it isn't of this machine.
Program = namedtuple("Program", "path emulator")
CHOSEN = Program(pathlib.Path(os.environ.get("TQ", TOP / "build/release/TQ")).resolve(),
                 os.environ.get("TQ_EMULATOR", "").split())

INIT = ('trap "echo TERM >>/var/signals" TERM; trap "echo USR1 >>/var/signals" USR1; '
        "while :; do sleep 1d & wait $!; done")
# HOME BRAND PROGRAM TOP INIT. The number that the first line tells is the one outside.
HOST = """set -e
read -r pid rest </proc/self/stat && echo "$pid"
"$4/tests/support/root" "$1/root" && cd "$1/root"
echo "brandid : $2" >../cpuinfo && mount --bind ../cpuinfo proc/cpuinfo
touch opt/TQ && mount --bind "$3" opt/TQ
printf '#!/bin/sh\\necho "$@" >>/var/networking\\n' >etc/init.d/networking && chmod 755 etc/init.d/networking
hostname "${1##*/}"
# A dissector takes the ports from 33434 on for a traceroute's, and says so.
echo 40000 60999 >/proc/sys/net/ipv4/ip_local_port_range
# Whoever enters finds this process's root, so it has to be there by then.
exec chroot . bash -c 'echo ready; exec -a init sh -c "$0" >/dev/null 2>&1' "$5"
"""


class Host:
    """One machine of the LAN."""

    def __init__(self, name, brand=3, program=CHOSEN):
        self.name, self.program, home = name, program, BASE / name
        home.mkdir()
        self.process = subprocess.Popen(
            ["unshare", "-n", "-m", "-u", "-i", "-p", "-f", "--kill-child", "sh", "-c", HOST, "sh", home, str(brand),
             program.path, TOP, INIT], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.pid = int(self.process.stdout.readline() or 0)
        assert self.process.stdout.readline() == "ready\n", f"host {name} can't be set up"
        self.root, self.output = home / "root", home / "TQ.log"
        self.nsenter = ["nsenter", "-t", str(self.pid), "-n", "-m", "-u", "-i", "-p", "-r", "-w"]
        self.output.touch()

    def record(self, number=0, **changed):
        """What the unit says of itself on eth`number`: the eleven fields of a package."""
        interface = ipaddress.ip_interface(self.addresses[number])
        return list({**self.facts, "ip": str(interface.ip), "netmask": str(interface.netmask),
                     "mac": self.macs[number], "dev": f"eth{number}", **changed}.values())

    def run(self, *command, **options):
        """Runs a command (one word: a line for the shell) and returns what it printed."""
        if len(command) == 1:
            command = ("sh", "-c", *command)
        options = {"timeout": 120, "check": True, "stdin": subprocess.DEVNULL, "text": True,
                   "stdout": subprocess.PIPE, **options}
        return subprocess.run([*self.nsenter, *command], **options).stdout

    def path(self, name):
        return self.root / name.lstrip("/")

    def write(self, files):
        """Writes {path: text}, replacing what stands there."""
        for name, text in files.items():
            self.path(name).parent.mkdir(parents=True, exist_ok=True)
            self.path(name).unlink(missing_ok=True)
            self.path(name).write_bytes(text.encode("latin1"))

    def socket(self, kind=socket.SOCK_DGRAM, bind=None, device=None):
        """A socket of this host's network, for use in this process; tied to `device` if one is named."""
        with open("/proc/self/ns/net") as home, open(f"/proc/{self.pid}/ns/net") as here:
            _call(_libc.setns, here.fileno(), _NEWNET)
            try:
                made = socket.socket(socket.AF_INET, kind)
            finally:
                _call(_libc.setns, home.fileno(), _NEWNET)
        made.settimeout(30)
        for option in (socket.SO_BROADCAST, socket.SO_REUSEADDR):
            made.setsockopt(socket.SOL_SOCKET, option, 1)
        if device:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, device.encode())
        if bind:
            made.bind(bind)
        return made

    def ask(self, data=QUERY, to="255.255.255.255", patience=30):
        """Sends a native package from eth0's port 6667 and returns for each datagram that came its records.
        Waits at most `patience` seconds for the first."""
        with self.socket(bind=("", CLIENT_PORT), device="eth0") as client:
            client.sendto(data, (to, SERVER_PORT))
            return [records(data) for data, _ in collect(client, patience)]

    def ask_kirvex(self, request, device="eth0", patience=30):
        """Broadcasts a KIRVEX datagram and returns the (address, reply) pairs, in order of address."""
        with self.socket(device=device) as tool:
            tool.sendto(request, ("255.255.255.255", KIRVEX_PORT))
            return sorted(((sender[0], data) for data, sender in collect(tool, patience)),
                          key=lambda pair: socket.inet_aton(pair[0]))

    def command(self, *arguments):
        """How TQ is run on this host."""
        return ["env", "QEMU_LD_PREFIX=/usr/powerpc-linux-gnu", *self.program.emulator, "/opt/TQ", *arguments]

    def tq(self, *arguments, status=0, stdout=subprocess.PIPE):
        """Runs TQ to its end and returns what it printed."""
        done = subprocess.run([*self.nsenter, *self.command(*arguments)], timeout=120, stdin=subprocess.DEVNULL, check=False,
                              stdout=stdout, stderr=subprocess.STDOUT)
        printed = (done.stdout or b"").decode("latin1")
        assert done.returncode == status, f"TQ ended with {done.returncode} on {self.name}:\n{printed}"
        return printed

    def tqctl(self, *arguments, prefix=()):
        """How tqctl is run on this host, from outside, behind the words of `prefix`."""
        if not self.path("opt/tqctl").exists():
            shutil.copy(self.program.path.parent / "tqctl", self.path("opt/tqctl"))
        return [*self.nsenter, *prefix, *self.command()[:-1], "/opt/tqctl", *arguments]

    def apply_settings(self):
        """From now on a restart of the network applies what the interfaces file says."""
        shutil.copy(TOP / "tests/support/networking", self.path("etc/init.d/networking"))

    def start_tq(self, *arguments, ready=r"UDP Socket|AnyAddrSocket"):
        """Starts TQ -D and waits until its server has its sockets (`ready` is in its log)."""
        before = len(self.log())
        with self.output.open("ab") as log:
            process = subprocess.Popen([*self.nsenter, *self.command("-D", *arguments)],
                                       stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        if "-W" not in arguments:
            status = process.wait(30)
            assert status == 0, f"TQ -D ended with {status} on {self.name}:\n{self.log()[before:]}"
        self.wait_log(ready, since=before)
        return self

    def stop_all(self):
        """Ends all processes of the host but its init."""
        self.run("kill -9 -1 || :")
        # A process that is ending has no command line any more, but still its sockets.
        wait_until(lambda: not re.search("(?m)^(TQ|qemu-.*)$", self.run("cat /proc/[0-9]*/comm 2>/dev/null || :")))

    def processes(self):
        """The command lines of the host's processes."""
        return self.run("cat /proc/[0-9]*/cmdline 2>/dev/null || :")

    def serve_account_pages(self, scheme):
        """Starts the stand-in of the appliance's web server on port 8080."""
        self.write({"opt/account-pages": (TOP / "tests/support/account-pages").read_text()})
        self.path("opt/account-pages").chmod(0o755)
        self.run(f"/opt/account-pages {scheme} 8080 >/dev/null 2>&1 & echo $! >/run/account-pages", stdout=None)
        wait_until(lambda: ":1F90 00000000:0000 0A" in self.run("cat /proc/net/tcp"))  # it listens

    def web_log(self):
        """Ends the web server and returns the requests that it had."""
        self.run("kill $(cat /run/account-pages); while kill -0 $(cat /run/account-pages); do sleep 0.1; done",
                 stderr=subprocess.DEVNULL, check=False)
        return self.path("tmp/account-pages/log").read_text()

    def log(self):
        return self.output.read_bytes().decode("latin1")  # which leaves a CR what it is

    def wait_log(self, pattern, since=0, seconds=30):
        return wait_until(lambda: re.search(pattern, self.log()[since:]), seconds,
                          lambda: f"{pattern!r} not in the log of {self.name}:\n{self.log()[since:]}")


def _stamped(sock):
    sock.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
    return sock


class Lan:
    """Bridges and hosts; leaving the `with` block ends the hosts and removes everything."""

    def __init__(self):
        self.hosts, self.devices, self.macs = [], [], 0
        # The kernel begins to note when frames pass some time after the first has asked for it.
        self.stamps = _stamped(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))

    def __enter__(self):
        return self

    def __exit__(self, failure, *_):
        reports = [host.log() for host in self.hosts if re.search("Sanitizer|runtime error:", host.log())]
        self.stamps.close()
        for device in self.devices:
            ip("link del " + device)
        for host in self.hosts:
            host.process.kill()  # and with it its child, the host's init
            host.process.communicate()
            os.waitpid(host.pid, 0)
            shutil.rmtree(BASE / host.name, ignore_errors=True)
        assert failure or not reports, reports[0]

    def host(self, name, eth0, eth1=None, gateway=None, dns="192.168.1.2", proj="NVR", port="80",
             model="QVR-7140-16T", note="hall", files=(), **options):
        """A host with eth0 (on bridge br0), perhaps eth1 (br1), and the identity of a unit."""
        host = Host(name, **options)
        self.hosts.append(host)
        host.macs = []
        for number, address in enumerate([eth0, eth1] if eth1 else [eth0]):
            bridge, port_name = f"br{number}", f"{name}.{number}"
            if bridge not in self.devices:
                ip(f"link add {bridge} type bridge", f"link set {bridge} up")
                self.devices.append(bridge)
            self.macs += 1
            host.macs.append(f"02:00:5E:00:{self.macs >> 8:02X}:{self.macs & 255:02X}")
            ip(f"link add {port_name} type veth peer name eth{number} address {host.macs[-1]} "
               f"netns {host.pid}", f"link set {port_name} master {bridge} up")
            self.devices.append(port_name)
            ip(f"address add {address} broadcast + dev eth{number}", f"link set eth{number} up", host=host)
        if gateway:
            ip(f"route add default via {gateway} dev eth0 onlink", host=host)
        host.addresses = [eth0, eth1]
        host.facts = {"model": model, "proj": proj, "name": name, "ip": "", "port": port, "netmask": "",
                      "gateway": gateway or NO_ADDRESS, "dns": dns, "mac": "", "dev": "", "note": note}
        host.write({"etc/Model": model + "\n", "etc/Proj": proj + "\n", "etc/Port": port + "\n",
                    "etc/Note": note + "\n", "etc/resolv.conf": f"nameserver {dns}\n", **dict(files)})
        return host


def ip(*lines, host=None):
    enter_net = ["nsenter", "-t", str(host.pid), "-n"] if host else []
    subprocess.run([*enter_net, "ip", "-batch", "-"], input="\n".join(lines) + "\n", text=True, check=True)


def wait_until(condition, seconds=30, message=lambda: "waited in vain"):
    end = time.monotonic() + seconds
    while not (found := condition()):
        assert time.monotonic() < end, message()
        time.sleep(0.02)
    return found


# An emulated host between two datagrams of one reply may have to wait for a processor.
QUIET = 1.0 if CHOSEN.emulator else 0.4


def collect(sock, patience, quiet=QUIET):
    """What a socket gets, with the senders' addresses, until nothing comes for `quiet` seconds; the first may
    take `patience` seconds."""
    found = []
    while select.select([sock], [], [], quiet if found else patience)[0]:
        found.append(sock.recvfrom(65535))
    return found


class Capture:
    """The frames that pass a device of the switch ("cam1.0": all that cam1's eth0 sends or gets)."""

    def __init__(self, device):
        self.socket = _stamped(socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ETH_P_ALL)))
        self.socket.bind((device, 0))

    def frames(self, quiet=0.2):
        """(kernel's time in ns, bytes, whether the host sent it) of each frame, until none comes for a while."""
        found = []
        while select.select([self.socket], [], [], quiet)[0]:
            data, ancillary, _, sender = self.socket.recvmsg(65535, 64)
            seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
            found.append((seconds * 10**9 + nanoseconds, data, sender[2] != socket.PACKET_OUTGOING))
        return found

    def datagrams(self):
        """The UDP datagrams that the host sent, dissected."""
        return [dissect(data) for _, data, sent in self.frames()
                if sent and data[12:14] == b"\x08\x00" and data[23] == 17]


Datagram = namedtuple("Datagram", "to src sport dst dport right payload")


def dissect(frame):
    """`right` says whether the dissector agrees with both checksums and all lengths."""
    from scapy.layers.inet import IP, UDP  # slow to load, and few need it
    from scapy.layers.l2 import Ether
    seen = Ether(frame)
    fresh = seen.copy()
    for layer, field in ((IP, "ihl"), (IP, "len"), (IP, "chksum"), (UDP, "len"), (UDP, "chksum")):
        fresh[layer].delfieldval(field)
    network, transport = seen[IP], seen[UDP]
    return Datagram(seen.dst, network.src, transport.sport, network.dst, transport.dport,
                    bytes(fresh) == frame, bytes(transport.payload))

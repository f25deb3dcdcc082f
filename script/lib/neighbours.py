"""TQ's two servers beside small daemons that do neighbouring work, and beside two floors: a loop that only receives
and sends, and one that also looks everything up. Each answers one-shot queries for one service, one at a time, on a
LAN of two hosts.

    neighbours.py [ROUNDS [WORD...]]    only the contenders whose titles hold one of the words
"""
import pathlib
import shutil
import statistics
import struct
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/support"))

import lan  # noqa: E402
from measure import anonymous_kb, cpu_microseconds, wire_times  # noqa: E402

TIMED, COUNTED = 60, 300
NATIVE, NAMED, SEARCH = "TQ, native query", "TQ -I eth0, native query", "TQ, KIRVEX search"
PID = "/run/contender.pid"
PAUSE = 0.03  # so that a server is at rest when a timed query comes
ADDRESS = "192.168.1.21"


def name(text):
    return b"".join(bytes([len(label)]) + label.encode() for label in text.split(".")) + b"\0"


def mdns_query(instance, kind=33):
    """A one-shot question for the SRV record of a service; the port that it comes from asks for a unicast answer."""
    return struct.pack(">6H", 0x1234, 0, 1, 0, 0, 0) + name(instance) + struct.pack(">HH", kind, 1)


SSDP_TYPE = "urn:schemas-upnp-org:device:Recorder:1"
SSDP_QUERY = ("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\n"
              f"ST: {SSDP_TYPE}\r\n\r\n").encode()


def start(host, command):
    host.run(f"{command} >/tmp/log 2>&1 & echo $! >{PID}", stdout=None)


def start_tq(host, *arguments):
    host.start_tq(*arguments)
    host.run(f"cp /var/run/TQ.pid {PID}")


def start_mdnsd(host):
    host.write({"etc/mdns.d/http.service": "name unit\ntype _http._tcp\nport 80\n"})
    start(host, "exec /usr/sbin/mdnsd -n -i eth0 /etc/mdns.d")


def start_avahi(host):
    host.write({"etc/avahi/avahi-daemon.conf":
                "[server]\nuse-ipv6=no\nallow-interfaces=eth0\nenable-dbus=no\n[publish]\npublish-hinfo=no\n"
                "publish-workstation=no\n",
                "etc/avahi/services/http.service":
                "<service-group><name>unit</name><service><type>_http._tcp</type><port>80</port></service>"
                "</service-group>\n"})
    host.run("mkdir -p /run/avahi-daemon")
    start(host, "exec /usr/sbin/avahi-daemon --no-drop-root --no-chroot --no-rlimits")


# What minissdpd answers an M-SEARCH for is what a local program has registered through its socket.
REGISTER = r"""
import socket, sys
s = socket.socket(socket.AF_UNIX)
s.connect("/run/minissdpd.sock")
s.send(b"\4" + b"".join(bytes([len(t)]) + t.encode() for t in sys.argv[1:]))
"""


def start_minissdpd(host):
    host.run("/usr/sbin/minissdpd -i eth0 >/tmp/log 2>&1", stdout=None)
    lan.wait_until(host.path("run/minissdpd.sock").exists)
    lan.wait_until(host.path("run/minissdpd.pid").exists)
    host.run(f"cp /run/minissdpd.pid {PID}")
    usn = "uuid:2fac1234-31f8-11b4-a222-08002b34c003"
    host.run("/usr/bin/python3", "-c", REGISTER, SSDP_TYPE, usn + "::" + SSDP_TYPE, "TQ/1 UPnP/1.1 bench/1",
             f"http://{ADDRESS}:80/unit.xml")


# What an answer says, from where the program takes it: each fact by the fewest calls that fetch it, once.
SIOCGIFINDEX, SIOCGIFADDR, SIOCGIFNETMASK, SIOCGIFBRDADDR, SIOCGIFHWADDR, SIOCGIFMTU = (
    "0x8933", "0x8915", "0x891b", "0x8919", "0x8927", "0x8921")
NAMED_FACTS = ["/etc/Model", "/etc/Proj", "name", SIOCGIFADDR, "/etc/Port", SIOCGIFNETMASK, "/proc/net/route",
               "/etc/resolv.conf", SIOCGIFHWADDR, "/etc/Note", SIOCGIFMTU, SIOCGIFINDEX, SIOCGIFBRDADDR]
NATIVE_FACTS = ["/proc/net/dev", *NAMED_FACTS]
SEARCH_FACTS = [SIOCGIFHWADDR, SIOCGIFADDR, "/etc/Port", SIOCGIFNETMASK, "/proc/net/route", "/etc/resolv.conf",
                "/mtd1/interfaces"]


def start_floor(host, port, device, facts, datagrams):
    shutil.copy(FLOOR, host.path("opt/floor"))
    start(host, " ".join(["exec /opt/floor", str(port), device, ",".join(facts) or "-",
                          *(datagram.hex() for datagram in datagrams)]))


FLOOR = None
FRAMES = {}  # what TQ's two servers sent in the first round, which the floor sends again


class Contender:
    def __init__(self, title, program, port, query, begin, answers=1, brand=3, source=None, floor_of=""):
        self.title, self.program, self.port, self.query, self.begin = title, program, port, query, begin
        self.answers, self.brand, self.source, self.floor_of = answers, brand, source, floor_of
        self.times, self.costs, self.memory, self.calls = [], [], 0, 0

    def round(self):
        with lan.Lan() as net:
            desk = net.host("desk", "192.168.1.20/24")
            host = net.host("unit", ADDRESS + "/24", gateway="192.168.1.1", brand=self.brand,
                            files={"mtd1/interfaces": "iface eth0 inet static\n"})
            for one in (desk, host):
                one.run("ip route add 224.0.0.0/4 dev eth0")
            self.begin(host)
            with desk.socket(bind=("", self.source or 0)) as client:
                self.wait_ready(client)
                wire = lan.Capture("unit.0")
                for _ in range(TIMED):
                    time.sleep(PAUSE)
                    self.exchange(client)
                frames = wire.frames()
                self.times += wire_times(frames, self.port)
                FRAMES.setdefault(self.title, [data[14:] for _, data, sent in frames if sent][:self.answers])
                time.sleep(0.2)
                before = cpu_microseconds(host, PID)
                for _ in range(COUNTED):
                    self.exchange(client)
                time.sleep(0.2)
                self.costs.append((cpu_microseconds(host, PID) - before) / COUNTED)
                self.memory = anonymous_kb(host, PID)
                self.calls = self.calls or self.count_calls(host, client)

    def count_calls(self, host, client, count=10):
        """System calls per answer."""
        traced = [*host.nsenter, "sh", "-c", f"strace -o /tmp/calls -p $(cat {PID})"]
        with subprocess.Popen(traced, stderr=subprocess.PIPE) as tracer:
            tracer.stderr.readline()
            for _ in range(count):
                self.exchange(client)
            time.sleep(0.2)
            host.run("pkill strace")
        return sum(" resumed>" not in line and line[:1].isalpha()
                   for line in host.path("tmp/calls").read_text().splitlines()) / count

    def is_tq(self):
        return self.program == lan.CHOSEN.path

    def exchange(self, client):
        client.sendto(self.query, (ADDRESS, self.port))
        for _ in range(self.answers):
            self.reply = client.recv(4096)

    def wait_ready(self, client):
        """Asks until the first answer: the daemons probe for their names before they answer for them."""
        client.settimeout(0.3)

        def answered():
            try:
                self.exchange(client)
                return self.query == SSDP_QUERY or self.port != 5353 or self.reply[7] > 0
            except TimeoutError:
                return False
        lan.wait_until(answered)
        client.settimeout(5)
        time.sleep(1)
        client.setblocking(False)
        try:
            while client.recv(4096):
                pass
        except BlockingIOError:
            pass
        client.settimeout(5)

    def size(self):
        """Bytes of the stripped executable, and the libraries that it needs beyond the C library."""
        with tempfile.NamedTemporaryFile() as stripped:
            subprocess.run(["strip", "-o", stripped.name, self.program], check=True)
            size = pathlib.Path(stripped.name).stat().st_size
        seen = subprocess.run(["ldd", self.program], text=True, stdout=subprocess.PIPE, check=True).stdout
        libraries = [line.split()[0] for line in seen.splitlines() if "=> /" in line]
        return size, [library for library in libraries if not library.startswith("libc.so")]


def contenders():
    program = lan.CHOSEN.path
    search = lan.kirvex_request(lan.SEARCH)

    def native(title, path, begin, **options):
        return Contender(title, path, lan.SERVER_PORT, lan.QUERY, begin, 2, source=lan.CLIENT_PORT, **options)

    def native_floor(title, facts, floor_of):
        return native(title, FLOOR, lambda host: start_floor(host, lan.SERVER_PORT, "eth0", facts, FRAMES[floor_of]),
                      floor_of=floor_of)

    def search_floor(title, facts):
        return Contender(title, FLOOR, lan.KIRVEX_PORT, search, lambda host: start_floor(
            host, lan.KIRVEX_PORT, "-", facts, [FRAMES[SEARCH][0][28:]]), floor_of=SEARCH)

    return [
        native(NATIVE, program, start_tq),
        native_floor("floor that only sends", [], NATIVE),
        native_floor("floor that looks everything up", NATIVE_FACTS, NATIVE),
        native(NAMED, program, lambda host: start_tq(host, "-I", "eth0")),
        native_floor("floor that looks everything up, -I", NAMED_FACTS, NAMED),
        Contender(SEARCH, program, lan.KIRVEX_PORT, search, start_tq, brand=16),
        search_floor("floor that only sends, KIRVEX", []),
        search_floor("floor that looks everything up, KIRVEX", SEARCH_FACTS),
        Contender("mdnsd", "/usr/sbin/mdnsd", 5353, mdns_query("unit._http._tcp.local"), start_mdnsd),
        Contender("avahi-daemon", "/usr/sbin/avahi-daemon", 5353, mdns_query("unit._http._tcp.local"), start_avahi),
        Contender("minissdpd", "/usr/sbin/minissdpd", 1900, SSDP_QUERY, start_minissdpd),
    ]


def multiples(every, one):
    """How many times another's median on the wire one takes, for those worth comparing with."""
    others = [other for other, *_ in every if other.floor_of == one.title or not (other.floor_of or other.is_tq())]
    return ", ".join(f"{statistics.median(one.times) / statistics.median(other.times):.2f} x {other.title}"
                     for other in others)


def compare(rounds, words):
    global FLOOR
    print(f"Beside its neighbours: one query at a time, {rounds} rounds of {TIMED} timed and {COUNTED} counted ones")
    with tempfile.TemporaryDirectory() as folder:
        FLOOR = folder + "/floor"
        subprocess.run(["cc", "-Os", "-o", FLOOR, TOP / "script/lib/floor.c"], check=True)
        every, absent = contenders(), set()
        if words:
            every = [one for one in every if any(word in one.title or word in one.floor_of for word in words)]
        for _ in range(rounds):
            for one in every:
                if one.title in absent:
                    continue
                try:
                    one.round()
                except (AssertionError, OSError, subprocess.SubprocessError) as failure:
                    print(f"  {one.title}: no answer ({failure})", flush=True)
                    absent.add(one.title)
        every = [(one, *one.size()) for one in every if one.title not in absent and one.times]
    print(f"  {'':39} {'on the wire':>12} {'CPU':>9} {'calls':>6} {'anonymous':>10} {'stripped':>9}  libraries beyond C's")
    for one, size, libraries in every:
        print(f"  {one.title:39} {statistics.median(one.times):9.0f} us {statistics.median(one.costs):6.0f} us "
              f"{one.calls:6.1f} {one.memory:7} kB {size:9}  {' '.join(libraries) or '-'}", flush=True)
    for one, *_ in every:
        if one.is_tq():
            print(f"  {one.title} takes {multiples(every, one)}", flush=True)


if __name__ == "__main__":
    lan.enter()
    compare(int(sys.argv[1]) if len(sys.argv) > 1 else 5, sys.argv[2:])

"""TQ's two servers beside small daemons that do neighbouring work, and beside the floor: a loop that only
receives and sends. Each answers one-shot queries for one service, one at a time, on a LAN of two hosts."""
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

ROUNDS, TIMED, COUNTED = 3, 60, 300
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


def start_tq(host):
    host.start_tq()
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


def start_floor(host, port, *arguments):
    shutil.copy(FLOOR, host.path("opt/floor"))
    start(host, "exec /opt/floor " + " ".join([str(port), *arguments]))


FLOOR = None
FRAMES = {}  # what TQ's two servers sent in the first round, which the floor sends again


class Contender:
    def __init__(self, title, program, port, query, begin, answers=1, brand=3, source=None):
        self.title, self.program, self.port, self.query, self.begin = title, program, port, query, begin
        self.answers, self.brand, self.source = answers, brand, source
        self.times, self.costs, self.memory = [], [], 0

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
    native, kirvex = "TQ, native query", "TQ, KIRVEX search"
    search = lan.kirvex_request(lan.SEARCH)
    return [
        Contender(native, program, lan.SERVER_PORT, lan.QUERY, start_tq, 2, source=lan.CLIENT_PORT),
        Contender("floor of the native query", FLOOR, lan.SERVER_PORT, lan.QUERY,
                  lambda host: start_floor(host, lan.SERVER_PORT, "packet", "eth0",
                                           *(frame.hex() for frame in FRAMES[native])), 2, source=lan.CLIENT_PORT),
        Contender(kirvex, program, lan.KIRVEX_PORT, search, start_tq, brand=16),
        Contender("floor of the KIRVEX search", FLOOR, lan.KIRVEX_PORT, search,
                  lambda host: start_floor(host, lan.KIRVEX_PORT, "udp", FRAMES[kirvex][0][28:].hex())),
        Contender("mdnsd, SRV query", "/usr/sbin/mdnsd", 5353, mdns_query("unit._http._tcp.local"), start_mdnsd),
        Contender("avahi-daemon, SRV query", "/usr/sbin/avahi-daemon", 5353, mdns_query("unit._http._tcp.local"),
                  start_avahi),
        Contender("minissdpd, M-SEARCH", "/usr/sbin/minissdpd", 1900, SSDP_QUERY, start_minissdpd),
    ]


def compare():
    global FLOOR
    print(f"Beside its neighbours: one query at a time, {ROUNDS} rounds of {TIMED} timed and {COUNTED} counted ones")
    with tempfile.TemporaryDirectory() as folder:
        FLOOR = folder + "/floor"
        subprocess.run(["cc", "-Os", "-o", FLOOR, TOP / "script/lib/floor.c"], check=True)
        every, absent = contenders(), set()
        for _ in range(ROUNDS):
            for one in every:
                if one.title in absent:
                    continue
                try:
                    one.round()
                except (AssertionError, OSError, subprocess.SubprocessError) as failure:
                    print(f"  {one.title}: no answer ({failure})", flush=True)
                    absent.add(one.title)
        every = [one for one in every if one.title not in absent and one.times]
        base = {key: one for one in every for key in ("native", "KIRVEX") if one.title.startswith("TQ") and key in one.title}
        print(f"  {'':28} {'on the wire':>12} {'CPU':>9} {'anonymous':>10} {'stripped':>9}  libraries beyond C's;"
              " time and CPU as multiples of TQ's native query and KIRVEX search")
        for one in every:
            size, libraries = one.size()
            time_, cost = statistics.median(one.times), statistics.median(one.costs)
            ratios = ", ".join(f"{time_ / statistics.median(tq.times):.2f} / {cost / statistics.median(tq.costs):.2f}"
                               for tq in base.values())
            print(f"  {one.title:28} {time_:9.0f} us {cost:6.0f} us {one.memory:7} kB {size:9}  "
                  f"{' '.join(libraries) or '-'}; {ratios}", flush=True)


if __name__ == "__main__":
    lan.enter()
    compare()

"""The figures that are taken on the virtual LAN; script/bench builds the programs and starts it.

    bench.py [million]    all of them; or what a million requests to each server leave behind
"""
import contextlib
import pathlib
import resource
import socket
import statistics
import sys
import threading
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/support"))

import lan  # noqa: E402
from measure import anonymous_kb, cpu_microseconds, drain, rally, wire_times  # noqa: E402

NATIVE = lan.CHOSEN
SO_RCVBUFFORCE = 33
UNIT = ("192.168.1.21", lan.SERVER_PORT)
RECORDER = ("192.168.1.31", lan.KIRVEX_PORT)
FLOOD, MILLION = 100000, 1000000


def state(host):
    descriptors = host.run("ls /proc/$(cat /var/run/TQ.pid)/fd").split()
    return f"{anonymous_kb(host)} kB anonymous, {len(descriptors)} descriptors"


def paced(client, request, to, rate, seconds):
    """Sends `rate` requests a second."""
    start = time.monotonic()
    for i in range(rate * seconds):
        while time.monotonic() < start + i / rate:
            pass
        client.sendto(request, to)


def listen(host):
    """A capture of what passes the host's eth0, with room for a long burst."""
    wire = lan.Capture(f"{host.name}.0")
    with contextlib.suppress(PermissionError):  # only the machine's own root may
        wire.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
    return wire


def requests(title, host, client, request, to, answers):
    """What one kind of request costs."""
    print(title, flush=True)
    wire = listen(host)
    for _ in range(200):
        rally(client, request, to, 1, answers)
    times = wire_times(wire.frames(), to[1])
    print(f"  request to reply on the wire, one at a time: median {statistics.median(times):.0f} us, "
          f"99th of 100 {statistics.quantiles(times, n=100)[98]:.0f} us", flush=True)
    drain(client)
    wire = listen(host)
    before = cpu_microseconds(host)
    paced(client, request, to, 1000, 10)
    sent = sum(from_host and data[23] == 17 for _, data, from_host in wire.frames())
    print(f"  at 1,000/s for 10 s: {sent // answers} of 10000 answered, "
          f"{(cpu_microseconds(host) - before) / max(sent // answers, 1):.0f} us of CPU each", flush=True)
    drain(client)
    flood(host, client, request, to, answers, FLOOD)


def flood(host, client, request, to, answers, count):
    """As many as are answered, and what the server holds before and, at rest again, after them."""
    time.sleep(1.5)
    print(f"  before {state(host)}", flush=True)
    sent, answered, seconds = rally(client, request, to, count, answers, limit=count / 1000)
    time.sleep(1.5)
    print(f"  up to {count} at 32 at a time: {answered} of {sent} answered, {answered / seconds:.0f}/s")
    print(f"  after  {state(host)}", flush=True)


def native_unit(net):
    return net.host("cam1", "192.168.1.21/24", gateway="192.168.1.1", program=NATIVE).start_tq()


def recorder(net):
    return net.host("rec", "192.168.1.31/24", gateway="192.168.1.1", port="8080", brand=16, program=NATIVE,
                    files={"mtd1/interfaces": "iface eth0 inet static\n"}).start_tq()


def native_queries():
    with lan.Lan() as net:
        desk, host = net.host("desk", "192.168.1.20/24", program=NATIVE), native_unit(net)
        with desk.socket(bind=("", lan.CLIENT_PORT), device="eth0") as client:
            requests("Native queries", host, client, lan.QUERY, UNIT, 2)


def million():
    with lan.Lan() as net:
        desk, host, other = net.host("desk", "192.168.1.20/24", program=NATIVE), native_unit(net), recorder(net)
        with desk.socket(bind=("", lan.CLIENT_PORT), device="eth0") as client:
            print("A million native queries", flush=True)
            flood(host, client, lan.QUERY, UNIT, 2, MILLION)
        with desk.socket() as client:
            print("A million KIRVEX searches", flush=True)
            flood(other, client, lan.kirvex_request(lan.SEARCH), RECORDER, 1, MILLION)


def kirvex():
    with lan.Lan() as net:
        desk, host = net.host("desk", "192.168.1.20/24", program=NATIVE), recorder(net)
        with desk.socket() as client:
            requests("KIRVEX searches", host, client, lan.kirvex_request(lan.SEARCH), RECORDER, 1)
        for scheme in ("digest", "basic"):
            host.serve_account_pages(scheme)
            change = lan.kirvex_request(lan.CHANGE, host, lan.kirvex_credentials("admin", "1234", "admin", "1234"))
            with desk.socket() as client:
                _, answered, seconds = rally(client, change, RECORDER, 20, 1, window=1)
            exchanges = host.web_log().count(" HTTP/")
            each = max(answered, 1)
            print(f"  password change through {scheme}: {answered} of 20, {seconds / each * 1000:.0f} ms, "
                  f"{exchanges / each:g} exchanges", flush=True)


def startup():
    """From the command to the first answer, entering the host's namespaces included, and that alone."""
    whole, entering = [], []
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24", program=NATIVE)
        host = net.host("cam1", "192.168.1.21/24", gateway="192.168.1.1", program=NATIVE)
        with desk.socket(bind=("", lan.CLIENT_PORT), device="eth0") as client:
            client.settimeout(0.001)
            for _ in range(10):
                start = time.monotonic()
                host.run("true")
                entering.append(time.monotonic() - start)
                start = time.monotonic()
                host.start_tq(ready="")
                answered = False
                while not answered and time.monotonic() < start + 5:
                    client.sendto(lan.QUERY, UNIT)
                    try:
                        answered = bool(client.recv(4096))
                    except TimeoutError:
                        pass
                whole.append(time.monotonic() - start)
                host.stop_all()
                drain(client)
    print(f"Start to first answer: median {statistics.median(whole) * 1000:.1f} ms, of which entering the host takes "
          f"{statistics.median(entering) * 1000:.1f} ms", flush=True)


def udp_counts(host):
    """(datagrams that reached a socket, those that found its queue full) so far."""
    names, values = [line.split() for line in host.run("cat /proc/net/snmp").splitlines() if line.startswith("Udp:")]
    seen = dict(zip(names, values))
    return int(seen["InDatagrams"]), int(seen["RcvbufErrors"])


def discover(desk, count, also=""):
    """One discovery of `count` units, with what it costs the client and what the client's queue loses."""
    heard, lost = udp_counts(desk)
    spent, start = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
    found = desk.tq("-I", "eth0").count("(dev, note)")
    seconds = time.monotonic() - start
    now = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = now.ru_utime + now.ru_stime - spent.ru_utime - spent.ru_stime
    heard, lost = (after - before for after, before in zip(udp_counts(desk), (heard, lost)))
    print(f"  {count:4} units: {found} found in {seconds:.2f} s, {seconds / 1.6 * 100 - 100:+.1f}%; the client read "
          f"{heard} datagrams, its full queue dropped {lost}, {cpu * 1000:.0f} ms of CPU{also}", flush=True)


def discoveries():
    print("Discoveries (the waits alone take 1.6 s)", flush=True)
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24", program=NATIVE)
        units = []
        for count in (3, 50, 250):
            while len(units) < count:
                number = len(units) + 21
                units.append(net.host(f"u{number}", f"192.168.{1 + number // 250}.{number % 250 + 1}/16",
                                      program=NATIVE).start_tq())
            discover(desk, count)
            time.sleep(3)
            before = cpu_microseconds(units[0])
            discover(desk, count)
            print(f"        one unit's CPU for that: {(cpu_microseconds(units[0]) - before) / 1000:.1f} ms",
                  flush=True)


def simulated_discovery(count, rate):
    """One host answers for many, twice for each query, as units do; `rate` datagrams a second (0: no pause)."""
    with lan.Lan() as net:
        desk, crowd = (net.host(name, f"192.168.1.{number}/24", program=NATIVE)
                       for name, number in (("desk", 20), ("crowd", 21)))
        replies = [lan.package(1, "QVR-7140-16T", "NVR", f"u{i}", f"10.0.{i >> 8}.{i & 255}", "80", "255.0.0.0",
                               "10.0.0.1", "10.0.0.2", f"02:00:5E:01:{i >> 8:02X}:{i & 255:02X}", "eth0", "hall")
                   + b"\0" for i in range(count)]
        with crowd.socket(bind=("", lan.SERVER_PORT)) as server:

            def answer():
                while server.recv(4096):
                    start = time.monotonic()
                    for i in range(2 * count):
                        while rate and time.monotonic() < start + i / rate:
                            pass
                        try:
                            server.sendto(replies[i // 2], ("192.168.1.20", lan.CLIENT_PORT))
                        except OSError:  # the LAN is gone
                            return

            threading.Thread(target=answer, daemon=True).start()
            discover(desk, count, f" (simulated, {f'{rate}/s' if rate else 'as fast as they go'})")


lan.enter()
if sys.argv[1:] == ["million"]:
    million()
    sys.exit()
startup()
native_queries()
kirvex()
discoveries()
for rate in (2000, 10000, 0):
    simulated_discovery(1000, rate)

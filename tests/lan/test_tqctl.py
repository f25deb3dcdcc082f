"""tqctl, the technician's tool: units of both protocols found, shown, set up and seen there, with the right to
packet sockets and without it."""
import base64
import contextlib
import json
import os
import pty
import random
import re
import select
import socket
import subprocess
import threading

import lan
import pytest

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--bounding-set=-all", "--inh-caps=-all"]
RIGHTS = {"root": [], "nobody": NOBODY}
# Notes the number by which stop() ends it.
NUMBERED = ["sh", "-c", 'echo $$ >/run/tqctl.pid; exec "$@"', "sh"]
MODEL = "QVR-7140-16T"
STANZA = "auto eth0\niface eth0 inet static\n  address {}\n  netmask 255.255.255.0\n"


def tqctl(host, *arguments, status=0, right="root", said="", **options):
    """Runs the tool, which must end with that status and say that on standard error; returns its output."""
    done = subprocess.run(host.tqctl(*arguments, prefix=RIGHTS[right]), timeout=120, check=False, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf8", errors="surrogateescape",
                          **{"stdin": subprocess.DEVNULL, **options})
    assert done.returncode == status and re.search(said, done.stderr), (
        f"tqctl {' '.join(arguments)}: status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def stop(host, process):
    host.run("kill $(cat /run/tqctl.pid)")
    return process.wait(30)


def listed(host, *arguments, **options):
    """The units, by MAC address."""
    found = json.loads(tqctl(host, *arguments, "list", "--json", **options))
    assert found["version"] == 1
    return {row["mac"]: row for row in found["units"]}


def unit(net, name="hall", address="192.168.1.21/24", start=True, setup="YES", files=(), **options):
    host = net.host(name, address, files={
        "etc/TQ.conf": f"NETSETUP={setup}\n",
        "etc/network/interfaces": STANZA.format(address[:-3]), **dict(files)}, **options)
    host.apply_settings()
    return host.start_tq() if start else host


def recorder(net, name="recorder", address="192.168.1.31/24", files=(), **options):
    host = unit(net, name, address, start=False, brand=16, port="8080",
                files={"mtd1/interfaces": STANZA.format(address[:-3]), **dict(files)}, **options)
    host.serve_account_pages("digest")
    return host.start_tq()


@contextlib.contextmanager
def answering(host, answers, loss=0.0):
    """Answers every query on `host` with these package texts, each twice; loses queries and answers alike."""
    chance = random.Random(1)
    stop = threading.Event()
    with host.socket(bind=("", lan.SERVER_PORT), device="eth0") as server:
        server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)

        def serve():
            while not stop.is_set():
                if select.select([server], [], [], 0.05)[0] and b"Moravelle,00" in bytes(
                        byte ^ 0xFF for byte in base64.b64decode(server.recv(65535).rstrip(b"\0"))):
                    for answer, copies in answers:
                        heard = chance.random() >= loss
                        for _ in range(copies):
                            if heard and chance.random() >= loss:
                                server.sendto(answer, ("255.255.255.255", lan.CLIENT_PORT))

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield
        finally:
            stop.set()
            thread.join()


def forged(number, name=None, ip=None, note="note", oui="02:00:00"):
    name = f"unit{number}" if name is None else name
    return lan.package(1, MODEL, "NVR", name, ip or f"192.168.{number >> 8 | 1}.{number & 255}", "80", "255.255.0.0",
                       lan.NO_ADDRESS, "192.168.1.2", f"{oui}:00:{number >> 8:02X}:{number & 255:02X}", "eth0", note)


@pytest.mark.parametrize("right", RIGHTS)
def test_lists_and_shows_units_of_both_protocols(net, right):
    units = {name: unit(net, name, address, **options) for name, address, options in (
        ("hall", "192.168.1.21/24", {"gateway": "192.168.1.1"}), ("store", "192.168.1.22/24", {"proj": "Nas"}),
        ("far", "10.77.5.9/24", {"gateway": "10.77.5.1"}), ("wide", "192.168.77.3/16", {"gateway": "192.168.0.1"}),
        ("double", "192.168.1.25/24", {"eth1": "10.1.0.25/24"}))}
    units["recorder"] = recorder(net, gateway="192.168.1.1")
    rows = listed(net.desk, right=right)
    assert len({tuple(row) for row in rows.values()}) == 1  # the same keys
    everywhere = {**units, "double's eth1": units["double"]}
    for name, host in everywhere.items():
        number = 1 if name.endswith("eth1") else 0
        row, own = rows.pop(host.macs[number]), host.record(number)
        kirvex = name == "recorder"
        assert row["heard"] > 1 and row["fits"] == (name not in ("far", "wide")) and row["interface"] == f"eth{number}"
        assert (row["protocol"], row["model"], row["name"], row["ip"], row["netmask"], row["gateway"], row["dns"]) == (
            "kirvex" if kirvex else "native", MODEL, MODEL if kirvex else own[2], own[3], own[5],
            None if own[6] == lan.NO_ADDRESS else own[6], [own[7]])
    assert not rows
    table = tqctl(net.desk, "list", right=right, said="(?m)^. not in this machine's subnets$").splitlines()
    assert table[0].split() == "NAME MODEL PROJECT ADDRESS GATEWAY MAC PORT NOTE".split() and len(table) == 8
    column = table[0].index("ADDRESS")
    assert [line[column:].split()[0] for line in table[1:]] == [
        "10.1.0.25/24", "10.77.5.9/24", "192.168.1.21/24", "192.168.1.22/24", "192.168.1.25/24", "192.168.1.31/24",
        "192.168.77.3/16"]
    assert [len(line.split("\t")) for line in tqctl(net.desk, "list", "--plain", right=right).splitlines()] == [12] * 7
    store = units["store"]
    assert tqctl(net.desk, "list", "-F", "nAS", "--format", r"${ip}\t${mac}") == f"192.168.1.22\t{store.macs[0]}\n"
    assert listed(net.desk, "-i", "eth1", "-t", "0.5", right=right).keys() == {units["double"].macs[1]}
    for name in ("store", "192.168.1.22", store.macs[0].lower(), store.macs[0].replace(":", "-")):
        assert re.search(r"(?m)^project +Nas\n", tqctl(net.desk, "show", name, right=right))
    assert tqctl(net.desk, "show", "nobody", status=3, said="no unit 'nobody' among 7 heard") == ""
    told = listed(net.desk, "--via", "192.168.1.21", right=right)
    assert {row["name"] for row in told.values()} == {*units, "hall"} - {"recorder"}


def test_sets_one_foreign_unit_whatever_the_routes(net):
    target, neighbour = unit(net, "far", "10.77.5.9/24"), unit(net, "store", "192.168.1.22/24")
    host, address = 9, "10.77.5.{}/24".format
    for right in RIGHTS:
        for route in (False, True):
            for rp_filter in (0, 1, 2):
                net.desk.run(f"echo {rp_filter} >/proc/sys/net/ipv4/conf/all/rp_filter; ip route del default; " +
                             ("ip route add default via 192.168.1.1" if route else ":"), stderr=subprocess.DEVNULL)
                host += 1
                wire = lan.Capture("store.0")
                said = tqctl(net.desk, "-t", "0.6", "set", target.macs[0], "--address", address(host), right=right,
                             said=r"asked far .* alone: 10\.77\.5\.\d+/24, gateway none, name server 192\.168\.1\.2\n")
                assert said == f"far ({target.macs[0]}) answers from {address(host)}, gateway none, name server 192.168.1.2\n"
                target.stop_all()
                target.start_tq()
                sent = [frame for _, frame, own in wire.frames() if not own]
                assert not [frame for frame in sent if b"far" in bytes(~byte & 255 for byte in frame)]
    assert "NETWORK_SETUP" not in neighbour.log()
    assert target.path("var/networking").read_text() == "restart\n" * 12


@pytest.mark.parametrize("right", RIGHTS)
def test_dhcp_gateway_and_units_that_do_not_take_it(net, right):
    host = unit(net, files={"etc/lease": "192.168.1.90 255.255.255.0\n"})
    out = tqctl(net.desk, "set", "hall", "--dhcp", right=right)
    assert out == f"hall ({host.macs[0]}) answers from 192.168.1.90/24, gateway none, name server 192.168.1.2\n"
    tqctl(net.desk, "set", "hall", "--address", "192.168.1.91/24", "--wait", "3", status=6, right=right,
          said="still answers from 192.168.1.90 after 3 s.*NETSETUP=NO")
    host.stop_all()
    host.start_tq()
    host.write({"etc/lease": "192.168.1.90 255.255.255.0\n"})
    assert "192.168.1.90/24" in tqctl(net.desk, "set", "hall", "--dhcp", right=right)  # the same once more
    closed = unit(net, "closed", "192.168.1.23/24", setup="NO")
    for wish in (["--dhcp"], ["--address", "192.168.1.23/24", "--gateway", "192.168.1.1"]):
        tqctl(net.desk, "set", "closed", *wish, "--wait", "3", status=6, right=right, said="restart the daemon")
    host.stop_all()
    host.start_tq()
    assert "gateway 192.168.1.1, name server 192.168.1.7" in tqctl(
        net.desk, "set", "hall", "--address", "192.168.1.92/24", "--gateway", "192.168.1.1", "--dns", "192.168.1.7",
        right=right)
    assert "  gateway 192.168.1.1\n" in host.path("etc/network/interfaces").read_text()
    assert not closed.path("var/networking").exists()


def test_refuses_what_would_go_wrong(net):
    hall, store = unit(net), unit(net, "store", "192.168.1.22/24")
    bare = unit(net, "bare", "192.168.1.23/24", files={"etc/resolv.conf": "\n"})
    comma, empty = unit(net, "comma", "192.168.1.24/24", proj="a,b"), unit(net, "empty", "192.168.1.25/24", proj="")
    twins = [unit(net, name, "192.168.1.26/24") for name in ("twin", "double")]
    units = [hall, store, bare, comma, empty, *twins]
    net.host("silent", "192.168.1.99/24")
    fits = ("--address", "192.168.1.50/24")
    for number, (arguments, status, said) in enumerate((
            (["set", "hall"], 2, "either --address A/PREFIX or --dhcp"),
            (["set", "hall", "--dhcp", *fits], 2, "either"),
            (["set", "hall", "--dhcp", "--gateway", "192.168.1.1"], 2, "by DHCP"),
            (["set", "hall", "--address", "192.168.1.50"], 2, "no ADDRESS/PREFIX"),
            (["set", "hall", "--address", "192.168.1.50/31"], 2, "from 1 to 30"),
            (["set", "hall", "--address", "192.168.1.50,x/24"], 2, "no ADDRESS/PREFIX"),
            (["set", "hall", "--address", "192.168.100.2000/24"], 2, "no ADDRESS/PREFIX"),
            (["set", "hall", "--address", "192.168.1.0/24"], 2, "network address"),
            (["set", "hall", "--address", "192.168.1.255/24"], 2, "broadcast address"),
            (["set", "hall", "--address", "224.0.0.5/24"], 2, "no address of a host"),
            (["set", "hall", *fits, "--gateway", "10.0.0.1"], 2, "not in the subnet"),
            (["set", "hall", *fits, "--gateway", "192.168.1.50"], 2, "can't be the gateway"),
            (["set", "hall", *fits, "--dns", "1.2.3.4\nx"], 2, "is no address"),
            (["set", "hall", "--address", "192.168.1.22/24"], 2, f"refused: {store.macs[0]} has"),
            (["set", "hall", "--address", "192.168.1.99/24"], 2, "refused: 02:.* has 192.168.1.99"),
            (["set", "hall", "--address", "192.168.1.20/24"], 2, "refused: this machine has"),
            (["set", "bare", *fits], 2, "refused: the unit reports no name server"),
            (["set", "192.168.1.24", *fits], 2, "refused: the unit's name is empty, everybody's or holds a comma"),
            (["set", "192.168.1.25", "--dhcp"], 2, "refused: the unit's project is empty"),
            (["set", "192.168.1.26", *fits], 4, "is 2 units.*\n  {}.*\n  {}".format(*(host.macs[0] for host in twins))),
            (["set", "nobody", *fits], 3, "no unit 'nobody'"),
            (["check-password", "hall"], 2, "knows no passwords"),
            (["set", "hall", *fits, "--dry-run"], 0, "nothing was sent"),
            (["set", "hall", "--address", "192.168.1.22/24", "--dry-run", "--yes"], 2, "and nothing would be"),
            (["-i", "eth7", "list"], 2, "no Ethernet interface eth7"), (["show", "hall", "--watch"], 2, "does not take"),
            (["list", "--format", "${nothing}"], 2, "(?s).{ip}.*has no ..nothing."), (["lst"], 2, "no command"),
            (["list", "-F", "Nas"], 3, "none of 7 units is of project 'Nas'"),
            (["list", "--json", "--plain"], 2, "exclude each other"), (["list", "--via", "192.168.1.98"], 3, "can't reach"),
            (["list", "--via", "hall"], 2, "'hall' is no address"),
            (["-t", "0", "list"], 2, "no number of seconds"))):
        tqctl(net.desk, *(["-t", "0.4"] if "-t" not in arguments else []), *arguments, status=status, said=said,
              right=list(RIGHTS)[number % 2])
    tqctl(net.desk, "-t", "0.4", "set", twins[0].macs[0], *fits, status=5, right="nobody", said="only a packet socket")
    net.desk.run("ip address flush dev eth0")
    tqctl(net.desk, "-t", "0.4", "-i", "eth0", "show", "hall")  # from 0.0.0.0, with the right
    net.desk.run("ip link set eth0 down; ip link set eth1 down")
    tqctl(net.desk, "list", status=5, said="no interface is up")
    assert not [host for host in units if "NETWORK_SETUP" in host.log()]


@pytest.mark.parametrize("right", RIGHTS)
def test_kirvex_settings_and_passwords(net, right):
    host, other = recorder(net), recorder(net, "other", "192.168.1.32/24")
    mac = host.macs[0]
    right_word, wrong_word = ["--password-file", "/etc/right"], ["--password-file", "/etc/wrong"]
    net.desk.write({"etc/right": "1234\n", "etc/wrong": "4321\n", "etc/new": "98765\n", "etc/letters": "secret\n"})

    def run(*arguments, **options):
        return tqctl(net.desk, "-t", "0.5", *arguments, right=right, **options)

    run("set", MODEL, "--dhcp", *right_word, status=4, said="is 2 units")
    run("check-password", mac, status=2, said="no terminal")
    assert run("check-password", mac, *right_word, said="may end") == f"{mac}: the password of admin is right\n"
    run("check-password", mac, *wrong_word, status=7, said="the password is wrong")
    assert run("check-password", mac, "--password-stdin", stdin=None, input="1234\n")
    run("check-password", mac, "--account", "guest", *right_word, status=2, said="begins with .admin.")
    run("set", mac, "--address", "192.168.1.131/24", *wrong_word, status=7, said="refuses")
    assert not host.path("var/networking").exists()
    assert "answers from 192.168.1.131/24, gateway 192.168.1.1, name server 192.168.1.3\n" in run(
        "set", mac, "--address", "192.168.1.131/24", "--gateway", "192.168.1.1", "--dns", "192.168.1.3", *right_word)
    # What the unit keeps of that request is of no use to a stranger.
    before = host.path("tmp/account-pages/log").read_text()
    host.addresses[0] = "192.168.1.131/24"
    header = lan.kirvex_request(lan.CHANGE, host)
    assert [reply[16] for _, reply in net.desk.ask_kirvex(header)] == [1]
    assert "config.set" not in host.path("tmp/account-pages/log").read_text()[len(before):]
    host.write({"etc/lease": "192.168.1.131 255.255.255.0\n", "etc/resolv.conf": "#nameserver 192.168.1.3\n"})
    run("set", mac, "--address", "192.168.1.132/24", *right_word, status=6, said="did not carry it out")
    assert "192.168.1.131/24" in run("set", mac, "--dhcp", *right_word)
    new = ["--new-password-file", "/etc/new"]
    run("password", mac, *right_word, "--new-password-file", "/etc/letters", status=2, said="1 to 31 digits")
    run("password", mac, *wrong_word, *new, status=7, said="refuses")
    assert "the new one works" in run("password", mac, *right_word, *new)
    assert "the new one works" in run("password", mac, "--password-stdin", stdin=None, input="98765\n1234\n")
    host.web_log()
    run("check-password", mac, *right_word, "--wait", "8", status=7, said="web server does not answer")
    assert other.path("mtd1/interfaces").read_text() == STANZA.format("192.168.1.32")


def test_kirvex_unit_that_can_not_answer(net):
    host = recorder(net, address="10.77.5.31/24", gateway="10.77.5.1")
    hint = r"10\.77\.5\.31 \(" + host.macs[0] + r"\) on eth0 can't answer, its gateway is 10\.77\.5\.1: .*\n  tqctl show 10\.77\.5\.31\n"
    tqctl(net.desk, "list", status=3, said=hint)
    (silent,) = json.loads(tqctl(net.desk, "list", "--json", status=3))["silent"]
    assert silent == {"ip": "10.77.5.31", "gateway": "10.77.5.1", "mac": host.macs[0], "interface": "eth0"}
    net.desk.write({"etc/right": "1234\n"})
    addresses = net.desk.run("ip -o -4 address")
    tqctl(net.desk, "show", "10.77.5.31", status=2, said="--yes gives eth0 the address 10.77.5.32/24")
    if not lan.CHOSEN.emulator:  # which does not ask the kernel whose address it is
        tqctl(net.desk, "show", "10.77.5.31", "--yes", right="nobody", status=5, said="setcap")
    assert '"name":"QVR-7140-16T"' in tqctl(net.desk, "show", host.macs[0], "--yes", "--json")
    waiting = subprocess.Popen(net.desk.tqctl("-t", "30", "show", "10.77.5.31", "--yes", prefix=NUMBERED),
                               stderr=subprocess.DEVNULL)
    lan.wait_until(lambda: "10.77.5.32" in net.desk.run("ip -o -4 address"), seconds=60)
    assert stop(net.desk, waiting) in (-15, 128 + 15)
    assert net.desk.run("ip -o -4 address") == addresses
    lan.ip("route del default", host=host)  # now everybody is its neighbour, but none of a desk that filters
    assert host.macs[0] in listed(net.desk)
    net.desk.run("echo 1 >/proc/sys/net/ipv4/conf/eth0/rp_filter")
    host.run("ip neighbour flush dev eth0")
    tqctl(net.desk, "list", status=3, said="its gateway is none")
    out = tqctl(net.desk, "-t", "0.6", "set", "10.77.5.31", "--address", "192.168.1.31/24", "--gateway", "192.168.1.1",
                "--password-file", "/etc/right", "--yes", said="for the length of this command")
    assert "answers from 192.168.1.31/24, gateway 192.168.1.1" in out
    assert net.desk.run("ip -o -4 address") == addresses
    out = tqctl(net.desk, "-t", "0.6", "set", "192.168.1.31", "--address", "10.99.0.31/24", "--password-file", "/etc/right")
    assert out == f"{host.macs[0]} has 10.99.0.31: it answers address resolution there\n"


def test_hostile_texts_do_no_harm(net):
    crowd = net.host("crowd", "192.168.1.200/24")
    evil = ["\x1b[2J\x9b5m\r\n", "caf\xc3\xa9\xff", '"\\\t\x7f', "\xe2\x80\xae\xc2\x9b", "%s%n", "\xf0\x9f\x93\xb7" * 15, "x" * 63]
    answers = [(forged(number, name=text, note=text), 2) for number, text in enumerate(evil)]
    answers += [(forged(100, note="one, two"), 2), (forged(101, note=""), 2), (forged(102, name="a,b"), 2), (forged(103), 1),
                (lan.package(1, "no", "unit", "at", "all"), 2), (lan.package(7, "x"), 2), (b"noise", 2)]
    with answering(crowd, answers):
        rows = [row for row in json.loads(tqctl(net.desk, "-t", "0.3", "list", "--json"))["units"]]
        table, plain = (tqctl(net.desk, "-t", "0.3", "list", *form) for form in ([], ["--plain"]))
        main, other = pty.openpty()
        subprocess.run(["stty", "cols", "80"], stdin=other, check=True)
        subprocess.run(net.desk.tqctl("-t", "0.3", "list"), stdin=other, stdout=other, stderr=subprocess.DEVNULL, check=True)
        os.close(other)
        screen = os.read(main, 65536).decode().replace("\r\n", "\n")
    names = {row["mac"]: row["name"] for row in rows}
    assert [names[f"02:00:00:00:00:{number:02X}"] for number in range(4)] == [
        "\x1b[2J\x9b5m\r\n".replace("\x9b", "\ufffd"), "caf\xe9\ufffd", '"\\\t\x7f', "\u202e\x9b"]
    fields = {row["mac"]: row["fields"] for row in rows}
    assert [fields[f"02:00:00:00:00:{number:02X}"] for number in (100, 101, 102, 103)] == [12, 10, 12, 11]
    assert names["02:00:00:00:00:66"] == "a,b" and len(rows) == len(evil) + 5
    for text in (table, plain, screen):
        assert not re.search(r"[\x00-\x08\x0b-\x1f\x7f-\x9f\u202e]|[\ud800-\udfff]", text)
    assert len({line.count("\t") for line in plain.splitlines()}) == 1
    assert "[12 fields] one, two" in table and r"\x1b[2J\x9b5m\x0d\x0a" in table and "no,unit,at,all" in table
    assert len(screen.splitlines()) == len(rows) + 1 and "x~ " in screen

    # A setup for one who says to be everybody would be the only one of every unit.
    store = unit(net, "store", "192.168.1.22/24")
    everybody = ("255.255.255.255", "192.168.1.255", "224.0.0.1")
    answers = [(forged(number, ip=ip), 2) for number, ip in enumerate(everybody)] + [(forged(9, oui="FF:FF:FF"), 2)]
    with answering(crowd, answers):
        for ip in everybody:
            tqctl(net.desk, "-t", "0.3", "set", ip, "--dhcp", right="nobody", status=5, said="only a packet socket")
        tqctl(net.desk, "-t", "0.3", "set", "unit9", "--dhcp", status=2, said="MAC address is empty, everybody's")
    assert "NETWORK_SETUP" not in store.log()


def test_crowds_and_losses(net):
    crowd = net.host("crowd", "192.168.1.200/24")
    with answering(crowd, [(forged(number), 2) for number in range(250)]):
        assert len(listed(net.desk)) == 250
    # In a foreign subnet a unit is heard once for each query, elsewhere twice.
    answers = [(forged(number, ip="10.9.9.9" if number < 10 else None), 1 if number < 10 else 2) for number in range(50)]
    with answering(crowd, answers, loss=0.05):
        for _ in range(20 if not lan.CHOSEN.emulator else 2):
            assert len(listed(net.desk, right="nobody")) == 50


def test_watch_shows_who_comes_and_goes(net):
    host = unit(net)
    with subprocess.Popen(net.desk.tqctl("list", "--watch", prefix=NUMBERED), stdout=subprocess.PIPE, text=True) as watch:
        def next_line():
            return watch.stdout.readline().split("\t")[:5]

        assert next_line() == ["+", "hall", MODEL, "NVR", "192.168.1.21"]
        host.run("hostname attic")
        host.write({"etc/Note": "moved\n"})
        second = unit(net, "store", "192.168.1.22/24")
        assert [next_line()[1] for _ in range(2)] and second
        second.stop_all()
        lan.wait_until(lambda: next_line()[:2] == ["-", "store"])
        stop(net.desk, watch)

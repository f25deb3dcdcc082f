"""The KIRVEX service of brand 16: requests on the wire, a real web server behind them, files rewritten."""
import re
import socket
import time

import lan
import pytest
from lan import CHANGE, KIRVEX_PORT, OPTIONS, SEARCH, SETUP, VERIFY, kirvex_credentials, kirvex_request, kirvex_settings

MODEL = "QVR-7140-16T"
INTERFACES = """auto eth0
iface eth0 inet static
  address 192.168.1.31

auto eth1
iface eth1 inet dhcp
"""
RESOLVER = "nameserver 192.168.1.2\nnameserver 8.8.8.8\n"


@pytest.fixture(name="net")
def _net():
    with lan.Lan() as net:
        net.desk = net.host("desk", "192.168.1.20/24", eth1="10.1.0.20/24")
        yield net


def recorder(net, name="recorder", address="192.168.1.31/24", start=(), **options):
    host = net.host(name, address, brand=16, gateway="192.168.1.1", port="8080",
                    files={"mtd1/interfaces": INTERFACES, "etc/resolv.conf": RESOLVER}, **options)
    return host.start_tq(*start, ready="KIRVEX UDP Socket")


def ask(net, *requests, to="255.255.255.255", device="eth0", quiet=0.5):
    """The (address, reply) pairs that came until nothing came for `quiet` seconds."""
    with net.desk.socket(bind=("", 40000), device=device) as tool:
        for request in requests:
            tool.sendto(request, (to, KIRVEX_PORT))
        tool.settimeout(quiet)
        found = []
        while True:
            try:
                reply, (address, port) = tool.recvfrom(65535)
            except TimeoutError:
                return sorted(found)
            assert port == KIRVEX_PORT
            found.append((address, reply))


def search_reply(host, dhcp, number=0, sequence=b"\x12\x34"):
    """All that a unit says of itself but the time, which stands between the two parts."""
    quad, record = socket.inet_aton, host.record(number)
    mac, address = bytes.fromhex(record[8].replace(":", "")), quad(record[3])
    name = MODEL.encode().ljust(64, b"\0")
    return (b"\xee\xfe" + sequence + b"\xa1\0" + mac + address + b"\0\0\1\0\x38\1" + b"Orvane".ljust(64, b"\0") +
            name + name[:32] + b"1.41".ljust(32, b"\0") + b"\1\0" + bytes(4) + mac + name + address +
            b"\x90\x1f" + bytes(2) + quad(record[5]) + quad("192.168.1.1") + quad("192.168.1.2") +
            quad("8.8.8.8") + bytes([dhcp]), bytes(5))


def test_search_is_answered_by_every_unit_of_the_brand(net):
    units = [recorder(net), recorder(net, "second", "192.168.1.32/24")]
    net.host("other", "192.168.1.33/24").start_tq()
    units[1].write({"mtd1/interfaces": "iface eth0 inet DHCP\n"})
    junk = [b"", b"\xfd\xfd", b"\xee\xfe" + kirvex_request(SEARCH)[2:], kirvex_request(0xA6), b"\xff" * 16385,
            kirvex_request(SEARCH, mode=b"w\1"), b"\xfd\xfd\0\0\xa4\0" + bytes(65000)]
    assert ask(net, *junk) == []
    for mode in (b"\0\0", b"ww", b"w\0"):
        for host, dhcp, (address, reply) in zip(units, (0xFF, 1), ask(net, kirvex_request(SEARCH, mode=mode)), strict=True):
            head, tail = search_reply(host, dhcp)
            assert (address, reply[:315], reply[329:]) == (host.record()[3], head, tail)
            assert abs(time.mktime(time.strptime(reply[315:329].decode() + "UTC", "%Y%m%d%H%M%S%Z")) -
                       time.mktime(time.gmtime())) < 5
    mark = kirvex_request(OPTIONS, units[0], sequence=b"ab")
    assert ask(net, mark) == [("192.168.1.31", b"\xee\xfeab\xa5\0" + mark[6:16] + b"\0\0\1\0\0\0")]


@pytest.mark.parametrize("start, answering", [([], "eth0"), (["-I", "eth1"], "eth1")])
def test_only_the_named_interface_answers(net, start, answering):
    host = recorder(net, start=start, eth1="10.1.0.31/24")
    for number, device in enumerate(("eth0", "eth1")):
        replies = [reply[:315] for _, reply in ask(net, kirvex_request(SEARCH), device=device)]
        expected = search_reply(host, 1 if number else 0xFF, number)[0]
        assert replies == ([expected] if device == answering else [])


def test_missing_interface_ends_the_server(net):
    host = recorder(net, start=["-I", "eth7"])
    assert re.search(r"setsockopt error: No such device\n.*Create KIRVEX UDP Socket port 62976 failed!\n", host.log())
    lan.wait_until(lambda: "TQ" not in host.run("cat /proc/[0-9]*/cmdline"))


def status(host, request, code=0, error=0, state=0, wait=0):
    """The one reply that says this."""
    words = b"".join(word.to_bytes(4, "little") for word in (error, state, wait, 0))
    return [("192.168.1.31", b"\xee\xfe" + request[2:16] + bytes([code, 0]) + b"\1\0\x10\0" + words)]


@pytest.mark.parametrize("scheme", ["digest", "basic"])
def test_account_and_settings_through_the_web_server(net, scheme):
    host = recorder(net)
    host.serve_account_pages(scheme)

    for account, privilege in (("admin", 1), ("guest", 2)):
        request = kirvex_request(VERIFY, host, kirvex_credentials(account, "wrong"))
        assert ask(net, request) == [("192.168.1.31", b"\xee\xfe" + request[2:16] + b"\0\0\1\0\4\0" +
                                      privilege.to_bytes(4, "little"))]
    stranger = kirvex_request(VERIFY, host, kirvex_credentials("admin", ""))
    assert ask(net, stranger[:11] + b"\xff" + stranger[12:], stranger[:12] + bytes(4) + stranger[16:]) == []

    old = INTERFACES[INTERFACES.index("iface"):INTERFACES.index("auto eth1")]
    host.path("opt/udhcpc").symlink_to("/bin/busybox")
    host.run("/opt/udhcpc -f -s /bin/true -i eth0 >/dev/null 2>&1 &", stdout=None)
    for dhcp, stanza, servers in (
            (True, f"iface eth0 inet dhcp\n  hostname {MODEL}\n\n", RESOLVER),
            (False, "iface eth0 inet static\n  address 192.168.1.77\n  netmask 255.255.255.0\n  gateway 192.168.1.1\n\n",
             RESOLVER.replace("192.168.1.2", "10.0.0.9"))):
        assert "udhcpc" in host.run("cat /proc/[0-9]*/cmdline")  # only static settings stop it
        settings = kirvex_settings(MODEL, "192.168.1.77", "255.255.255.0", "192.168.1.1", "10.0.0.9", dhcp)
        request = kirvex_request(SETUP, host, kirvex_credentials("admin", "1234") + settings)
        assert ask(net, request) == status(host, request, state=2, wait=3)
        lan.wait_until(host.path("var/networking").exists)
        assert host.path("mtd1/interfaces").read_text() == INTERFACES.replace(old, stanza)
        assert host.path("etc/resolv.conf").read_text() == servers
        assert host.path("var/networking").read_text() == "restart eth0\n"
        host.path("var/networking").unlink()
    lan.wait_until(lambda: "udhcpc" not in host.run("cat /proc/[0-9]*/cmdline"))

    for new, code, error in (("letters", 1, 1013), ("98765", 0, 0)):
        request = kirvex_request(CHANGE, host, kirvex_credentials("admin", "1234", "admin", new))
        assert ask(net, request, quiet=1) == status(host, request, code, error)
    assert host.path("tmp/passwd").read_text() == "admin:98765\n" and not host.path("tmp/session").exists()
    request = kirvex_request(SETUP, host, kirvex_credentials("admin", "1234") + settings)
    assert ask(net, request, quiet=3) == status(host, request, code=1)  # the old password no longer does
    assert len(host.run("ls /proc/$(cat /var/run/TQ.pid)/fd").split()) == 4

    host.run("kill $(cat /run/lighttpd.pid)")
    log = lan.wait_until(host.path("tmp/web.log").read_text)
    login, release, nothing = "/auth/login", "/Forcekick.set?ITSELF&THREAD_ID=4711", "/Forcekick.set?ITSELF&THREAD_ID="
    assert re.findall("200 GET (.*) HTTP", log) == [
        *[login, release] * 2, nothing, login, "/auth/account.get",
        "/auth/config.set?ACCOUNTSETUP_PASSWORD1[0]=98765&THREAD_ID=4711", release, nothing]
    assert log.count("401 GET /auth/") == (13 if scheme == "digest" else 7)

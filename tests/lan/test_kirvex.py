"""The KIRVEX service of brand 16: requests on the wire, a real web server behind them, files rewritten."""
import re

import lan
import pytest
from lan import CHANGE, SEARCH, SETUP, VERIFY, kirvex_credentials, kirvex_request, kirvex_settings

MODEL = "QVR-7140-16T"
OLD = "iface eth0 inet static\n  address 192.168.1.31\n\n"
INTERFACES = f"auto eth0\n{OLD}auto eth1\niface eth1 inet dhcp\n"
RESOLVER = "nameserver 192.168.1.2\nnameserver 8.8.8.8\n"


def recorder(net, name="recorder", address="192.168.1.31/24", start=(), **options):
    files = {"mtd1/interfaces": INTERFACES, "etc/resolv.conf": RESOLVER}
    host = net.host(name, address, brand=16, gateway="192.168.1.1", port="8080", files=files, **options)
    return host.start_tq(*start)


@pytest.mark.parametrize("start, answering", [([], "eth0"), (["-I", "eth1"], "eth1")])
def test_search_is_answered_by_every_unit_of_the_brand_on_its_interface(net, start, answering):
    recorder(net, eth1="10.1.0.31/24", start=start)
    recorder(net, "second", "192.168.1.32/24", eth1="10.1.0.32/24", start=start)
    net.host("other", "192.168.1.33/24").start_tq()
    for junk in (b"", b"\xfd\xfd", b"\xff" * 65507, kirvex_request(SEARCH, mode=b"w\1"), kirvex_request(0xA6)):
        assert net.desk.ask_kirvex(junk, answering, patience=0.5) == []
    for device, addresses in (("eth0", ["192.168.1.31", "192.168.1.32"]), ("eth1", ["10.1.0.31", "10.1.0.32"])):
        replies = net.desk.ask_kirvex(kirvex_request(SEARCH), device, patience=10 if device == answering else 0.5)
        assert [(address, len(reply)) for address, reply in replies] == (
            [(address, 334) for address in addresses] if device == answering else [])


def test_missing_interface_ends_the_server(net):
    host = recorder(net, start=["-I", "eth7"])
    assert re.search(r"setsockopt error: No such device\n.*Create KIRVEX UDP Socket port 62976 failed!\n", host.log())
    lan.wait_until(lambda: "TQ" not in host.processes())


@pytest.mark.parametrize("scheme, refusals", [("digest", 2), ("basic", 1)])
def test_account_and_settings_through_the_web_server(net, scheme, refusals):
    host = recorder(net)
    host.serve_account_pages(scheme)

    def check(operation, body, *words, code=0):
        request = kirvex_request(operation, host, body)
        reply = b"".join(word.to_bytes(4, "little") for word in words)
        assert net.desk.ask_kirvex(request) == [
            ("192.168.1.31", b"\xee\xfe" + request[2:16] + bytes([code, 0, 1, 0, len(reply), 0]) + reply)]

    check(VERIFY, kirvex_credentials("admin", "wrong"), 1)
    check(VERIFY, kirvex_credentials("guest", "1234"), 2)

    host.path("opt/udhcpc").symlink_to("/bin/busybox")
    host.run("/opt/udhcpc -f -s /bin/true -i eth0 >/dev/null 2>&1 &", stdout=None)
    static = "iface eth0 inet static\n  address 192.168.1.77\n  netmask 255.255.255.0\n  gateway 192.168.1.1\n\n"
    for dhcp, stanza, servers in ((True, f"iface eth0 inet dhcp\n  hostname {MODEL}\n\n", RESOLVER),
                                  (False, static, RESOLVER.replace("192.168.1.2", "10.0.0.9"))):
        assert "udhcpc" in host.processes()  # only static settings stop it
        settings = kirvex_settings(MODEL, "192.168.1.77", "255.255.255.0", "192.168.1.1", "10.0.0.9", dhcp)
        check(SETUP, kirvex_credentials("admin", "1234") + settings, 0, 2, 3, 0)
        lan.wait_until(lambda: host.path("var/networking").exists() and host.path("var/networking").read_text())
        assert host.path("var/networking").read_text() == "restart eth0\n"
        assert host.path("mtd1/interfaces").read_text() == INTERFACES.replace(OLD, stanza)
        assert host.path("etc/resolv.conf").read_text() == servers
        host.path("var/networking").unlink()
    lan.wait_until(lambda: "udhcpc" not in host.processes())

    check(CHANGE, kirvex_credentials("admin", "1234", "admin", "letters"), 1013, 0, 0, 0, code=1)
    check(CHANGE, kirvex_credentials("admin", "1234", "admin", "98765"), 0, 0, 0, 0)
    check(SETUP, kirvex_credentials("admin", "1234") + settings, 0, 0, 0, 0, code=1)  # no longer the password
    assert len(host.run("ls /proc/$(cat /var/run/TQ.pid)/fd").split()) == 4

    login, release, nothing = "/auth/login", "/Forcekick.set?ITSELF&THREAD_ID=4711", "/Forcekick.set?ITSELF&THREAD_ID="
    change = "/auth/config.set?ACCOUNTSETUP_PASSWORD1[0]=98765&THREAD_ID=4711"
    log = host.web_log()
    assert re.findall("200 GET (.*) HTTP", log) == [
        *[login, release] * 2, nothing, login, "/auth/account.get", change, release, nothing]
    assert log.count("401 GET /auth/") == 6 * refusals + 1

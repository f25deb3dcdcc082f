"""The KIRVEX service, as boards of brand 16 start it; tests/kirvex has what it does with requests."""
import re
import socket

import lan
import pytest
from lan import SEARCH, kirvex_request


def recorder(net, name="recorder", address="192.168.1.31/24", start=(), **options):
    return net.host(name, address, brand=16, **options).start_tq(*start)


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


def test_answers_in_a_row_show_what_holds_and_nothing_stays_open_behind_them(net):
    host = recorder(net, gateway="192.168.1.1")
    descriptors = "ls /proc/$(cat /var/run/TQ.pid)/fd"
    at_rest = host.run(descriptors)
    for _ in range(2):
        for change, gateway in (("route replace default via 192.168.1.9", "192.168.1.9"),
                                ("route del default", "0.0.0.0"),
                                ("route add default via 192.168.1.1", "192.168.1.1")):
            lan.ip(change, host=host)
            (_, reply), = net.desk.ask_kirvex(kirvex_request(SEARCH))
            assert socket.inet_ntoa(reply[302:306]) == gateway
        host.run("kill -STOP $(cat /var/run/TQ.pid) && kill -CONT $(cat /var/run/TQ.pid)")
        lan.wait_until(lambda: host.run(descriptors) == at_rest, 3)
    assert "recvfrom" not in host.log()


def test_missing_interface_ends_the_server(net):
    host = recorder(net, start=["-I", "eth7"])
    assert re.search(r"setsockopt error: No such device\n.*Create KIRVEX UDP Socket port 62976 failed!\n", host.log())
    lan.wait_until(lambda: "TQ" not in host.processes())

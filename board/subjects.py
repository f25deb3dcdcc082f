"""What a unit does on the LAN, proved with an emulated board."""
import re
import socket
import time

import lan
from lan import KIRVEX_PORT, LIST_REQUEST, SEARCH, SERVER_PORT, SETUP, VERIFY
from machine import CACHE, Board, disk_image

INTERFACES = "auto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet static\n  address {}\n  netmask 255.255.255.0\n\n"
RESOLVER = "nameserver 192.168.1.2\nnameserver 8.8.8.8\n"


def static(address, gateway="192.168.1.1"):
    return (f"auto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet static\n  address {address}\n"
            f"  netmask 255.255.255.0\n  gateway {gateway}\n\n")


def shown(text, record):
    """Whether the client printed this unit."""
    model, proj, name, ip, port, netmask, gateway, dns, mac, dev, note = record
    groups = (model, proj, name), (ip, port, netmask), (gateway, dns, mac), (dev, note)
    return all(f"= ({', '.join(group)})\n" in text for group in groups)


def answers(desk, board, patience=10):
    """Whether a query finds the board with just its record."""
    return ["01", *board.record()] in [records[0] for records in desk.ask(patience=patience)]


def found(desk, board):
    lan.wait_until(lambda: answers(desk, board, 1), 30, lambda: f"no answer from {board.record()}")


def judged(wire, board, port):
    """Checks every datagram that the board broadcast to a port: two for each package, one of which fits its subnet."""
    sent = [one for one in wire.datagrams() if one.dport == port]
    assert sent and all(one.right for one in sent), sent
    address = board.record()[3]
    ends = [(one.src, one.dst) for one in sent]
    subnet = address.rsplit(".", 1)[0] + ".255"
    assert ends == [("0.0.0.0", "255.255.255.255"), (address, subnet)] * (len(sent) // 2), ends
    return f"{len(sent)} frames, all checksums right"


def discovery(report, _):
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24")
        units = [net.host("cam1", "192.168.1.21/24").start_tq(), net.host("far", "10.99.1.9/24").start_tq()]
        with Board(net, "board", "192.168.1.31/24", start="script") as board:
            board.wait_tq()
            for address, where in ("192.168.1.31", "one subnet"), ("10.77.5.31", "a foreign subnet"):
                if address != board.record()[3]:
                    board.settle(address)
                with report.line(f"found from {where}, configured by ifup") as details:
                    wire = lan.Capture(board.tap)
                    assert shown(desk.tq("-I", "eth0"), board.record())
                    details.append(judged(wire, board, lan.CLIENT_PORT))
                with report.line(f"finds others from {where}") as details:
                    wire = lan.Capture(board.tap)
                    listed = board.run("TQ -I eth0")
                    assert all(shown(listed, unit.record()) for unit in units), listed
                    details.append(judged(wire, board, SERVER_PORT))


def serve_dhcp(desk, board, address):
    desk.run("dnsmasq --port=0 --conf-file=/dev/null --user=root --pid-file=/run/dnsmasq.pid --dhcp-authoritative "
             f"--dhcp-leasefile=/tmp/leases --dhcp-range=192.168.1.60,192.168.1.70 --dhcp-host={board.macs[0]},{address}",
             stdout=None)


def end_dhcp(desk):
    desk.run("kill $(cat /run/dnsmasq.pid)")


def set_up(desk, board, **settings):
    """Sends a native setup and waits until the board's network has been restarted."""
    board.run("rm -f /var/log/networking")
    with desk.socket() as tool:
        tool.sendto(lan.package(3, *board.record(**settings)) + b"\0", (board.record()[3], SERVER_PORT))
    lan.wait_until(lambda: "done" in board.run("cat /var/log/networking", check=False), 60, board.messages)


def files(board):
    return board.run("cat /mtd1/interfaces"), board.run("cat /mtd1/resolv.conf")


def native(report, _):
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24")
        unit = net.host("cam1", "192.168.1.21/24").start_tq()
        disk = disk_image(lan.BASE / "native.img", "jffs2", {
            "interfaces": INTERFACES.format("192.168.1.31"), "resolv.conf": RESOLVER})
        with Board(net, "board", "192.168.1.31/24", fs="jffs2", disk=disk, start="script") as board:
            board.wait_tq()
            both = sorted(["01", *one.record()] for one in (unit, board))
            with report.line("list by UDP"):
                with desk.socket(bind=("", lan.CLIENT_PORT)) as client:
                    client.sendto(LIST_REQUEST, ("192.168.1.31", SERVER_PORT))
                    lists = [sorted(lan.records(data)) for data, _ in lan.collect(client, 10, quiet=4)]
                assert both in lists, lists
            with report.line("list by TCP"):
                with desk.socket(kind=socket.SOCK_STREAM) as client:
                    client.connect(("192.168.1.31", SERVER_PORT))
                    client.sendall(LIST_REQUEST)
                    got = b"".join(iter(lambda: client.recv(65536), b""))
                assert sorted(lan.records(got)) == both, lan.records(got)
            with report.line("setup rewrites the flash's files, restarts the network, is found at the new address"):
                set_up(desk, board, ip="192.168.1.77", gateway="192.168.1.1", dns="10.0.0.9", note="static")
                new = static("192.168.1.77"), RESOLVER.replace("192.168.1.2", "10.0.0.9")
                assert files(board) == new, files(board)
                board.addresses = ["192.168.1.77/24"]
                board.facts.update(gateway="192.168.1.1", dns="10.0.0.9")
                found(desk, board)
            with report.line("a second setup is ignored"):
                with desk.socket() as tool:
                    tool.sendto(lan.package(3, *board.record(ip="192.168.1.78")) + b"\0", ("192.168.1.77", SERVER_PORT))
                found(desk, board)  # that setup has been through before this query
                assert files(board) == new, files(board)
            board.restart_tq()
            with report.line("setup to DHCP with a server: found at the address that it gave"):
                serve_dhcp(desk, board, "192.168.1.66")
                set_up(desk, board, note="dhcp")
                dhcp = "auto lo\niface lo inet loopback\n\nauto eth0\niface eth0 inet dhcp\n  hostname board\n\n"
                assert files(board) == (dhcp, new[1]), files(board)
                board.addresses, board.facts["gateway"] = ["192.168.1.66/24"], "192.168.1.20"
                found(desk, board)
            with report.line("setup to DHCP without a server: silent without an address, answers with one") as details:
                end_dhcp(desk)
                board.run("ifdown eth0; killall udhcpc; true")
                board.settle("192.168.1.79")
                board.facts["gateway"] = lan.NO_ADDRESS
                board.restart_tq()
                found(desk, board)
                start = time.monotonic()
                set_up(desk, board, note="dhcp")
                details.append(f"udhcpc held the server for {time.monotonic() - start:.0f} s")
                assert not desk.ask(to="255.255.255.255", patience=1) or not answers(desk, board, 1)
                serve_dhcp(desk, board, "192.168.1.66")
                board.run("ifdown eth0; ifup eth0")
                board.addresses, board.facts["gateway"] = ["192.168.1.66/24"], "192.168.1.20"
                found(desk, board)


def kirvex(report, _):
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24")
        disk = disk_image(lan.BASE / "kirvex.img", "jffs2", {
            "interfaces": "auto eth0\niface eth0 inet dhcp\n", "resolv.conf": RESOLVER})
        board = Board(net, "board", "192.168.1.31/24", fs="jffs2", disk=disk, start="script", brandid=16)
        serve_dhcp(desk, board, "192.168.1.31")
        with board:
            board.wait_tq()
            board.run("date -s '2026-11-15 17:11:00'")

            def ask(operation, *texts, settings=b""):
                return desk.ask_kirvex(lan.kirvex_request(operation, board, lan.kirvex_credentials(*texts) + settings))

            with report.line("search, with the DHCP byte and the clock") as details:
                (address, reply), = desk.ask_kirvex(lan.kirvex_request(SEARCH))
                assert (address, len(reply), reply[314]) == ("192.168.1.31", 334, 1), reply
                when = reply[315:329].decode()
                assert re.fullmatch("2026111517111[0-9]|2026111517110[0-9]", when), when
                details.append(f"says {when}")
            with report.line("verification"):
                assert [reply[-4:] for _, reply in ask(VERIFY, "admin", "x")] == [b"\1\0\0\0"]
            settings = lan.kirvex_settings("QVR-7140-16T", "192.168.1.77", "255.255.255.0", "192.168.1.1", "10.0.0.9", 0)
            before = files(board)
            with report.line("a wrong password changes nothing"):
                (_, reply), = ask(SETUP, "admin", "wrong", settings=settings)
                assert reply[16:18] == b"\1\0" and files(board) == before, reply
            with report.line("setup with a login on the board's httpd: udhcpc ended, found at the new address"):
                assert board.status("pidof udhcpc") == 0
                wire = lan.Capture(board.tap)
                (_, reply), = ask(SETUP, "admin", "1234", settings=settings)
                assert reply[16:] == bytes([0, 0, 1, 0, 16, 0, 0, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0]) + bytes(4), reply
                lan.wait_until(lambda: "done" in board.run("cat /var/log/networking", check=False), 60, board.messages)
                assert board.status("pidof udhcpc") == 1
                assert board.run("head -n 1 /var/log/networking") == "restart eth0\n"
                new = static("192.168.1.77").split("\n\n", 1)[1], RESOLVER.replace("192.168.1.2", "10.0.0.9")
                assert files(board) == new, files(board)
                lan.wait_until(lambda: [at for at, _ in desk.ask_kirvex(lan.kirvex_request(SEARCH), patience=1)] ==
                               ["192.168.1.77"], 30)
                sent = [one for one in wire.datagrams() if one.sport == KIRVEX_PORT]
                assert sent and all(one.right for one in sent), sent


def request(board, name, text):
    board.run(f"echo '{text}' >/var/watchdog/{name}")


def watchdog(report, _):
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24")
        disk = disk_image(lan.BASE / "watchdog.img", "jffs2", {})
        with Board(net, "board", "192.168.1.31/24", fs="jffs2", disk=disk, start="script") as board:
            board.wait_tq()
            with report.line("RERUN runs"):
                request(board, "RERUN", "0,echo ran >/tmp/ran")
                lan.wait_until(lambda: board.status("test -s /tmp/ran && ! test -e /var/watchdog/RERUN") == 0, 10)
            with report.line("the clock starts in 1970: requests and queries are served, one for 2026 when it is set"):
                assert board.run("date +%Y") == "1970\n"
                request(board, "RERUN", f"{int(board.run('date +%s')) + 4},echo >/tmp/soon")
                lan.wait_until(lambda: board.status("test -e /tmp/soon") == 0, 15)
                request(board, "RERUN", "1793000000,echo >/tmp/late")
                found(desk, board)
                time.sleep(3)
                assert board.status("test -e /tmp/late") == 1
                board.run("date -s @1793000001")
                lan.wait_until(lambda: board.status("test -e /tmp/late") == 0, 10)
                found(desk, board)
            with report.line("REBOOT reboots, once") as details:
                start = time.monotonic()
                board.send("echo 0 >/var/watchdog/REBOOT")
                board.wait_shell()
                details.append(f"a shell again after {time.monotonic() - start:.1f} s")
                board.wait_tq()
                found(desk, board)
                time.sleep(5)
                assert board.log().count("rcS: done") == 2 and "rcK: going down" in board.log(), board.log()
                assert board.run("ls /var/watchdog") == ""
            with report.line("SHUTDOWN halts"):
                board.send("echo 0 >/var/watchdog/SHUTDOWN")
                lan.wait_until(lambda: "reboot: System halted" in board.log(), 30, board.log)
                assert not desk.ask(patience=2)
        with report.line("a line of inittab with a terminal starts a server that stays"):
            with Board(net, "line", "192.168.1.32/24", start="line") as board:
                found(desk, board)
                request(board, "RERUN", "0,echo ran >/tmp/ran")
                lan.wait_until(lambda: board.status("test -s /tmp/ran") == 0, 10)


def init_script(report, _):
    script = "/etc/init.d/tq"
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/24")
        with Board(net, "board", "192.168.1.31/24") as board, report.line("/etc/init.d/tq under ash"):

            def running():
                # Not by name: what has ended keeps that until init has looked after it.
                return board.run("ls -l /proc/[0-9]*/exe 2>/dev/null | grep -e '-> /usr/sbin/TQ$'; true").splitlines()

            assert board.status(f"{script} status") == 3
            for command, processes in ("start", 2), ("start", 2), ("restart", 2), ("stop", 0), ("stop", 0), ("start", 2):
                assert board.status(f"{script} {command}") == 0, command
                assert len(running()) == processes, (command, running())
                assert board.status(f"{script} status") == (0 if processes else 3), command
            assert answers(desk, board)
            board.run("kill -9 $(cat /var/run/TQ.pid)")
            assert board.status(f"{script} status") != 0
            assert board.status(f"{script} start") == 0 and len(running()) == 2, running()
            found(desk, board)


# The rooms whose tests run here, and those of them that don't: they signal "init", which is the real one, or need what a
# board hasn't (pairs of interfaces, a file system that lies). The tests of unit and net wait for programs that it hasn't.
LEFT_OUT = {"common": "", "frame": "", "discovery": "Broadcast.ThroughAKept*:Broadcast.AStuck*",
            "config": "Watchdog*:Process.Signals*:Editors.SayWhatFails*"}


def unit_tests(report, _):
    for room, left_out in LEFT_OUT.items():
        with lan.Lan() as net, report.line(f"unit tests of {room}") as details:
            with Board(net, "unit", "192.168.1.20/24", mac="02:00:5E:00:53:01", tests=CACHE / "tests.ext2") as board:
                board.run("mount -t ext2 -o ro /dev/vda /opt && export LD_LIBRARY_PATH=/opt/lib")
                board.run(f"timeout 150 /opt/{room}_tests --gtest_filter='-{left_out}' >/tmp/log 2>&1; true",
                          patience=200)
                passed = re.search(r"\[  PASSED  \] (\d+) test", board.run("tail -n 20 /tmp/log"))
                failed = board.run("grep -A 12 -E 'Failure$|FAILED|Aborted|terminate' /tmp/log; tail -n 3 /tmp/log", check=False)
                assert passed and "FAILED" not in failed, failed
                details.append(f"{passed[1]} tests")

"""The demo itself; script/demo builds the programs and starts it."""
import difflib
import pathlib
import re
import socket
import sys
import textwrap

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/support"))

import lan  # noqa: E402

NATIVE = lan.Program(TOP / "build/release/TQ", [])
POWERPC = lan.Program(TOP / "build/powerpc/TQ", ["qemu-ppc-static"])
BOLD, GREEN, RED, PLAIN = ("\033[1m", "\033[32m", "\033[31m", "\033[0m") if sys.stdout.isatty() else [""] * 4

UNITS = (  # name, address, what is special, options
    ("hall", "192.168.1.21/24", "fits the LAN", {"gateway": "192.168.1.1"}),
    ("store", "192.168.1.22/24", "fits the LAN, project NAS", {"gateway": "192.168.1.1", "proj": "NAS"}),
    ("stranger", "10.77.5.9/24", "an address of a foreign subnet", {"gateway": "10.77.5.1"}),
    ("wide", "192.168.77.3/16", "behind a /16 mask", {"gateway": "192.168.0.1"}),
    ("nogate", "192.168.1.24/24", "no default gateway", {}),
    ("double", "192.168.1.25/24", "a second interface, 10.1.0.25/24, on another LAN",
     {"gateway": "192.168.1.1", "eth1": "10.1.0.25/24"}),
    ("board", "192.168.1.26/24", "the PowerPC program, emulated", {"gateway": "192.168.1.1", "program": POWERPC}))
BRAND16 = ("recorder", "192.168.1.31/24", "a board of brand 16: it speaks KIRVEX instead",
           {"gateway": "192.168.1.1", "program": NATIVE, "brand": 16, "port": "8080"})
INTERFACES = """auto lo
iface lo inet loopback

auto eth0
iface eth0 inet static
  address 192.168.1.21
  netmask 255.255.255.0
  gateway 192.168.1.1

auto eth1
iface eth1 inet dhcp
"""
steps, broken = 0, []


def step(title, *expected):
    global steps
    steps += 1
    print(f"\n{BOLD}{steps}. {title}{PLAIN}")
    print(textwrap.fill("You will see: " + " ".join(expected), 100, initial_indent="   ",
                        subsequent_indent="   "), flush=True)


def show(text):
    print("\n".join(("   | " + line).rstrip() for line in text.splitlines() if line.strip()), flush=True)


def check(seen, what):
    if not seen:
        broken.append(what)
    print(f"   {GREEN}seen:{PLAIN} {what}" if seen else f"   {RED}NOT SEEN:{PLAIN} {what}", flush=True)


def command(host, *arguments):
    print(f"   {host.name}$ TQ {' '.join(arguments)}", flush=True)
    output = host.tq(*arguments)
    show(re.sub(r"(?m)^\$Id: .*\n", "", output))
    return re.findall(r"\(model, proj, name\) = \(.*, (\w+)\)\n", output)


def table(rows):
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    show("\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows))


def by_mac(hosts):
    return [host.name for host in sorted(hosts, key=lambda host: host.macs[0], reverse=True)]


def discovery(desk, units):
    step("A technician's notebook, 192.168.1.20/24, looks for units on its eth0",
         f"all {len(units)} units, once each, in descending order of MAC address, also those whose address",
         "does not fit this LAN.")
    wire = lan.Capture("stranger.0")
    found = command(desk, "-I", "eth0")
    check(found == by_mac(units), f"{len(units)} units found")

    step("What the stranger said on the wire meanwhile",
         "every answer as two broadcasts: from 0.0.0.0 to everybody, which any notebook takes, and from its",
         "own address to its own subnet. The checksums are judged by a packet dissector.")
    seen = wire.datagrams()
    rows = [("Ethernet to", "from", "to", "checksums", "package")]
    rows += [(d.to, f"{d.src}:{d.sport}", f"{d.dst}:{d.dport}", "right" if d.right else "WRONG",
              ",".join(lan.records(d.payload)[0])[:34] + "...") for d in seen]
    table(rows)
    check(len(seen) == 8 and all(d.right for d in seen), "4 queries answered, each by two correct datagrams")

    step("The same, for the project NAS only", "the one unit of that project (in any letter case).")
    check(command(desk, "-I", "eth0", "-F", "nas") == ["store"], "one unit found")


def list_request(desk, units):
    board = units[-1]
    step(f"A management tool asks one unit, {board.name} (PowerPC), for the list of all, over TCP",
         "one line for every other unit and, last, one for the asked unit itself.")
    with desk.socket(kind=socket.SOCK_STREAM) as client:
        client.connect((board.record()[3], lan.SERVER_PORT))
        client.sendall(lan.LIST_REQUEST)
        answer = b"".join(iter(lambda: client.recv(65536), b""))
    rows = [fields[2:5] + fields[6:8] + fields[9:10] + fields[11:] for fields in lan.records(answer)]
    table([("project", "name", "address", "netmask", "gateway", "MAC", "note"), *rows])
    check([row[1] for row in rows] == [*by_mac(units[:-1]), board.name], f"{len(rows)} records")


def show_diff(unit, name, before):
    after = unit.path(name).read_text()
    show("".join(difflib.unified_diff(before.splitlines(True), after.splitlines(True), f"{unit.name}:/{name}",
                                      "afterwards")))
    return after


def network_setup(desk, unit):
    step(f"The tool gives {unit.name} a new address, in one package",
         "the unit's stanza of eth0 and its first name server rewritten, all else untouched, and the network",
         "restart called. A second setup is then ignored until the server is started anew.")
    names = ("etc/network/interfaces", "etc/resolv.conf")
    before = {name: unit.path(name).read_text() for name in names}

    def send(**changed):
        desk.ask(lan.package(3, *unit.record(**changed)) + b"\0", to="192.168.1.21", patience=0)
        desk.ask(to="192.168.1.21")  # answered when the setup is through

    send(ip="192.168.1.121", dns="192.168.1.3", note="static")
    for name in names:
        show_diff(unit, name, before[name])
    print(f"   {unit.name}: /etc/init.d/networking was called with: {unit.path('var/networking').read_text()}", end="")
    unit.facts["dns"] = "192.168.1.3"  # read from the file that has just changed
    after = unit.path(names[0]).read_text()
    check(after == INTERFACES.replace("192.168.1.21\n", "192.168.1.121\n"), "only the address changed")
    send(ip="192.168.1.200", note="static")
    check(unit.path(names[0]).read_text() == after, "the second setup left the file alone")


def kirvex(desk, unit):
    def ask(operation, body=b"", target=unit):
        return [reply for _, reply in desk.ask_kirvex(lan.kirvex_request(operation, target, body))]

    def words(reply):
        return [int.from_bytes(reply[i:i + 4], "little") for i in range(22, len(reply), 4)]

    def quad(data, offset):
        return ".".join(map(str, data[offset:offset + 4]))

    step("A KIRVEX tool on the same notebook searches its LAN",
         "one reply of 334 bytes, from the board of brand 16 alone.")
    replies = ask(lan.SEARCH, target=None)
    for data in replies:
        texts = [data[a:a + 32].split(b"\0")[0].decode() for a in (22, 86, 182)]
        table([("brand", texts[0]), ("product", texts[1]), ("version", texts[2]),
               ("MAC", data[220:226].hex(":")), ("address", f"{quad(data, 290)}, netmask {quad(data, 298)}, "
               f"gateway {quad(data, 302)}, name server {quad(data, 306)}"),
               ("web port", str(int.from_bytes(data[294:296], "little"))), ("time", data[315:329].decode())])
    check(len(replies) == 1 and len(replies[0]) == 334, "one reply of 334 bytes")

    step("It verifies two accounts", "privilege 1 for the administrator, 2 for anybody else (only names count).")
    for account, privilege in (("admin", 1), ("guest", 2)):
        (reply,) = ask(lan.VERIFY, lan.kirvex_credentials(account, "any"))
        check(words(reply) == [privilege], f"{account} has privilege {words(reply)[0]}")

    step("It gives the unit a static address",
         "the account checked at the unit's own web server (real lighttpd, Digest), the stanza rewritten, the reply",
         "sent with status 2 and 3 s to wait, and only then the network restarted.")
    before = unit.path("mtd1/interfaces").read_text()
    settings = lan.kirvex_settings("QVR-7140-16T", "192.168.1.131", "255.255.255.0", "192.168.1.1", "192.168.1.3", False)
    (reply,) = ask(lan.SETUP, lan.kirvex_credentials("admin", "1234") + settings)
    called = unit.path("var/networking")
    lan.wait_until(lambda: called.exists() and called.read_text())
    after = show_diff(unit, "mtd1/interfaces", before)
    print(f"   {unit.name}: /etc/init.d/networking was called with: {called.read_text()}", end="")
    check(reply[16] == 0 and words(reply) == [0, 2, 3, 0], "return code 0, status 2, wait 3")
    check("192.168.1.131" in after and after.endswith(before[before.index("auto eth1"):]), "only eth0's stanza changed")

    step("It changes the administrator's password, first to letters, then to digits",
         "error 1013 for the letters, before any login; then success, and the change in the web server's log.")
    for password, expected in (("letters", [1013, 0, 0, 0]), ("98765", [0, 0, 0, 0])):
        (reply,) = ask(lan.CHANGE, lan.kirvex_credentials("admin", "1234", "admin", password))
        check(words(reply) == expected, f"{password}: return code {reply[16]}, error {words(reply)[0]}")
    log = unit.web_log()
    show(log)
    check("200 GET /auth/config.set?ACCOUNTSETUP_PASSWORD1[0]=98765&THREAD_ID=4711" in log, "the web server took it")


def main():
    lan.enter("\ndemo: stopped; its hosts, networks and files are gone")
    with lan.Lan() as net:
        print(f"\n{BOLD}A virtual LAN of private hosts, each running TQ -D{PLAIN}")
        desk = net.host("desk", "192.168.1.20/24", program=NATIVE)
        units = []
        for name, address, what, options in UNITS:
            print(f"   {name:<9} {address:<16} {what}", flush=True)
            units.append(net.host(name, address, **{"program": NATIVE, "note": what[:40].replace(",", ""), **options}))
        units[0].write({"etc/network/interfaces": INTERFACES, "etc/TQ.conf": "NETSETUP=YES\n"})
        name, address, what, options = BRAND16
        print(f"   {name:<9} {address:<16} {what}", flush=True)
        recorder = net.host(name, address, **options)
        recorder.write({"mtd1/interfaces": INTERFACES.replace(".21", ".31")})
        recorder.serve_account_pages("digest")
        for unit in [*units, recorder]:
            unit.start_tq()
        discovery(desk, units)
        list_request(desk, units)
        network_setup(desk, units[0])
        kirvex(desk, recorder)
    if broken:
        print(f"\n{RED}Not everything was as announced:{PLAIN} " + "; ".join(broken))
    else:
        print(f"\n{GREEN}Everything was as announced.{PLAIN} The hosts, networks and files of the demo are gone.")
    sys.exit(bool(broken))


main()

"""The demo itself; script/demo builds the programs and starts it."""
import difflib
import pathlib
import re
import subprocess
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


def tool(host, *arguments):
    """Runs tqctl and returns what it printed on standard output; its exit status is checked."""
    words = " ".join(f"'{word}'" if set(word) & set(" $*") else word for word in arguments)
    print(f"   {host.name}$ tqctl {words}", flush=True)
    done = subprocess.run(host.tqctl(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True, check=False)
    show(done.stderr + done.stdout)
    print(f"   exit status {done.returncode}", flush=True)
    return done.returncode, done.stdout


def tool_lists(desk, units):
    step("The technician's tool lists the same LAN, both protocols, and marks what does not fit",
         "a line for every unit on every interface, sorted by address; the recorder speaks KIRVEX.")
    _, listed = tool(desk, "list")
    check(all(unit.macs[0] in listed for unit in units), f"all {len(units)} units")
    board = units[-2]
    step(f"It asks one unit, {board.name} (PowerPC), for the list of its LAN, over TCP",
         "all native units once more, told by that one.")
    _, listed = tool(desk, "list", "--via", board.record()[3])
    check(all(unit.macs[0] in listed for unit in units[:-1]), f"{len(units) - 1} units")


def show_diff(unit, name, before):
    after = unit.path(name).read_text()
    show("".join(difflib.unified_diff(before.splitlines(True), after.splitlines(True), f"{unit.name}:/{name}",
                                      "afterwards")))
    return after


def network_setup(desk, unit, stranger):
    step(f"It gives {unit.name} a new address",
         "the setup goes to that unit alone, which rewrites the stanza of eth0 and its first name server, restarts",
         "its network, and answers from the new address.")
    names = ("etc/network/interfaces", "etc/resolv.conf")
    before = {name: unit.path(name).read_text() for name in names}
    status, said = tool(desk, "set", unit.name, "--address", "192.168.1.121/24", "--gateway", "192.168.1.1", "--dns",
                        "192.168.1.3")
    check(status == 0 and "answers from 192.168.1.121/24" in said, "the unit itself says so")
    after = [show_diff(unit, name, before[name]) for name in names]
    check(after[0] == INTERFACES.replace("192.168.1.21\n", "192.168.1.121\n"), "only the address changed")

    step("The same with an address that somebody has", "refused before anything is sent.")
    check(tool(desk, "set", stranger.name, "--address", "192.168.1.24/24")[0] == 2, "refused")

    step(f"{stranger.name}, of a foreign subnet, gets an address of this LAN", "the same as above.")
    status, said = tool(desk, "set", stranger.name, "--address", "192.168.1.23/24", "--gateway", "192.168.1.1")
    check(status == 0 and "answers from 192.168.1.23/24" in said, "it fits now")

    step("A second setup", "a unit takes one in its daemon's life: the tool waits for it in vain, and says so.")
    check(tool(desk, "set", unit.name, "--address", "192.168.1.200/24", "--wait", "4")[0] == 6, "not taken")


def kirvex(desk, unit):
    mac, right = unit.macs[0], ("--password-file", "/etc/right")
    desk.write({"etc/right": "1234\n", "etc/wrong": "4321\n", "etc/new": "98765\n"})
    step("It asks the KIRVEX unit whether two passwords are right",
         "the unit logs in at its own web server (real lighttpd, Digest) to tell.")
    check([tool(desk, "check-password", mac, "--password-file", f"/etc/{name}")[0] for name in ("wrong", "right")] == [7, 0],
          "refused with the one, right with the other")

    step("It gives the KIRVEX unit a fixed address", "the stanza rewritten, the network restarted, the unit seen there.")
    before = unit.path("mtd1/interfaces").read_text()
    status, said = tool(desk, "set", mac, "--address", "192.168.1.131/24", "--gateway", "192.168.1.1", "--dns",
                        "192.168.1.3", *right)
    check(status == 0 and "answers from 192.168.1.131/24" in said, "the unit itself says so")
    after = show_diff(unit, "mtd1/interfaces", before)
    check(after.endswith(before[before.index("auto eth1"):]), "only eth0's stanza changed")

    step("It changes the administrator's password", "the change in the web server's log, and a login with the new one.")
    check(tool(desk, "password", mac, *right, "--new-password-file", "/etc/new")[0] == 0, "the new one works")
    log = unit.web_log()
    show("\n".join(line for line in log.splitlines() if "config.set" in line))
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
        for unit in units[0], units[2]:
            unit.write({"etc/network/interfaces": INTERFACES.replace("192.168.1.21", unit.record()[3]),
                        "etc/TQ.conf": "NETSETUP=YES\n"})
        name, address, what, options = BRAND16
        print(f"   {name:<9} {address:<16} {what}", flush=True)
        recorder = net.host(name, address, **options)
        recorder.write({"mtd1/interfaces": INTERFACES.replace(".21", ".31")})
        recorder.serve_account_pages("digest")
        for unit in [*units, recorder]:
            unit.apply_settings()
            unit.start_tq()
        discovery(desk, units)
        tool_lists(desk, [*units, recorder])
        network_setup(desk, units[0], units[2])
        kirvex(desk, recorder)
    if broken:
        print(f"\n{RED}Not everything was as announced:{PLAIN} " + "; ".join(broken))
    else:
        print(f"\n{GREEN}Everything was as announced.{PLAIN} The hosts, networks and files of the demo are gone.")
    sys.exit(bool(broken))


main()

"""tqctl, the technician's tool: units found, shown, set up and seen there, with the right to packet sockets and
without it."""
import json
import re
import shutil
import subprocess

import lan
import pytest

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--bounding-set=-all", "--inh-caps=-all"]
RIGHTS = {"root": [], "nobody": NOBODY}
# Applies the interfaces file that the unit's protocol rewrites, as the board's own script does.
NETWORKING = """#!/bin/sh
echo "$@" >>/var/networking
[ -s /mtd1/interfaces ] && file=/mtd1/interfaces || file=/etc/network/interfaces
eval $(awk '$1 == "iface" {on = $2 == "eth0"} on && NF == 2 {print $1 "=" $2} on && $4 == "dhcp" {print "lease=1"}' $file)
[ "${lease:-}" ] && sleep 1.2 && read address netmask </etc/lease
ip address flush dev eth0
ip address add $address/$netmask broadcast + dev eth0
[ -z "${gateway:-}" ] || ip route add default via $gateway dev eth0
"""
STANZA = "auto eth0\niface eth0 inet static\n  address {}\n  netmask 255.255.255.0\n"


def tqctl(host, *arguments, status=0, right="root", **options):
    """Runs the tool; returns what it printed on standard output and on standard error."""
    binary = host.path("opt/tqctl")
    if not binary.exists():
        shutil.copy(lan.CHOSEN.path.parent / "tqctl", binary)
    command = [*host.nsenter, *RIGHTS[right], "env", "QEMU_LD_PREFIX=/usr/powerpc-linux-gnu", *lan.CHOSEN.emulator,
               "/opt/tqctl", *arguments]
    done = subprocess.run(command, timeout=120, check=False, capture_output=True,
                          **{"stdin": subprocess.DEVNULL, "encoding": "utf8", "errors": "surrogateescape", **options})
    print("$ tqctl", *arguments, f"-> {done.returncode}\n{done.stdout}{done.stderr}")
    assert done.returncode == status, f"status {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout, done.stderr


def listed(host, *arguments, **options):
    found = json.loads(tqctl(host, *arguments, "list", "--json", **options)[0])
    assert found["version"] == 1
    return found


def unit(net, name="cam1", address="192.168.1.21/24", start=True, setup="YES", **options):
    files = {"etc/init.d/networking": NETWORKING, "etc/TQ.conf": f"NETSETUP={setup}\n",
             "etc/network/interfaces": STANZA.format(address[:-3]), **dict(options.pop("files", ()))}
    host = net.host(name, address, files=files, **options)
    host.path("etc/init.d/networking").chmod(0o755)
    return host.start_tq() if start else host


def recorder(net, name="recorder", address="192.168.1.31/24", scheme="digest", **options):
    host = unit(net, name, address, start=False, brand=16, port="8080",
                files={"mtd1/interfaces": STANZA.format(address[:-3])}, **options)
    host.serve_account_pages(scheme)
    return host.start_tq()


@pytest.mark.parametrize("right", RIGHTS)
def test_lists_units_of_both_protocols(net, right):
    units = [unit(net, "hall", gateway="192.168.1.1"), unit(net, "far", "10.77.5.9/24", gateway="10.77.5.1"),
             recorder(net, gateway="192.168.1.1")]
    found = listed(net.desk, right=right)
    rows = {row["mac"]: row for row in found["units"]}
    assert set(rows) == {host.macs[0] for host in units}
    print(tqctl(net.desk, "list", right=right))
    print(tqctl(net.desk, "list", "--plain", right=right))
    print(tqctl(net.desk, "show", "hall", right=right))


@pytest.mark.parametrize("right", RIGHTS)
def test_sets_one_native_unit(net, right):
    target, neighbour = unit(net, "hall"), unit(net, "store", "192.168.1.22/24")
    out, _ = tqctl(net.desk, "set", "hall", "--address", "192.168.1.121/24", right=right)

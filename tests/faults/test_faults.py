"""Real faults: memory, descriptors, processes and disks that give out, clocks that jump, kill -9."""
import mmap
import re
import struct
import subprocess
import threading
import time

import lan
import pytest
from conftest import net  # noqa: F401
from lan import CLIENT_PORT, LIST_REQUEST, QUERY, SEARCH, SETUP, kirvex_credentials, kirvex_request, package
from test_native import INTERFACES, OLD as OLD_STANZA, NEW as STATIC, assert_serves, tcp_request

LEFT, SHIFT, HASTE, CLOCK_READS = range(4)
EMULATED = bool(lan.CHOSEN.emulator)
ORDER = ">i" if EMULATED else "<i"
# What every server takes, refuses and reports: its answers and messages up to then are complete.
MARKS = {3: (package(7, "x"), r"\w+,\d+:TQ_ParserPackage\(\): flag\(07\).*\n", lan.SERVER_PORT),
         16: (kirvex_request(SEARCH, mode=b"w\1"), r"\w+,\d+:KIRVEX_ParserPkt\(\): reqmode.*\n", lan.KIRVEX_PORT)}
NETFILE = {3: "etc/network/interfaces", 16: "mtd1/interfaces"}
RESOLVER = "search lan\nnameserver 192.168.1.2\n"
NEW = {"ip": "10.0.0.7", "netmask": "255.0.0.0", "gateway": "10.255.255.254", "dns": "10.0.0.53"}


def renewed(text):
    return text.replace(OLD_STANZA, STATIC).replace("192.168.1.2\n", "10.0.0.53\n")


class Faults:
    """The page that tests/faults/faults.c reads on one host."""

    def __init__(self, host):
        compiler = "powerpc-linux-gnu-gcc" if EMULATED else "gcc"
        subprocess.run([compiler, "-O2", "-shared", "-fPIC", "-o", host.path("opt/faults.so"),
                        lan.TOP / "tests/faults/faults.c"], check=True)
        host.write({"run/faults": "\0" * 16})
        with host.path("run/faults").open("r+b") as file:
            self.page = mmap.mmap(file.fileno(), 16)
        self[HASTE] = 1

    def __setitem__(self, index, value):
        struct.pack_into(ORDER, self.page, 4 * index, value)

    def __getitem__(self, index):
        return struct.unpack_from(ORDER, self.page, 4 * index)[0]


def unit(net, name="cam1", address="192.168.1.21/24", brand=3, before=()):
    program = lan.CHOSEN
    program = program._replace(emulator=[*before, "env", "LD_PRELOAD=/opt/faults.so", *program.emulator])
    host = net.host(name, address, gateway="192.168.1.1", program=program, brand=brand, port="8080")
    host.brand, host.faults = brand, Faults(host)
    if brand == 16:
        host.serve_account_pages("basic")
    return host


def begin(host, *arguments, interfaces=INTERFACES):
    host.run("kill -9 $(cat /var/run/TQ.pid); rm -f /tmp/TQ_* /var/COM_* /var/networking /tmp/account-pages/session",
             stderr=subprocess.DEVNULL)
    host.write({NETFILE[host.brand]: interfaces, "etc/resolv.conf": RESOLVER, "etc/TQ.conf": "NETSETUP=YES\n"})
    return host.start_tq(*arguments)


def left(host):
    """The server's descriptors, but for the kernel's tables, which it keeps for a second, and temporary files."""
    return host.run("ls -l /proc/$(cat /var/run/TQ.pid)/fd | sed -n '/\\/net\\//d; s/.* \\([0-9]*\\) -> .*/\\1/p'; "
                    "ls -d /tmp/TQ_* /var/COM_* 2>/dev/null || :")


def limit(host, what, before=()):
    host.run("for p in $(grep -l TQ /proc/[1-9]*/cmdline | cut -d/ -f3); do "
             f"{' '.join(before)} prlimit --pid $p --{what}: || :; done", stderr=subprocess.DEVNULL)


def serve(net, host, request, allocation=0):
    """Sends a datagram; returns its answers, the messages meanwhile, and whether there was an n-th allocation,
    which has failed."""
    mark, said, port = MARKS[host.brand]
    since = len(host.log())
    with net.desk.socket(bind=("", CLIENT_PORT), device="eth0") as tool:
        host.faults[LEFT] = allocation
        tool.sendto(request, (host.record()[3], port))
        reached = any(host.faults[LEFT] == 0 or time.sleep(0.005) for _ in range(150))
        host.faults[LEFT] = 0
        tool.sendto(mark, (host.record()[3], port))
        marked = host.wait_log(said, since)[0]
        answers = [re.sub(rb"20\d{12}", b"", data) for data, _ in lan.collect(tool, 0.01, 0.01)]
    return ([data for data in answers if host.brand == 16 or lan.records(data)[-1][3] == host.name],
            host.log()[since:].replace(marked, ""), reached)


def change(host):
    if host.brand == 16:
        settings = lan.kirvex_settings("QVR-7140-16T", *NEW.values(), False)
        return kirvex_request(SETUP, host, kirvex_credentials("admin", "1234") + settings)
    return package(3, *host.record(**NEW, note="static")) + b"\0"


def became(host, interfaces=INTERFACES):
    """What became of the interfaces file and of the resolver file, and whether the network was restarted."""
    def state(name, old):
        text, new = host.path(name).read_text(), renewed(old)
        cuts = {new[:size] + old[size:]: f"new to {size}" for size in range(4096, len(new), 4096)}
        return {**cuts, "": "empty", new + "\n" * (len(old) - len(new)): "new, empty lines", old: "old", new: "new",
                new[:4096]: "new"}.get(text, text)
    ran = host.path("var/networking").exists()
    return state(NETFILE[host.brand], interfaces), state("etc/resolv.conf", RESOLVER), ran


REFUSED = r"(?m)^\w+,\d+:(?: |\w+\(\): )(.*?)(?: error| failed)?(?: : Cannot allocate memory|!)$"
WALK = {"REALLOC()"}
COMMAND = {"opendir(/proc/N/fd)", "[]"}


# `loose`: how many allocations may go unsaid when they fail, or not be made in every run. A list in hasty waits
# may also miss the other unit.
@pytest.mark.parametrize("brand, request_of, loose, expected", [
    (3, lambda _: QUERY, 0, WALK), (3, lambda _: LIST_REQUEST, 6, {*WALK, "REALLOC(N)", "MALLOC(N)"}),
    (3, change, 0, COMMAND),
    (16, lambda _: kirvex_request(SEARCH), 0, set()),
    (16, change, 0, {"malloc pAddDatabuf", "REALLOC(N)", *COMMAND})])
def test_every_allocation_may_fail(net, brand, request_of, loose, expected):
    host = unit(net, brand=brand)
    net.host("cam2", "192.168.1.22/24", gateway="192.168.1.1").start_tq()
    host.faults[HASTE] = 20 if EMULATED else 40
    request, seen, unsaid, unreached, number = request_of(host), set(), 0, 0, 0
    kept, whole = left(begin(host)), serve(net, host, request)[0]
    while unreached <= loose:
        if request_of == change:
            begin(host)
        number += 1
        answers, said, reached = serve(net, host, request, number)
        unreached += not reached
        failed = {re.sub(r"\b\d+\b", "N", re.sub(r"_\w{6}\)", "_X)", name)) for name in re.findall(REFUSED, said)}
        seen |= failed
        unsaid += answers != whole and not failed
        assert became(host)[:2] in [("old", "old"), ("new", "new")]
        assert request_of != change or left(host) == kept, said
    # How often a list's records are merged depends on how many came: that one isn't met in every run.
    assert expected - {"MALLOC(N)"} <= seen <= expected and unsaid <= loose
    lan.wait_until(lambda: left(host) == kept)  # the packet socket of the last answer is kept for a second
    assert request_of == change or serve(net, host, request)[0] == whole


def test_every_allocation_of_the_client_may_fail(net):
    desk = unit(net)
    net.host("cam2", "192.168.1.22/24", gateway="192.168.1.1").start_tq()
    desk.faults[HASTE], desk.faults[LEFT] = 20, 1000
    assert "cam2" in desk.tq()
    total = 1000 - desk.faults[LEFT]
    for number in range(total - 9, total + 1):  # up to there it is what a list request does
        desk.faults[LEFT] = number
        said = desk.tq()
        nobody = re.search(r"TQ_GetAllUnit\(\) = (-1|0)\n", said)
        # The message that finds no memory is missing.
        assert ("\n[1/1]\n" in said and said.count(") = (") >= 3) != bool(nobody), f"{number}:\n{said}"


OLD, HALF, DONE = ("old", "old", False), ("new", "empty", False), ("new", "new", True)
FULL = " : Too many open files\n"
NO_INTERFACES = "/interfaces) failed" + FULL


# The rows of one request have 0, 1, 2 ... free descriptors: how many answers, what is said, what becomes of the files.
@pytest.mark.parametrize("brand, request_of, rows", [
    (3, lambda _: QUERY, [(0, "/net/dev) error" + FULL, OLD), (2, "", OLD)]),
    (3, change, [(0, "open(/etc/Model) error" + FULL, OLD), (0, "open(/etc/Port) error" + FULL, OLD),
                 (0, "mkstemp() failed" + FULL, HALF), (0, "fopen(/etc/resolv.conf) failed" + FULL, HALF),
                 (0, "Execute", ("new", "new"))]),
    (16, lambda _: kirvex_request(SEARCH), [(1, "open(/etc/Port) error" + FULL, OLD), (1, "", OLD)]),
    (16, change, [(1, "COM_SubSendHttpCmd(): socket() error" + FULL, OLD), (1, NO_INTERFACES, OLD),
                  (1, "mkstemp() failed" + FULL, HALF), (1, "fopen(/etc/resolv.conf) failed" + FULL, HALF),
                  (1, "", ("new", "new"))])])
def test_descriptors_run_out(net, brand, request_of, rows):
    host = unit(net, brand=brand)
    for free, (count, message, files) in enumerate(rows):
        kept = left(begin(host))
        limit(host, f"nofile={len(kept.split()) + free}")
        answers, said, _ = serve(net, host, request_of(host))
        assert len(answers) == count and message in said and became(host)[:len(files)] == files, said
        if brand == 3 and free == 0:  # a connection waits for its descriptor and keeps nobody busy
            client = tcp_request(net, host)
            assert serve(net, host, QUERY)[0] == [] and "TCP/IP function" not in host.log()
            limit(host, "nofile=1024")
            host.wait_log("used TCP/IP function(.*\n)+.*No devices found")
            client.close()
        limit(host, "nofile=1024")
        lan.wait_until(lambda: left(host) == kept)
        if request_of != change:
            assert len(serve(net, host, request_of(host))[0]) == rows[-1][0]


def test_processes_run_out(net):
    caps = "+dac_override,+net_raw,+net_admin,+net_bind_service"
    nobody = f"setpriv --reuid=54321 --regid=54321 --clear-groups --inh-caps={caps} --ambient-caps={caps}".split()
    host = unit(net, before=nobody)
    host.run("chmod 777 /var /run /run/faults; mkdir -m 777 /var/watchdog")
    begin(host, "-W")
    limit(host, "nproc=2", nobody)
    assert "COM_System(): fork() failed : Resource temporarily unavailable\n" in serve(net, host, change(host))[1]
    assert became(host) == ("new", "new", False)
    host.write({"var/watchdog/RERUN": "0,echo >/var/rerun"})
    host.wait_log(r"TQ_WatchdogRerun\(\): fork\(\) failed : Resource temporarily unavailable\n")
    limit(host, "nofile=3", nobody)
    limit(host, "nproc=100", nobody)
    time.sleep(1.5)
    assert not host.path("var/rerun").exists() and host.path("var/watchdog/RERUN").exists()
    limit(host, "nofile=100", nobody)
    lan.wait_until(host.path("var/rerun").exists)
    host.stop_all()
    alone = [*nobody, "prlimit", f"--nproc={1 + EMULATED}", *host.program.emulator[len(nobody):]]
    host.program = host.program._replace(emulator=alone)
    assert "Parent Process : take a break than exit" in host.tq("-D")


VAR_FULL = "mount -t tmpfs -o size=4k t /var; ln -s /run /var/run; yes >/var/full"
VAR_READ_ONLY = "mount -t tmpfs t /var; ln -s /run /var/run; mount -o remount,ro /var"
RESOLVER_READ_ONLY = "cd /etc; mount --bind resolv.conf resolv.conf; mount -o remount,bind,ro resolv.conf"


# The web server of brand 16 has files of its own in /tmp. Its setup goes on when the resolver file cannot be edited (in
# /var a restart leaves no mark then).
@pytest.mark.parametrize("brand, disks", [
    (3, [("/tmp", "mount -t tmpfs -o size=4k t /tmp; yes >/tmp/full", "fprintf() faied : No space left on device : auto lo\n",
          "old", "old"),
         ("/tmp", "mount -t tmpfs -o nr_inodes=1 t /tmp", "", "old", "old"),
         ("/tmp", "mount -t tmpfs -o ro t /tmp", "", "old", "old"),
         ("/var", VAR_FULL, "fprintf() fail : No space left", "new", "empty"),
         ("/var", VAR_READ_ONLY, "mkstemp() failed : Read-only", "new", "empty"),
         ("/etc", "mount --bind /etc /etc; mount -o remount,bind,ro /etc", "interfaces) failed : Read-only", "old", "old"),
         ("/etc/resolv.conf", RESOLVER_READ_ONLY, "truncate(/etc/resolv.conf) error : Read-only", "new", "old")]),
    (16, [("/var", VAR_FULL, "fprintf() fail : No space left", "new", "empty"),
          ("/var", VAR_READ_ONLY, "mkstemp() failed : Read-only", "new", "empty"),
          ("/mtd1", "mount --bind /mtd1 /mtd1; mount -o remount,bind,ro /mtd1", "interfaces) failed : Read-only", "old",
           "old"),
          ("/etc/resolv.conf", RESOLVER_READ_ONLY, "truncate(/etc/resolv.conf) error : Read-only", "new", "old")])])
def test_disks_are_full_or_read_only(net, brand, disks):
    host = unit(net, brand=brand)
    for place, spoil, message, *files in disks:
        begin(host)
        host.run(f"{spoil} 2>/dev/null; :")
        kept = left(host)
        said = serve(net, host, change(host))[1]
        done = (*files, brand == 16 and files[0] == "new" and place != "/var")
        assert message in said and became(host) == done and left(host) == kept, (spoil, said, became(host))
        host.run("umount " + place)
        begin(host)
        serve(net, host, change(host))
        assert became(host) == DONE


def test_file_systems_have_no_room_for_a_byte_more(net):
    """As much of the new text comes to be as there was of the old one, and no restart."""
    host = unit(net)
    begin(host)
    texts = [text + "#" * (4096 - len(text)) for text in ("iface eth0 inet dhcp\nauto lo\n", "nameserver 1.1.1.1\n")]
    host.write({"root/i": texts[0], "root/r": texts[1]})
    host.run("mount -t tmpfs -o size=4k t /etc/network; cp /root/i /etc/network/interfaces; "
             "mount -t tmpfs -o size=4k t /mtd1; cp /root/r /mtd1; mount --bind /mtd1/r /etc/resolv.conf")
    said = serve(net, host, change(host))[1]
    assert said.count(": No space left on device : ") == 2
    assert host.run("cat /etc/network/interfaces") == (STATIC + texts[0][21:])[:4096] and not became(host)[2]
    assert host.run("cat /etc/resolv.conf") == ("nameserver 10.0.0.53\n" + texts[1][19:])[:4096]


@pytest.mark.parametrize("brand", [3, 16])
def test_blocks_that_cannot_be_read(net, brand):
    """A file that is read in part is never taken for the whole."""
    host = unit(net, brand=brand)
    long = "# a long file\n" * 400
    for name, files in ((NETFILE[brand], ("old", "new", False)), ("etc/resolv.conf", ("new", "old", brand == 16))):
        begin(host, interfaces=INTERFACES + "\n" + long)
        host.write({"etc/resolv.conf": RESOLVER + long})
        strace = [*host.nsenter, "strace", "-o", "/dev/null", "-P", f"{host.path(name)}", "-P", f"/{name}", "-e",
                  "inject=read:error=EIO:when=2", "-p", host.run("cat /var/run/TQ.pid")]
        with subprocess.Popen(strace, stderr=subprocess.PIPE) as tracer:
            tracer.stderr.readline()
            said = serve(net, host, change(host))[1]
            host.run("kill -9 $(cat /var/run/TQ.pid)")  # the tracer goes with it
        assert f"fgets(/{name}) failed : Input/output error\n" in said
        texts = {NETFILE[brand]: INTERFACES + "\n" + long, "etc/resolv.conf": RESOLVER + long}
        assert [host.path(n).read_text() for n in texts] == [
            renewed(text) if state == "new" else text for text, state in zip(texts.values(), files)]
        assert host.path("var/networking").exists() == files[2]


LEFT_BY_A_KILL = {
    ("old", "old", ""), ("old", "old", "/tmp/TQ "), ("old", "old", "/tmp/TQ /var/COM "),
    ("old", "new, empty lines", "/tmp/TQ /var/COM "), ("old", "new", "/tmp/TQ /var/COM "),
    ("old", "new", "/tmp/TQ "), ("new to 4096", "new", "/tmp/TQ "), ("new to 8192", "new", "/tmp/TQ "),
    ("new, empty lines", "new", "/tmp/TQ "), ("new", "new", "/tmp/TQ "), ("new", "new", "")}


def kill_before_each(net, host, call, interfaces, signal="KILL"):
    """Ends setups before their first, second ... call; returns what was left each time."""
    states, killed, number = set(), True, 0
    while killed:
        number += 1
        begin(host, interfaces=interfaces)
        strace = [*host.nsenter, "strace", "-o", "/dev/null", "-e", f"trace={call}", "-e",
                  f"inject={call}:signal={signal}:when={number}", "-p", host.run("cat /var/run/TQ.pid")]
        with subprocess.Popen(strace, stderr=subprocess.PIPE) as tracer, net.desk.socket() as tool:
            tracer.stderr.readline()
            tool.sendto(change(host), ("192.168.1.21", MARKS[host.brand][2]))
            lan.wait_until(lambda: tracer.poll() is not None or became(host)[2])
            killed = tracer.poll() is not None
            host.run("kill -9 $(cat /var/run/TQ.pid) 2>/dev/null || :")
        assert killed or became(host, interfaces) == DONE
        temporary = host.run("ls -d /tmp/TQ_* /var/COM_* 2>/dev/null || :")
        states.add((*became(host, interfaces)[:2], re.sub("_.{6}\n", " ", temporary)))
    return states


@pytest.mark.parametrize("brand", [3, 16])
def test_kill_at_every_point_of_a_setup(net, brand):
    host = unit(net, brand=brand)
    states, long = set(), INTERFACES + "\n" + "# the rest of a long file\n" * 400
    for _ in range(3):  # a message more than usual moves what is behind it on, and one point is missed
        for call in ("openat", "write", "ftruncate", "fsync", "unlink", "clone"):
            states |= kill_before_each(net, host, call, long)
        if states >= LEFT_BY_A_KILL:
            break
    assert states == LEFT_BY_A_KILL
    begin(host)
    assert len(serve(net, host, kirvex_request(SEARCH) if brand == 16 else QUERY)[0]) == 1 + (brand == 3)


@pytest.mark.parametrize("brand", [3, 16])
def test_end_at_every_point_of_a_setup(net, brand):
    """What an init script or a terminal sends waits until both files are whole."""
    host = unit(net, brand=brand)
    states, long = set(), INTERFACES + "\n" + "# the rest of a long file\n" * 400
    for call in ("write", "ftruncate", "unlink"):
        states |= kill_before_each(net, host, call, long, "TERM")
    assert states <= {("old", "old", ""), ("new", "new", "")} and ("new", "new", "") in states


@pytest.mark.parametrize("brand", [3, 16])
def test_interface_comes_and_goes(net, brand):
    host = begin(unit(net, brand=brand))
    up = ("address replace 192.168.1.21/24 broadcast + dev eth0", "link set eth0 up",
          "route replace default via 192.168.1.1 dev eth0 onlink")

    def answers(patience):
        return net.desk.ask_kirvex(kirvex_request(SEARCH), patience=patience) if brand == 16 else net.desk.ask(
            patience=patience)

    def made_anew():
        lan.ip(f"link add cam1.0 type veth peer name eth0 address {host.macs[0]} netns {host.pid}",
               "link set cam1.0 master br0 up")

    for gone, back in (("link set eth0 down", ()), ("address flush dev eth0", ()),
                       ("link set eth0 down name lan9", ("link set lan9 name eth0",)), ("link del eth0", made_anew)):
        lan.ip(gone, host=host)
        spent = host.run("cut -d' ' -f1 /proc/$(cat /var/run/TQ.pid)/schedstat")
        assert answers(0.5) == []
        assert int(host.run("cut -d' ' -f1 /proc/$(cat /var/run/TQ.pid)/schedstat")) - int(spent) < 1e8
        if callable(back):
            back()
        lan.ip(*([] if callable(back) else back), *up, host=host)
        # The KIRVEX socket is tied to a device, not to a name.
        assert any(answers(0.5) for _ in range(6)) == (brand == 3 or back != made_anew), gone


def test_clock_jumps(net):
    host = unit(net)
    begin(host, "-W")
    for shift in (-100000, 100000):
        reads = host.faults[CLOCK_READS]
        lan.wait_until(lambda: host.faults[CLOCK_READS] > reads, 3)
        time.sleep(0.3)  # within the loop's break
        host.faults[SHIFT], before = shift, time.monotonic()
        host.write({"var/watchdog/RERUN": f"0,echo >/var/rerun{shift}"})
        lan.wait_until(host.path(f"var/rerun{shift}").exists, 10)
        assert time.monotonic() - before < 3
    due = int(time.time()) + 50000
    host.write({"var/watchdog/RERUN": f"{due},echo >/var/late"})  # falls due by the wrong clock
    lan.wait_until(host.path("var/late").exists, 10)
    recorder, done = unit(net, "recorder", "192.168.1.31/24", brand=16), threading.Event()
    request = change(begin(recorder))

    def shake():
        while not done.wait(0.005):
            recorder.faults[SHIFT] = 100000 - recorder.faults[SHIFT]
    threading.Thread(target=shake, daemon=True).start()
    before = time.monotonic()
    assert len(serve(net, recorder, request)[0]) == 1 and became(recorder) == DONE and time.monotonic() - before < 5
    done.set()

"""The init script, under the shells of Debian and of a board."""
import socket
import subprocess

import lan
import pytest
from test_native import assert_serves

pytestmark = pytest.mark.skipif(lan.CHOSEN.emulator, reason="the program of an emulated process is the emulator")
SCRIPT = (lan.TOP / "packaging/tq.init").read_text()


@pytest.fixture(params=[["dash"], ["busybox", "sh"]], ids=lambda shell: shell[0])
def cam(net, request):
    host = net.host("cam", "192.168.1.21/24", gateway="192.168.1.1", files={"etc/init.d/tq": SCRIPT})

    def tq(action, status=0, defaults=""):
        host.write({"etc/default/tq": f"daemon=/opt/TQ\n{defaults}\n"})
        done = subprocess.run([*host.nsenter, *request.param, "/etc/init.d/tq", action], stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=60, check=False)
        assert done.returncode == status, done.stdout
        return done.stdout

    host.init, host.daemons = tq, lambda: host.processes().count("-P")
    return host


def test_init_script_starts_and_stops_what_was_asked_for(net, cam):
    assert cam.init("start") == "" and "running already" in cam.init("start")
    assert cam.init("status") == f"/opt/TQ serves as process {cam.run('cat /run/TQ.pid').strip()}\n"
    assert_serves(net, cam)
    cam.init("restart")
    assert cam.daemons() == 1
    watching = "WATCHDOG=yes LOG=/var/tq.log"
    assert "but no process watches /var/watchdog" in cam.init("status", 4, watching)
    cam.init("start", 0, watching)
    assert cam.daemons() == 2 and "TQ_Watchdog(/var/watchdog)" in cam.path("var/tq.log").read_text()
    for dead in ("$(cat /run/TQ.pid)", "$(pgrep -f TQ.*-W -o)"):
        cam.run("kill -9 " + dead)
        cam.init("status", 3 if "cat" in dead else 4, watching)
        cam.init("start", 0, watching)
        assert cam.daemons() == 2
    cam.run("mount -t tmpfs -o ro t /run")
    assert "serves" in cam.init("status", 0, watching)
    for _ in range(2):
        cam.init("restart")
        assert cam.daemons() == 1
    assert cam.init("stop") == cam.init("stop") == "" and cam.daemons() == 0
    cam.init("status", 3)


@pytest.mark.parametrize("kind, status, said", [
    (socket.SOCK_DGRAM, 1, "bind() error : Address already in use"), (socket.SOCK_STREAM, 0, "TCP port 6666 is taken")])
def test_init_script_tells_of_taken_ports(cam, kind, status, said):
    with cam.socket(kind=kind) as squatter:
        squatter.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 0)
        squatter.bind(("", lan.SERVER_PORT))
        if kind == socket.SOCK_STREAM:
            squatter.listen()
        assert said in cam.init("start", status)
        cam.init("status", 4 if status == 0 else 3)
    assert cam.daemons() == 1 - status


@pytest.mark.parametrize("defaults, status, said", [
    ("daemon=/opt/gone", 0, ""), ('OPTIONS="-C /etc/P.conf -I eth7"', 0, "no interface eth7 now"),
    ('OPTIONS="-P /run/x"', 1, "may not hold -P"), ("OPTIONS=-W", 1, "may not hold -W"),
    ("OPTIONS=-x", 1, "-C : Config File for TQ server")])
def test_init_script_checks_what_it_is_given(cam, defaults, status, said):
    assert said in cam.init("start", status, defaults)
    assert cam.daemons() == (status == 0 and "OPTIONS" in defaults)

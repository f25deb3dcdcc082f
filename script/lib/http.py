"""The HTTP client beside lighttpd on the same host, and beside curl with a large body."""
import pathlib
import shutil
import statistics
import sys

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/support"))

import lan  # noqa: E402

CONFIGURATION = """
server.port = 8080
server.bind = "127.0.0.1"
server.document-root = "/tmp/pages"
server.modules = ( "mod_auth", "mod_authn_file" )
server.http-parseopts = ( "header-strict" => "disable" )
auth.backend = "plain"
auth.backend.plain.userfile = "/tmp/users"
auth.require = ( "/locked" => ( "method" => "digest", "realm" => "unit", "require" => "valid-user" ) )
"""
LARGE = 100 << 20


def fetch(host, page, count, *account):
    """(median milliseconds, bytes with the zero byte behind them, peak memory in kB)"""
    times, last = host.run("/opt/http_fetch", f"127.0.0.1:8080/{page}", str(count), *account).splitlines()[-2:]
    size, memory = last.split()
    return statistics.median(map(float, times.split())), int(size), int(memory)


# Peak memory as the kernel accounts it for a child that has ended.
CURL = """
import resource, subprocess, time
start = time.monotonic()
subprocess.run(["curl", "-s", "-o", "/dev/null", "http://127.0.0.1:8080/large"], check=True)
print((time.monotonic() - start) * 1000, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
"""


def measure():
    print("HTTP, from lighttpd on the same host (each exchange pauses for 30 ms)")
    with lan.Lan() as net:
        host = net.host("unit", "192.168.1.21/24")
        shutil.copy(TOP / "build/release/bench/http_fetch", host.path("opt/http_fetch"))
        host.write({"tmp/pages/page": "a page\n", "tmp/pages/locked": "a page\n", "tmp/users": "admin:1234\n",
                    "tmp/conf": CONFIGURATION, "tmp/pages/large": "x" * LARGE})
        host.run("lighttpd -f /tmp/conf >/tmp/log 2>&1", stdout=None)
        for _ in range(3):
            spent, size, memory = fetch(host, "page", 20)
            print(f"  one exchange: median {spent:.2f} ms, {size} bytes, {memory} kB at most", flush=True)
            spent, size, _ = fetch(host, "locked", 20, "admin", "1234")
            print(f"  three exchanges with Digest: median {spent:.2f} ms, {size} bytes", flush=True)
            spent, size, memory = fetch(host, "large", 1)
            other, its = map(float, host.run("/usr/bin/python3", "-c", CURL).split())
            print(f"  a body of 100 MiB: {spent:.0f} ms, {size} bytes, {memory} kB at most; curl to /dev/null, "
                  f"its start included: {other:.0f} ms, {its:.0f} kB", flush=True)


lan.enter()
measure()

"""Sends hostile datagrams at a server and looks at what it keeps of them, for script/storm.

Both servers, each as the sanitizers' and as the release build, serve in a private host; the storm
comes over a veth pair from a network namespace of its own. After every 10000 datagrams a valid
query must be answered. The server's descriptors, its anonymous memory and the files of /tmp and
/var are counted before, at half (by then every path has been warm) and at the end. Fails when a query
stays unanswered, when the server ends or a sanitizer speaks, when a descriptor or file more is left,
or when the release build's memory has grown by more than 64 kB since half (a sanitizer's quarantine
grows by design).
"""
import glob, os, random, re, select, socket, struct, subprocess, sys, time

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, TOP + "/tests/support")
sys.dont_write_bytecode = True
import lan

ADDRESS, PEER = "192.168.1.20", "192.168.1.99"
UNIT = ("unknown", "unknown", "unit", "192.168.1.77", "80", "255.255.255.0", "192.168.1.1",
        "10.0.0.1", "02:00:5E:00:53:01", "eth0", "static")
ROUND = 10000


def package(kind, *fields):
    return lan.package(kind, *fields) + b"\0"


class Target:
    """The unit under storm, as lan.kirvex_request asks for it."""
    macs = [UNIT[8]]

    @staticmethod
    def record():
        return [*UNIT[:3], ADDRESS]


def kirvex(operation, mode=b"ww", body=b"", sequence=7):
    request = lan.kirvex_request(operation, Target, body, mode)
    return request[:2] + struct.pack("<H", sequence) + request[4:]


class Native:
    port, brand = lan.SERVER_PORT, 1
    # Few queries and very few list requests: each of the former takes the kernel some 20 ms to
    # close a packet socket, each of the latter two discoveries of 1.6 seconds.
    valid = ([package(1, *UNIT)] * 80 + [package(3, *UNIT)] * 118 + [package(0, "x")] +
             [package(2, "short")])
    rare = package(2, *UNIT)

    def __init__(self):
        self.answers = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.answers.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self.answers.bind(("", lan.CLIENT_PORT))

    def ask(self, sock):
        while select.select([self.answers], [], [], 0)[0]:
            self.answers.recv(65536)
        sock.sendto(package(0, "storm"), (ADDRESS, self.port))
        return bool(select.select([self.answers], [], [], 10)[0])


class Kirvex:
    port, brand = lan.KIRVEX_PORT, 16
    credentials = lan.kirvex_credentials("admin", "x")
    valid = [kirvex(lan.SEARCH), kirvex(0xA5), kirvex(lan.VERIFY, body=credentials),
             kirvex(lan.SETUP, body=credentials + bytes(range(89))),
             kirvex(lan.CHANGE, body=lan.kirvex_credentials("admin", "1", "b", "2"))]
    rare = valid[0]
    sequence = 0

    def ask(self, _):
        self.sequence += 1
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.sendto(kirvex(lan.SEARCH, sequence=self.sequence), (ADDRESS, self.port))
        return (bool(select.select([sock], [], [], 10)[0]) and
                sock.recv(65536)[:4] == struct.pack("<HH", 0xFEEE, self.sequence))


SERVERS = {"native": Native, "kirvex": Kirvex}


def hostile(server):
    kind = random.randrange(100)
    if kind < 40:
        length = random.choice((0, 1, 8, 22, 64, 300, 1400))
        length = random.randrange(length + 1)
        if random.randrange(500) == 0:
            length = random.choice((4095, 16383, 16384, 16385, 65507, random.randrange(65508)))
        return random.randbytes(length)
    if random.randrange(50000) == 0:
        return server.rare
    data = bytearray(random.choice(server.valid))
    if kind < 60:
        return bytes(data[:random.randrange(len(data) + 1)])
    for _ in range(random.choice((1, 1, 2, 8))):
        data[random.randrange(len(data))] = random.choice((0, 0xFF, 0x25, random.randrange(256)))
    if kind > 95:
        data += random.randbytes(random.randrange(2000))
    return bytes(data)


class Watched:
    """The server process, seen from /proc."""

    def __init__(self, pid, port):
        self.proc, self.port = f"/proc/{pid}", f":{port:04X} "

    def queue(self):
        """The bytes that wait in its socket, and how many datagrams were dropped."""
        with open(f"{self.proc}/net/udp") as table:
            for line in table:
                if self.port in line:
                    words = line.split()
                    return int(words[4].split(":")[1], 16), int(words[-1])
        raise SystemExit("the server's socket is gone")

    def drain(self):
        while self.queue()[0] > 0:
            time.sleep(0.0002)

    def state(self):
        time.sleep(1.5)  # what answers went through is kept for a second
        with open(f"{self.proc}/status") as status:
            anonymous = int(re.search(r"RssAnon:\s+(\d+)", status.read())[1])
        files = sum(len(names) for top in ("/tmp", "/var/tmp") for _, _, names in os.walk(top))
        files += len(glob.glob("/var/*"))
        return {"descriptors": len(os.listdir(f"{self.proc}/fd")), "files": files, "kB": anonymous}


def storm(name, build, count, seconds):
    """Runs inside the private host's peer namespace. Returns the exit status."""
    server = SERVERS[name]()
    with open("/tmp/TQ.pid") as file:
        watched = Watched(int(file.read()), server.port)
    random.seed(build)
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    asked = answered = 0

    def ask():
        nonlocal asked, answered
        watched.drain()
        asked += 1
        answered += server.ask(sock)

    ask()
    before = warm = watched.state()
    start, sent, memory = time.monotonic(), 0, []
    while sent < count and time.monotonic() - start < seconds:
        for _ in range(min(ROUND, count - sent)):
            data = hostile(server)
            # Nothing is to be lost in a full queue: all of the storm shall reach the program.
            if sent % 64 == 0 or len(data) > 4000:
                watched.drain()
            sock.sendto(data, (ADDRESS, server.port))
            sent += 1
        ask()
        warm = watched.state() if sent <= count // 2 else warm
        if sent % max(count // 10, 1) < ROUND:
            memory.append(watched.state()["kB"])
    taken, after = time.monotonic() - start, watched.state()
    with open("/tmp/storm.errors") as file:
        errors = file.read()
    print(f"{name:7} {build:8} {sent} datagrams in {taken:.0f} s, {watched.queue()[1]} of them dropped by "
          f"the kernel; {answered} of {asked} queries answered; before {before}, half {warm}, after {after}; "
          f"kB after each tenth {memory}", flush=True)
    print(errors, end="", file=sys.stderr)
    bad = (sent < count or answered < asked or errors or after["files"] > before["files"] or
           after["descriptors"] > before["descriptors"] or
           (build == "release" and after["kB"] > warm["kB"] + 64))
    return 1 if bad else 0


def host(name, build, count, seconds):
    """Runs inside the private host: starts the server, gives the veth's far end to the storm."""
    with open("/tmp/cpuinfo", "w") as file:
        file.write(f"brandid : {SERVERS[name].brand}\n")
    run = lambda *words: subprocess.run(words, check=True)
    run("mount", "--bind", "/tmp/cpuinfo", "/proc/cpuinfo")
    peer = subprocess.Popen(["unshare", "-n", "sleep", "infinity"])
    lan.wait_until(lambda: os.readlink(f"/proc/{peer.pid}/ns/net") != os.readlink("/proc/self/ns/net"))
    run("ip", "link", "set", "lan0", "netns", str(peer.pid))
    enter = ["nsenter", "-n", "-t", str(peer.pid)]
    run(*enter, "ip", "link", "set", "lan0", "up")
    run(*enter, "ip", "address", "add", PEER + "/24", "broadcast", "192.168.1.255", "dev", "lan0")
    with open("/tmp/storm.errors", "w") as errors:
        subprocess.run([f"{TOP}/build/{build}/TQ", "-D", "-P", "/tmp/TQ.pid"], check=True,
                       stdout=subprocess.DEVNULL, stderr=errors)
    lan.wait_until(lambda: os.path.exists("/tmp/TQ.pid") and f":{SERVERS[name].port:04X} " in open("/proc/net/udp").read())
    return subprocess.run([*enter, sys.executable, os.path.abspath(__file__), "storm", name, build, count, seconds]).returncode


def main(arguments):
    if arguments[:1] == ["storm"]:
        return storm(*arguments[1:3], *map(int, arguments[3:]))
    if arguments[:1] == ["host"]:
        return host(*arguments[1:])
    count, seconds = (arguments + ["1000000", "900"][len(arguments):])[:2]
    for build in ("dev", "release"):
        for command in (["--preset", build], ["--build", "--preset", build, "--target", "TQ"]):
            subprocess.run(["cmake", *command], cwd=TOP, check=True, stdout=subprocess.DEVNULL)
    runs = [[TOP + "/tests/support/sandbox", sys.executable, os.path.abspath(__file__), "host", server, build, count, seconds]
            for server in ("native", "kirvex") for build in ("dev", "release")]
    return max(subprocess.run(run).returncode for run in runs)


sys.exit(main(sys.argv[1:]))

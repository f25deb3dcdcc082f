"""Emulated boards on the virtual LAN.

    lan.enter()
    with lan.Lan() as net, machine.Board(net, "board", "192.168.1.31/24", start="script") as board:
        print(board.run("cat /proc/cpuinfo"))
"""
import ipaddress
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TOP / "tests/support"), str(TOP / "script/lib")]

import lan  # noqa: E402

CACHE = pathlib.Path(os.environ["TQ_BOARD"])
MACHINE = os.environ["TQ_BOARD_MACHINE"]
FLASH, DISK = 4 << 20, 4 << 20  # bytes
ERASE_BLOCK = "64KiB"
CPU = {"e500": ["-M", "ppce500", "-cpu", "e500mc"], "bamboo": ["-M", "bamboo"]}


def disk_image(path, fs, files):
    """Makes an image of a file system that holds {name: text}."""
    folder = path.with_suffix(".d")
    folder.mkdir(exist_ok=True)
    for name, text in files.items():
        (folder / name).write_text(text)
    if fs == "jffs2":
        making = ["mkfs.jffs2", "--big-endian", "--pad=%d" % FLASH, "-e", ERASE_BLOCK, "-n", "-q", "-r", folder, "-o", path]
    else:
        making = ["mke2fs", "-q", "-F", "-t", "ext2", "-b", "1024", "-d", folder, path, f"{DISK >> 10}k"]
    subprocess.run(making, check=True, stdout=subprocess.DEVNULL)
    return path


class Board:
    """One board, with eth0 on br0; what it says of itself and its commands are as those of a lan.Host. `disk` is the
    image of the file system `fs`; further words go to the kernel's command line, for the board's rcS to read."""
    record = lan.Host.record

    def __init__(self, net, name, address, mac=None, fs=None, disk=None, tests=None, **words):
        interface = ipaddress.ip_interface(address)
        self.net, self.name, self.addresses, self.tap = net, name, [address], f"{name}.0"
        net.macs += 1
        self.macs = [mac or f"02:00:5E:00:01:{net.macs:02X}"]
        self.facts = {"model": "QVR-7140-16T", "proj": "NVR", "name": name, "ip": "", "port": "8080", "netmask": "",
                      "gateway": lan.NO_ADDRESS, "dns": "192.168.1.2", "mac": "", "dev": "", "note": "board"}
        self.console = lan.BASE / f"{name}.console"
        self.console.write_bytes(b"")
        if "br0" not in net.devices:
            lan.ip("link add br0 type bridge", "link set br0 up")
            net.devices.append("br0")
        lan.ip(f"tuntap add dev {self.tap} mode tap", f"link set {self.tap} master br0 up")
        net.devices.append(self.tap)
        words = {"host": name, "ip4": interface.ip, "mask": interface.netmask, "fs": fs or "", **words}
        flash = fs == "jffs2" and MACHINE == "e500"
        drives = [["-drive", f"if=pflash,format=raw,file={disk}"] if flash else
                  ["-drive", f"if=virtio,format=raw,cache=unsafe,file={disk}"]] if disk else []
        if tests:
            drives.append(["-drive", f"if=virtio,format=raw,snapshot=on,file={tests}"])
        self.words = [
            "qemu-system-ppc", *CPU[MACHINE], "-m", "128", "-nodefaults", "-display", "none",
            "-kernel", str(CACHE / f"vmlinux-{MACHINE}"), "-initrd", str(CACHE / "root.cpio.gz"),
            "-append", "console=ttyS0 rdinit=/sbin/init panic=5 loglevel=4 " + " ".join(f"{k}={v}" for k, v in words.items()),
            "-chardev", f"file,id=console,path={self.console},append=on", "-serial", "chardev:console",
            *sum(drives, []),
            # Checksums are the board's own work, as those of a real one: frames are judged where they pass.
            "-netdev", f"tap,id=n0,ifname={self.tap},script=no,downscript=no",
            "-device", f"virtio-net-pci,netdev=n0,mac={self.macs[0]},romfile=,csum=off"]
        self.process = None

    def __enter__(self):
        return self.power_on()

    def __exit__(self, *_):
        self.power_off()

    def power_on(self, patience=120):
        """Returns when the board's shell is there."""
        self.control, far = socket.socketpair()
        with far:
            self.process = subprocess.Popen(
                [*self.words, "-chardev", f"socket,id=control,fd={far.fileno()}", "-serial", "chardev:control"],
                stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, pass_fds=[far.fileno()])
        self.unread = b""
        self.wait_shell(patience)
        return self

    def wait_shell(self, patience=120):
        self.until(rb"control\x04ready\n", patience)

    def power_off(self):
        """As pulling the plug: nothing that the board still held back is written. Returns when that was."""
        at = time.monotonic()
        if self.process:
            os.kill(self.process.pid, signal.SIGKILL)
            self.process.communicate()
            self.control.close()
            self.process = None
        return at

    def until(self, pattern, patience):
        """Reads what the shell says, up to the pattern, and returns the match."""
        end = time.monotonic() + patience
        while not (found := re.search(pattern, self.unread, re.S)):
            if not select.select([self.control], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError(f"{self.name}: {pattern!r} did not come: {self.unread[-500:]!r}\n{self.log()[-2000:]}")
            data = self.control.recv(65536)
            if not data:
                raise AssertionError(f"{self.name} ended: {self.process.stderr.read()!r}\n{self.log()[-2000:]}")
            self.unread += data
        self.unread = self.unread[found.end():]
        return found

    def send(self, line):
        self.control.sendall(line.encode("latin1") + b"\n")

    def run(self, line, check=True, patience=60):
        """Runs one line in the board's shell and returns what it printed."""
        self.send(line)
        text, status = self.until(rb"(.*?)\x04(\d+)\n", patience).groups()
        text = text.decode("latin1")
        assert not check or status == b"0", f"{line!r} ended with {status.decode()}: {text}"
        return text

    def status(self, line):
        """What a line of the shell ends with."""
        return int(self.run(f"{line} >/dev/null 2>&1; echo $?"))

    def write(self, name, text):
        """Replaces a file by renaming, so that no state between is ever on the disk."""
        lines = text.replace("'", "'\\''").replace("\n", "\\n").replace("%", "%%")
        self.run(f"printf '{lines}' >{name}.new && mv {name}.new {name}")

    def settle(self, address, netmask="255.255.255.0"):
        """Gives eth0 another address, by the board's own scripts."""
        self.run("ifdown eth0; true")
        self.write("/mtd1/interfaces", f"auto eth0\niface eth0 inet static\n  address {address}\n  netmask {netmask}\n")
        self.run("ifup eth0")
        self.addresses = [f"{address}/{netmask}"]

    def restart_tq(self):
        """A new server, which accepts one setup."""
        self.run("/etc/init.d/tq restart; true", patience=180)
        self.wait_tq((0, 4))

    def wait_tq(self, serving=(0,), seconds=90):
        """4: after a TCP list request that port is taken for a minute, and a server started meanwhile has UDP alone."""
        lan.wait_until(lambda: self.status("/etc/init.d/tq status") in serving, seconds, self.log)

    def messages(self):
        return self.run("cat /var/log/TQ.log")

    def log(self):
        return self.console.read_text(encoding="latin1").replace("\r", "")

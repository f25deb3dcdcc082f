"""Power cuts: a board loses its power in or after a setup, and is judged by what it finds when it comes back."""
import base64
import concurrent.futures
import json
import os
import pathlib
import random
import select
import subprocess
import sys
import time

import lan
from machine import MACHINE, Board, disk_image

SIDE_BY_SIDE = 6
# The first and the last that a setup says: all settings here name a gateway elsewhere, of which it complains when
# it begins the new texts.
BEGUN, EXECUTE = "Skip invalid gateway", "Execute : pCfg->netscript"
GATEWAY = "10.9.9.9"
HEADER = "".join(f"# The network of this recorder, as it was set when it was installed, line {i}\n" for i in range(40))
OTHER = "auto lo\niface lo inet loopback\n"
FILES = "interfaces", "resolv.conf"


def texts(longer, big):
    """(address, new address, (old files), (new files)): the new texts longer or shorter than the old ones; `big` is
    an interfaces file of several blocks."""
    short, long = ("192.168.1.3", "10.0.0.9", ""), ("192.168.100.203", "192.168.100.254", "  # by hand, as the provider wants it\n  mtu 1500\n")
    (old, old_dns, more), (new, new_dns, _) = (short, long) if longer else (long, short)

    def made(address, dns, rest):
        stanza = f"iface eth0 inet static\n  address {address}\n  netmask 255.255.0.0\n{rest}\n"
        return HEADER * big + "auto eth0\n" + stanza + OTHER, f"nameserver {dns}\nnameserver 8.8.8.8\n"

    return old, new, made(old, old_dns, more), made(new, new_dns, "")


def send_setup(protocol, tool, board, new, dns):
    if protocol == "native":
        settings = board.record(ip=new, gateway=GATEWAY, dns=dns, note="static")
        tool.sendto(lan.package(3, *settings) + b"\0", (board.record()[3], lan.SERVER_PORT))
    else:
        body = lan.kirvex_credentials("admin", "1234") + lan.kirvex_settings(
            "QVR-7140-16T", new, "255.255.0.0", GATEWAY, dns, 0)
        tool.sendto(lan.kirvex_request(lan.SETUP, board, body), (board.record()[3], lan.KIRVEX_PORT))


def answering(protocol, desk, board):
    """Whether the board is found, wherever it is, within ten seconds."""
    mac = bytes.fromhex(board.macs[0].replace(":", ""))
    for _ in range(5):
        if protocol == "native":
            found = any(records[0][9] == board.macs[0] for records in desk.ask(patience=2) if len(records[0]) > 9)
        else:
            found = any(reply[6:12] == mac for _, reply in desk.ask_kirvex(lan.kirvex_request(lan.SEARCH), patience=2))
        if found:
            return True
    return False


def state(text, old, new):
    """Empty lines behind a text, or the zeros that a file system puts in the place of their bytes, are no harm."""
    for name, whole in ("old", old), ("new", new):
        if text == whole:
            return name
        if text.startswith(whole) and not text[len(whole):].strip("\n\0"):
            return name + " and empty lines"
    return "mixed"


def cut(fs, protocol, delay, aimed, longer, big):
    """One board, one setup, one cut `delay` seconds after the package was sent (`aimed`: after the new texts were
    begun), one look at what is left."""
    address, new, before, after = texts(longer, big)
    with lan.Lan() as net:
        desk = net.host("desk", "192.168.1.20/16")
        disk = disk_image(lan.BASE / "cut.img", fs, dict(zip(FILES, before)))
        board = Board(net, "board", address + "/16", fs=fs, disk=disk, start="script", log="/dev/console",
                      brandid=16 if protocol == "kirvex" else 3)
        board.facts["dns"] = before[1].split()[1]
        with board, desk.socket() as tool:
            board.wait_tq()
            assert answering(protocol, desk, board), "no answer before the setup"
            since = start = time.monotonic()
            send_setup(protocol, tool, board, new, after[1].split()[1])
            while aimed and BEGUN not in board.log() and since < start + 20:
                since = time.monotonic()
            while time.monotonic() < since + delay:
                time.sleep(min(0.0005, delay))
            at = board.power_off() - start
            if protocol == "native":
                done = EXECUTE in board.log()
            else:
                done = bool(select.select([tool], [], [], 0.1)[0])
            begun = BEGUN in board.log()
            board.power_on()
            left = [base64.b64decode(board.run(f"base64 /mtd1/{name}", check=False)).decode("latin1") for name in FILES]
            states = list(map(state, left, before, after))
            result = {"fs": fs, "protocol": protocol, "at": round(at, 4), "aimed": aimed, "longer": longer, "big": big,
                      "begun": begun, "done": done, "states": states, "answers": answering(protocol, desk, board)}
            if "mixed" in states:
                result["left"] = left
        return result


def worker(orders):
    for order in json.loads(orders):
        print(json.dumps(cut(*order)), flush=True)
    return 0


def orders(fs, count):
    """`count` cuts: half of each protocol, most in the first moments, when everything happens, some up to 40 s later."""
    dice = random.Random(fs)
    made = []
    for i in range(count):
        protocol = ("native", "kirvex")[i % 2]
        kind = i // 2 % 10
        aimed = kind < 5
        delay = dice.uniform(*((0, 0.1) if aimed else (0, 1) if kind < 6 else (0.3, 6) if kind < 8 else (6, 40)))
        made.append((fs, protocol, delay, aimed, i // 20 % 2 == 0, i // 40 % 2 == 1))
    return made


def run(share):
    done = subprocess.run([sys.executable, os.path.dirname(__file__), "cut", json.dumps(share)], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, check=False)
    results = [json.loads(line) for line in done.stdout.splitlines()]
    with open(f"build/log/board-cuts-{share[0][0]}.json", "a") as file:
        file.write(done.stdout)
    assert len(results) == len(share), done.stderr[-3000:]
    return results


def cuts(report, options):
    with concurrent.futures.ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        # What plays the flash of a bamboo holds written data back in memory, as no flash does.
        for fs in ("jffs2", "ext2") if MACHINE == "e500" else ("ext2",):
            every = orders(fs, options.cuts)
            pathlib.Path(f"build/log/board-cuts-{fs}.json").unlink(missing_ok=True)
            with report.line(f"{len(every)} power cuts on {fs}") as details:
                results = sum(pool.map(run, [every[i::25] for i in range(min(25, len(every)))]), [])
                wrong = []
                for protocol in ("native", "kirvex"):
                    for done in (True, False):
                        some = [one for one in results if (one["protocol"], one["done"]) == (protocol, done)]
                        states = {}
                        for one in some:
                            key = "/".join(one["states"])
                            states[key] = states.get(key, 0) + 1
                        mute = sum(not one["answers"] for one in some)
                        details.append(f"{protocol} {'after' if done else 'before'} the end of the setup: " + ", ".join(
                            f"{count} {key}" for key, count in sorted(states.items())) + f", {mute} of them silent")
                        wrong += [one for one in some if done and one["states"] != ["new", "new"] or
                                  not one["answers"] and "mixed" not in one["states"] or
                                  "mixed" in one["states"] and not one["begun"]]
                assert not wrong, wrong

"""A board to type at."""
import select
import sys
import time

import lan
from machine import Board


def interactive(words):
    """A desk, a board and a shell on it, until the input ends."""
    with lan.Lan() as net:
        net.host("desk", "192.168.1.20/24")
        start = time.monotonic()
        address = words.pop("ip4", "192.168.1.31") + "/24"
        with Board(net, words.pop("host", "board"), address, **{"start": "script", **words}) as board:
            print(f"A shell after {time.monotonic() - start:.1f} s; the end of input switches the board off.")
            while print("# ", end="", flush=True) or (line := sys.stdin.readline()):
                board.send(line.strip())
                while select.select([board.control], [], [])[0]:
                    text, end, _ = board.control.recv(65536).partition(b"\4")
                    print(text.decode("latin1"), end="", flush=True)
                    if end:
                        break
    return 0

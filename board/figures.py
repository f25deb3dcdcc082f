"""What a query costs on the board, beside a loop that sends what TQ sent."""
import statistics
import time

import lan
from lan import KIRVEX_PORT, QUERY, SEARCH, SERVER_PORT
from machine import Board
from measure import TQ_PID, anonymous_kb, cpu_microseconds, drain, rally, wire_times

TIMED, COUNTED, TRACED = 60, 300, 20
TRACE = "/sys/kernel/tracing"


def system_calls(board, ask):
    """How many a request takes, as the kernel's own tracer counts them."""
    board.run(f"mount -t tracefs tracefs {TRACE} 2>/dev/null; cd {TRACE} && echo >trace && cat {TQ_PID} >set_event_pid && "
              "echo 1 >events/raw_syscalls/sys_enter/enable")
    for _ in range(TRACED):
        ask()
    time.sleep(0.2)
    return int(board.run(f"cd {TRACE} && echo 0 >events/raw_syscalls/sys_enter/enable && grep -c sys_enter trace")) / TRACED


def measure(board, client, request, port, answers):
    """(microseconds to the first frame, of CPU, answers a second, system calls, frames of one answer)"""
    to = (board.record()[3], port)

    def ask():
        rally(client, request, to, 1, answers)

    ask()
    wire = lan.Capture(board.tap)
    for _ in range(TIMED):
        time.sleep(0.03)
        ask()
    frames = wire.frames()
    time.sleep(0.2)
    before = cpu_microseconds(board)
    for _ in range(COUNTED):
        ask()
    time.sleep(0.2)
    cost = (cpu_microseconds(board) - before) / COUNTED
    _, answered, seconds = rally(client, request, to, 3000, answers)
    calls = system_calls(board, ask)
    sent = [data[14:] for _, data, ours in frames if ours and data[12:14] == b"\x08\x00" and data[23] == 17]
    return statistics.median(wire_times(frames, port)), cost, answered / seconds, calls, sent[-answers:]


def told(title, figures):
    wire, cost, rate, calls, _ = figures
    return f"{title}: {wire:.0f} us to the first frame, {cost:.0f} us of CPU, {rate:.0f} a second, {calls:.1f} system calls"


def first_answer(board, client):
    """Milliseconds from the command to the first answer."""
    client.settimeout(0.002)
    start = time.monotonic()
    board.send("TQ -D >/dev/null 2>&1")
    while time.monotonic() < start + 10:
        client.sendto(QUERY, (board.record()[3], SERVER_PORT))
        try:
            if client.recv(4096):
                break
        except TimeoutError:
            pass
    took = (time.monotonic() - start) * 1000
    board.until(rb"\x04\d+\n", 10)
    time.sleep(0.5)
    board.run("kill $(cat /var/run/TQ.pid); sleep 1")
    drain(client)
    return took


def figures(report, _):
    for title, brand, port, request, answers, bind in (
            ("native query", 3, SERVER_PORT, QUERY, 2, lan.CLIENT_PORT),
            ("KIRVEX search", 16, KIRVEX_PORT, lan.kirvex_request(SEARCH), 1, 0)):
        with lan.Lan() as net:
            desk = net.host("desk", "192.168.1.20/24")
            with Board(net, "board", "192.168.1.31/24", brandid=brand) as board, \
                    desk.socket(bind=("", bind), device="eth0") as client, report.line(title) as details:
                if brand != 16:
                    details.append(f"start to first answer {statistics.median(first_answer(board, client) for _ in range(5)):.0f} ms")
                board.run("/etc/init.d/tq start")
                board.wait_tq()
                mine = measure(board, client, request, port, answers)
                details += [f"{anonymous_kb(board)} kB anonymous", told("TQ", mine)]
                board.run("/etc/init.d/tq stop")
                how = "eth0 - " if answers == 2 else "- - "
                frames = " ".join((frame if answers == 2 else frame[28:]).hex() for frame in mine[-1])
                board.run(f"floor {port} {how}{frames} >/dev/null 2>&1 & echo $! >{TQ_PID}")
                time.sleep(0.5)
                details.append(told("a bare loop", measure(board, client, request, port, answers)))

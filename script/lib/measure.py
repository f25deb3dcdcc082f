"""What is measured of a server, from its host's /proc and from the frames on its cable."""
import time

TQ_PID = "/var/run/TQ.pid"


def of_process(host, what, pid_file=TQ_PID):
    return host.run(f"cat /proc/$(cat {pid_file})/{what}")


def cpu_microseconds(host, pid_file=TQ_PID):
    return int(of_process(host, "schedstat", pid_file).split()[0]) / 1000


def anonymous_kb(host, pid_file=TQ_PID):
    return int(next(line.split()[1] for line in of_process(host, "smaps_rollup", pid_file).splitlines()
                    if line.startswith("Anonymous:")))


def wire_times(frames, port):
    """Microseconds from each query that the host got on that port to the first datagram that it sent after it."""
    times, asked = [], None
    for when, data, sent in frames:
        if data[12:14] != b"\x08\x00" or data[23] != 17:
            continue
        if not sent and int.from_bytes(data[36:38], "big") == port:
            asked = when
        elif sent and asked is not None:
            times.append((when - asked) / 1000)
            asked = None
    return times


def rally(client, request, to, count, answers, window=32, limit=60):
    """Sends up to `count` requests, at most `window` of them unanswered, for at most `limit` seconds. Returns
    (sent, answered, seconds)."""
    client.settimeout(0.5)
    start, sent, received = time.monotonic(), 0, 0
    while received < count * answers:
        while sent < count and sent - received // answers < window and time.monotonic() < start + limit:
            client.sendto(request, to)
            sent += 1
        try:
            client.recv(4096)
            received += 1
        except TimeoutError:
            break
    return sent, received // answers, time.monotonic() - start


def drain(client):
    """Reads the answers that are still on their way."""
    client.settimeout(0.5)
    try:
        while client.recv(4096):
            pass
    except TimeoutError:
        pass

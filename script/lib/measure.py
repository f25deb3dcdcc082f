"""What is measured of a server, from its host's /proc and from the frames on its cable."""

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

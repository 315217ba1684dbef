"""Daemons: started into a session of their own, recognised again by another command, and reliably stopped.

A process is remembered with the time of its start, so that a number which the system has given to another since is not taken
for it. One that nobody has reaped yet counts as gone.
"""
import os
import signal
import socket
import subprocess
import time

from .errors import GridError

LISTEN_SECONDS = 60
STOP_SECONDS = 10
POLL_SECONDS = 0.02

GENTLY = (signal.SIGTERM, signal.SIGKILL)
AT_ONCE = (signal.SIGKILL,)


def start_time(pid):
    """When the process started, in the kernel's own count; None when there is no such process, or only its remains."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as file:
            fields = file.read().rpartition(b")")[2].split()  # the name before may hold anything
    except OSError:
        return None
    return None if fields[0] in (b"Z", b"X") else int(fields[19])


def is_running(process):
    # A process that ended before its start could be read has none.
    return process is not None and process["started"] is not None and start_time(process["pid"]) == process["started"]


def start(command, log, folder, environment=None):
    """Starts a daemon whose output goes to the end of the log. Returns what is_running and stop understand, and the child."""
    with open(log, "ab") as output:
        child = subprocess.Popen(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
                                 env={**os.environ, **(environment or {})})
    return {"pid": child.pid, "started": start_time(child.pid)}, child


def start_listening(title, command, log, folder, port, environment=None):
    """Starts a daemon and returns it with the child once it listens on the port; None when another program has the port."""
    process, child = start(command, log, folder, environment)
    try:
        wait_until(lambda: child.poll() is not None or listens(process, port) or is_taken_by_another(process, port), LISTEN_SECONDS)
        if child.poll() is None and listens(process, port):
            return process, child
        ended = child.poll()
    except BaseException:
        stop(process, child)
        raise
    stop(process, child)
    if not is_port_free(port):
        return None
    why = f"ended with code {ended}" if ended is not None else "does not listen"
    raise GridError(f"{title} {why}; the end of {log}:\n{tail(log)}")


def stop(process, child=None, how=GENTLY):
    """Asks the process to end, insists after a while, and returns when it is gone."""
    for number in how:
        if is_running(process):
            try:
                os.kill(process["pid"], number)
            except ProcessLookupError:
                pass
        if wait_until(lambda: not is_running(process), STOP_SECONDS):
            if child is not None:
                child.poll()
            return
    raise GridError(f"process {process['pid']} does not end")


def wait_until(condition, seconds):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(POLL_SECONDS)
    return True


def tail(path, lines=15):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return "".join(file.readlines()[-lines:])
    except OSError:
        return ""


def is_port_free(port):
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


def pick_port():
    """A free port below those that the kernel gives to outgoing connections: while the server is stopped, none of them can take it."""
    with open("/proc/sys/net/ipv4/ip_local_port_range", encoding="ascii") as file:
        below = max(int(file.read().split()[0]), 12000)
    for _ in range(1000):
        port = 10000 + int.from_bytes(os.urandom(4), "big") % (below - 10000)
        if is_port_free(port):
            return port
    raise GridError("no free port found")


def listening_sockets(port):
    """The kernel's names of the sockets that listen on the port for connections to 127.0.0.1."""
    addresses = (f"0100007F:{port:04X}", f"00000000:{port:04X}")
    with open("/proc/net/tcp", encoding="ascii") as file:
        rows = [line.split() for line in file]
    return {f"socket:[{row[9]}]" for row in rows if row[1] in addresses and row[3] == "0A"}


def listens(process, port):
    """Whether the port is held by this very process, and not by another that was there before it."""
    sockets = listening_sockets(port)
    folder = f"/proc/{process['pid']}/fd"
    try:
        return any(os.readlink(os.path.join(folder, name)) in sockets for name in os.listdir(folder))
    except OSError:
        return False


def is_taken_by_another(process, port):
    return bool(listening_sockets(port)) and not listens(process, port)

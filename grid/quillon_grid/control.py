"""Talks to the controller: one line with fields between tabs goes out; lines come back, the last one "ok" or "error" with the reason."""
import os
import socket

from .errors import GridError

NAME = "control.socket"
ANSWER_SECONDS = 30


def ask(folder, *fields):
    """The rows of the answer, each a list of fields. GridError when the controller refuses or cannot be reached."""
    for field in fields:
        if any(ord(character) < 32 or ord(character) == 127 for character in field):
            raise GridError("control characters are not allowed in names", 2)
    try:
        answer = exchange(folder, "\t".join(fields) + "\n")
    except socket.timeout:
        raise GridError("the controller does not answer") from None
    except OSError:
        raise GridError("the controller is not running: see 'quillon-grid up'", 3) from None
    lines = answer.split("\n")
    if len(lines) < 2 or lines[-1] != "":
        raise GridError("the controller went away before it answered", 3)
    verdict = lines[-2].split("\t")
    if verdict[0] != "ok":
        raise GridError(verdict[1] if len(verdict) > 1 else "the controller refused")
    return [line.split("\t") for line in lines[:-2]]


def exchange(folder, line):
    # A socket's path may be 107 bytes long; this one is short wherever the folder lies.
    directory = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(ANSWER_SECONDS)
            connection.connect(f"/proc/self/fd/{directory}/{NAME}")
            connection.sendall(line.encode())
            connection.shutdown(socket.SHUT_WR)
            received = b""
            while chunk := connection.recv(65536):
                received += chunk
    finally:
        os.close(directory)
    return received.decode(errors="replace")

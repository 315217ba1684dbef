"""The grid's bulk service: documents of any size over HTTPS, for clients with a certificate of the grid."""
import os

from . import certificates, processes
from .errors import GridError

START_SECONDS = 20


def start(program, folder, domain, ca, port):
    """Starts the service and returns it with the child once it listens; None when another program has the port."""
    key, certificate = certificates.paths_of(os.path.join(folder, "server"))
    log = os.path.join(folder, "bulk.log")
    process, child = processes.start([program, "--port", str(port), "--ca", ca, "--certificate", certificate, "--key", key, "--domain", domain],
                                     log, folder)
    try:
        processes.wait_until(lambda: child.poll() is not None or processes.listens(process, port), START_SECONDS)
        if child.poll() is None and processes.listens(process, port):
            return process, child
        ended = child.poll()
    except BaseException:
        processes.stop(process, child)
        raise
    processes.stop(process, child)
    if not processes.is_port_free(port):
        return None
    why = f"ended with code {ended}" if ended is not None else "does not listen"
    raise GridError(f"the bulk service {why}; the end of {log}:\n{processes.tail(log)}")

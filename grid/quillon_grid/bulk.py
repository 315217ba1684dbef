"""The grid's bulk service: documents of any size over HTTPS, for clients with a certificate of the grid."""
import os

from . import certificates, processes


def start(program, folder, domain, ca, port):
    """Starts the service and returns it with the child once it listens; None when another program has the port."""
    key, certificate = certificates.paths_of(os.path.join(folder, "server"))
    command = [program, "--port", str(port), "--ca", ca, "--certificate", certificate, "--key", key, "--domain", domain]
    return processes.start_listening("the bulk service", command, os.path.join(folder, "bulk.log"), folder, port)

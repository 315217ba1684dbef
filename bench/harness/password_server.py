"""A Prosody that knows one user by a password, for the peers that cannot authenticate as the grid wants it."""
import os
import socket
import subprocess
import time

from quillon_grid import prosody

PASSWORD = "bench-password"
START_SECONDS = 20
CONFIGURATION = """{root}pidfile = "{folder}/prosody.pid"
data_path = "{folder}/data"
log = {{ {{ levels = {{ min = "warn" }}, to = "console" }} }}
interfaces = {{ "127.0.0.1" }}
c2s_ports = {{ {port} }}
c2s_require_encryption = true
modules_enabled = {{ "saslauth", "tls", "disco", "ping", "presence", "message", "iq" }}
modules_disabled = {{ "s2s", "offline" }}
authentication = "internal_plain"
ssl = {{ certificate = "{certificate}"; key = "{key}" }}
VirtualHost "{domain}"
"""


class PasswordServer:
    def __init__(self, folder, domain, user, pair):
        accounts = os.path.join(folder, "data", domain.replace(".", "%2e"), "accounts")
        os.makedirs(accounts)
        with open(os.path.join(accounts, f"{user}.dat"), "w", encoding="ascii") as file:
            file.write(f'return {{ ["password"] = "{PASSWORD}" }};\n')
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        path = os.path.join(folder, "prosody.cfg.lua")
        with open(path, "w", encoding="utf-8") as file:
            file.write(CONFIGURATION.format(root="run_as_root = true\n" if os.geteuid() == 0 else "", folder=folder, port=self.port, domain=domain,
                                            certificate=pair[0], key=pair[1]))
        self.log = open(os.path.join(folder, "prosody.log"), "wb")
        self.process = subprocess.Popen([prosody.program(), "--config", path, "-F"], stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        self.wait_until_up()

    def wait_until_up(self):
        deadline = time.monotonic() + START_SECONDS
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port)).close()
                return
            except ConnectionRefusedError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    self.stop()
                    raise
            time.sleep(0.05)

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.log.close()

"""The grid's XMPP server: a Prosody of its own, with its own configuration, data and port, beside any that the system runs."""
import os
import shutil

from . import processes
from .errors import GridError

SASL_RESPONSE = "user-name"

# certificate_match "email" lets a client answer SASL EXTERNAL with its plain user name, as grid clients do. A client that was cut off
# may come back before the server has noticed: the new session replaces the old one. With Prosody's own settings its garbage collector, which begins again
# whenever memory has grown by a twentieth, takes half of the server's time under load; these are Lua's.
CONFIGURATION = """-- Written by quillon-grid at each start.
{root}pidfile = "{folder}/prosody.pid"
data_path = "{folder}/data"
certificates = "{folder}/certificates"
log = {{ {{ levels = {{ min = "info" }}, to = "console" }} }}

interfaces = {{ "127.0.0.1" }}
c2s_ports = {{ {port} }}
c2s_require_encryption = true
c2s_stanza_size_limit = 4194304
gc = {{ mode = "incremental", threshold = 200, speed = 100 }}
conflict_resolve = "kick_old"

modules_enabled = {{ "saslauth", "tls", "disco", "ping", "presence", "message", "iq" }}
modules_disabled = {{ "s2s", "offline" }}

authentication = "ccert"
certificate_match = "email"
ssl = {{
  key = "{folder}/server/key.pem";
  certificate = "{folder}/server/certificate.pem";
  cafile = "{folder}/certificates/ca.pem";
  verify = {{ "peer", "client_once" }};
}}

VirtualHost "{domain}"

Component "pubsub.{domain}" "pubsub"
  admins = {{ "controller@{domain}" }}
  expire_items_after = "never"
"""


def program():
    path = shutil.which("prosody") or shutil.which("prosody", path="/usr/bin:/usr/local/bin")
    if path is None:
        raise GridError("the XMPP server is missing: install the packages prosody and prosody-modules")
    return path


def write_configuration(folder, domain, port):
    root = "run_as_root = true\n" if os.geteuid() == 0 else ""
    quoted = folder.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")
    path = os.path.join(folder, "prosody.cfg.lua")
    with open(path, "w", encoding="utf-8") as file:
        file.write(CONFIGURATION.format(folder=quoted, domain=domain, port=port, root=root))
    return path


def start(folder, domain, port):
    """Starts the server and returns it with the child once it listens; None when another program has the port."""
    command = [program(), "--config", write_configuration(folder, domain, port), "-F"]
    os.makedirs(os.path.join(folder, "data"), mode=0o700, exist_ok=True)
    return processes.start_listening("the XMPP server", command, os.path.join(folder, "prosody.log"), folder, port)

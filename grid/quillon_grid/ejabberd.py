"""The grid's XMPP server when it is to be ejabberd: nodes of its own that make up one cluster, with their own data, ports and port mapper.

The nodes are started as the user who runs the grid, without the system's ejabberdctl, which insists on a user of its own.
"""
import glob
import json
import os
import secrets
import shutil
import subprocess

from . import certificates, processes
from .errors import GridError

JOIN_SECONDS = 60
SASL_RESPONSE = "bare-jid"  # the plain user name is refused

# Without a shaper, since a grid is to be loaded. access_createnode is everybody's, because the right by default is an administrator's, and
# the nodes are then guarded by their own access models.
CONFIGURATION = """# Written by quillon-grid at each start.
hosts: [{domain}]
loglevel: info
certfiles: [{certificate}, {key}]
ca_file: {ca}
listen:
  - port: {port}
    ip: "127.0.0.1"
    module: ejabberd_c2s
    max_stanza_size: 4194304
    shaper: none
    starttls_required: true
    tls_verify: true
    cafile: {ca}
access_rules:
  everybody:
    allow: all
modules:
  mod_disco: {{}}
  mod_ping: {{}}
  mod_pubsub:
    plugins: [flat]
    access_createnode: everybody
"""


def program(name="erl"):
    path = shutil.which(name)
    if path is None or not glob.glob("/usr/lib/*/ejabberd-*/ebin"):
        raise GridError("the XMPP server is missing: install the package ejabberd")
    return path


def home(folder):
    """Where the nodes live; made with the secret by which they know each other."""
    place = os.path.join(folder, "ejabberd")
    cookie = os.path.join(place, ".erlang.cookie")
    os.makedirs(place, mode=0o700, exist_ok=True)
    if not os.path.exists(cookie):
        with open(os.open(cookie, os.O_WRONLY | os.O_CREAT, 0o400), "w", encoding="ascii") as file:
            file.write(secrets.token_hex(16))
    return place


def node_name(number):
    return f"node{number}@127.0.0.1"


def environment(folder, mapper_port):
    libraries = os.path.dirname(os.path.dirname(glob.glob("/usr/lib/*/ejabberd-*/ebin")[0]))
    return {"HOME": home(folder), "ERL_LIBS": libraries, "ERL_EPMD_PORT": str(mapper_port), "ERL_EPMD_ADDRESS": "127.0.0.1"}


def start_mapper(folder, port):
    """Starts the port mapper, by which nodes find each other; None when another program has the port."""
    command = [program("epmd"), "-port", str(port), "-address", "127.0.0.1"]
    return processes.start_listening("the port mapper", command, os.path.join(home(folder), "epmd.log"), folder, port)


def write_configuration(place, folder, domain, port):
    key, certificate = certificates.paths_of(os.path.join(folder, "server"))
    values = {"domain": domain, "certificate": certificate, "key": key, "ca": os.path.join(folder, "certificates", "ca.pem")}
    path = os.path.join(place, "ejabberd.yml")
    with open(path, "w", encoding="utf-8") as file:
        file.write(CONFIGURATION.format(port=port, **{name: json.dumps(value, ensure_ascii=False) for name, value in values.items()}))
    return path


def forget(folder):
    """Before the first node starts: a database would wait for the node that went last. What it held the controller and the clients bring again."""
    for database in glob.glob(os.path.join(glob.escape(home(folder)), "node*", "database")):
        shutil.rmtree(database)


def start(folder, domain, port, mapper_port, number, member=None):
    """Starts a node and returns it with the child once it listens; None when another program has the port. member is a node that runs: a new
    node joins its cluster, one that was there before finds the others by itself."""
    place = os.path.join(home(folder), f"node{number}")
    os.makedirs(place, mode=0o700, exist_ok=True)
    database = os.path.join(place, "database")
    joins = member is not None and not os.path.isdir(database)
    settings = environment(folder, mapper_port)
    settings["EJABBERD_CONFIG_PATH"] = write_configuration(place, folder, domain, port)
    settings["EJABBERD_LOG_PATH"] = os.path.join(place, "ejabberd.log")
    settings["ERL_CRASH_DUMP"] = os.path.join(place, "crash.dump")
    command = [program(), "-noinput", "-name", node_name(number), "-start_epmd", "false", "-kernel", "inet_dist_use_interface", "{127,0,0,1}",
               "-mnesia", "dir", json.dumps(database, ensure_ascii=False), "-s", "ejabberd"]
    started = processes.start_listening("the XMPP server", command, os.path.join(folder, f"ejabberd{number}.log"), place, port, settings)
    if started is not None and joins:
        try:
            join(number, member, settings)
        except BaseException:
            processes.stop(*started)
            shutil.rmtree(database, ignore_errors=True)
            raise
    return started


def join(number, member, settings):
    command = [program(), "-noinput", "-hidden", "-name", f"join{number}@127.0.0.1", "-start_epmd", "false", "-s", "ejabberd_ctl",
               "-extra", node_name(number), "join_cluster", node_name(member)]
    complaint = f"{node_name(number)} does not join {node_name(member)}"
    try:
        done = subprocess.run(command, env={**os.environ, **settings}, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
                              timeout=JOIN_SECONDS)
    except subprocess.TimeoutExpired:
        raise GridError(complaint) from None
    if done.returncode != 0:
        raise GridError(f"{complaint}: {done.stdout}{done.stderr}")

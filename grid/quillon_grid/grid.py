"""One grid in one folder: what it is made of, and how it is brought up and taken down.

grid.json in the folder remembers the settings and the processes, so that every command finds them again; a lock makes the commands
that change them take turns.
"""
import contextlib
import fcntl
import json
import os
import re
import select
import signal
import sys

from . import bulk, certificates, control, ejabberd, processes, prosody, web
from .errors import GridError

DOMAIN = "grid.quillon.internal"
CONTROLLER = "controller"  # the controller's own user name, which nobody else may have
SERVERS = {"prosody": prosody, "ejabberd": ejabberd}
NODES_MAX = 4  # of ejabberd; a Prosody has no others
PORT_ATTEMPTS = 5
READY_SECONDS = 60
USER_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")


def find_program(name, variable, beside=None):
    """One of the grid's programs: named by the environment, beside another, beside this command, or in a build folder, the released one first."""
    grid = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    build = os.path.join(os.path.dirname(grid), "build")
    named = os.environ.get(variable)
    if named:
        return named
    first = [os.path.join(os.path.dirname(beside), name)] if beside else []
    first += [os.path.join(grid, name), os.path.join(build, "release", "grid", name)]
    with contextlib.suppress(OSError):
        built = [os.path.join(build, folder, "grid", name) for folder in os.listdir(build)]
        first += sorted(filter(os.path.exists, built), key=os.path.getmtime, reverse=True)
    for path in first:
        if os.access(path, os.X_OK):
            return path
    raise GridError(f"the program {name} is not built: build it, or tell where it is with ${variable}")


def port_key(server):
    return "port" if server == "server" else f"{server}_port"


class Grid:
    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        self.children = {}
        self.exit_codes = {}
        self.stops = []  # the signals received, once they are heeded
        # A server of several nodes has further processes and ports: server2, server2_port and so on; and a port mapper.
        self.state = {"domain": None, "kind": "prosody", "nodes": 1, "port": None, "approval": "auto", "server": None, "controller": None,
                      "servers_wanted": [], "bulk": None, "bulk_port": None, "mapper": None, "mapper_port": None,
                      "web": None, "web_port": None}
        self.load()

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def load(self):
        try:
            with open(self.path("grid.json"), encoding="utf-8") as file:
                self.state.update(json.load(file))
        except FileNotFoundError:
            pass
        except (OSError, ValueError) as error:
            raise GridError(f"{self.path('grid.json')} cannot be read: {error}") from None

    def save(self):
        fresh = self.path("grid.json.new")
        with open(fresh, "w", encoding="utf-8") as file:
            json.dump(self.state, file, indent=1)
        os.replace(fresh, self.path("grid.json"))

    @contextlib.contextmanager
    def locked(self, create=False):
        if create:
            os.makedirs(self.folder, mode=0o700, exist_ok=True)
        elif not os.path.isdir(self.folder):
            raise GridError(f"there is no grid in {self.folder}", 3)
        with open(self.path("lock"), "w", encoding="ascii") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.load()
            yield

    @property
    def domain(self):
        return self.state["domain"] or DOMAIN

    @property
    def servers(self):
        """The names of the server's processes, one a node."""
        return ["server"] + [f"server{number}" for number in range(2, self.state["nodes"] + 1)]

    @property
    def daemons(self):
        """In the order in which they are stopped: the controller takes its leave of the server."""
        return ["web", "bulk", "controller", *self.servers, "mapper"]

    @property
    def hosts(self):
        """The address of each node that has been up."""
        return [f"127.0.0.1:{port}" for port in map(self.port, self.servers) if port]

    def port(self, server):
        return self.state.get(port_key(server))

    @property
    def sasl_response(self):
        """What a client says besides its certificate, as qlk names it."""
        return ejabberd.SASL_RESPONSE if self.state["kind"] == "ejabberd" else prosody.SASL_RESPONSE

    def is_running(self, name):
        return processes.is_running(self.state.get(name))

    @property
    def bulk_url(self):
        return f"https://127.0.0.1:{self.state['bulk_port']}/bulk"

    @property
    def ca(self):
        return self.path("certificates", "ca.pem")

    def authority(self):
        return certificates.Authority(self.folder, self.domain)

    def is_server_running(self):
        return all(map(self.is_running, self.servers))

    def is_controller_running(self):
        return self.is_running("controller")

    def is_bulk_running(self):
        return self.is_running("bulk")

    def set_domain(self, domain):
        if domain and self.state["domain"] not in (None, domain):
            raise GridError(f"this grid's certificates are for {self.state['domain']}: use another folder for {domain}", 2)
        self.state["domain"] = domain or self.domain

    # --- up and down

    def up(self, port=0, approval=None, controller=None, domain=None, kind=None, nodes=None, has_web=False):
        """Returns when the grid is ready. False when it was up already."""
        with self.locked(create=True):
            is_same_server = kind in (None, self.state["kind"]) and nodes in (None, self.state["nodes"])
            if self.is_server_running() and self.is_controller_running() and self.is_bulk_running():
                if not is_same_server:
                    raise GridError("the grid is up with another server: take it down first")
                if has_web:
                    self.start_web()
                return False
            # Its controller died: the clients need not notice.
            keeps_server = self.is_server_running() and is_same_server and port in (0, self.state["port"])
            if not keeps_server:
                self.stop_processes()
            self.set_domain(domain)
            self.set_server(kind, nodes)
            if approval:
                self.state["approval"] = approval
            program = os.path.abspath(controller or find_program("quillon-controller", "QUILLON_GRID_CONTROLLER"))
            if not os.access(program, os.X_OK):
                raise GridError(f"{program} is not a program")
            bulk_program = os.path.abspath(find_program("quillon-bulk", "QUILLON_GRID_BULK", program))
            SERVERS[self.state["kind"]].program()
            self.make_certificates()
            try:
                if not keeps_server:
                    self.start_servers(port)
                if not self.is_controller_running():
                    self.start_controller(program)
                if not self.is_bulk_running():
                    self.start_bulk(bulk_program)
                if has_web:
                    self.start_web()
                self.wait_until_ready()
            except BaseException:
                self.stop_processes()
                raise
            return True

    def down(self):
        """True when there was something to stop."""
        if not os.path.isdir(self.folder):
            return False
        with self.locked():
            running = any(map(self.is_running, self.daemons))
            self.stop_processes()
            return running

    def stop_processes(self):
        self.state["servers_wanted"] = []
        if os.path.exists(self.path("grid.json")):
            self.save()
        for name in self.daemons:
            self.stop_process(name)

    def stop_process(self, name, how=processes.GENTLY):
        if self.state.get(name) is None:
            return
        child = self.children.pop(name, None)
        processes.stop(self.state[name], child, how)
        self.exit_codes[name] = child.returncode if child is not None else 0  # only a parent learns it
        self.state[name] = None
        self.save()

    def make_certificates(self):
        authority = self.authority()
        authority.ensure()
        if not certificates.is_valid(self.path("server", "certificate.pem"), self.ca):
            authority.issue_server(self.path("server"))
        if not certificates.is_valid(self.path(CONTROLLER, "certificate.pem"), self.ca):
            authority.issue_user(self.path(CONTROLLER), CONTROLLER)

    def set_server(self, kind, nodes):
        kind = kind or self.state["kind"]
        nodes = nodes or (self.state["nodes"] if kind == self.state["kind"] else 1)
        if kind != "ejabberd" and nodes > 1:
            raise GridError("only ejabberd has several nodes", 2)
        self.state.update(kind=kind, nodes=nodes)

    def start_servers(self, port=0):
        """Those that do not run, each on the port that was asked for, else on the one that it had before if that is free, else on a free one."""
        if self.state["kind"] == "ejabberd":
            if not self.is_running("mapper"):
                self.start_service("mapper", lambda port: ejabberd.start_mapper(self.folder, port))
            if not any(map(self.is_running, self.servers)):
                ejabberd.forget(self.folder)
        for server in self.servers:
            if not self.is_running(server):
                self.start_server(server, port if server == "server" else 0)

    def start_server(self, server, port=0):
        kept = self.port(server) if not port else None
        for _ in range(PORT_ATTEMPTS):
            choice = port or (kept if kept and processes.is_port_free(kept) else processes.pick_port())
            if processes.is_port_free(choice) and self.start_server_on(server, choice):
                return
            kept = None
            if port:
                break
        raise GridError(f"port {port} is taken by another program" if port else "no port could be had")

    def start_server_on(self, server, port):
        started = self.start_node(server, port) if self.state["kind"] == "ejabberd" else prosody.start(self.folder, self.domain, port)
        if started is None:
            return False
        self.state[server], self.children[server] = started
        self.state[port_key(server)] = port
        self.state["servers_wanted"] = sorted({*self.state["servers_wanted"], server})
        self.save()
        return True

    def start_node(self, server, port):
        member = next((self.servers.index(other) + 1 for other in self.servers if other != server and self.is_running(other)), None)
        return ejabberd.start(self.folder, self.domain, port, self.state["mapper_port"], self.servers.index(server) + 1, member)

    def start_controller(self, program):
        hosts = [word for host in self.hosts for word in ("--host", host)]
        command = [program, "--domain", self.domain, *hosts, "--ca", self.ca, "--certificate", self.path(CONTROLLER, "certificate.pem"), "--key",
                   self.path(CONTROLLER, "key.pem"), "--database", self.path("controller.sqlite"), "--control", control.NAME, "--approval", self.state["approval"]]
        self.state["controller"], self.children["controller"] = processes.start(command, self.path("controller.log"), self.folder)
        self.save()

    def start_service(self, name, start):
        """On the port that it had before if that is free, else on a free one."""
        for _ in range(PORT_ATTEMPTS):
            kept = self.state[f"{name}_port"]
            port = kept if kept and processes.is_port_free(kept) else processes.pick_port()
            started = start(port)
            if started is not None:
                self.state[name], self.children[name] = started
                self.state[f"{name}_port"] = port
                self.save()
                return
            self.state[f"{name}_port"] = None
        raise GridError(f"no port could be had for {name}")

    def start_bulk(self, program):
        self.start_service("bulk", lambda port: bulk.start(program, self.folder, self.domain, self.ca, port))

    def start_web(self):
        if not self.is_running("web"):
            self.start_service("web", lambda port: web.start(self.folder, port))

    def wait_until_ready(self):
        child = self.children.get("controller")

        def ended():
            return child.poll() is not None if child is not None else not self.is_controller_running()

        processes.wait_until(lambda: ended() or self.controller_status().get("state") == "ready", READY_SECONDS)
        if ended() or self.controller_status().get("state") != "ready":
            why = "has ended" if ended() else "is not ready"
            log = self.path("controller.log")
            raise GridError(f"the controller {why}; the end of {log}:\n{processes.tail(log)}")

    def controller_status(self):
        try:
            return dict(control.ask(self.folder, "status"))
        except GridError:
            return {}

    # --- parts of it

    def chosen_servers(self, node):
        if node is None:
            return self.servers
        if not 1 <= node <= self.state["nodes"]:
            raise GridError(f"there is no node {node}", 2)
        return [self.servers[node - 1]]

    def server_stop(self, node=None, how=processes.GENTLY):
        with self.locked():
            chosen = self.chosen_servers(node)
            self.state["servers_wanted"] = [server for server in self.state["servers_wanted"] if server not in chosen]
            self.save()
            for server in chosen:
                self.stop_process(server, how)

    def server_start(self, wait=True):
        with self.locked():
            if not self.is_controller_running():
                raise GridError("the grid is not up: see 'quillon-grid up'", 3)
            for server in self.servers:
                if not self.is_running(server) and not processes.is_port_free(self.port(server)):
                    raise GridError(f"port {self.port(server)} is taken by another program")
            self.start_servers()
            if wait:
                self.wait_until_ready()

    def server_certificate(self, days, name):
        with self.locked(create=True):
            self.set_domain(None)
            self.authority().issue_server(self.path("server"), days, name)

    def enroll(self, user, days=None, passphrase_file=None, renew=False, domain=None):
        """Returns the paths of the user's certificate and key; a certificate that is still good is kept unless anything else is asked for."""
        if not USER_NAME.fullmatch(user) or user.lower() == CONTROLLER:
            raise GridError(f"'{user}' cannot be a user's name", 2)
        if passphrase_file and not os.access(passphrase_file, os.R_OK):
            raise GridError(f"{passphrase_file} cannot be read", 2)
        with self.locked(create=True):
            self.set_domain(domain)
            self.save()
            authority = self.authority()
            authority.ensure()
            key, certificate = certificates.paths_of(self.path("users", user))
            wanted = renew or days is not None or passphrase_file
            if wanted or not certificates.is_valid(certificate, self.ca):
                days = certificates.USER_DAYS if days is None else days
                authority.issue_user(self.path("users", user), user, days, passphrase_file)
            return certificate, key

    # --- in the foreground

    def heed_signals(self):
        """From now on a signal ends watch, in order, and not the process."""
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda received, _: self.stops.append(received))

    def watch(self, lifeline):
        """Stays until a signal, until another command takes the grid down, or, with the lifeline, until standard input ends. Returns the
        exit code; the grid is down then."""
        complaint = None
        while not self.stops and complaint is None:
            readable, _, _ = select.select([sys.stdin] if lifeline else [], [], [], 0.2)
            if readable and os.read(sys.stdin.fileno(), 4096) == b"":
                break
            self.reap()
            before = self.what_ended()
            if before is None:
                continue
            with self.locked():  # a command that stops something has finished now, and has noted it
                complaint = self.what_ended()
            if self.state["controller"] is None:
                return 0
        self.down()
        if complaint is not None:
            raise GridError(f"{complaint}; see the logs in {self.folder}")
        for name, title in (("controller", "the controller"), ("bulk", "the bulk service")):
            if self.exit_codes.get(name, 0) != 0:
                log = self.path(f"{name}.log")
                raise GridError(f"{title} ended with code {self.exit_codes[name]}; the end of {log}:\n{processes.tail(log, 60)}")
        return 0

    def reap(self):
        for child in self.children.values():
            child.poll()

    def what_ended(self):
        if not self.is_controller_running():
            return "the controller has ended" if self.state["controller"] is not None else None
        if not all(map(self.is_running, self.state["servers_wanted"])):
            return "the XMPP server has ended"
        if self.state["bulk"] is not None and not self.is_bulk_running():
            return "the bulk service has ended"
        return None

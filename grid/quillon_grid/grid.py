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

from . import bulk, certificates, control, processes, prosody
from .errors import GridError

DOMAIN = "grid.quillon.internal"
CONTROLLER = "controller"  # the controller's own user name, which nobody else may have
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


class Grid:
    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        self.children = {}
        self.exit_codes = {}
        self.stops = []  # the signals received, once they are heeded
        self.state = {"domain": None, "port": None, "approval": "auto", "server": None, "controller": None, "server_wanted": False,
                      "bulk": None, "bulk_port": None}
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
    def host(self):
        return f"127.0.0.1:{self.state['port']}"

    @property
    def bulk_url(self):
        return f"https://127.0.0.1:{self.state['bulk_port']}/bulk"

    @property
    def ca(self):
        return self.path("certificates", "ca.pem")

    def authority(self):
        return certificates.Authority(self.folder, self.domain)

    def is_server_running(self):
        return processes.is_running(self.state["server"])

    def is_controller_running(self):
        return processes.is_running(self.state["controller"])

    def is_bulk_running(self):
        return processes.is_running(self.state["bulk"])

    def set_domain(self, domain):
        if domain and self.state["domain"] not in (None, domain):
            raise GridError(f"this grid's certificates are for {self.state['domain']}: use another folder for {domain}", 2)
        self.state["domain"] = domain or self.domain

    # --- up and down

    def up(self, port=0, approval=None, controller=None, domain=None):
        """Returns when the grid is ready. False when it was up already."""
        with self.locked(create=True):
            if self.is_server_running() and self.is_controller_running() and self.is_bulk_running():
                return False
            keeps_server = self.is_server_running() and port in (0, self.state["port"])  # its controller died: the clients need not notice
            if not keeps_server:
                self.stop_processes()
            self.set_domain(domain)
            if approval:
                self.state["approval"] = approval
            program = os.path.abspath(controller or find_program("quillon-controller", "QUILLON_GRID_CONTROLLER"))
            if not os.access(program, os.X_OK):
                raise GridError(f"{program} is not a program")
            bulk_program = os.path.abspath(find_program("quillon-bulk", "QUILLON_GRID_BULK", program))
            prosody.program()
            self.make_certificates()
            try:
                if not keeps_server:
                    self.start_server(port)
                if not self.is_controller_running():
                    self.start_controller(program)
                if not self.is_bulk_running():
                    self.start_bulk(bulk_program)
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
            running = self.is_server_running() or self.is_controller_running() or self.is_bulk_running()
            self.stop_processes()
            return running

    def stop_processes(self):
        self.state["server_wanted"] = False
        if os.path.exists(self.path("grid.json")):
            self.save()
        for name in ("bulk", "controller", "server"):  # the controller takes its leave of the server
            self.stop_process(name)

    def stop_process(self, name):
        if self.state[name] is None:
            return
        child = self.children.pop(name, None)
        processes.stop(self.state[name], child)
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

    def start_server(self, port=0):
        """On the port that was asked for, else on the one that it had before if that is free, else on a free one."""
        kept = self.state["port"] if not port else None
        for _ in range(PORT_ATTEMPTS):
            choice = port or (kept if kept and processes.is_port_free(kept) else processes.pick_port())
            if processes.is_port_free(choice) and self.start_server_on(choice):
                return
            kept = None
            if port:
                break
        raise GridError(f"port {port} is taken by another program" if port else "no port could be had")

    def start_server_on(self, port):
        started = prosody.start(self.folder, self.domain, port)
        if started is None:
            return False
        self.state["server"], self.children["server"] = started
        self.state["port"] = port
        self.state["server_wanted"] = True
        self.save()
        return True

    def start_controller(self, program):
        command = [program, "--domain", self.domain, "--host", self.host, "--ca", self.ca,
                   "--certificate", self.path(CONTROLLER, "certificate.pem"), "--key", self.path(CONTROLLER, "key.pem"),
                   "--database", self.path("controller.sqlite"), "--control", control.NAME, "--approval", self.state["approval"]]
        self.state["controller"], self.children["controller"] = processes.start(command, self.path("controller.log"), self.folder)
        self.save()

    def start_bulk(self, program):
        """On the port that it had before if that is free, else on a free one."""
        for _ in range(PORT_ATTEMPTS):
            kept = self.state["bulk_port"]
            port = kept if kept and processes.is_port_free(kept) else processes.pick_port()
            started = bulk.start(program, self.folder, self.domain, self.ca, port)
            if started is not None:
                self.state["bulk"], self.children["bulk"] = started
                self.state["bulk_port"] = port
                self.save()
                return
            self.state["bulk_port"] = None
        raise GridError("no port could be had for the bulk service")

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

    def server_stop(self):
        with self.locked():
            self.state["server_wanted"] = False
            self.save()
            self.stop_process("server")

    def server_start(self, wait=True):
        with self.locked():
            if not self.is_controller_running():
                raise GridError("the grid is not up: see 'quillon-grid up'", 3)
            if not self.is_server_running():
                if not (processes.is_port_free(self.state["port"]) and self.start_server_on(self.state["port"])):
                    raise GridError(f"port {self.state['port']} is taken by another program")
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
        if self.state["server_wanted"] and not self.is_server_running():
            return "the XMPP server has ended"
        if self.state["bulk"] is not None and not self.is_bulk_running():
            return "the bulk service has ended"
        return None

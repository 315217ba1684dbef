"""Building and running the programs that measure, and what they need around them."""
import contextlib
import json
import os
import re
import select
import shutil
import socket
import subprocess
import sys
import threading

BENCH = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(BENCH)
DOMAIN = "grid.quillon.internal"
USER = "bench"
RUN_SECONDS = 600

sys.path.insert(0, os.path.join(ROOT, "grid"))
from quillon_grid.certificates import Authority  # noqa: E402
from . import password_server  # noqa: E402


class Failed(Exception):
    """A program did not do what it was asked to."""


def install_packages():
    """Installs what the library and the grid need, and what scripts/packages-bench.txt lists, as far as it is missing."""
    subprocess.run([os.path.join(ROOT, "scripts", "install-dependencies")], check=True, stdin=subprocess.DEVNULL)
    wanted = []
    with open(os.path.join(ROOT, "scripts", "packages-bench.txt"), encoding="ascii") as file:
        for line in file:
            wanted += line.partition("#")[0].split()
    shown = subprocess.run(["dpkg-query", "-W", "-f=${Package} ${db:Status-Status}\n", *wanted], capture_output=True, text=True, check=False)
    installed = {line.split()[0] for line in shown.stdout.splitlines() if line.endswith(" installed")}
    missing = [package for package in wanted if package not in installed]
    if not missing:
        return
    print("Installing:", *missing)
    apt = [*([] if os.geteuid() == 0 else ["sudo", "--"]), "env", "DEBIAN_FRONTEND=noninteractive", "apt-get", "-q", "-y", "-o", "DPkg::Lock::Timeout=600"]
    subprocess.run([*apt, "update"], check=False, stdin=subprocess.DEVNULL)  # without a network the lists that are here may do
    subprocess.run([*apt, "install", "--no-install-recommends", *missing], check=True, stdin=subprocess.DEVNULL)


def build(folder):
    """Builds everything as it is released, in its own folder."""
    launchers = [f"-DCMAKE_{language}_COMPILER_LAUNCHER=ccache" for language in ("C", "CXX")] if shutil.which("ccache") else []
    subprocess.run(["cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DQLK_BUILD_BENCH=ON",
                    "-DQLK_BUILD_TESTS=OFF", "-DQLK_BUILD_EXAMPLES=OFF", *launchers], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ninja", "-C", folder], check=True, stdout=subprocess.DEVNULL)


class Bench:
    """The built programs, with a folder for certificates and logs."""

    def __init__(self, programs_folder, work):
        """programs: the folder of the measuring programs, which stands beside the grid's."""
        self.programs = programs_folder
        self.work = work
        authority = Authority(work, DOMAIN)
        self.server_pair = authority.issue_server(os.path.join(work, "server"))
        self.user_pair = authority.issue_user(os.path.join(work, "user"), USER)
        self.ca = authority.certificate
        self.stack = contextlib.ExitStack()
        self.servers = {}
        self.grid_values = None
        self.password_port = None

    def close(self):
        self.stack.close()

    def path(self, program):
        return os.path.join(self.programs, program)

    # --- running

    def command(self, program, options):
        return [self.path(program), *(str(part) for name, value in options.items() for part in (f"--{name.replace('_', '-')}", value))]

    def run(self, program, *, stdin=subprocess.DEVNULL, **options):
        """The figures that the program prints."""
        command = self.command(program, options)
        done = subprocess.run(command, stdin=stdin, capture_output=True, text=True, timeout=RUN_SECONDS, check=False)
        if done.returncode != 0:
            raise Failed(f"{' '.join(command)}: {done.stderr.strip() or f'ended with {done.returncode}'}")
        return json.loads(done.stdout)

    def count_instructions(self, program, counted, low, high, **options):
        """Instructions for each unit of the option named counted: the difference of two runs leaves start and end out."""
        totals = []
        for number in (low, high):
            command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *self.command(program, {**options, counted: number})]
            done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=RUN_SECONDS, check=False)
            found = re.search(r"Collected : (\d+)", done.stderr)
            if done.returncode != 0 or not found:
                raise Failed(f"{' '.join(command)}: {done.stderr.strip()[-1000:]}")
            totals.append(int(found.group(1)))
        return (totals[1] - totals[0]) / (high - low)

    # --- the echo server

    def server_port(self, **options):
        """The port of an echo server with these options, which is started when it is first asked for."""
        key = tuple(sorted(options.items()))
        if key not in self.servers:
            certificate, server_key = self.server_pair
            process = subprocess.Popen(self.command("echo_server", {"certificate": certificate, "key": server_key, "user": USER, **options}),
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            self.stack.callback(self.stop, process)
            line = process.stdout.readline()
            if not line:
                raise Failed("the echo server did not start")
            self.servers[key] = int(line)
        return self.servers[key]

    @staticmethod
    def stop(process):
        process.stdin.close()
        process.stdout.close()
        process.wait()

    def echo_options(self, **options):
        """The options of a client of that echo server."""
        certificate, key = self.user_pair
        tls = {"tls": options["tls"]} if "tls" in options else {}
        return {"port": self.server_port(**options), "ca": self.ca, "certificate": certificate, "key": key, **tls}

    # --- the local grid

    def grid(self):
        """Brings a grid up and returns the names and paths that its clients need."""
        if self.grid_values is None:
            folder = os.path.join(self.work, "grid")
            command = [os.path.join(ROOT, "grid", "quillon-grid"), "--folder", folder]
            environment = {**os.environ, "QUILLON_GRID_CONTROLLER": os.path.join(self.programs, "..", "grid", "quillon-controller"),
                           "QUILLON_GRID_BULK": os.path.join(self.programs, "..", "grid", "quillon-bulk")}
            run = lambda *arguments: subprocess.run([*command, *arguments], check=True, capture_output=True, text=True, env=environment).stdout
            self.stack.callback(run, "down")
            run("up")
            values = dict(line.partition("=")[::2] for line in run("env").splitlines())
            certificate, key = run("enroll", USER).splitlines()[:2]
            self.grid_values = {"port": values["QUILLON_GRID_PORT"], "ca": values["QUILLON_GRID_CA"], "certificate": certificate,
                                "key": key, "bulk_url": values["QUILLON_GRID_BULK_URL"]}
        return self.grid_values

    def grid_options(self, port=None):
        values = self.grid()
        return {"port": port or values["port"], "ca": values["ca"], "certificate": values["certificate"], "key": values["key"]}

    def bulk_options(self):
        values = self.grid()
        return {"url": values["bulk_url"], "ca": values["ca"], "certificate": values["certificate"], "key": values["key"]}

    def password_options(self, port=None):
        """The options of a client that comes with a password, to a server of the same make as the grid's."""
        if self.password_port is None:
            server = password_server.PasswordServer(os.path.join(self.work, "password-server"), DOMAIN, USER, self.server_pair)
            self.stack.callback(server.stop)
            self.password_port = server.port
        certificate, key = self.user_pair
        return {"port": port or self.password_port, "ca": self.ca, "certificate": certificate, "key": key, "password": password_server.PASSWORD}


class Relay:
    """Passes one connection on and counts its round trips: how often the client spoke and was answered."""

    def __init__(self, port):
        self.target = port
        self.round_trips = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.pass_on)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.thread.join()
        self.listener.close()

    def pass_on(self):
        client, _ = self.listener.accept()
        server = socket.create_connection(("127.0.0.1", self.target))
        for one in (client, server):
            one.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        client_spoke_last = False
        with client, server, contextlib.suppress(ConnectionError):
            while True:
                for source in select.select([client, server], [], [])[0]:
                    data = source.recv(65536)
                    if not data:
                        return
                    if source is server and client_spoke_last:
                        self.round_trips += 1
                    client_spoke_last = source is client
                    (server if source is client else client).sendall(data)

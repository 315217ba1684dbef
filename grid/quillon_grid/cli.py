"""The commands of quillon-grid and their options.

Exit codes: 0 done; 1 it failed or was refused; 2 wrong usage; 3 the grid is not up.
"""
import argparse
import os
import shlex
import sys

from . import control, processes, profile, web
from .errors import GridError
from .grid import DOMAIN, NODES_MAX, SERVERS, Grid

ACCOUNT_COMMANDS = {
    "approve": "lets the account in; one that waits is told at once; an unknown one may connect later",
    "deny": "refuses the account; one that waits is told at once",
    "disable": "takes the account out of the grid and tells its clients",
    "delete": "forgets the account, with its rights and tokens, and tells its clients",
    "reauthorize": "tells the account's clients that their rights have changed, so that they connect anew",
}


def make_parser():
    parser = argparse.ArgumentParser(prog="quillon-grid", description="A local grid for development and tests: an XMPP server of its own, "
                                     "the controller and the bulk service, in one folder.", epilog="exit codes: 0 done, 1 failed or refused, 2 wrong usage, 3 not up")
    parser.add_argument("--folder", default=os.environ.get("QUILLON_GRID_FOLDER") or ".grid",
                        help="where the grid lives (default: $QUILLON_GRID_FOLDER, else ./.grid)")
    # Also accepted after the command; absent there, it must not undo what came before.
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--folder", default=argparse.SUPPRESS, help=argparse.SUPPRESS)
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    def command(name, run, text):
        sub = commands.add_parser(name, parents=[common], help=text, description=text)
        sub.set_defaults(run=run)
        return sub

    up = command("up", run_up, "starts the server, the controller and the bulk service, and returns when the grid is ready")
    up.add_argument("--foreground", action="store_true", help="stay, and take the grid down at the end (Ctrl-C)")
    up.add_argument("--lifeline", action="store_true", help="with --foreground: end when standard input ends, that is, with the caller")
    up.add_argument("--port", type=port_number, default=0, help="the server's port on 127.0.0.1 (default: 0, a free one, which is kept)")
    up.add_argument("--server", choices=SERVERS, default=os.environ.get("QUILLON_GRID_SERVER") or None,
                    help="which XMPP server (default: $QUILLON_GRID_SERVER, else as before, at first prosody)")
    up.add_argument("--nodes", type=int, choices=range(1, NODES_MAX + 1), help="how many nodes the server's cluster has; more than one: "
                    "ejabberd only (default: as before, at first 1)")
    up.add_argument("--approval", choices=("auto", "manual"), help="whether new accounts are approved at once or wait (default: as "
                    "before, at first auto)")
    up.add_argument("--controller", metavar="PATH", help="the controller's program (default: $QUILLON_GRID_CONTROLLER, else the built one)")
    up.add_argument("--domain", help=f"the XMPP domain (default: as before, at first {DOMAIN})")
    up.add_argument("--web", action="store_true", help="also serve the administrator's page, and print its address")
    command("down", run_down, "stops the grid; accounts, capabilities and certificates stay in the folder")
    command("status", run_status, "tells whether the grid is up, and counts")
    command("web", run_web, "prints the address of the administrator's page")
    # Not for users: what up --web starts.
    served = commands.add_parser("web-serve", parents=[common])
    served.set_defaults(run=lambda grid, options: web.serve(grid.folder, options.port))
    served.add_argument("port", type=port_number)
    env = command("env", run_env, "prints NAME=value lines for the shell: address, port, domain, CA certificate and bulk service")
    env.add_argument("--export", action="store_true", help="for the programs that the shell starts, too")
    stop = command("server-stop", run_server_stop, "stops the XMPP server only")
    stop.add_argument("--node", type=int, help="this one of several nodes, counted from 1 (default: all)")
    stop.add_argument("--kill", action="store_true", help="without a farewell to anybody, as when the machine fails")
    start = command("server-start", lambda grid, options: grid.server_start(not options.no_wait), "starts the XMPP server, each node on the port "
                    "it had")
    start.add_argument("--no-wait", action="store_true", help="do not wait until the controller has come back")
    certificate = command("server-certificate", lambda grid, options: grid.server_certificate(options.days, options.name),
                          "issues the server's certificate anew; it is used from the server's next start")
    certificate.add_argument("--days", type=int, default=3650, help="how long it lasts; below 0: it has expired")
    certificate.add_argument("--name", help="the one name that it bears instead of the grid's")

    enroll = command("enroll", run_enroll, "issues a user's certificate and key, writes a profile for qlk beside "
                     "them, and prints the three paths; needs no running grid")
    enroll.add_argument("user", metavar="USER")
    enroll.add_argument("--days", type=int, help="how long the certificate lasts (365); below 0: it has expired")
    enroll.add_argument("--passphrase-file", metavar="FILE", help="encrypt the key with the first line of this file")
    enroll.add_argument("--renew", action="store_true", help="issue anew although the present certificate is good")
    enroll.add_argument("--domain", help=argparse.SUPPRESS)

    command("accounts", run_table("account", "state", "sessions", "groups", "description"), "lists the accounts")
    command("capabilities", run_table("capability", "version", "publishers", "subscribers", "description"), "lists the capabilities")
    for name, text in ACCOUNT_COMMANDS.items():
        command(name, run_control("user"), text).add_argument("user", metavar="USER")
    for name, text in (("allow", "grants"), ("forbid", "takes away")):
        right = command(name, run_control("user", "capability", "operation"), f"{text} the right to an operation of a capability; the operations "
                        "subscribe, publish, propose and update are the controller's own, and allowed unless forbidden")
        for field in ("user", "capability", "operation"):
            right.add_argument(field, metavar=field.upper())
    owner = command("token-owner", run_token_owner, "prints the user to whom a token was issued")
    owner.add_argument("token", metavar="TOKEN", help="'-' reads it from standard input, where no list of processes shows it")
    return parser


def port_number(text):
    number = int(text)
    if not 0 <= number <= 65535:
        raise ValueError
    return number


def run_up(grid, options):
    if options.server not in (None, *SERVERS):  # out of the environment, which the parser does not look at
        raise GridError(f"QUILLON_GRID_SERVER={options.server} is none of {', '.join(SERVERS)}", 2)
    if options.lifeline and not options.foreground:
        raise GridError("--lifeline goes with --foreground", 2)
    fresh = grid.up(options.port, options.approval, options.controller, options.domain, options.server, options.nodes, options.web)
    if options.foreground and fresh:
        grid.heed_signals()  # before anybody is told that the grid is up, and may end it
    print(f"the grid is {'up' if fresh else 'up already'} at {' and '.join(grid.hosts)} in {grid.folder}", flush=True)
    if options.web:
        run_web(grid, options)
    if not options.foreground:
        return 0
    if not fresh:
        raise GridError("it runs in the background: take it down first")
    return grid.watch(options.lifeline)


def run_web(grid, _):
    if not grid.is_running("web"):
        raise GridError("the administrator's page is not served: see 'quillon-grid up --web'", 3)
    print(f"the administrator's page: {web.address(grid.folder, grid.state['web_port'])}", flush=True)


def run_down(grid, _):
    print("the grid is down" if grid.down() else "the grid was not up")


def run_server_stop(grid, options):
    grid.server_stop(options.node, processes.AT_ONCE if options.kill else processes.GENTLY)


def run_status(grid, _):
    controller = grid.is_controller_running()
    status = grid.controller_status() if controller else {}
    print(f"folder: {grid.folder}\ndomain: {grid.domain}")
    for name in grid.servers:
        if grid.is_running(name):
            print(f"{name}: running at 127.0.0.1:{grid.port(name)}, process {grid.state[name]['pid']}, {grid.state['kind']}")
        else:
            print(f"{name}: stopped")
    print(f"controller: {status.get('state', 'not answering')}, process {grid.state['controller']['pid']}" if controller else
          "controller: stopped")
    bulk = grid.is_bulk_running()
    print(f"bulk service: running at {grid.bulk_url}, process {grid.state['bulk']['pid']}" if bulk else "bulk service: stopped")
    for name, value in status.items():
        if name != "state":
            print(f"{name}: {value}")
    return 0 if grid.is_server_running() and bulk and status.get("state") == "ready" else 3


def run_env(grid, options):
    if grid.state["port"] is None:
        raise GridError(f"there is no grid in {grid.folder}", 3)
    values = {"FOLDER": grid.folder, "DOMAIN": grid.domain, "HOST": grid.hosts[0], "HOSTS": " ".join(grid.hosts),
              "PORT": str(grid.state["port"]), "CA": grid.ca, "SASL_RESPONSE": grid.sasl_response,
              "BULK_PORT": str(grid.state["bulk_port"]), "BULK_URL": grid.bulk_url}
    for name, value in values.items():
        print(f"{'export ' if options.export else ''}QUILLON_GRID_{name}={shlex.quote(value)}")


def run_enroll(grid, options):
    passphrase = options.passphrase_file and os.path.abspath(options.passphrase_file)
    certificate, key = grid.enroll(options.user, options.days, passphrase, options.renew, options.domain)
    path = os.path.join(os.path.dirname(certificate), "profile.toml")
    has_bulk = grid.state["bulk_port"] is not None
    profile.write(path, options.user, grid.hosts, grid.ca, certificate, key, passphrase, grid.bulk_url if has_bulk else None,
                  grid.sasl_response)
    print(certificate, key, path, sep="\n")


def run_control(*fields):
    def run(grid, options):
        for row in control.ask(grid.folder, options.command, *(getattr(options, field) for field in fields)):
            print("\t".join(row))
    return run


def run_token_owner(grid, options):
    token = sys.stdin.readline().strip() if options.token == "-" else options.token
    print(control.ask(grid.folder, "token-owner", token)[0][0])


def run_table(*columns):
    def run(grid, options):
        rows = [columns, *control.ask(grid.folder, options.command)]
        widths = [max(len(row[i]) for row in rows) for i in range(len(columns))]
        for row in rows:
            print("  ".join(field.ljust(width) for field, width in zip(row, widths)).rstrip())
    return run


def main():
    options = make_parser().parse_args()
    try:
        return options.run(Grid(options.folder), options) or 0
    except GridError as error:
        print(f"quillon-grid: {error}", file=sys.stderr)
        return error.exit_code
    except BrokenPipeError:
        return 1
    except OSError as error:
        print(f"quillon-grid: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130

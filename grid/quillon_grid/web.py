"""The administrator's page: accounts with buttons, capabilities with who publishes and subscribes, and counts that keep up.

It is for whoever runs the grid, on this machine. The address that "quillon-grid up --web" prints carries a token, which the first
request exchanges for a cookie; without it nothing is shown and nothing is done. Plain HTML; the counts need the one script that
goes along, everything else works without.
"""
import contextlib
import hmac
import html
import http
import http.cookies
import http.server
import json
import os
import secrets
import socket
import socketserver
import sys
import threading
import urllib.parse

from . import control, processes
from .errors import GridError

ACTIONS = ("approve", "deny", "disable", "reauthorize", "delete")
# What can sensibly be done with an account in each state.
OFFERED = {"pending": ("approve", "deny"), "approved": ("disable", "reauthorize", "delete"), "disabled": ("approve", "delete"),
           "denied": ("approve", "delete")}
STATES = ("pending", "approved", "disabled", "denied")
COUNTS = ("state", "sessions", "accounts", "pending", "capabilities", "publishers")
FORM_BYTES_MAX = 4096
TOKEN_BYTES = 24
REQUEST_SECONDS = 10  # for all of a request

STYLE = """
body { font: 16px/1.5 system-ui, sans-serif; margin: 2rem auto; max-width: 60rem; padding: 0 1rem; color: #1c2430; background: #fff }
h1 { font-size: 1.4rem } h2 { font-size: 1.1rem; margin-top: 2rem }
dl { display: flex; flex-wrap: wrap; gap: .5rem } dl div { border: 1px solid #ccd3dd; border-radius: .4rem; padding: .4rem .8rem }
dt { font-size: .8rem; color: #55606f } dd { margin: 0; font-weight: 600 }
table { border-collapse: collapse; width: 100% } th, td { text-align: left; padding: .3rem .6rem; border-bottom: 1px solid #e3e7ee; vertical-align: top }
form { display: inline } button { font: inherit; font-size: .9rem; margin: 0 .2rem .2rem 0 }
.note { background: #eef6ee; padding: .4rem .8rem } .failed { background: #fbeaea; padding: .4rem .8rem } .none { color: #55606f }
@media (prefers-color-scheme: dark) { body { color: #e6e9ee; background: #171b21 } .note { background: #1f3323 } .failed { background: #402024 } }
"""

# A change of anything but the numbers loads the page anew, unless the reader is about to press a button.
SCRIPT = """
'use strict';
const counts = document.getElementById('counts');
async function refresh() {
  try {
    const answer = await fetch('/counts', {cache: 'no-store'});
    if (!answer.ok) throw new Error(answer.status);
    const fresh = await answer.json();
    for (const [name, value] of Object.entries(fresh.counts)) {
      const cell = document.getElementById('count-' + name);
      if (cell && cell.textContent !== value) cell.textContent = value;
    }
    if (fresh.version !== counts.dataset.version && !document.querySelector('button:hover, button:focus')) location.replace('/');
  } catch (failure) {
    document.getElementById('count-state').textContent = 'not answering';
  }
  setTimeout(refresh, 1000);
}
setTimeout(refresh, 1000);
"""

HEADERS = {"Content-Security-Policy": "default-src 'none'; style-src 'self'; script-src 'self'; connect-src 'self'; form-action 'self'; "
           "frame-ancestors 'none'; base-uri 'none'", "X-Content-Type-Options": "nosniff", "Referrer-Policy": "no-referrer",
           "Cache-Control": "no-store"}


def token_path(folder):
    return os.path.join(folder, "web.token")


def token_of(folder):
    """The token of this grid's page; made when there is none."""
    path = token_path(folder)
    if not os.path.exists(path):
        fresh = path + ".new"
        with open(os.open(fresh, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="ascii") as file:
            file.write(secrets.token_urlsafe(TOKEN_BYTES))
        os.replace(fresh, path)
    with open(path, encoding="ascii") as file:
        token = file.read().strip()
    if len(token) < TOKEN_BYTES:
        raise GridError(f"{path} holds no token: delete it, and there will be a new one")
    return token


def address(folder, port):
    return f"http://127.0.0.1:{port}/?token={token_of(folder)}"


def start(folder, port):
    """Starts the page's server and returns it with the child once it listens; None when another program has the port."""
    token_of(folder)
    command = [sys.executable, os.path.abspath(sys.argv[0]), "--folder", folder, "web-serve", str(port)]
    return processes.start_listening("the administrator's page", command, os.path.join(folder, "web.log"), folder, port)


# --- what is shown


def version_of(*tables):
    return format(hash(json.dumps(tables)) & 0xffffffff, "x")


def read_grid(folder):
    """The counts, the accounts, the capabilities and their members."""
    status = dict(control.ask(folder, "status"))
    return status, control.ask(folder, "accounts"), control.ask(folder, "capabilities"), control.ask(folder, "members")


def counts_html(status, version):
    cells = "".join(f"<div><dt>{name}</dt><dd id='count-{name}'>{html.escape(status.get(name, ''))}</dd></div>" for name in COUNTS)
    return f"<dl id='counts' data-version='{version}'>{cells}</dl>"


def button(user, action, form_token):
    return (f"<form method='post' action='/{action}'><input type='hidden' name='form' value='{form_token}'>"
            f"<input type='hidden' name='user' value='{html.escape(user)}'><button>{action}</button></form>")


def accounts_html(accounts, form_token):
    parts = []
    for state in STATES:
        rows = [row for row in accounts if row[1] == state]
        parts.append(f"<h2 id='{state}'>Accounts {state}</h2>")
        if not rows:
            parts.append("<p class='none'>none</p>")
            continue
        parts.append("<table><tr><th>account</th><th>sessions</th><th>groups</th><th>description</th><th></th></tr>")
        for user, _, sessions, groups, description in rows:
            buttons = "".join(button(user, action, form_token) for action in OFFERED[state])
            cells = "".join(f"<td>{html.escape(text)}</td>" for text in (user, sessions, groups, description))
            parts.append(f"<tr>{cells}<td>{buttons}</td></tr>")
        parts.append("</table>")
    return "".join(parts)


def capabilities_html(capabilities, members):
    def those(name, role):
        jids = [html.escape(jid) for capability, what, jid in members if (capability, what) == (name, role)]
        return "<br>".join(jids) or "<span class='none'>none</span>"

    rows = "".join(f"<tr><td>{html.escape(name)}</td><td>{html.escape(version)}</td><td>{those(name, 'publishes')}</td>"
                   f"<td>{those(name, 'subscribes')}</td><td>{html.escape(description)}</td></tr>"
                   for name, version, _, _, description in capabilities)
    return ("<h2 id='capabilities'>Capabilities</h2><table><tr><th>name</th><th>version</th><th>publishers</th><th>subscribers</th>"
            f"<th>description</th></tr>{rows}</table>")


def page(body):
    return ("<!doctype html><html lang='en'><meta charset='utf-8'><meta name='viewport' content='width=device-width'><title>Local grid</title>"
            f"<link rel='stylesheet' href='/style.css'><body><h1>Local grid</h1>{body}</body></html>")


# --- who may see it


def is_same(given, secret):
    return hmac.compare_digest(given.encode(errors="replace"), secret.encode())


class Handler(http.server.BaseHTTPRequestHandler):
    server_version, sys_version = "quillon-grid", ""

    def setup(self):
        super().setup()
        # A time-out of the socket would begin anew with each byte.
        self.deadline = threading.Timer(REQUEST_SECONDS, self.break_off)
        self.deadline.daemon = True
        self.deadline.start()

    def break_off(self):
        with contextlib.suppress(OSError):
            self.connection.shutdown(socket.SHUT_RDWR)

    def finish(self):
        self.deadline.cancel()
        super().finish()

    def do_GET(self):
        parts = urllib.parse.urlsplit(self.path)
        if parts.path == "/style.css":
            return self.send("text/css", STYLE)
        if parts.path == "/live.js":
            return self.send("text/javascript", SCRIPT)
        token = urllib.parse.parse_qs(parts.query).get("token", [""])[0]
        if parts.path == "/" and self.is_local() and is_same(token, self.server.token):
            return self.go_home({"Set-Cookie": f"{self.cookie}={self.server.key}; HttpOnly; SameSite=Strict; Path=/"})
        if not self.is_allowed():
            return self.refuse()
        if parts.path == "/":
            return self.show()
        if parts.path == "/counts":
            return self.show_counts()
        return self.send("text/html", page("<p>There is no such page.</p>"), http.HTTPStatus.NOT_FOUND)

    def do_POST(self):
        form = self.read_form() if self.is_allowed() else None
        if form is None or not is_same(form.get("form", ""), self.server.form_token):
            return self.refuse()
        action, user = self.path.lstrip("/"), form.get("user", "")
        if action not in ACTIONS or not user:
            return self.send("text/html", page("<p>There is no such action.</p>"), http.HTTPStatus.NOT_FOUND)
        try:
            control.ask(self.server.folder, action, user)
        except GridError as error:
            return self.show(f"<p class='failed'>{action} {html.escape(user)}: {html.escape(str(error))}</p>", http.HTTPStatus.CONFLICT)
        return self.go_home()

    def read_form(self):
        try:
            length = int(self.headers.get("Content-Length", ""))
            if not 0 <= length <= FORM_BYTES_MAX:
                return None
            return dict(urllib.parse.parse_qsl(self.rfile.read(length).decode("ascii"), max_num_fields=8))
        except ValueError:
            return None

    @property
    def port(self):
        return self.server.server_address[1]

    @property
    def cookie(self):
        """Its name: a browser gives the cookies of one port to the others of the machine, too."""
        return f"quillon-grid-{self.port}"

    def is_local(self):
        """A name that somebody else's page has turned to this machine is not ours."""
        return self.headers.get("Host") in (f"127.0.0.1:{self.port}", f"localhost:{self.port}")

    def is_allowed(self):
        try:
            cookie = http.cookies.SimpleCookie(self.headers.get("Cookie", "")).get(self.cookie)
        except http.cookies.CookieError:
            return False
        return self.is_local() and cookie is not None and is_same(cookie.value, self.server.key)

    def refuse(self):
        self.close_connection = True  # what it sent besides was not read
        self.send("text/html", page("<p>Open the address that <code>quillon-grid web</code> prints.</p>"), http.HTTPStatus.FORBIDDEN)

    def go_home(self, headers=None):
        self.send("text/html", "", http.HTTPStatus.SEE_OTHER, {"Location": "/", **(headers or {})})

    def show(self, note="", code=http.HTTPStatus.OK):
        try:
            status, *tables = read_grid(self.server.folder)
        except GridError as error:
            body = f"<p class='failed'>{html.escape(str(error))}</p><p><a href='/'>Look again</a></p>"
            return self.send("text/html", page(body), http.HTTPStatus.SERVICE_UNAVAILABLE)
        accounts, capabilities, members = tables
        body = (note + counts_html(status, version_of(*tables)) + accounts_html(accounts, self.server.form_token) +
                capabilities_html(capabilities, members) + "<script src='/live.js'></script>")
        return self.send("text/html", page(body), code)

    def show_counts(self):
        try:
            status, *tables = read_grid(self.server.folder)
        except GridError as error:
            return self.send("text/plain", str(error), http.HTTPStatus.SERVICE_UNAVAILABLE)
        return self.send("application/json", json.dumps({"counts": status, "version": version_of(*tables)}))

    def send(self, kind, text, code=http.HTTPStatus.OK, headers=None):
        content = text.encode()
        self.send_response(code)
        for name, value in {"Content-Type": f"{kind}; charset=utf-8", "Content-Length": str(len(content)), **HEADERS, **(headers or {})}.items():
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(content)

    def log_message(self, format, *arguments):  # the token is in the first address
        print(f"{self.log_date_time_string()} {self.command} {urllib.parse.urlsplit(self.path).path if self.command else ''}", flush=True)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads = True

    def __init__(self, folder, port):
        super().__init__(("127.0.0.1", port), Handler)
        self.folder, self.token = folder, token_of(folder)
        # The cookie's value lasts as long as this process: browsers show cookies to whatever else listens on this machine.
        self.key, self.form_token = secrets.token_urlsafe(TOKEN_BYTES), secrets.token_urlsafe(TOKEN_BYTES)


def serve(folder, port):
    with Server(folder, port) as server:
        server.serve_forever()

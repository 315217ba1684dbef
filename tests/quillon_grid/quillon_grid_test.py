#!/usr/bin/env python3
"""quillon_grid_test.py QUILLON-GRID CONTROLLER BULK: the command itself: up and down, what survives, what is refused and with which exit code."""
import http.client
import json
import os
import pathlib
import shlex
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import tomllib
import unittest
import xml.etree.ElementTree

COMMAND, CONTROLLER, BULK = (os.path.abspath(sys.argv.pop(1)) for _ in range(3))
os.environ["QUILLON_GRID_BULK"] = BULK
PATIENCE_SECONDS = 60


def eventually(condition):
    deadline = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def is_alive(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()[0] not in "ZX"
    except OSError:
        return False


class GridCase(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="a grid ")  # with a blank, which every layer has to get right
        self.addCleanup(place.cleanup)
        self.folder = pathlib.Path(place.name, "grid")
        self.addCleanup(self.run_grid, "down")

    def run_grid(self, *arguments, folder=None, code=0, **options):
        done = subprocess.run([COMMAND, "--folder", folder or self.folder, *arguments], capture_output=True, text=True, check=False,
                              timeout=PATIENCE_SECONDS, **options)
        self.assertEqual(code, done.returncode, f"{arguments}: {done.stdout}{done.stderr}")
        return done.stdout + done.stderr

    def up(self, *arguments, **options):
        return self.run_grid("up", "--controller", CONTROLLER, *arguments, **options)

    def state(self, folder=None):
        return json.loads(pathlib.Path(folder or self.folder, "grid.json").read_text(encoding="utf-8"))

    def pid(self, name):
        return self.state()[name]["pid"]


class UpAndDown(GridCase):
    def test_accounts_and_port_survive(self):
        self.up("--approval", "manual")
        first = self.state()
        self.run_grid("approve", "alice")
        self.run_grid("disable", "alice")
        self.assertIn("ready", self.run_grid("status"))
        self.run_grid("down")
        self.assertFalse(is_alive(first["server"]["pid"]) or is_alive(first["controller"]["pid"]))
        self.run_grid("status", code=3)
        self.run_grid("approve", "alice", code=3)
        self.run_grid("down")
        self.assertIn("up at", self.up())
        self.assertEqual((first["port"], "manual"), (self.state()["port"], self.state()["approval"]))
        self.assertRegex(self.run_grid("accounts"), r"alice +disabled")
        self.assertIn("up already", self.up())

    def test_two_grids_at_once(self):
        other = self.folder.with_name("other")
        self.addCleanup(self.run_grid, "down", folder=other)
        self.up()
        self.up(folder=other)
        self.assertNotEqual(self.state()["port"], self.state(other)["port"])
        self.run_grid("down", folder=other)
        self.run_grid("status")

    def test_a_controller_that_died_is_brought_back_beside_the_running_server(self):
        self.up()
        self.run_grid("approve", "alice")
        server, dead = self.pid("server"), self.pid("controller")
        os.kill(dead, signal.SIGKILL)
        self.assertTrue(eventually(lambda: not is_alive(dead)))
        self.run_grid("status", code=3)
        self.up()
        self.assertEqual(server, self.pid("server"))
        self.assertRegex(self.run_grid("accounts"), r"alice +approved")

    def test_a_port_that_is_taken(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
            self.assertIn(f"port {port} is taken", self.up("--port", str(port), code=1))
        self.up("--port", str(port))
        self.run_grid("down")
        with socket.create_server(("127.0.0.1", port)):
            self.up()  # nobody asked for that port now
            self.assertNotEqual(port, self.state()["port"])

    def test_without_a_controller_nothing_is_started(self):
        self.assertIn("is not a program", self.run_grid("up", "--controller", "/nonexistent", code=1))
        self.assertFalse(pathlib.Path(self.folder, "prosody.cfg.lua").exists())
        self.assertIn("has ended", self.run_grid("up", "--controller", "/bin/false", code=1))
        self.assertIsNone(self.state()["server"])

    def test_a_cluster_of_ejabberd_nodes(self):
        self.assertIn("QUILLON_GRID_SERVER", self.up(code=2, env={**os.environ, "QUILLON_GRID_SERVER": "apache"}))
        self.assertIn("only ejabberd", self.up("--nodes", "2", code=2))
        self.assertRegex(self.up("--server", "ejabberd", "--nodes", "2"), r"up at 127\.0\.0\.1:\d+ and 127\.0\.0\.1:\d+ in")
        before = self.state()
        nodes = [before["server"]["pid"], before["server2"]["pid"]]
        profile = tomllib.loads(pathlib.Path(self.run_grid("enroll", "alice").split("\n")[2]).read_text(encoding="utf-8"))
        self.assertEqual(([f"127.0.0.1:{before[name]}" for name in ("port", "server2_port")], "bare-jid"),
                         (profile["hosts"], profile["sasl_response"]))
        self.run_grid("server-stop", "--node", "3", code=2)
        self.run_grid("server-stop", "--node", "1", "--kill")  # the controller was there, and goes to the other
        self.assertEqual([False, True], [is_alive(pid) for pid in nodes])
        self.assertTrue(eventually(lambda: "controller: ready" in subprocess.run([COMMAND, "--folder", self.folder, "status"],
                                                                                 capture_output=True, text=True, check=False).stdout))
        self.assertRegex(self.run_grid("status", code=3), r"server: stopped\nserver2: running")
        self.run_grid("server-start")
        self.run_grid("status")
        pids = [self.pid(name) for name in ("server", "server2", "mapper")]
        self.assertIn("another server", self.up("--server", "prosody", code=1))
        self.run_grid("down")
        self.assertFalse(any(map(is_alive, pids)))
        self.up()  # as before, with the ports that it had
        self.assertEqual((before["port"], before["server2_port"]), (self.state()["port"], self.state()["server2_port"]))

    def test_server_stop_and_start(self):
        self.up()
        before = self.state()
        self.run_grid("server-stop")
        self.assertFalse(is_alive(before["server"]["pid"]))
        self.run_grid("status", code=3)
        self.run_grid("server-start")
        self.run_grid("status")
        self.assertEqual((before["port"], before["controller"]), (self.state()["port"], self.state()["controller"]))


class BulkService(GridCase):
    def ask(self, body, user="alice", path="/bulk", certificate="alice"):
        """The status and the document that a POST is answered with."""
        values = dict(word.split("=", 1) for word in shlex.split(self.run_grid("env")))
        context = ssl.create_default_context(cafile=values["QUILLON_GRID_CA"])
        if certificate:
            context.load_cert_chain(*self.run_grid("enroll", certificate).splitlines())
        connection = http.client.HTTPSConnection("127.0.0.1", int(values["QUILLON_GRID_BULK_PORT"]), timeout=PATIENCE_SECONDS, context=context)
        try:
            connection.request("POST", path, body, {"user": f"{user}@{values['QUILLON_GRID_DOMAIN']}"})
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def test_documents(self):
        self.up()
        request = '<bulkRequest xmlns="http://quillon.internal/quillon" resultSet="{}" records="{}" recordSize="700"/>'
        for result_set, records in (("readings", 0), ("readings", 3000), ("reports", 2000)):
            status, document = self.ask(request.format(result_set, records))
            self.assertEqual(200, status)
            items = [item for page in xml.etree.ElementTree.fromstring(document) for item in page]
            self.assertEqual([f"{number:012}" for number in range(records)], [item.get("id") for item in items])
            self.assertLess(abs(len(document) - 700 * records), 200)

    def test_refusals(self):
        self.up()
        good = '<bulkRequest xmlns="http://quillon.internal/quillon" records="1"/>'
        self.run_grid("enroll", "bob")
        self.assertEqual(403, self.ask(good, user="bob")[0])
        self.assertEqual(404, self.ask(good, path="/other")[0])
        for bad in ("", "<bulkRequest/>", good.replace('"1"', '"many"'), good.replace("/>", " failure='other'/>"), good.replace("/>", "")):
            self.assertEqual(400, self.ask(bad)[0], bad)
        with self.assertRaises((ssl.SSLError, ConnectionError)):
            self.ask(good, certificate=None)
        self.assertEqual(200, self.ask(good)[0])

    def test_one_that_died_is_brought_back_beside_the_rest(self):
        self.up()
        before = self.state()
        os.kill(before["bulk"]["pid"], signal.SIGKILL)
        self.assertTrue(eventually(lambda: not is_alive(before["bulk"]["pid"])))
        self.assertIn("bulk service: stopped", self.run_grid("status", code=3))
        self.up()
        self.assertIn("bulk service: running", self.run_grid("status"))
        after = self.state()
        self.assertEqual((before["bulk_port"], before["server"], before["controller"]), (after["bulk_port"], after["server"], after["controller"]))
        self.run_grid("down")
        self.assertFalse(is_alive(after["bulk"]["pid"]))


class Foreground(GridCase):
    def start(self, *arguments):
        process = subprocess.Popen([COMMAND, "--folder", self.folder, "up", "--foreground", *arguments, "--controller", CONTROLLER],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(process.wait)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stdin.close)
        self.addCleanup(process.kill)
        self.assertIn("the grid is up", process.stdout.readline())
        return process

    def expect_end(self, process, code, pids):
        self.assertEqual(code, process.wait(PATIENCE_SECONDS), process.stdout.read())
        self.assertEqual([], [pid for pid in pids if is_alive(pid)])

    def test_ends(self):
        for name, end in (("its caller's", lambda process: process.stdin.close()), ("a signal", lambda process: process.terminate()),
                          ("another command", lambda _: self.run_grid("down"))):
            with self.subTest(name):
                process = self.start("--lifeline")
                pids = [self.pid("server"), self.pid("controller"), self.pid("bulk")]
                end(process)
                self.expect_end(process, 0, pids)

    def test_a_part_that_dies_takes_the_rest_down_and_is_told(self):
        for name, other in (("server", "controller"), ("controller", "bulk"), ("bulk", "server")):
            with self.subTest(name):
                process = self.start()
                pids = [self.pid(other), self.pid(name)]
                os.kill(pids[1], signal.SIGKILL)
                self.expect_end(process, 1, pids)

    def test_a_server_that_is_stopped_on_purpose_is_no_failure(self):
        process = self.start()
        self.run_grid("server-stop")
        self.run_grid("server-start")
        pids = [self.pid("server"), self.pid("controller")]
        self.assertIsNone(process.poll())
        process.terminate()
        self.expect_end(process, 0, pids)


class Certificates(GridCase):
    def verify(self, certificate):
        ca = pathlib.Path(self.folder, "certificates", "ca.pem")
        return subprocess.run(["openssl", "verify", "-CAfile", ca, certificate], capture_output=True, check=False).returncode == 0

    def describe(self, certificate):
        return subprocess.run(["openssl", "x509", "-in", certificate, "-noout", "-text"], capture_output=True, text=True, check=True).stdout

    def test_enroll(self):
        certificate, key = self.run_grid("enroll", "alice").split("\n")[:2]
        self.assertTrue(self.verify(certificate))
        self.assertEqual(0o600, os.stat(key).st_mode & 0o777)
        text = self.describe(certificate)
        self.assertIn("emailAddress = alice@grid.quillon.internal", text)
        self.assertIn("XmppAddr::alice@grid.quillon.internal", text)
        first = pathlib.Path(certificate).read_bytes()
        self.run_grid("enroll", "alice")
        self.assertEqual(first, pathlib.Path(certificate).read_bytes(), "one that is good is kept")
        self.run_grid("enroll", "alice", "--days", "-1")
        self.assertFalse(self.verify(certificate))
        self.run_grid("enroll", "alice")
        self.assertTrue(self.verify(certificate), "one that has expired is replaced")

    def test_a_key_with_a_passphrase(self):
        secret = self.folder.with_name("secret")
        secret.write_text("open sesame\n", encoding="ascii")
        key = self.run_grid("enroll", "alice", "--passphrase-file", str(secret)).split("\n")[1]
        self.assertIn("ENCRYPTED", pathlib.Path(key).read_text(encoding="ascii"))

    def test_names_that_nobody_may_have(self):
        for name in ("controller", "Controller", "a/b", "a@b", "..", "", "a\nb", "x" * 65):
            with self.subTest(name):
                self.run_grid("enroll", name, code=2)

    def test_no_users_certificate_passes_for_the_server(self):
        for name in ("grid.quillon.internal", "localhost"):
            certificate = self.run_grid("enroll", name).split("\n")[0]
            done = subprocess.run(["openssl", "x509", "-in", certificate, "-noout", "-checkhost", name], capture_output=True, text=True, check=True)
            self.assertIn("does NOT match", done.stdout)


if __name__ == "__main__":
    unittest.main()

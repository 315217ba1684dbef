#!/usr/bin/env python3
"""qlk_command_test.py QLK QUILLON-GRID CONTROLLER COMPLETION: every command of qlk against a grid: what it prints, what it refuses, its
exit codes, and how it ends."""
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import time
import tomllib
import unittest

import doctor_cases
import inside_cases
import support
from support import COMMANDS, COMPLETION, PATIENCE_SECONDS, Case

ESCAPE = "\x1b"


class Help(Case):
    def test_every_command_tells_its_options_and_exit_codes_in_80_columns(self):
        for arguments in ((), *((command,) for command in COMMANDS)):
            with self.subTest(arguments):
                out, _ = self.qlk(None, *arguments, "--help")
                self.assertIn("Exit codes:", out)
                self.assertLessEqual(max(map(len, out.splitlines())), 80)
                self.assertIn("Examples:" if arguments else "Commands:", out)

    def test_the_completion_offers_every_command_and_option(self):
        def offered(*words):
            script = f"source '{COMPLETION}'; COMP_WORDS=(qlk {' '.join(words)}); COMP_CWORD={len(words)}; _qlk; printf '%s\\n' \"${{COMPREPLY[@]}}\""
            return set(subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True).stdout.split())
        self.assertLessEqual(set(COMMANDS), offered("''"))
        for command in COMMANDS:
            options = set(re.findall(r"^  (?:-\w, )?(--[\w-]+)", self.qlk(None, command, "--help")[0], flags=re.M))
            self.assertEqual(options, offered(command, "--"), command)
        self.assertEqual({"--json"}, offered("bulk", "--j"))

    def test_wrong_usage(self):
        for arguments, text in (((), "which command"), (("conect",), "no command 'conect'; is it 'connect'?"), (("connect", "--nothing"), "--nothing"),
                                (("status",), "NAME is required"), (("connect", "--timeout", "0"), "--timeout"),
                                (("bulk", "--json", "--count", "--request", "x"), "excludes"), (("query", "X", "--repeat", "x"), "'x' is no value"),
                                (("--timeout", "5", "connect"), "stand after the command: qlk COMMAND --timeout")):
            with self.subTest(arguments):
                self.assertIn(text, self.qlk(None, *arguments, code=1)[1])
        self.assertRegex(self.qlk(None, "--version")[0], r"^qlk \d+\.\d+\.\d+$")


class Profiles(Case):
    def test_what_enroll_writes_is_all_that_is_needed(self):
        profile = self.grid.member("ann")
        values = tomllib.loads(profile.read_text(encoding="utf-8"))
        self.assertEqual("ann", values["user"])
        self.assertEqual((profile.parent / "key.pem").resolve(), (profile.parent / values["key"]).resolve())
        self.qlk(None, "connect", "--profile", profile)
        home = self.place / ".config" / "qlk"
        home.mkdir(parents=True)
        (home / "profile.toml").write_text("user = 7\n", encoding="utf-8")
        self.assertIn("profile.toml:1: a text is expected here", self.qlk(None, "connect", code=1)[1])
        self.qlk(profile, "connect")  # the variable goes before the home

    def test_a_profile_that_is_wrong(self):
        for text, complaint in (("user = \"ann\"\nhots = [\"x\"]\n", ":2: 'hots' is no setting"), ("user = \n", ":1: "),
                                ("hosts = []\n", ":1: a list"), ("timeout_seconds = 0\n", ":1: a number of seconds"),
                                ("user = \"ann\"\n", "does not tell: hosts, certificate, key, ca")):
            with self.subTest(text):
                self.assertIn(complaint, self.qlk(self.file("profile.toml", text), "connect", code=1)[1])
        self.assertIn("there is no profile", self.qlk(None, "connect", code=1)[1])
        self.assertIn("cannot be read", self.qlk(None, "connect", "--profile", self.place / "none", code=1)[1])

    def test_a_key_with_a_passphrase(self):
        secret = self.file("secret", "open sesame\n")
        profile = self.grid.member("una", "--passphrase-file", secret)
        self.qlk(profile, "connect")  # the profile names the file
        profile.write_text(re.sub("passphrase_file.*\n", "", profile.read_text(encoding="utf-8")), encoding="utf-8")
        self.assertIn("no terminal to ask", self.qlk(profile, "connect", code=1)[1])
        for text, code in (("open sesame\n", 0), ("guess\n", 1), ("", 1)):
            reading, writing = os.pipe()
            os.write(writing, text.encode())
            os.close(writing)
            self.qlk(profile, "connect", "--passphrase-fd", reading, code=code, pass_fds=(reading,))
            os.close(reading)

    def test_a_passphrase_that_is_typed(self):
        profile = self.grid.member("tom", "--passphrase-file", self.file("secret", "open sesame\n"))
        profile.write_text(re.sub("passphrase_file.*\n", "", profile.read_text(encoding="utf-8")), encoding="utf-8")
        terminal = self.terminal(profile, "connect")
        terminal.read_until("Pass phrase of .*: ")
        terminal.type("guess\n")
        terminal.read_until("once more(.|\n)*Pass phrase of .*: ")
        terminal.type("open sesame\n")
        self.assertEqual(0, terminal.wait(), terminal.shown)
        self.assertNotRegex(terminal.shown, "guess|sesame")
        terminal = self.terminal(profile, "connect")
        terminal.read_until("Pass phrase of .*: ")
        terminal.type("\x03")
        self.assertEqual(130, terminal.wait())


class Connect(Case):
    def test_the_steps(self):
        profile = self.grid.member("ann")
        out, err = self.qlk(profile, "connect")
        steps = [line.split(maxsplit=1) for line in out.splitlines()]
        self.assertEqual(["host", "address", "TLS", "peer", "authority", "SASL", "session", "account", "joined"], [step[0] for step in steps])
        values = dict(steps)
        self.assertRegex(values["address"], r"^127\.0\.0\.1:\d+$")
        self.assertRegex(values["TLS"], r"^TLSv1\.[23], ")
        self.assertRegex(values["peer"], r"^grid\.quillon\.internal, until \d{4}-")
        self.assertEqual(("ann@grid.quillon.internal/qlk", "approved", ""), (values["session"], values["account"], err))

    def test_the_log_is_shown_when_asked_for(self):
        profile = self.grid.member("ann")
        self.assertNotIn("received", self.qlk(profile, "connect", "-v")[1])
        self.assertIn("connecting to host", self.qlk(profile, "connect", "-v")[1])
        self.assertIn("received <iq", self.qlk(profile, "connect", "-vv")[1])

    def test_an_account_that_waits(self):
        profile = self.grid.enroll("wim")[2]
        waiting = self.start(profile, "connect")
        waiting.until(waiting.out, "waits for an administrator")
        self.grid.run("approve", "wim")
        self.assertEqual(0, waiting.wait())
        self.assertIn("account    approved\n", waiting.out)

    def test_an_account_that_waits_while_the_controller_is_started_again(self):
        waiting = self.start(self.grid.enroll("kim")[2], "connect")
        waiting.until(waiting.out, "waits for an administrator")
        self.grid.restart_controller()
        self.grid.run("approve", "kim")
        self.assertEqual(0, waiting.wait())
        self.assertIn("account    approved\n", waiting.out)

    def test_the_end_while_an_account_waits(self):
        for number, code in ((signal.SIGINT, 130), (signal.SIGTERM, 143)):
            asking = self.start(self.grid.enroll(f"wim{code}")[2], "token")
            asking.until(asking.err, "waits for an administrator")
            self.assertEqual(code, asking.end(number))

    def test_refusals(self):
        denied = self.grid.enroll("dan")[2]
        self.grid.run("deny", "dan")
        self.assertIn("'dan' is denied", self.qlk(denied, "connect", code=3)[1])
        profile = self.grid.member("ann")
        with socket.create_server(("127.0.0.1", 0)) as closed:
            nobody = f"127.0.0.1:{closed.getsockname()[1]}"
        self.assertIn(f"cannot connect to {nobody}: Connection refused", self.qlk(profile, "connect", "--host", nobody, code=2)[1])
        self.assertIn("cannot resolve", self.qlk(profile, "connect", "--host", "nothing.invalid", code=2)[1])
        self.assertIn("is no host", self.qlk(profile, "connect", "--host", "127.0.0.1:99999", code=1)[1])
        self.assertIn("does not belong to the cert", self.qlk(profile, "connect", "--key", self.grid.enroll("other")[1], code=1)[1])
        other = profile.parent / "certificate.pem"
        self.assertIn("certificate is refused", self.qlk(profile, "connect", "--ca", other, code=2)[1])
        self.assertIn("qlk doctor", self.qlk(profile, "connect", "--user", "eve", code=2)[1])
        address = tomllib.loads(profile.read_text(encoding="utf-8"))["hosts"][0]
        out, err = self.qlk(profile, "connect", "--host", nobody, "--host", address)
        self.assertIn(f"trying {address}", err)
        self.assertIn("account    approved", out)

    def test_the_end_while_a_server_is_silent(self):
        profile = self.grid.member("ann")
        with socket.create_server(("127.0.0.1", 0)) as silent:
            connecting = self.start(profile, "capabilities", "--host", f"127.0.0.1:{silent.getsockname()[1]}")
            silent.accept()
            self.assertEqual(130, connecting.end())
            self.assertEqual([], connecting.err)

    def test_staying(self):
        staying = self.start(self.grid.member("sam"), "connect", "--stay")
        staying.until(staying.out, "joined the grid")
        self.grid.run("disable", "sam")
        self.assertEqual(2, staying.wait())
        self.assertRegex("".join(staying.err), r"the account was disabled or denied\n +An administrator")

    def test_colours_only_where_they_are_wanted(self):
        profile = self.grid.member("ann")
        coloured = self.terminal(profile, "connect")
        self.assertEqual(0, coloured.wait())
        self.assertIn(ESCAPE, coloured.shown)
        for variables in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            plain = self.terminal(profile, "connect", **variables)
            self.assertEqual(0, plain.wait())
            self.assertNotIn(ESCAPE, plain.shown)
        self.assertNotIn(ESCAPE, "".join(self.qlk(profile, "connect")))
        self.assertNotIn(ESCAPE, "".join(self.qlk(profile, "connect", "--host", "nothing.invalid", code=2)))

    def test_an_output_that_fails(self):
        profile = self.grid.member("ann")
        for command in ("connect", "capabilities"):
            with open("/dev/full", "w", encoding="ascii") as full:
                done = subprocess.run([support.QLK, command], stdout=full, stderr=subprocess.PIPE, text=True, check=False, timeout=PATIENCE_SECONDS,
                                      env=self.environment(profile))
            self.assertEqual(7, done.returncode, done.stderr)
            self.assertIn("cannot write to standard output", done.stderr)


class Capabilities(Case):
    def test_from_the_proposal_on(self):
        ann = self.grid.member("ann")
        self.assertIn("nothing is not registered", self.qlk(ann, "status", "nothing", code=5)[1])
        self.assertIn("not registered", self.qlk(ann, "modify", "Forecast", "--query", "day", code=5)[1])
        self.qlk(ann, "propose", "Forecast", "--query", "day", "--action", "reset", "--about", "Forecasts")
        self.assertIn("registered already", self.qlk(ann, "propose", "Forecast", code=3)[1])
        self.qlk(ann, "modify", "Forecast", "--query", "day", "--query", "week", "--about", "Forecasts", "--define-version", "2.0")
        self.assertRegex(self.qlk(ann, "capabilities")[0], r"(?m)^Forecast +2\.0 +day, week +Forecasts$")
        listed = {one["name"]: one for one in json.loads(self.qlk(ann, "capabilities", "--json")[0])}
        self.assertEqual(["day", "week"], listed["Forecast"]["queries"])
        self.assertRegex(self.qlk(ann, "status", "Forecast")[0], r"(?m)^status +inactive$")
        self.assertEqual(0, json.loads(self.qlk(ann, "status", "Forecast", "--json")[0])["publishers"])
        self.assertIn("has version 2.0", self.qlk(ann, "status", "Forecast", "--of-version", "1.0", code=5)[1])

    def test_rights_and_tokens(self):
        ann = self.grid.member("ann")
        self.assertEqual("no\n", self.qlk(ann, "authorized", "Forecast", "reset", code=3)[0])
        self.grid.run("allow", "ann", "Forecast", "reset")
        self.assertEqual("yes\n", self.qlk(ann, "authorized", "Forecast", "reset")[0])
        self.assertEqual("", self.qlk(ann, "authorized", "Forecast", "reset", "ann", "--quiet")[0])
        self.qlk(ann, "authorized", "Forecast", "reset", "bob", code=3)
        out, err = self.qlk(ann, "token", "-vv")
        self.assertEqual("ann", self.grid.run("token-owner", out.strip()).strip())
        self.assertNotIn(out.strip(), err)
        self.grid.run("forbid", "ann", "Forecast", "propose")
        self.assertIn("ann may not propose Forecast", self.qlk(ann, "propose", "Forecast", code=3)[1])


class Notifications(Case):
    def subscribed(self, profile, *arguments):
        subscriber = self.start(profile, "subscribe", *arguments)
        subscriber.until(subscriber.err, "subscribed to")
        return subscriber

    def test_the_prompt_after_ctrl_c_has_a_line_of_its_own(self):
        terminal = self.terminal(self.grid.member("bob"), "subscribe", "Weather")
        terminal.read_until("Ctrl-C ends\r\n")
        terminal.type("\x03")
        self.assertEqual(130, terminal.wait())
        self.assertTrue(terminal.shown.endswith("ends\r\n^C\r\n"), terminal.shown)

    def test_from_arguments_a_file_and_lines(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        subscriber = self.subscribed(ann, "Weather", "--count", "6")
        self.assertIn("published 2 notifications", self.qlk(bob, "publish", "Weather", "<a xmlns='urn:x'>1</a>", "<b/>")[1])
        self.qlk(bob, "publish", "Weather", "--file", self.file("one.xml", "<?xml version='1.0'?>\n<c>\nlong</c>\n"))
        self.qlk(bob, "publish", "Weather", "--file", "-", stdin="<d/>\n")
        self.assertRegex(self.qlk(bob, "publish", "Weather", stdin="<e/>\n\n<f/>\n<", code=1)[1], "published 2 (.|\\n)*line 4 of standard input")
        self.assertEqual(0, subscriber.wait())
        self.assertEqual(['<a xmlns="urn:x">1</a>\n', "<b/>\n", "<c>&#10;long</c>\n", "<d/>\n", "<e/>\n", "<f/>\n"], subscriber.out)

    def test_json_and_a_choice_of_elements(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        subscriber = self.subscribed(ann, "Weather", "--json", "--element", "{urn:x}warning", "--element", "calm", "--namespace", "urn:y", "--count", "2")
        self.qlk(bob, "publish", "Weather", "<warning xmlns='urn:z'/>", "<warning xmlns='urn:x' level='3'>gale<at>5</at></warning>",
                 "<calm xmlns='urn:y'/>")
        self.assertEqual(0, subscriber.wait())
        first, second = map(json.loads, subscriber.out)
        self.assertEqual({"name": "warning", "namespace": "urn:x", "attributes": {"level": "3"}, "children": [{"name": "at", "text": "5"}],
                          "text": "gale"}, first["payload"])
        self.assertEqual(("Weather", {"name": "calm", "namespace": "urn:y"}), (second["capability"], second["payload"]))
        self.assertRegex(first["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")

    def test_a_dynamic_capability_is_another_topic(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        subscriber = self.subscribed(ann, "Tide", "--dynamic", "--count", "1")
        self.qlk(bob, "publish", "Tide", "<plain/>")
        self.qlk(bob, "publish", "Tide", "--dynamic", "<dynamic/>")
        self.assertEqual(0, subscriber.wait())
        self.assertEqual(["<dynamic/>\n"], subscriber.out)

    def test_what_is_no_payload_is_refused_before_anything_is_sent(self):
        bob = self.grid.member("bob")
        self.assertIn("payload 2 is no XML element", self.qlk(bob, "publish", "Weather", "<a/>", "<b>", code=1)[1])
        self.assertIn("line 2 of standard input", self.qlk(bob, "publish", "Weather", stdin="\nhello\n", code=1)[1])
        self.assertIn("no payload on standard input", self.qlk(bob, "publish", "Weather", code=1)[1])
        self.assertIn("cannot be read", self.qlk(bob, "publish", "Weather", "--file", self.place / "none", code=1)[1])

    def test_rights(self):
        eve = self.grid.member("eve")
        self.grid.run("forbid", "eve", "Weather", "subscribe")
        self.grid.run("forbid", "eve", "Weather", "publish")
        self.assertIn("eve may not subscribe Weather", self.qlk(eve, "subscribe", "Weather", code=3)[1])
        self.assertIn("eve may not publish Weather", self.qlk(eve, "publish", "Weather", "<a/>", code=3)[1])

    def test_ends_of_a_subscriber(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        for number, code in ((signal.SIGINT, 130), (signal.SIGTERM, 143), (signal.SIGHUP, 129)):
            subscriber = self.subscribed(ann, "Weather")
            self.assertEqual(code, subscriber.end(number))
            self.assertEqual(1, len(subscriber.err))
        reading, writing = os.pipe()
        subscriber = subprocess.Popen([support.QLK, "subscribe", "Weather"], stdout=writing, stderr=subprocess.PIPE, text=True,
                                      env=self.environment(ann))
        self.addCleanup(subscriber.stderr.close)
        os.close(writing)
        self.assertIn("subscribed to", subscriber.stderr.readline())
        os.close(reading)  # it notices without anything to print
        self.assertEqual(141, subscriber.wait(PATIENCE_SECONDS))
        self.assertEqual("", subscriber.stderr.read())
        publisher = self.start(bob, "publish", "Weather", "-v")
        publisher.process.stdin.write("<a/>\n")
        publisher.process.stdin.flush()
        publisher.until(publisher.err, "successfully published")
        self.assertEqual(130, publisher.end())

    def test_another_session_of_the_user(self):
        ann = self.grid.member("ann")
        subscriber = self.subscribed(ann, "Weather", "--reconnect")
        self.qlk(ann, "connect")
        self.assertEqual(2, subscriber.wait())
        self.assertIn("another program has joined as ann", subscriber.err[-1])

    def test_a_session_that_is_lost(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        leaving, staying = self.subscribed(ann, "Weather"), self.subscribed(bob, "Weather", "--reconnect", "--reconnect-pause", "1", "--count", "1")
        self.grid.run("server-stop")
        self.assertEqual(2, leaving.wait())
        self.assertIn("the session is lost", "".join(leaving.err))
        staying.until(staying.err, "the session is lost")
        staying.err.clear()
        self.grid.run("server-start")
        staying.until(staying.err, "subscribed to")
        self.qlk(ann, "publish", "Weather", "<back/>")
        self.assertEqual((0, ["<back/>\n"]), (staying.wait(), staying.out))


class Queries(Case):
    def serving(self, profile, *arguments):
        server = self.start(profile, "serve", *arguments)
        server.until(server.err, "serving")
        return server

    def test_answers_of_a_command(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        script = self.file("answer.sh", "read question\nprintf '<answer>%s|%s|%s|%s</answer>' \"$1\" \"$QLK_CAPABILITY\" \"$QLK_ELEMENT\" \"$QLK_SENDER\"\n")
        server = self.serving(ann, "Weather", "--namespace", "urn:x", "--element", "day", "--", "sh", script, "a b")
        answer = "<answer>a b|Weather|{urn:x}day|bob@grid.quillon.internal</answer>\n"
        question = "<day xmlns='urn:x'>Monday</day>"
        self.assertEqual(answer, self.qlk(bob, "query", "Weather", question)[0])
        self.assertEqual(answer, self.qlk(bob, "query", "Weather", stdin=question)[0])
        self.assertEqual(answer, self.qlk(bob, "query", "Weather", "--file", self.file("day.xml", question))[0])
        self.assertEqual("answer", json.loads(self.qlk(bob, "query", "Weather", question, "--json")[0])["name"])
        server.until(server.err, "day from bob@grid.quillon.internal: answered in")
        self.assertEqual(130, server.end())
        self.assertIn("nobody publishes Weather", self.qlk(bob, "query", "Weather", question, code=5)[1])

    def test_times_of_many(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        answer = self.file("answer.xml", "<fine/>\n")
        self.serving(ann, "Weather", "--element", "{urn:x}day", "--file", answer, "--quiet")
        out, err = self.qlk(bob, "query", "Weather", "<day xmlns='urn:x'/>", "--repeat", "50")
        self.assertEqual("<fine/>\n" * 50, out)
        times = re.search(r"50 answered, 0 failed: min (\S+)  p50 (\S+)  p99 (\S+)  max (\S+) ms", err)
        self.assertTrue(times, err)
        self.assertEqual(sorted(times.groups(), key=float), list(times.groups()))
        endless = self.start(bob, "query", "Weather", "<day xmlns='urn:x'/>", "--repeat", "0", "--interval", "1")
        endless.until(endless.out, "fine")
        self.assertEqual(130, endless.end())
        self.assertRegex(endless.err[-1], r"\d+ answered, \d failed: min ")

    def test_many_at_once(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        answer = self.file("answer.xml", "<fine/>\n")
        server = self.serving(ann, "Weather", "--element", "{urn:x}day", "--file", answer, "--quiet")
        out, err = self.qlk(bob, "query", "Weather", "<day xmlns='urn:x'/>", "--repeat", "200", "--in-flight", "20")
        self.assertEqual("<fine/>\n" * 200, out)
        self.assertIn("200 answered, 0 failed: min ", err)
        err = self.qlk(bob, "query", "Weather", "<night xmlns='urn:x'/>", "--repeat", "3", "--in-flight", "2", "--deadline", "300", code=4)[1]
        self.assertIn("3 queries, none answered; 0 refused, 0 not sent, 3 with unknown outcome", err)
        self.assertIn("cannot query Weather", self.qlk(bob, "query", "Weather", "<night xmlns='urn:x'/>", "--deadline", "300", code=4)[1])
        endless = self.start(bob, "query", "Weather", "<day xmlns='urn:x'/>", "--repeat", "0", "--in-flight", "5")
        endless.until(endless.out, "fine")
        self.assertEqual(130, endless.end())
        self.assertEqual(130, server.end())

    def test_what_goes_unanswered(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        pid = self.place / "pid"
        script = self.file("answer.sh", f"""case $QLK_ELEMENT in
*fail) exit 3 ;;
*junk) echo hello ;;
*slow) echo $$ >'{pid}.new'; mv '{pid}.new' '{pid}'; sleep 100 ;;
esac\n""")
        server = self.serving(ann, "Weather", *(f"--element={{urn:x}}{name}" for name in ("fail", "junk", "slow")), "--limit", "1", "--", "sh", script)
        self.assertIn("no answer in 1 s from ann@", self.qlk(bob, "query", "Weather", "<fail/>", "--timeout", "1", code=4)[1])
        server.until(server.err, "fail from bob@grid.quillon.internal/qlk: no answer, this is not served")
        for name, why in (("fail", "ended with code 3"), ("junk", "no XML element"), ("slow", "not done in time")):
            self.assertIn("Weather: ", self.qlk(bob, "query", "Weather", f"<{name} xmlns='urn:x'/>", "--timeout", "1", code=4)[1])
            server.until(server.err, f"{name} from bob@grid.quillon.internal: no answer, .*{why}")
        self.assertFalse(pathlib.Path("/proc", pid.read_text(encoding="ascii").strip()).exists())
        self.assertRegex(self.qlk(bob, "query", "Weather", "<fail xmlns='urn:x'/>", "--timeout", "1", "--repeat", "2", code=4)[1],
                         "2 queries, none answered")

    def test_the_end_kills_the_command(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        script = self.file("answer.sh", "echo $$ >&2; sleep 100\n")
        server = self.serving(ann, "Weather", "--element", "{urn:x}day", "--", "sh", script)
        asking = self.start(bob, "query", "Weather", "<day xmlns='urn:x'/>")
        server.until(server.err, r"^\d+$")
        child = next(line.strip() for line in server.err if line.strip().isdigit())
        self.assertEqual(143, server.end(signal.SIGTERM))
        self.assertFalse(pathlib.Path("/proc", child).exists())
        self.assertEqual(130, asking.end())

    def test_methods_that_the_grid_knows(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        answer = self.file("answer.xml", "<fine/>")
        self.assertIn("--element", self.qlk(ann, "serve", "Tide", "--file", answer, code=1)[1])
        self.qlk(ann, "propose", "Tide", "--query", "high", "--action", "turn")
        self.serving(ann, "Tide", "--namespace", "urn:x", "--file", answer)
        for method in ("high", "turn"):
            self.qlk(bob, "query", "Tide", f"<{method} xmlns='urn:x'/>")

    def test_usage(self):
        ann = self.grid.member("ann")
        self.assertIn("what answers?", self.qlk(ann, "serve", "Weather", "--element", "x", code=1)[1])
        self.assertIn("stands after --", self.qlk(ann, "serve", "Weather", "--element", "x", "--", "no-such-command", code=1)[1])
        self.assertIn("no XML element", self.qlk(ann, "serve", "Weather", "--file", self.file("junk", "hello"), code=1)[1])
        self.assertIn("no XML element", self.qlk(ann, "query", "Weather", "hello", code=1)[1])


class Inside(inside_cases.Inside):
    """Here, so that it has this module's grid."""


class Bulk(Case):
    def request(self, **attributes):
        text = " ".join(f'{name}="{value}"' for name, value in attributes.items())
        return self.file("request.xml", f'<bulkRequest xmlns="http://quillon.internal/quillon" {text}/>')

    def test_items(self):
        ann = self.grid.member("ann")
        request = self.request(records=1000, resultSet="reports")
        out, err = self.qlk(ann, "bulk", "--request", request)
        self.assertEqual((1000, ""), (len(out.splitlines()), err))
        self.assertRegex(out, r'\A<report [^\n]*id="000000000000"[^\n]*</report>\n')
        items = [json.loads(line) for line in self.qlk(ann, "bulk", "--request", "-", "--json", stdin=request.read_text(encoding="utf-8"))[0].splitlines()]
        self.assertEqual([f"{number:012}" for number in range(1000)], [item["attributes"]["id"] for item in items])
        self.assertEqual(("1000\n", ""), self.qlk(ann, "bulk", "--request", request, "--count"))
        self.assertEqual(3, len(self.qlk(ann, "bulk", "--request", request, "--limit", "3")[0].splitlines()))
        url = tomllib.loads(ann.read_text(encoding="utf-8"))["bulk"]["url"]
        self.assertEqual("1000\n", self.qlk(ann, "bulk", url, "--request", request, "--count")[0])

    def test_transfers_that_fail(self):
        ann = self.grid.member("ann")
        out, err = self.qlk(ann, "bulk", "--request", self.request(records=100, failure="reset", failureAfter=10), code=6)
        self.assertIn("broke off after 10 items", err)
        self.assertEqual(10, len(out.splitlines()))
        self.assertIn("no well-formed document", self.qlk(ann, "bulk", "--request", self.request(records=100, failure="malformed", failureAfter=10), code=6)[1])
        with socket.create_server(("127.0.0.1", 0)) as closed:
            nobody = f"https://127.0.0.1:{closed.getsockname()[1]}/bulk"
        request = self.request(records=1)
        self.assertIn(nobody, self.qlk(ann, "bulk", nobody, "--request", request, code=2)[1])
        self.qlk(ann, "bulk", "--request", request, "--bulk-ca", ann.parent / "certificate.pem", code=2)
        self.assertIn("refuses", self.qlk(ann, "bulk", "--request", request, "--user", "bob")[1])
        self.assertIn("no XML element", self.qlk(ann, "bulk", "--request", self.file("junk", "hello"), code=1)[1])

    def test_the_end_of_a_silent_transfer(self):
        transfer = self.start(self.grid.member("ann"), "bulk", "--request", self.request(records=100, failure="silent", failureAfter=10))
        begin = time.monotonic()
        while not pathlib.Path("/proc", str(transfer.process.pid), "task").exists() or \
                len(os.listdir(f"/proc/{transfer.process.pid}/task")) < 4:  # the transfer's own thread is there
            self.assertLess(time.monotonic() - begin, PATIENCE_SECONDS)
        self.assertEqual(130, transfer.end())

    def test_the_bar(self):
        ann = self.grid.member("ann")
        request = self.request(records=100, delayMilliseconds=400)
        for arguments, bar in (((), r"\[\.*###\.*\]"), (("--expect", "100"), r"\[#*\.*\]  \S+ of 100 items")):
            shown = self.terminal(ann, "bulk", "--request", request, *arguments, stdout=self.place / "items.xml")
            self.assertEqual(0, shown.wait())
            self.assertRegex(shown.shown, bar)
            self.assertRegex(shown.shown, r"qlk: 100 items in \S+ s, \S+ a second\r\n$")
            self.assertLess(max(len(line) for line in re.split(r"[\r\n]", shown.shown)), 80 + len("\x1b[K"))
            self.assertEqual(100, len((self.place / "items.xml").read_text(encoding="utf-8").splitlines()))
        whole = self.terminal(ann, "bulk", "--request", request)
        self.assertEqual(0, whole.wait())
        self.assertNotIn("###", whole.shown)  # items run over the same screen
        self.assertIn("###", self.count_on_a_terminal(ann, request))

    def count_on_a_terminal(self, profile, request):
        counting = self.terminal(profile, "bulk", "--request", request, "--count")
        self.assertEqual(0, counting.wait())
        return counting.shown


class Doctor(doctor_cases.Doctor):
    """As above."""


def setUpModule():
    Case.grid = support.Grid(support.GRID, support.CONTROLLER, "manual")
    unittest.addModuleCleanup(Case.grid.close)


if __name__ == "__main__":
    del sys.argv[1:5]
    unittest.main()

"""The cases that look into a connection: qlk top, traces and the keys of TLS sessions."""
import json
import re

from support import Case


class Inside(Case):
    def test_reports_of_a_connection(self):
        ann, bob = self.grid.member("ann"), self.grid.member("bob")
        top = self.start(ann, "top", "Weather", "--ask", "--json", "--count", "3")
        top.until(top.out, "connected")
        self.qlk(bob, "publish", "Weather", "<gale/>")
        self.assertEqual(0, top.wait())
        first, *_, last = reports = [json.loads(line) for line in top.out]
        self.assertEqual(3, len(reports))
        self.assertEqual(("connected", {"attempts": 1, "begun": 1, "reconnects": 0}), (last["phase"], last["sessions"]))
        self.assertGreaterEqual(last["queries"]["asynchronous"]["answered"], 2)
        self.assertEqual(sum(last["latency_us"]["buckets"]), sum(last["queries"][kind]["answered"] for kind in ("synchronous", "asynchronous")))
        self.assertGreaterEqual(last["latency_us"]["p99"], last["latency_us"]["p50"])
        self.assertGreaterEqual(last["queues"]["notifications"]["highest"], 1)
        self.assertGreater(last["stanzas"]["received"], first["stanzas"]["received"])
        self.assertGreater(last["bytes"]["sent"], first["bytes"]["sent"])
        self.assertGreater(last["phase_milliseconds"]["connected"], first["phase_milliseconds"]["connected"] + 1000)
        self.assertRegex(self.qlk(ann, "top", "--count", "1")[0], r"^connected  out \d+ stanzas 0 B/s  in .* failed 0 in flight  p50 \S+ .s  p99 \S+ .s\n$")

    def test_the_view_on_a_terminal(self):
        terminal = self.terminal(self.grid.member("ann"), "top", "--ask")
        terminal.read_until(r"(?s)\x1b\[H\x1b\[J.*\x1b\[H\x1b\[J.*completions.*answers.*within")
        terminal.type("\x03")
        self.assertEqual(130, terminal.wait())
        lines = re.sub(r"\x1b\[[\d;]*[A-Za-z]", "", terminal.shown).splitlines()
        self.assertEqual([], [line for line in lines if len(line) > 80])

    def test_a_trace_and_the_keys(self):
        ann = self.grid.member("ann")
        keys = self.place / "keys"
        out, err = self.qlk(ann, "token", "--trace", "--tls-key-log", keys)
        self.assertRegex(err, r"(?s)\n> <auth .*?>\*+</auth>\n.*\n< <success .*\n> <iq .*getTokenRequest.*\n< <iq .*<token>\*+</token>")
        self.assertNotIn(out.strip(), err)
        self.assertIn("CLIENT_TRAFFIC_SECRET_0 ", keys.read_text(encoding="ascii"))
        keys.chmod(0o640)
        self.assertIn("cannot be written", self.qlk(ann, "token", "--tls-key-log", keys, code=1)[1])

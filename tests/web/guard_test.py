#!/usr/bin/env python3
"""guard_test.py QUILLON-GRID CONTROLLER BULK QLK: without its token the administrator's page shows and does nothing."""
import http.client
import pathlib
import re
import subprocess
import unittest
import urllib.parse

from page import PATIENCE_SECONDS, Page


class Guard(Page):
    def ask(self, method, path, body=None, **headers):
        place = urllib.parse.urlsplit(self.address)
        connection = http.client.HTTPConnection(place.hostname, place.port, timeout=PATIENCE_SECONDS)
        self.addCleanup(connection.close)
        connection.request(method, path, body, headers)
        answer = connection.getresponse()
        return answer.status, dict(answer.getheaders()), answer.read().decode()

    def test_nothing_is_shown_or_done_without_the_token(self):
        place = urllib.parse.urlsplit(self.address)
        form = {"Content-Type": "application/x-www-form-urlencoded"}
        code, headers, _ = self.ask("GET", f"{place.path}?{place.query}")
        self.assertEqual((303, "/"), (code, headers["Location"]))  # the token does not stay in the address
        self.assertRegex(headers["Set-Cookie"], r"; HttpOnly; SameSite=Strict; Path=/$")
        cookie = headers["Set-Cookie"].split(";")[0]
        code, headers, shown = self.ask("GET", "/", Cookie=cookie)
        self.assertEqual(200, code)
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.grid("approve", "<b>eve")
        self.assertNotIn("<b>eve", self.ask("GET", "/", Cookie=cookie)[2])
        for path, extra in (("/", {}), ("/counts", {}), ("/?token=wrong", {}), ("/", {"Cookie": cookie[:-1] + "~"}),
                            ("/", {"Cookie": cookie, "Host": "grid.example"}), (f"/?{place.query}", {"Host": "grid.example"})):
            code, _, text = self.ask("GET", path, **extra)
            self.assertEqual(403, code, (path, extra))
            self.assertNotIn("eve", text)
        token = re.search(r"name='form' value='([^']+)'", self.ask("GET", "/", Cookie=cookie)[2])[1]
        body = urllib.parse.urlencode({"form": token, "user": "<b>eve"})
        for path, text, extra in (("/disable", body, {}), ("/disable", "form=wrong&user=eve", {"Cookie": cookie}),
                                  ("/disable", "form=" + "x" * 5000, {"Cookie": cookie})):
            self.assertEqual(403, self.ask("POST", path, text, **form, **extra)[0], (path, extra))
        self.assertEqual(404, self.ask("POST", "/rename", body, Cookie=cookie, **form)[0])
        self.assertRegex(self.grid("accounts"), r"eve +approved")
        self.assertEqual(303, self.ask("POST", "/disable", body, Cookie=cookie, **form)[0])
        self.assertRegex(self.grid("accounts"), r"eve +disabled")
        self.assertEqual(409, self.ask("POST", "/disable", urllib.parse.urlencode({"form": token, "user": "nobody"}), Cookie=cookie, **form)[0])
        # A file that a full disk has left empty must not let in whoever knows nothing.
        pathlib.Path(self.folder, "web.token").write_text("", encoding="ascii")
        with self.assertRaises(subprocess.CalledProcessError):
            self.grid("web")
        self.assertNotIn(place.query, pathlib.Path(self.folder, "web.log").read_text(encoding="utf-8"))
        self.assertEqual(0o600, pathlib.Path(self.folder, "web.token").stat().st_mode & 0o777)


if __name__ == "__main__":
    unittest.main()

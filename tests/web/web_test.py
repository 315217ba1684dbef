#!/usr/bin/python3
"""web_test.py QUILLON-GRID CONTROLLER BULK QLK: the administrator's page of a real grid: guarded by its token, and used in a real browser."""
import http.client
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

COMMAND, CONTROLLER, BULK, QLK = (os.path.abspath(sys.argv.pop(1)) for _ in range(4))
os.environ.update(QUILLON_GRID_CONTROLLER=CONTROLLER, QUILLON_GRID_BULK=BULK)
PATIENCE_SECONDS = 60


class Page(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="web ")
        self.addCleanup(place.cleanup)
        self.folder = pathlib.Path(place.name, "grid")
        self.addCleanup(self.grid, "down")
        told = self.grid("up", "--web", "--approval", "manual")
        self.address = re.search(r"^the administrator's page: (http://127\.0\.0\.1:\d+/\?token=\S+)$", told, re.MULTILINE)[1]
        self.assertIn(self.address, self.grid("web"))

    def grid(self, *arguments):
        return subprocess.run([COMMAND, "--folder", self.folder, *arguments], capture_output=True, text=True, check=True,
                              timeout=PATIENCE_SECONDS).stdout

    def start(self, user, *arguments):
        profile = self.grid("enroll", user).split("\n")[2]
        program = subprocess.Popen([QLK, *arguments, "--profile", profile], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        def end():
            program.kill()
            program.wait()

        self.addCleanup(end)
        return program


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
        self.assertNotIn(place.query, pathlib.Path(self.folder, "web.log").read_text(encoding="utf-8"))
        self.assertEqual(0o600, pathlib.Path(self.folder, "web.token").stat().st_mode & 0o777)


class Browser(Page):
    def setUp(self):
        super().setUp()
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1000,900"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.addCleanup(self.browser.quit)

    def wait(self, condition):
        return WebDriverWait(self.browser, PATIENCE_SECONDS, ignored_exceptions=(Exception,)).until(lambda _: condition())

    def count(self, name):
        return self.browser.find_element(By.ID, f"count-{name}").text

    def row(self, user):
        return self.browser.find_element(By.XPATH, f"//tr[td[1][text()='{user}']]")

    def press(self, user, action):
        self.row(user).find_element(By.XPATH, f".//button[text()='{action}']").click()

    def test_an_account_is_approved_and_its_work_is_seen(self):
        self.browser.get(self.address)
        self.assertNotIn("token", self.browser.current_url)
        self.assertEqual("0", self.count("pending"))
        server = self.start("alice", "serve", "weather", "--namespace", "urn:w", "--element", "ask", "--", "true")
        # Without a touch: the counts go up, and the account that waits appears.
        self.wait(lambda: self.count("pending") == "1" and self.row("alice").is_displayed())
        self.press("alice", "approve")
        self.wait(lambda: self.count("publishers") == "1" and self.count("pending") == "0")
        self.wait(lambda: "alice@" in self.row("weather").text)
        if "PICTURE" in os.environ:
            self.browser.save_screenshot(os.environ["PICTURE"])
        self.press("alice", "disable")
        self.wait(lambda: self.count("publishers") == "0")
        self.assertNotEqual(0, server.wait(PATIENCE_SECONDS))
        self.assertRegex(self.grid("accounts"), r"alice +disabled")
        severe = [entry for entry in self.browser.get_log("browser") if entry["level"] == "SEVERE" and "favicon" not in entry["message"]]
        self.assertEqual([], severe)

        self.grid("down")
        self.wait(lambda: self.count("state") == "not answering")


if __name__ == "__main__":
    unittest.main()

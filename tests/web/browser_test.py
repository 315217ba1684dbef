#!/usr/bin/python3
"""browser_test.py QUILLON-GRID CONTROLLER BULK QLK: the administrator's page in a real browser. With $PICTURE set, a picture of it goes there."""
import os
import unittest

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

from page import PATIENCE_SECONDS, Page


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
        # The page may be loaded anew between the look and the click.
        self.wait(lambda: self.row(user).find_element(By.XPATH, f".//button[text()='{action}']").click() is None)

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

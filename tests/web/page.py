"""The administrator's page of a real grid, for the tests of it: programs are told as the command line's QUILLON-GRID CONTROLLER BULK QLK."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

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

    def start(self, user, command, *arguments):
        profile = self.grid("enroll", user).split("\n")[2]
        program = subprocess.Popen([QLK, command, "--profile", profile, *arguments], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        def end():
            program.kill()
            program.wait()

        self.addCleanup(end)
        return program

#!/usr/bin/env python3
"""check_packages.py SOURCES BUILD WORK CPACK CC CXX: makes the Debian packages of a finished build, looks into them, unpacks them into an
empty folder, and uses what came out: builds programs, runs a grid, and joins it."""
import gzip
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

SOURCES, BUILD, WORK = (pathlib.Path(path).resolve() for path in sys.argv[1:4])
CPACK, CC, CXX = sys.argv[4:7]
del sys.argv[1:7]

VERSION = "1.0.0-1"
PACKAGES = ("libqlk1", "libqlk-dev", "qlk-tools")
LIBRARIES = {"libqlk.so.1": "LIBQLK_1", "libwarbler.so.1": "WARBLER_1"}
SECONDS = 120


def run(*command, **options):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True, check=False, timeout=SECONDS, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}: exit code {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def files_of(root):
    """Every file and link below the folder, as relative paths."""
    return {pathlib.Path(folder, name).relative_to(root).as_posix() for folder, folders, names in os.walk(root)
            for name in names + [name for name in folders if os.path.islink(os.path.join(folder, name))]}


def is_elf(path):
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def setUpModule():
    shutil.rmtree(WORK, ignore_errors=True)
    for name in PACKAGES:
        (WORK / name).mkdir(parents=True)
    # Whoever packs may be of a careful kind: that must not show in the packages.
    run(CPACK, "--config", BUILD / "CPackConfig.cmake", "-B", WORK / "made", cwd=WORK, umask=0o077)
    for name in PACKAGES:
        run("dpkg-deb", "-x", archive(name), WORK / name)
        run("dpkg-deb", "-x", archive(name), WORK / "root")


def archive(name):
    found = list((WORK / "made").glob(f"{name}_*.deb"))
    assert len(found) == 1, f"{name}: {found}"
    return found[0]


class Contents(unittest.TestCase):
    def fields(self, name):
        text = run("dpkg-deb", "-f", archive(name))
        return dict(re.findall(r"^([\w-]+): (.*(?:\n .*)*)", text, flags=re.M))

    def test_fields(self):
        for name, section in (("libqlk1", "libs"), ("libqlk-dev", "libdevel"), ("qlk-tools", "net")):
            with self.subTest(name):
                fields = self.fields(name)
                self.assertEqual((name, VERSION, section), (fields["Package"], fields["Version"], fields["Section"]))
                self.assertEqual(run("dpkg", "--print-architecture").strip(), fields["Architecture"])
                synopsis, *rest = fields["Description"].split("\n")
                self.assertLessEqual(len(synopsis), 80)
                self.assertGreater(len(rest), 3)
                self.assertLessEqual(max(map(len, rest)), 80)
                self.assertIn("maintainers", fields["Maintainer"])

    def test_dependencies(self):
        depends = {name: [part.strip() for part in self.fields(name)["Depends"].split(",")] for name in PACKAGES}
        for name in ("libqlk-dev", "qlk-tools"):
            self.assertIn(f"libqlk1 (= {VERSION})", depends[name])
        for library in ("libc6", "libssl3", "libcurl4", "libexpat1", "libevent-core-2.1-7", "libevent-pthreads-2.1-7"):
            self.assertTrue(any(part.startswith(library + " (>=") for part in depends["libqlk1"]), f"{library}: {depends['libqlk1']}")
        self.assertFalse([part for part in depends["libqlk1"] if "qlk" in part])
        for package in ("libcurl4-openssl-dev", "libevent-dev", "libexpat1-dev", "libssl-dev"):
            self.assertTrue(any(part.startswith(package) for part in depends["libqlk-dev"]), package)

    def test_the_package_manager_would_take_all_three(self):
        run("dpkg", "--no-act", "--install", *map(archive, PACKAGES))

    def test_together_they_are_what_an_installation_lays_down(self):
        run("cmake", "--install", BUILD, "--prefix", WORK / "installed", "--strip")
        packed = {path.removeprefix("usr/") for name in PACKAGES for path in files_of(WORK / name)}
        self.assertEqual(files_of(WORK / "installed"), packed - {f"share/doc/{name}/copyright" for name in PACKAGES})
        self.assertEqual(len(packed), sum(len(files_of(WORK / name)) for name in PACKAGES), "a file is in two packages")

    def test_each_is_of_its_kind(self):
        self.assertEqual({"share/doc/libqlk1/copyright", *(name for library in LIBRARIES for name in (library, library + ".0.0"))},
                         {re.sub(r"^usr/(lib/([\w-]+/)?(?=lib))?", "", path) for path in files_of(WORK / "libqlk1")})
        development = files_of(WORK / "libqlk-dev")
        for ending in ("include/quillon.h", "include/warbler/warbler.h", "/libqlk.a", "/libwarbler.a", "/libqlk.so", "/libwarbler.so",
                       "/pkgconfig/libqlk.pc", "/pkgconfig/libwarbler.pc", "/cmake/libqlk/libqlk-config.cmake"):
            self.assertTrue(any(path.endswith(ending) for path in development), ending)
        self.assertFalse([path for path in development if "/bin/" in path or ".so." in path])
        self.assertIn("usr/bin/quillon-grid", files_of(WORK / "qlk-tools"))

    def test_owners_and_permissions(self):
        for name in PACKAGES:
            for line in run("dpkg-deb", "-c", archive(name)).splitlines():
                mode, owner, _, _, _, path = line.split(None, 5)
                expected = {"d": ("drwxr-xr-x",), "l": ("lrwxrwxrwx",), "-": ("-rw-r--r--", "-rwxr-xr-x")}[mode[0]]
                self.assertIn(mode, expected, f"{name}: {path}")
                self.assertEqual("root/root", owner, f"{name}: {path}")

    def test_links_lead_somewhere(self):
        links = [path for path in files_of(WORK / "root") if (WORK / "root" / path).is_symlink()]
        self.assertGreaterEqual(len(links), 5)
        for path in links:
            self.assertFalse(os.readlink(WORK / "root" / path).startswith("/"), path)
            self.assertTrue((WORK / "root" / path).exists(), path)

    def test_nothing_tells_of_the_machine(self):
        paths = [os.fsencode(path) for path in {SOURCES, BUILD, WORK, pathlib.Path.home()} if len(path.parts) > 1]
        for path in sorted(files_of(WORK / "root")):
            content = (WORK / "root" / path).read_bytes()
            if path.endswith(".gz"):
                content = gzip.decompress(content)
            for place in paths:
                self.assertNotIn(place + b"/", content, path)

    def test_every_command_has_its_manual_page(self):
        for command in (WORK / "qlk-tools/usr/bin").iterdir():
            page = WORK / f"qlk-tools/usr/share/man/man1/{command.name}.1.gz"
            self.assertTrue(page.exists(), page)
            self.assertEqual(b"\0\0\0\0", page.read_bytes()[4:8], f"{page}: compress it without a time, so that builds can be compared")


class Libraries(unittest.TestCase):
    def library(self, name):
        return next((WORK / "libqlk1").rglob(name))

    def test_names(self):
        for name in LIBRARIES:
            dynamic = run("readelf", "-dW", self.library(name))
            self.assertIn(f"soname: [{name}]", dynamic)
            self.assertEqual(name + ".0.0", os.readlink(self.library(name)))
            links = [path for path in files_of(WORK / "libqlk-dev") if path.endswith("/" + name.removesuffix(".1"))]
            self.assertEqual([name], [os.readlink(WORK / "libqlk-dev" / path) for path in links])

    def test_symbols_are_versioned(self):
        for name, version in LIBRARIES.items():
            rows = [line.split() for line in run("readelf", "--dyn-syms", "-W", self.library(name)).splitlines()]
            defined = [row[7] for row in rows if len(row) >= 8 and row[0].rstrip(":").isdigit() and row[6] != "UND"]
            self.assertGreater(len(defined), 50)
            self.assertEqual([], [symbol for symbol in defined if not symbol.endswith("@@" + version) and symbol != version])

    def test_programs_and_libraries_are_stripped_and_search_nowhere_strange(self):
        count = 0
        for path in sorted(files_of(WORK / "root")):
            file = WORK / "root" / path
            if file.is_symlink() or not is_elf(file):
                continue
            count += 1
            self.assertNotIn(".symtab", run("readelf", "-SW", file), path)
            for search in re.findall(r"R(?:UN)?PATH\).*\[(.*)\]", run("readelf", "-dW", file)):
                self.assertTrue(search.startswith("$ORIGIN"), f"{path}: {search}")
        self.assertGreaterEqual(count, 4)


class Use(unittest.TestCase):
    def setUp(self):
        self.usr = WORK / "root/usr"
        self.libraries = next(self.usr.rglob("libqlk.so.1")).parent
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith("QUILLON_")}
        self.environment.update(LD_LIBRARY_PATH=str(self.libraries), PKG_CONFIG_PATH=str(self.libraries / "pkgconfig"),
                                PATH=f"{self.usr / 'bin'}:{os.environ['PATH']}", HOME=str(WORK / "home"))
        (WORK / "home").mkdir(exist_ok=True)

    def test_programs_are_built_and_run(self):
        flags = run("pkg-config", "--cflags", "--libs", "libqlk", env=self.environment).split()
        program = WORK / "consumer"
        run(CC, "-std=c11", SOURCES / "tests/install/consumer/in_c.c", "-o", program, *flags, env=self.environment)
        run(program, env=self.environment)
        self.assertEqual(self.libraries / "libqlk.so.1", self.loaded_from(program))
        header = self.usr / "include/quillon.hpp"
        if (SOURCES / "include/quillon.hpp").exists():
            self.assertTrue(header.exists())
            (WORK / "consumer.cpp").write_text("#include <quillon.hpp>\nint main() {}\n", encoding="ascii")
            run(CXX, "-std=c++20", WORK / "consumer.cpp", "-o", program, *flags, env=self.environment)
            run(program, env=self.environment)

    def loaded_from(self, program):
        found = re.search(r"libqlk\.so\.1 => (\S+)", run("ldd", program, env=self.environment))
        return pathlib.Path(found.group(1))

    def test_a_grid_is_run_and_joined(self):
        folder = WORK / "grid"

        def grid(*arguments):
            return run("quillon-grid", "--folder", folder, *arguments, env=self.environment, cwd=WORK)

        try:
            self.assertIn("the grid is up", grid("up"))
            state = json.loads((folder / "grid.json").read_text(encoding="utf-8"))
            for name in ("controller", "bulk"):
                program = pathlib.Path(os.readlink(f"/proc/{state[name]['pid']}/exe"))
                self.assertTrue(program.is_relative_to(self.usr), f"{name}: {program}")
            self.assertIn("ready", grid("status"))
            profile = grid("enroll", "alice").split("\n")[2]
            told = run("qlk", "connect", "--profile", profile, env=self.environment, cwd=WORK)
            self.assertRegex(told, r"session +alice@")
            self.assertRegex(told, r"account +approved")
        finally:
            grid("down")
        for name in ("server", "controller", "bulk"):
            with self.assertRaises(OSError, msg=f"the {name} still runs"):
                os.readlink(f"/proc/{state[name]['pid']}/exe")  # what is left of a process that nobody has reaped has none
        self.assertFalse(list(self.usr.rglob("__pycache__")), "running it left something in its own folder")


if __name__ == "__main__":
    unittest.main()

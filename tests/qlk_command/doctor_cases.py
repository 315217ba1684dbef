"""The cases of qlk doctor: what it finds, and what it says is to be done."""
import re
import socket
import subprocess
import tomllib

from support import Case


class Doctor(Case):
    def found(self, profile, *arguments):
        """What is wrong, by its title."""
        out, _ = self.qlk(profile, "doctor", *arguments, code=8)
        return {match[1].strip(): match[2] for match in re.finditer(r"(?m)^FAULT  (.{14})((?:.*\n {21})*.*)$", out)}

    def test_all_is_well(self):
        out, err = self.qlk(self.grid.member("ann"), "doctor")
        self.assertEqual(("", []), (err, re.findall("(?m)^(?!ok |All is well).*$", out.strip())))
        for title in ("profile", "certificate", "validity", "user", "chain", "key", "authorities", "host", "  TLS", "  server", "  accepts you"):
            self.assertRegex(out, f"(?m)^ok     {title} ")

    def test_it_leaves_a_session_alone(self):
        ann = self.grid.member("ann")
        staying = self.start(ann, "subscribe", "Weather")
        staying.until(staying.err, "subscribed")
        self.qlk(ann, "doctor")
        self.assertEqual(130, staying.end())

    def test_faults_of_ours(self):
        ann, other = self.grid.member("ann"), self.grid.enroll("other")
        (_, other_key, _), junk = other, self.file("junk", "hello\n")
        for arguments, title, text in ((("--certificate", junk), "certificate", "no certificate in"), (("--certificate", "none"), "certificate", "cannot be read"),
                                       (("--key", other_key), "key", "does not belong"), (("--key", junk), "key", "no private key"),
                                       (("--user", "eve"), "user", "made out for ann@"), (("--ca", junk), "authorities", "no certificate in"),
                                       (("--crl", junk), "revocations", "no list of revoked"),
                                       (("--ca", other[0]), "server", "no authority in ca vouches for it")):
            with self.subTest(arguments):
                found = self.found(ann, *arguments)
                self.assertIn(text, found.get(title, found))
                self.assertIn("Mend: ", found[title])
        expired = self.grid.enroll("old", "--days", "-1")[2]
        self.assertEqual({"validity"}, set(self.found(expired)) & {"validity", "user", "chain", "key"})
        self.assertIn("missing: ", self.found(self.file("empty.toml", "user = \"ann\"\n"))["profile"])
        ann.write_text(re.sub("certificate = .*\n", "", ann.read_text(encoding="utf-8")), encoding="utf-8")
        self.assertEqual({"profile"}, set(self.found(ann)))  # the rest follows from that

    def test_what_is_revoked(self):
        ann, place = self.grid.member("ann"), self.place
        issuer = self.grid.folder / "certificates"
        (place / "index").touch()
        config = self.file("ca.conf", f"[ca]\ndefault_ca = a\n[a]\ndatabase = {place}/index\ndefault_md = sha256\ndefault_crl_days = 5\n")
        authority = ("openssl", "ca", "-config", config, "-cert", issuer / "ca.pem", "-keyfile", issuer / "ca.key")

        def revoke(certificate):
            if certificate:
                subprocess.run([*authority, "-revoke", certificate], check=True, capture_output=True)
            subprocess.run([*authority, "-gencrl", "-out", place / "crl.pem"], check=True, capture_output=True)

        revoke(None)
        out, _ = self.qlk(ann, "doctor", "--crl", place / "crl.pem")
        self.assertRegex(out, "(?m)^ok     revocations ")
        self.qlk(ann, "connect", "--crl", place / "crl.pem")
        revoke(self.grid.enroll("gone")[0])
        gone = self.grid.enroll("gone")[2]
        self.assertIn("is revoked", self.found(gone, "--crl", place / "crl.pem")["revocations"])
        revoke(self.grid.folder / "server" / "certificate.pem")
        self.assertIn("its certificate is revoked", self.found(ann, "--crl", place / "crl.pem")["server"])
        self.assertIn("revoked", self.qlk(ann, "connect", "--crl", place / "crl.pem", code=2)[1])

    def test_a_certificate_that_the_server_does_not_trust(self):
        ann, stranger = self.grid.member("ann"), self.place
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", stranger / "key.pem",
                        "-out", stranger / "certificate.pem", "-days", "90", "-subj", "/CN=ann/emailAddress=ann@grid.quillon.internal"],
                       check=True, capture_output=True)
        arguments = ("--certificate", stranger / "certificate.pem", "--key", stranger / "key.pem")
        self.assertEqual({"accepts you"}, set(self.found(ann, *arguments)))
        self.qlk(ann, "connect", *arguments, code=2)

    def test_hosts(self):
        ann = self.grid.member("ann")
        with socket.create_server(("127.0.0.1", 0)) as closed:
            nobody = f"127.0.0.1:{closed.getsockname()[1]}"
        self.assertIn("refused", self.found(ann, "--host", nobody)["host"])
        host = tomllib.loads(ann.read_text(encoding="utf-8"))["hosts"]
        host = host if isinstance(host, str) else host[0]
        self.assertNotIn("trying", self.qlk(ann, "connect", "--race-hosts", "--host", nobody, "--host", host)[1])
        self.assertIn("cannot be resolved", self.found(ann, "--host", "nothing.invalid")["host"])
        self.assertIn("is no host", self.found(ann, "--host", "127.0.0.1:x")["host"])
        bulk_port = tomllib.loads(ann.read_text(encoding="utf-8"))["bulk"]["url"].split(":")[2].split("/")[0]
        self.assertIn("TLS", self.found(ann, "--timeout", "1", "--host", f"127.0.0.1:{bulk_port}"))
        with socket.create_server(("127.0.0.1", 0)) as silent:
            host = f"127.0.0.1:{silent.getsockname()[1]}"
            self.assertIn("no answer in 1 s", self.found(ann, "--timeout", "1", "--host", host)["TLS"])
            looking = self.start(ann, "doctor", "--host", host)
            looking.until(looking.out, f"host .*{host}")
            peers = [silent.accept()[0] for _ in range(2)]  # of the one before, and of this one
            peers[1].sendall(b"<stream:stream><stream:error><host-unknown/></stream:error>")
            self.assertEqual(8, looking.wait())
            self.assertIn("no server of the domain grid.quillon.internal", "".join(looking.out))
            list(map(socket.socket.close, peers))
            looking = self.start(ann, "doctor", "--host", host)
            looking.until(looking.out, f"host .*{host}")
            self.assertEqual(130, looking.end())

    def test_a_server_with_another_certificate(self):
        ann = self.grid.member("ann")
        self.addCleanup(self.restart_with)
        for options, text in ((("--name", "another.example"), "made out for another.example"), (("--days", "-1"), "expired on")):
            self.restart_with(*options)
            self.assertIn(text, self.found(ann)["server"])
            self.assertIn("certificate is refused", self.qlk(ann, "connect", code=2)[1])

    def restart_with(self, *options):
        self.grid.run("server-certificate", *options)
        self.grid.run("server-stop")
        self.grid.run("server-start", "--no-wait")

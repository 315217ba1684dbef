"""The grid's own certificate authority, and what it issues: the server's certificate and those of the users.

A user's certificate names its account twice, as the subject's emailAddress and as the XMPP otherName, because servers
differ in which of the two they read. It states no purpose, because Prosody was seen to refuse one for clients only; what keeps a
user from passing for the server is that none of its names can be a host's. Everything is made by the openssl command.
"""
import os
import secrets
import shutil
import subprocess
import tempfile

from .errors import GridError

YEARS_10 = 3650
USER_DAYS = 365
XMPP_ADDRESS = "1.3.6.1.5.5.7.8.5"


def run_openssl(*arguments):
    program = shutil.which("openssl")
    if program is None:
        raise GridError("the command openssl is missing: install the package openssl")
    done = subprocess.run([program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise GridError(f"openssl {arguments[0]} failed: {done.stderr.strip()}")
    return done.stdout


def is_valid(certificate, ca):
    """Whether the certificate was issued by this authority and lasts for another hour."""
    try:
        run_openssl("verify", "-CAfile", ca, certificate)
        run_openssl("x509", "-in", certificate, "-noout", "-checkend", "3600")
        return True
    except GridError:
        return False


def make_key(path, passphrase_file=None):
    protection = ["-aes-256-cbc", "-pass", f"file:{passphrase_file}"] if passphrase_file else []
    with open(path, "w", encoding="ascii"):
        os.chmod(path, 0o600)  # before there is anything in it
    run_openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:prime256v1", *protection, "-out", path)


class Authority:
    """The CA in <folder>/certificates; made when it is first needed."""

    def __init__(self, folder, domain):
        self.folder = os.path.join(folder, "certificates")
        self.domain = domain
        self.certificate = os.path.join(self.folder, "ca.pem")
        self.key = os.path.join(self.folder, "ca.key")

    def ensure(self):
        os.makedirs(self.folder, mode=0o700, exist_ok=True)
        if os.path.exists(self.certificate):
            return
        make_key(self.key)
        fresh = self.certificate + ".new"
        run_openssl("req", "-x509", "-new", "-key", self.key, "-subj", f"/CN=Local grid {secrets.token_hex(4)}", "-days", str(YEARS_10),
                    "-addext", "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign", "-out", fresh)
        os.replace(fresh, self.certificate)

    def issue(self, folder, subject, extensions, days, passphrase_file=None):
        """Writes <folder>/key.pem and <folder>/certificate.pem, the certificate last. days below 1: already expired."""
        self.ensure()
        os.makedirs(folder, mode=0o700, exist_ok=True)
        key, certificate = paths_of(folder)
        with tempfile.TemporaryDirectory(dir=folder) as work:
            request, settings, fresh_key, fresh = (os.path.join(work, name) for name in ("request", "extensions", "key", "certificate"))
            with open(settings, "w", encoding="utf-8") as file:
                file.write(extensions + "basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n")
            make_key(fresh_key, passphrase_file)
            passphrase = ["-passin", f"file:{passphrase_file}"] if passphrase_file else []
            run_openssl("req", "-new", "-utf8", "-key", fresh_key, *passphrase, "-subj", subject, "-out", request)
            run_openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key, "-days", str(days), "-set_serial",
                        "0x" + secrets.token_hex(16), "-extfile", settings, "-out", fresh)
            os.replace(fresh_key, key)
            os.replace(fresh, certificate)
        return certificate, key

    def issue_server(self, folder, days=YEARS_10, name=None):
        """name replaces the names under which the server may rightly be reached."""
        names = f"DNS:{name}" if name else f"DNS:{self.domain},DNS:localhost,IP:127.0.0.1"
        return self.issue(folder, f"/CN={name or self.domain}", f"subjectAltName={names}\nextendedKeyUsage=serverAuth\n", days)

    def issue_user(self, folder, user, days=USER_DAYS, passphrase_file=None):
        jid = f"{user.lower()}@{self.domain}"
        extensions = f"subjectAltName=otherName:{XMPP_ADDRESS};UTF8:{jid}\n"
        return self.issue(folder, f"/CN=Grid user {user}/emailAddress={jid}", extensions, days, passphrase_file)


def paths_of(folder):
    return os.path.join(folder, "key.pem"), os.path.join(folder, "certificate.pem")

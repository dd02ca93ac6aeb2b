"""Directories: the database of some sets, the slapd that serves it, and the server that plays its answers back."""
import contextlib
import ctypes
import hashlib
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import time

import entries


def stop_with_parent():
    """The children of a driver that crashes must not live on."""
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)


def is_listening(port):
    with socket.socket() as client:
        return client.connect_ex(("127.0.0.1", port)) == 0


def free_port():
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        return server.getsockname()[1]


class Directory:
    """The database of some sets, made once, and the servers that answer from it."""

    def __init__(self, folder, sets):
        self.folder, self.sets = folder, sets

    def stamp(self):
        """Changes when the entries or the configuration may have changed."""
        source = pathlib.Path(entries.__file__).read_text() + self.configuration()
        return hashlib.sha256(" ".join([source, *(each.name for each in self.sets)]).encode()).hexdigest()

    def is_made(self):
        stamp = self.folder / "stamp"
        return stamp.exists() and stamp.read_text() == self.stamp()

    def make(self):
        if self.is_made():
            return
        shutil.rmtree(self.folder, ignore_errors=True)
        (self.folder / "db").mkdir(parents=True)
        self.write_certificates()
        (self.folder / "slapd.conf").write_text(self.configuration())
        # A copy, because the profile that confines slapd on some systems goes by its path.
        shutil.copy("/usr/sbin/slapd", self.folder / "slapd")
        slapadd = subprocess.Popen(
            ["slapadd", "-q", "-f", self.folder / "slapd.conf"], executable=self.folder / "slapd",
            stdin=subprocess.PIPE, stderr=subprocess.PIPE, env={"LDAPNOINIT": "1"})
        with contextlib.suppress(BrokenPipeError):
            for part in self.ldif():
                slapadd.stdin.write(part.encode())
        errors = slapadd.communicate()[1]
        if slapadd.returncode != 0:
            sys.exit(f"slapadd has failed:\n{errors.decode()}")
        (self.folder / "stamp").write_text(self.stamp())

    def ldif(self):
        yield (f"dn: {entries.SUFFIX}\nobjectClass: dcObject\nobjectClass: organization\no: Example\ndc: example\n\n")
        for each in self.sets:
            yield from each.ldif()

    def configuration(self):
        schemas = "".join(f"include /etc/ldap/schema/{name}.schema\n"
                          for name in ("core", "cosine", "nis", "inetorgperson"))
        return schemas + f"""\
modulepath /usr/lib/ldap
moduleload back_mdb
sizelimit unlimited
timelimit unlimited
sortvals member
TLSCACertificateFile {self.folder}/ca.pem
TLSCertificateFile {self.folder}/server.pem
TLSCertificateKeyFile {self.folder}/server.key
database mdb
suffix "{entries.SUFFIX}"
rootdn "cn=admin,{entries.SUFFIX}"
directory {self.folder}/db
maxsize 8589934592
dbnosync
index objectClass eq
"""

    def write_certificates(self):
        def openssl(*arguments):
            subprocess.run(["openssl", *arguments], cwd=self.folder, check=True, capture_output=True)
        openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=Bench", "-days", "3650",
                "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", "server.key", "-out", "server.pem")
        shutil.copy(self.folder / "server.pem", self.folder / "ca.pem")

    @contextlib.contextmanager
    def slapd(self):
        """Yields the URLs of a running server, the plain and the TLS one."""
        self.make()
        port, tls_port = free_port(), free_port()
        urls = f"ldap://127.0.0.1:{port}", f"ldaps://127.0.0.1:{tls_port}"
        log = open(self.folder / "slapd.log", "w")
        server = subprocess.Popen(
            ["slapd", "-d", "0", "-f", self.folder / "slapd.conf", "-h", " ".join(urls)],
            executable=self.folder / "slapd", env={"LDAPNOINIT": "1"}, stderr=log, preexec_fn=stop_with_parent)
        try:
            while not is_listening(tls_port):
                if server.poll() is not None:
                    sys.exit(f"slapd has not started: {self.folder}/slapd.log")
                time.sleep(0.01)
            yield urls
        finally:
            server.terminate()
            server.wait()
            log.close()


@contextlib.contextmanager
def replay(program, *arguments):
    """Yields the URL of a running tavo_replay."""
    server = subprocess.Popen([program, *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                              preexec_fn=stop_with_parent)
    try:
        line = server.stdout.readline()
        if not line:
            sys.exit(f"{program} has not started")
        yield f"ldap://127.0.0.1:{int(line)}"
    finally:
        server.stdin.close()
        server.wait()
        server.stdout.close()

"""The directory that is measured: its entries, a slapd that serves them, and recordings of what it answers."""
import contextlib
import ctypes
import enum
import hashlib
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import time

SUFFIX = "dc=example,dc=test"
USER_ATTRIBUTES = "displayName,gecos,mail,uid"
USER_FILTER = "(objectClass=inetOrgPerson)"
GROUP_FILTER = "(objectClass=groupOfNames)"

GIVEN = ("Anna", "Jürgen", "Hélène", "Peter", "Małgorzata", "Sarah", "Дмитрий", "Martin", "Begoña", "Thomas", "伟", "Eva")
FAMILY = ("Smith", "Müller", "Lefèvre", "Johnson", "Dvořák", "Brown", "Иванова", "Weber", "Núñez", "Wilson", "王", "Berg")


class Set:
    """A part of the directory that is read as a whole: how it is asked for, and what must come."""

    def __init__(self, name, kind, entries, members=0):
        self.name, self.kind, self.entries, self.members = name, kind, entries, members
        self.base = f"ou={name},{SUFFIX}"
        self.filter = USER_FILTER if kind == "users" else GROUP_FILTER
        self.attributes = USER_ATTRIBUTES if kind == "users" else "member"

    @property
    def values(self):
        """Each user has a login, a display name and an address, and no gecos."""
        return 3 * self.entries if self.kind == "users" else self.members * self.entries

    def ldif(self):
        yield f"dn: {self.base}\nobjectClass: organizationalUnit\nou: {self.name}\n\n"
        for number in range(self.entries):
            yield self.user(number) if self.kind == "users" else self.group(number)

    def user(self, number):
        given, family = GIVEN[number % len(GIVEN)], FAMILY[number // len(GIVEN) % len(FAMILY)]
        login = f"user.{number:07}"
        return (f"dn: uid={login},{self.base}\nobjectClass: inetOrgPerson\nuid: {login}\n"
                f"{text('cn', f'{given} {family}')}{text('sn', family)}{text('givenName', given)}"
                f"{text('displayName', f'{given} {family}')}mail: {login}@mail.example.test\n"
                f"employeeNumber: {number}\n\n")

    def group(self, number):
        members = "".join(f"member: uid=user.{(number * 7 + member) % 100000:07},ou=people,{SUFFIX}\n"
                          for member in range(self.members))
        return f"dn: cn=Group {number},{self.base}\nobjectClass: groupOfNames\ncn: Group {number}\n{members}\n"


def text(attribute, value):
    """A line of LDIF. slapadd takes UTF-8 as it is."""
    return f"{attribute}: {value}\n"


def users(count):
    return Set(f"users-{count}", "users", count)


def groups(count, members):
    return Set(f"groups-{count}-of-{members}", "groups", count, members)


# The fewer and the more entries of the runs whose difference is counted.
COUNTED = {"users": (users(1000), users(5000)), "groups": (groups(100, 50), groups(500, 50))}
GROWING = [users(1000), users(10000), users(100000), users(1000000)]
LARGE_USERS = GROWING[2]


class Scale(enum.Enum):
    """How much a run measures; each has a directory of its own."""

    quick = 1
    standard = 2
    large = 3

    def compared(self):
        """The sets that all clients read."""
        return {Scale.quick: [users(10000), groups(500, 50), groups(1, 10000)],
                Scale.standard: [LARGE_USERS, groups(2000, 50), groups(1, 100000)]}[self]

    def sets(self):
        """The sets of its directory."""
        if self is Scale.large:
            return GROWING[3:]
        more = [users(1000), users(5000), groups(100, 50)] if self is Scale.quick else []
        return more + self.compared()


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
        """Changes when this file does, and with it perhaps the entries."""
        source = pathlib.Path(__file__).read_bytes()
        return hashlib.sha256(source + " ".join(each.name for each in self.sets).encode()).hexdigest()

    def is_made(self):
        stamp = self.folder / "stamp"
        return stamp.exists() and stamp.read_text() == self.stamp()

    def make(self):
        if self.is_made():
            return
        shutil.rmtree(self.folder, ignore_errors=True)
        (self.folder / "db").mkdir(parents=True)
        self.write_certificates()
        self.write_configuration()
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
        yield (f"dn: {SUFFIX}\nobjectClass: dcObject\nobjectClass: organization\no: Example\ndc: example\n\n")
        for each in self.sets:
            yield from each.ldif()

    def write_configuration(self):
        (self.folder / "slapd.conf").write_text("".join(
            f"include /etc/ldap/schema/{name}.schema\n" for name in ("core", "cosine", "nis", "inetorgperson")) + f"""\
modulepath /usr/lib/ldap
moduleload back_mdb
sizelimit unlimited
timelimit unlimited
sortvals member
TLSCACertificateFile {self.folder}/ca.pem
TLSCertificateFile {self.folder}/server.pem
TLSCertificateKeyFile {self.folder}/server.key
database mdb
suffix "{SUFFIX}"
rootdn "cn=admin,{SUFFIX}"
directory {self.folder}/db
maxsize 8589934592
dbnosync
index objectClass eq
""")

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

"""Other clients, as Debian packages them. One that isn't installed is said in the tables, by its package."""
import pathlib
import shutil
import subprocess

import measure

SCRIPTS = pathlib.Path(__file__).resolve().parent / "clients"


def succeeds(*command):
    return shutil.which(command[0]) is not None and subprocess.run(command, capture_output=True).returncode == 0


def python_has(module):
    return succeeds("/usr/bin/python3", "-c", f"import {module}")


def python(name, module, package):
    return name, package, python_has(module), lambda _: measure.Client(
        name, ["/usr/bin/python3", "-B", SCRIPTS / f"{module}_client.py"])


def go_client(build):
    """Compiled here: Go's compiler is no part of the library's build."""
    program = build / "go_ldap"
    subprocess.run(["go", "build", "-o", program, SCRIPTS / "go_ldap.go"], check=True,
                   env={"PATH": "/usr/bin:/bin", "GO111MODULE": "off", "GOPATH": "/usr/share/gocode",
                        "GOCACHE": str(build / "go-cache"), "GOFLAGS": "-buildvcs=false"})
    return measure.Client("go-ldap", [program])


def known():
    """Name, package, whether it is installed, and what makes the client."""
    return [
        ("ldapsearch", "ldap-utils", shutil.which("ldapsearch") is not None, lambda _: measure.LdapSearch()),
        python("python-ldap", "ldap", "python3-ldap"),
        python("ldap3", "ldap3", "python3-ldap3"),
        python("bonsai", "bonsai", "python3-bonsai"),
        ("Net::LDAP", "libnet-ldap-perl", succeeds("perl", "-MNet::LDAP", "-e", "1"),
         lambda _: measure.Client("Net::LDAP", ["/usr/bin/perl", SCRIPTS / "net_ldap.pl"])),
        ("PHP", "php-ldap", succeeds("php", "-r", "exit(function_exists('ldap_search') ? 0 : 1);"),
         lambda _: measure.Client("PHP", ["php", "-d", "memory_limit=-1", SCRIPTS / "php_ldap.php"])),
        ("go-ldap", "golang-github-go-ldap-ldap-dev",
         shutil.which("go") is not None and pathlib.Path("/usr/share/gocode/src/github.com/go-ldap").exists(),
         go_client),
    ]


def installed(build):
    return [make(build) for _, _, is_installed, make in known() if is_installed]


def missing():
    """The names of those that aren't installed, with their packages."""
    return {name: package for name, package, is_installed, _ in known() if not is_installed}

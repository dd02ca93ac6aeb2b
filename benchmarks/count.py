"""Counts what doesn't depend on how busy the machine is: instructions, allocations, system calls."""
import pathlib
import re
import subprocess
import tempfile

import measure


# The calls that the profile tells apart, by the pattern of their names. None of them calls another of them.
PROFILED = {"ldap_search_ext": "ldap_search_ext", "ldap_result": "ldap_result", "ldap_get_dn": "ldap_get_dn",
            "ldap_get_values_len": "ldap_get_values_len", "ldap_value_free_len": "ldap_value_free_len",
            "ldap_msgfree": "ldap_msgfree", "ldap_str2dn": "ldap_str2dn", "ldap_rdn2str": "ldap_rdn2str",
            "ldap_dnfree": "ldap_dnfree", "QString::fromUtf8": r"QString::fromUtf8\(.*?\)"}


def callgrind(read):
    """A counter that has the client run under Callgrind, which counts all instructions but the kernel's."""
    def count(client, url, part, page_size):
        with tempfile.NamedTemporaryFile() as file:
            measure.execute(client, ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={file.name}",
                                     *client.command(url, part, page_size)], part, {"QT_HASH_SEED": "0"})
            return read(file.name)
    return count


def total(file):
    return int(re.search(r"^totals: (\d+)", pathlib.Path(file).read_text(), re.M).group(1))


def by_call(file):
    """The instructions within each of the calls, and those outside of all of them."""
    lines = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", file], check=True,
                           capture_output=True, text=True).stdout
    found = inclusive(lines)
    return {**found, "all else": total(file) - sum(found.values())}


def inclusive(lines):
    """What callgrind_annotate says of each call; 0 of one that the client doesn't make."""
    def of(pattern):
        each = re.findall(rf"^ *([\d,]+) \([^)]*\) +\S*?:{pattern}(?: \[.*)?$", lines, re.M)
        return sum(int(number.replace(",", "")) for number in each)
    return {name: of(pattern) for name, pattern in PROFILED.items()}


instructions = callgrind(total)
profile = callgrind(by_call)


def system_calls(client, url, part, page_size):
    with tempfile.NamedTemporaryFile() as file:
        measure.execute(client, ["strace", "-c", "-f", "-U", "calls,name", "-o", file.name,
                                 *client.command(url, part, page_size)], part)
        return int(re.search(r"^ *(\d+) total", pathlib.Path(file.name).read_text(), re.M).group(1))


def allocations(library):
    def count(client, url, part, page_size):
        with tempfile.NamedTemporaryFile() as file:
            measure.execute(client, client.command(url, part, page_size), part,
                            {"LD_PRELOAD": str(library), "TAVO_BENCH_ALLOCATIONS": file.name})
            return int(pathlib.Path(file.name).read_text())
    return count

"""Counts what doesn't depend on how busy the machine is: instructions, allocations, system calls."""
import pathlib
import re
import tempfile

import measure


def instructions(client, url, part, page_size):
    """Those of the client's process, as Callgrind counts them: the kernel's are not among them."""
    with tempfile.NamedTemporaryFile() as file:
        measure.execute(client, ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={file.name}",
                                 *client.command(url, part, page_size)], part, {"QT_HASH_SEED": "0"})
        return int(re.search(r"^totals: (\d+)", pathlib.Path(file.name).read_text(), re.M).group(1))


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

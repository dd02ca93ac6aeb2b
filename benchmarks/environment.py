"""What the figures depend on besides the code."""
import datetime
import json
import os
import pathlib
import platform
import re
import subprocess


def output_of(*command):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True).stdout.strip()


def versions(programs):
    """Of the compiler and the libraries."""
    return json.loads(output_of(programs / "tavo_bench_versions"))


def field(path, name):
    found = re.search(rf"^{name}\s*[:=]\s*\"?([^\"\n]*)", pathlib.Path(path).read_text(), re.M)
    return found.group(1) if found else "unknown"


def machine():
    memory = int(field("/proc/meminfo", "MemTotal").split()[0]) / 2**20
    return {"processor": field("/proc/cpuinfo", "model name"), "processors": os.cpu_count(),
            "memory": f"{memory:.0f} GiB", "kernel": platform.release(), "system": field("/etc/os-release", "PRETTY_NAME")}


def commit():
    changed = output_of("git", "status", "--porcelain", "--untracked-files=no")
    return output_of("git", "rev-parse", "--short=12", "HEAD") + (" with changes" if changed else "")


def describe(programs):
    return {"machine": machine(), "versions": versions(programs), "commit": commit(),
            "date": datetime.date.today().isoformat()}

"""Compares the drawing of modules in ARCHITECTURE.md with the includes of the code.

Each line of the drawing may include what stands below it: no include runs upwards or sideways, and every file belongs
to a module of the drawing.
"""
import pathlib
import re
import subprocess
import sys

PROGRAMS = ("tools/tavo_ldap", "examples", "benchmarks", "tests", "fuzz")
# These see what is installed, and nothing else.
USERS = ("tools/tavo_ldap", "examples")


def drawn_modules():
    """The number of its line, from the top, for each module."""
    text = pathlib.Path("ARCHITECTURE.md").read_text()
    drawing = re.search(r"^## Modules\n.*?^```\n(.*?)^```", text, re.M | re.S).group(1)
    return {name: number for number, line in enumerate(drawing.splitlines())
            for name in re.findall(r"(?:ldap|support|tools)/[\w/]+|\b(?:examples|benchmarks|tests|fuzz)\b", line)}


def files():
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", "*.h", "*.cpp"],
                            check=True, capture_output=True, text=True).stdout.split()
    return [pathlib.Path(name) for name in listed if pathlib.Path(name).is_file()]


def module_of(path):
    """A program or support library is a module as a whole, of ldap/ each pair of a header and a source."""
    name = str(path.with_suffix(""))
    for folder in PROGRAMS:
        if name.startswith(folder + "/"):
            return folder
    return "/".join(name.split("/")[:2]) if name.startswith("support/") else name


def target_of(include, path):
    """The module that an include leads to; nothing for other people's headers."""
    if include.startswith("tavo_"):
        return module_of(pathlib.Path("support") / include)
    if include.startswith("ldap/"):
        return module_of(pathlib.Path(include))
    return module_of(path) if (path.parent / include).is_file() else None


def main():
    lines = drawn_modules()
    faults = []
    found = set()
    for path in files():
        module = module_of(path)
        found.add(module)
        if module not in lines:
            faults.append(f"{path}: ARCHITECTURE.md doesn't draw {module}")
            continue
        for include in re.findall(r'^#include [<"]([^>"]+)[>"]', path.read_text(), re.M):
            target = target_of(include, path)
            if target not in (None, module) and lines.get(target, 0) <= lines[module]:
                faults.append(f"{path}: includes {include}, against the drawing in ARCHITECTURE.md")
            if module in USERS and re.match("ldap/(private/|tavo_ldap_ini)", include):
                faults.append(f"{path}: includes {include}, which is not installed")
    faults += [f"ARCHITECTURE.md draws {name}, which doesn't exist" for name in sorted(set(lines) - found)]
    print("\n".join(faults))
    return bool(faults)


if __name__ == "__main__":
    sys.exit(main())

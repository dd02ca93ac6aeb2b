"""Breaks the library in one spot at a time, in a copy of the tree, and runs the tests that should notice.

usage: mutate.py [NAME]     NAME: a regular expression, matched against "LIST: SOURCE FILE: TITLE"
       mutate.py --check    only verifies that each spot is found exactly once; builds nothing

The spots are in tests/mutations/*.txt, whose README.md tells their form. Prints a line for each: the test that
failed, or SURVIVED when none did. The table is also written to build/mutate/mutations.md.
"""
import contextlib
import dataclasses
import functools
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

TREE = pathlib.Path.cwd()
COPY = TREE / "build" / "mutate"
# No warning is to be mistaken for a test that has noticed something, and nothing is to be linked for a change
# inside another library.
OPTIONS = ["-DTAVO_WERROR=OFF", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
PRESET_OPTIONS = {"dev": ["-DCMAKE_CXX_FLAGS_DEBUG=-O0"]}
# A mutation may make a test wait for ever: a test is given less time than usual, in seconds.
DEADLINE = 20
# With the deadlines of several tests that wait for each other's end.
LIMIT = 300
# Where spots are looked for.
SOURCES = ["ldap", "support", "tools"]


class Mistake(Exception):
    """What is wrong with a list, or with the tree before anything is broken."""


@dataclasses.dataclass(frozen=True)
class Check:
    """Tests of one program that should notice, in one way of building it."""
    preset: str
    program: str
    tests: str

    def __str__(self):
        return f"{'' if self.preset == 'dev' else self.preset + '/'}{self.program} {self.tests}"


@dataclasses.dataclass
class Mutation:
    list_name: str
    place: str
    title: str = ""
    file: str = ""
    old: str = ""
    new: str = ""
    checks: list = dataclasses.field(default_factory=list)

    def places(self, text):
        """The indices of the lines at which the spot begins. Indentation doesn't matter, so that code may be nested."""
        lines = [line.lstrip() for line in text.splitlines()]
        spot = [line.lstrip() for line in self.old.splitlines()]
        return [i for i, line in enumerate(lines) if line == spot[0] and lines[i:i + len(spot)] == spot]

    def applied_to(self, text):
        [place] = self.places(text)
        lines = text.splitlines()
        lines[place:place + self.old.count("\n")] = self.new.splitlines()
        return "\n".join(lines) + "\n"

    def __str__(self):
        return f"{self.list_name}: {self.file}: {self.title}"


def parse_check(text):
    program, tests = text.split(maxsplit=1)
    preset, _, program = program.rpartition("/")
    return Check(preset or "dev", program, tests)


def parse_line(mutation, line):
    if line[0] in " -":
        mutation.old += line[1:] + "\n"
    if line[0] in " +":
        mutation.new += line[1:] + "\n"
    elif line.startswith("test: "):
        mutation.checks.append(parse_check(line[6:]))
    elif line[0] != "-":
        mutation.title = f"{mutation.title} {line}".strip()


def read_lists():
    mutations = []
    for path in sorted((TREE / "tests" / "mutations").glob("*.txt")):
        current = None
        for number, line in enumerate(path.read_text().splitlines(), 1):
            if not line:
                current = None
                continue
            if current is None:
                current = Mutation(path.stem, f"{path.relative_to(TREE)}:{number}")
                mutations.append(current)
            parse_line(current, line)
    return mutations


def read_sources():
    """The text of each source file, by its name."""
    paths = [path for folder in SOURCES for path in (TREE / folder).rglob("*") if path.suffix in (".h", ".cpp")]
    return {str(path.relative_to(TREE)): path.read_text() for path in sorted(paths)}


def locate(mutation, sources):
    """Sets the mutation's file. The reason when that can't be done, or when the mutation isn't one."""
    if not (mutation.title and mutation.checks and mutation.old):
        return "a mutation needs a title, a test and a spot"
    if mutation.old == mutation.new:
        return "the change changes nothing"
    found = {name: count for name, text in sources.items() if (count := len(mutation.places(text)))}
    if sum(found.values()) == 1:
        [mutation.file] = found
        return None
    where = ", ".join(f"{name} ({count})" for name, count in found.items())
    reason = f"this spot is in several places, {where}" if found else f"this spot is nowhere in {', '.join(SOURCES)}"
    return f"{reason}:\n{mutation.old}"


def located_mutations():
    mutations = read_lists()
    sources = read_sources()
    faults = [f"{mutation.place}: {mutation.title}: {reason}" for mutation in mutations
              if (reason := locate(mutation, sources))]
    if faults:
        raise Mistake("\n".join([f"{len(faults)} of {len(mutations)} mutations are at fault", *faults]))
    return mutations


def copy_tree():
    """Also undoes what an interrupted run left behind; what is the same keeps its age and isn't compiled again."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            check=True, capture_output=True, text=True).stdout.split("\0")
    wanted = {name for name in listed if name and (TREE / name).is_file()}
    for path in [path for path in COPY.rglob("*") if path.is_file()]:
        name = str(path.relative_to(COPY))
        if not name.startswith("build/") and name not in wanted:
            path.unlink()
    for name in wanted:
        source, copy = TREE / name, COPY / name
        if not copy.exists() or copy.read_bytes() != source.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, copy)


def run(command, **options):
    return subprocess.run(command, cwd=COPY, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", **options)


@functools.cache
def configure(preset):
    done = run(["cmake", "--preset", preset, *OPTIONS, *PRESET_OPTIONS.get(preset, [])])
    if done.returncode != 0:
        raise Mistake(f"the copy can't be configured:\n{done.stdout}")


def build(check):
    """The reason when it fails."""
    done = run(["cmake", "--build", "--preset", check.preset, "--parallel", str(os.cpu_count()), "--target",
                check.program])
    errors = [line for line in done.stdout.splitlines() if "error:" in line or "undefined reference" in line]
    return "\n".join(errors[:3] or done.stdout.splitlines()[-3:]) if done.returncode != 0 else None


def run_tests(check):
    program = next(path for path in (COPY / "build" / check.preset / "tests").rglob(check.program) if path.is_file())
    suppressions = f"suppressions={COPY}/tests/support/lsan.supp:print_suppressions=0"
    environment = {**os.environ, "TAVO_TEST_DEADLINE": str(DEADLINE), "LSAN_OPTIONS": suppressions,
                   "ASAN_OPTIONS": "fast_unwind_on_malloc=0"}
    command = ["timeout", str(LIMIT), program, f"--gtest_filter={check.tests}", "--gtest_fail_fast"]
    return run(command, env=environment)


def failed_test(output):
    """The one that failed, or that was running when the process died."""
    if "LeakSanitizer: detected memory leaks" in output:
        return "LeakSanitizer"
    names = re.findall(r"^\[  FAILED  \] (\w+(?:/\w+)?\.[\w/]+)", output, re.M)
    names = names or re.findall(r"^\[ RUN      \] (\S+)", output, re.M)[-1:]
    return names[0] if names else "the end of the test program"


@functools.cache
def prove_that_all_is_well(check):
    """A test that fails anyway would notice everything."""
    configure(check.preset)
    if reason := build(check):
        raise Mistake(f"{check} can't be built:\n{reason}")
    done = run_tests(check)
    if done.returncode != 0:
        raise Mistake(f"{check} fails before anything is broken: {failed_test(done.stdout)}\n{done.stdout[-2000:]}")
    if not re.search(r"^\[  PASSED  \] [1-9]", done.stdout, re.M):
        raise Mistake(f"there are no such tests: {check}")


@contextlib.contextmanager
def broken(mutation):
    path = COPY / mutation.file
    original = path.read_text()
    path.write_text(mutation.applied_to(original))
    try:
        yield
    finally:
        path.write_text(original)


def try_mutation(mutation):
    """Whether it was caught, and by what, or the reason why not."""
    for check in mutation.checks:
        prove_that_all_is_well(check)
        with broken(mutation):
            if reason := build(check):
                return False, f"DOES NOT BUILD: {reason}"
            done = run_tests(check)
        if done.returncode != 0:
            return True, failed_test(done.stdout) + ("" if check.preset == "dev" else f" ({check.preset})")
    return False, "SURVIVED " + ", ".join(map(str, mutation.checks))


def cell(text):
    return text.replace("|", "\\|").replace("\n", " ")


def write_table(rows):
    caught = sum(row[1] for row in rows)
    lines = [f"{caught} of {len(rows)} mutations caught.", "", "| list | what was broken | noticed by |", "|---|---|---|"]
    lines += [f"| `{mutation.list_name}` | {cell(mutation.title)} | {f'`{text}`' if good else cell(text)} |"
              for mutation, good, text in rows]
    (COPY / "mutations.md").write_text("\n".join(lines) + "\n")


def check_spots():
    mutations = located_mutations()
    lines = sum(mutation.old.count("\n") for mutation in mutations)
    print(f"{len(mutations)} mutations, {lines} lines: each spot was found exactly once")


def mutate(pattern):
    wanted = re.compile(pattern)
    chosen = [mutation for mutation in located_mutations() if wanted.search(str(mutation))]
    if not chosen:
        raise Mistake("there is no such mutation")
    copy_tree()
    rows = []
    for mutation in chosen:
        started = time.monotonic()
        good, text = try_mutation(mutation)
        rows.append((mutation, good, text))
        print(f"{'ok  ' if good else 'FAIL'} {mutation.list_name}: {mutation.title}: {text}"
              f" ({time.monotonic() - started:.0f} s)", flush=True)
    write_table(rows)
    missed = sum(not good for _, good, _ in rows)
    print(f"{len(rows) - missed} of {len(rows)} mutations caught")
    return missed != 0


def main():
    argument = sys.argv[1] if len(sys.argv) > 1 else ""
    return check_spots() if argument == "--check" else mutate(argument)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Mistake as mistake:
        sys.exit(f"./dev mutate: {mistake}")

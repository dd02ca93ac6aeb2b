"""The instructions that an entry costs: they don't depend on how busy the machine is, so a change of them is the code's.

They do depend on the compiler and the libraries, so there is a baseline for each environment.
"""
import json
import pathlib

import environment
import measure
import sections

FILE = pathlib.Path(__file__).with_name("baseline.json")
TOLERANCE = 0.03


def name_of_environment(bench):
    return ", ".join(f"{name} {version}" for name, version in environment.versions(bench.programs).items())


def instructions_per_entry(bench):
    return {path: round(count) for path, count in sections.instructions_of_fetches(bench).items()}


def stored():
    return json.loads(FILE.read_text()) if FILE.exists() else {}


def write(bench):
    baselines = stored()
    baselines[name_of_environment(bench)] = instructions_per_entry(bench)
    FILE.write_text(json.dumps(baselines, indent=2, sort_keys=True) + "\n")
    print(f"{FILE.name}: {baselines[name_of_environment(bench)]}")


def verdict(path, count, allowed):
    """One line for people, and whether the count is good."""
    good = not measure.exceeds(count, allowed, TOLERANCE)
    change = count / allowed - 1
    return f"{'ok' if good else 'FAIL':4} {path}: {count} instructions per entry, baseline {allowed}, {change:+.1%}", good


def check(bench):
    """Returns the exit code."""
    name = name_of_environment(bench)
    allowed = stored().get(name)
    if allowed is None:
        print(f"{FILE.name} has no figures for {name}: make them of a good version with ./dev bench --baseline")
        return 1
    verdicts = [verdict(path, count, allowed[path]) for path, count in instructions_per_entry(bench).items()]
    print("\n".join(line for line, _ in verdicts))
    if all(good for _, good in verdicts):
        return 0
    print("The code has become slower. If that is its price, write the new figures with ./dev bench --baseline.")
    return 1

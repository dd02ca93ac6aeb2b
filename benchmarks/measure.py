"""Runs clients, checks what they have read, and reduces what they report to medians and ratios."""
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

# A client that takes longer than this is run once, not in every round.
SLOW_SECONDS = 5

# A client's turn lasts about as long, but for no more than so many runs.
TURN_SECONDS = 0.3
TURN_RUNS = 10

# The figures that are compared.
RATIOS = ("seconds", "processor")


class Client:
    """A program that reads a set: a name for the tables, and the words around the uniform arguments."""

    def __init__(self, name, words, options=(), environment=None, copies=1):
        self.name, self.words, self.options = name, [str(word) for word in words], list(options)
        self.environment = environment or {}
        # How many times it reads the set.
        self.copies = copies

    def command(self, url, part, page_size):
        return [*self.words, url, part.base, part.filter, part.attributes, str(page_size), *self.options]

    def figures(self, output):
        """What the client itself has measured."""
        return json.loads(output)


class LdapSearch(Client):
    """Prints LDIF, which is counted here. Only its process as a whole can be timed."""

    def __init__(self):
        super().__init__("ldapsearch", ["ldapsearch"])

    def command(self, url, part, page_size):
        return ["ldapsearch", "-x", "-LLL", "-o", "ldif-wrap=no", "-E", f"pr={page_size}/noprompt", "-H", url,
                "-b", part.base, part.filter, *part.attributes.split(",")]

    def figures(self, output):
        lines = [line for line in output.split("\n") if line and not line.startswith("#")]
        entries = sum(line.startswith("dn:") for line in lines)
        return {"entries": entries, "values": len(lines) - entries}


def check(client, part, figures):
    """A client that hasn't read everything ends the benchmark: its figures would be worth nothing."""
    wanted = {"entries": part.entries * client.copies, "values": part.values * client.copies}
    read = {name: figures[name] for name in wanted}
    if read != wanted:
        sys.exit(f"{client.name} has read {read} of {part.name}, and not {wanted}")


def execute(client, words, part, environment=None):
    """Runs a command of the client. Returns what the client has measured, and its standard error."""
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True,
                          env={**os.environ, **client.environment, **(environment or {})})
    if done.returncode != 0:
        sys.exit(f"{client.name} has failed: {words}\n{done.stderr}")
    figures = client.figures(done.stdout)
    check(client, part, figures)
    return figures


def run(program, client, url, part, page_size):
    """Runs a client once, by the program `measure`."""
    with tempfile.NamedTemporaryFile() as file:
        figures = execute(client, [program, file.name, *client.command(url, part, page_size)], part)
        process = json.loads(pathlib.Path(file.name).read_text())
    return {"seconds": process["process_seconds"], "processor": process["process_processor"], **process, **figures}


def medians(runs):
    """The median of each figure."""
    return {name: statistics.median(figures[name] for figures in runs) for name in runs[0]}


def ratios(turns, yardstick):
    """The median ratio to the yardstick's turn of the same round."""
    pairs = [(medians(ours), medians(its)) for ours, its in zip(turns, yardstick)]
    return {name: statistics.median(ours[name] / its[name] for ours, its in pairs) for name in RATIOS}


def summary(turns, yardstick):
    """The figures of a task. The fastest run is the one that the rest of the machine has disturbed least."""
    runs = [figures for turn in turns for figures in turn]
    return {**medians(runs), "runs": len(runs), "fastest": min(figures["seconds"] for figures in runs),
            "ratios": ratios(turns, yardstick)}


def take_turn(task):
    """Runs a task, a short one several times: the shorter a run, the more a moment's disturbance makes of it."""
    runs = [task()]
    while sum(figures["process_seconds"] for figures in runs) < TURN_SECONDS and len(runs) < TURN_RUNS:
        runs.append(task())
    return runs


def interleaved(tasks, rounds, yardstick_of, slow=SLOW_SECONDS):
    """Gives all tasks a turn, `rounds` times, so that a slow moment of the machine falls on all of them.

    `tasks` maps a name to a function that returns figures, and `yardstick_of` a name to that of the task to compare
    with. Returns the summaries by name.
    """
    turns = {name: [] for name in tasks}
    for _ in range(rounds):
        for name, task in tasks.items():
            if not turns[name] or turns[name][0][0]["seconds"] < slow:
                turns[name].append(take_turn(task))
    return {name: summary(own, turns[yardstick_of(name)]) for name, own in turns.items()}


def per_entry(small, large, small_entries, large_entries):
    """What one more entry costs: starting and connecting cost the same in both."""
    return (large - small) / (large_entries - small_entries)


def exceeds(value, baseline, tolerance):
    """Whether a value is worse than the baseline by more than the tolerance, 0.03 being three percent."""
    return value > baseline * (1 + tolerance)

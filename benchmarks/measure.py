"""Runs clients, interleaved, and reduces what they report to medians and ratios."""
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile


class Client:
    """A program that reads a set: a name for the tables, and the words that come around the uniform ones."""

    def __init__(self, name, words, options=(), environment=None):
        self.name, self.words, self.options = name, [str(word) for word in words], list(options)
        self.environment = environment or {}

    def command(self, url, part, page_size):
        return [*self.words, url, part.base, part.filter, part.attributes, str(page_size), *self.options]


def run(measure, client, url, part, page_size, expected=1):
    """Runs a client once. Ends the benchmark when it has not delivered `expected` times what the set has."""
    with tempfile.NamedTemporaryFile() as process_file:
        command = [str(measure), process_file.name, *client.command(url, part, page_size)]
        done = subprocess.run(command, capture_output=True, text=True, env={**os.environ, **client.environment})
        if done.returncode != 0:
            sys.exit(f"{client.name} has failed: {' '.join(command)}\n{done.stderr}")
        figures = {**json.loads(pathlib.Path(process_file.name).read_text()), **json.loads(done.stdout)}
    wanted = part.entries * expected, part.values * expected
    if (figures["entries"], figures["values"]) != wanted:
        sys.exit(f"{client.name} has read {figures['entries']} entries and {figures['values']} values of {part.name}, "
                 f"instead of {wanted[0]} and {wanted[1]}")
    return figures


def medians(runs):
    """The median of each figure."""
    return {name: statistics.median(figures[name] for figures in runs) for name in runs[0]}


def interleaved(tasks, rounds):
    """Runs all tasks in turn, `rounds` times, so that a slow moment of the machine falls on all of them.

    `tasks` maps a name to a function that returns figures. Returns the medians by name.
    """
    runs = {name: [] for name in tasks}
    for _ in range(rounds):
        for name, task in tasks.items():
            runs[name].append(task())
    return {name: medians(all_runs) for name, all_runs in runs.items()}


def ratio(figures, yardstick, name):
    return figures[name] / yardstick[name] if yardstick[name] else float("nan")

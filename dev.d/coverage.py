"""Compares the lines that no test reaches with tests/evidence/coverage.md, which gives the reason for each.

usage: coverage.py FOLDER, which holds gcovr's coverage.json
"""
import collections
import json
import pathlib
import re
import sys

DOCUMENT = pathlib.Path("tests/evidence/coverage.md")


def uncovered_lines(report):
    for file in json.loads(report.read_text())["files"]:
        source = pathlib.Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["count"] == 0 and not line.get("gcovr/noncode"):
                yield file["file"], source[line["line_number"] - 1].strip()


def argued_lines(reason):
    for row in DOCUMENT.read_text().splitlines():
        if cells := re.match(r"\| `(\S+)` \| `(.*?)` \| (?=\S)" + reason, row):
            yield cells[1], cells[2].replace("\\|", "|")


def show(title, lines):
    for file, text in sorted(lines.elements()):
        print(f"{title}: {file}: {text}")


def main():
    uncovered = collections.Counter(uncovered_lines(pathlib.Path(sys.argv[1]) / "coverage.json"))
    argued = collections.Counter(argued_lines(""))
    unexplained = uncovered - argued
    outdated = argued - uncovered - collections.Counter(argued_lines("By chance"))
    show("no test reaches", uncovered)
    show(f"{DOCUMENT} gives no reason for", unexplained)
    show(f"{DOCUMENT} has a reason for what is covered or gone", outdated)
    return bool(unexplained or outdated)


if __name__ == "__main__":
    sys.exit(main())

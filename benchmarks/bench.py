"""Measures the library against a plain loop over the client library and other clients: ./dev bench."""
import argparse
import contextlib
import pathlib
import sys

import directory
import measure

BUILD = pathlib.Path("build/bench").resolve()
PROGRAMS = BUILD / "benchmarks"
PAGE_SIZE = 1000

RAW = "raw loop"


def raw_loop(name=RAW, *options):
    return measure.Client(name, [PROGRAMS / "tavo_bench_raw_loop"], options)


def fetch(mode, *options, name=None):
    return measure.Client(name or f"tavo {mode}", [PROGRAMS / "tavo_bench_fetch"], [mode, *options])


class Recordings:
    """What slapd has answered about each set, recorded when first needed."""

    def __init__(self, folder, database):
        self.folder, self.database = folder, database

    def path(self, part, page_size):
        return self.folder / f"{part.name}-by-{page_size}.{self.database.stamp()[:16]}"

    def record(self, part, page_size):
        path = self.path(part, page_size)
        if path.exists():
            return path
        self.database.make()
        self.folder.mkdir(parents=True, exist_ok=True)
        unfinished = path.with_suffix(".unfinished")
        with self.database.slapd() as (url, _):
            with directory.replay(PROGRAMS / "tavo_replay", "record", unfinished, url.rsplit(":", 1)[1]) as port:
                for mode in (f"{part.kind}-streaming", "search", "simple-search"):
                    measure.run(PROGRAMS / "tavo_bench_measure", fetch(mode), f"ldap://127.0.0.1:{port}", part, page_size)
        unfinished.rename(path)
        return path


def print_rows(title, rows, yardstick):
    print(f"\n{title}\n{'':34} {'seconds':>9} {'ratio':>7} {'processor':>10} {'ratio':>7} {'first page':>11} {'MiB':>7}")
    for name, row in rows.items():
        print(f"{name:34} {row['seconds']:9.3f} {measure.ratio(row, yardstick, 'seconds'):7.2f} "
              f"{row['processor']:10.3f} {measure.ratio(row, yardstick, 'processor'):7.2f} "
              f"{row['first_page'] * 1000:8.1f} ms {row['peak_kib'] / 1024:7.1f}")


def compare(recordings, part, clients, rounds, page_size=PAGE_SIZE):
    """The medians of all clients on the recording of one set."""
    recording = recordings.record(part, page_size)
    with directory.replay(PROGRAMS / "tavo_replay", "serve", recording) as port:
        url = f"ldap://127.0.0.1:{port}"
        tasks = {client.name: lambda client=client: measure.run(
            PROGRAMS / "tavo_bench_measure", client, url, part, page_size) for client in clients}
        return measure.interleaved(tasks, rounds)


def main():
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--quick", action="store_true")
    options = parser.parse_args()
    scale = 10 if options.quick else 1
    users = directory.users(100000 // scale)
    groups = directory.groups(2000 // scale, 50)
    big_group = directory.groups(1, 100000 // scale)
    database = directory.Directory(BUILD / ("directory-quick" if options.quick else "directory"),
                                   [users, groups, big_group])
    recordings = Recordings(BUILD / "recordings", database)
    for part in (users, groups, big_group):
        clients = [raw_loop(), raw_loop("raw loop, read-ahead", "--read-ahead"),
                   fetch(f"{part.kind}-streaming"), fetch(f"{part.kind}-collecting"),
                   fetch("search"), fetch("simple-search")]
        rows = compare(recordings, part, clients, options.rounds)
        print_rows(part.name, rows, rows[RAW])


if __name__ == "__main__":
    main()

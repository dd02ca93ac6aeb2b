"""Measures the library beside a plain loop over libldap and other clients: ./dev bench.

The standard run takes some minutes, more the first time, when it makes the directories and records their answers. It
prints tables and writes everything to build/bench/result.json.

`./dev bench --micro` measures small functions instead; further arguments are Google Benchmark's. `./dev bench --peers`
first installs the packages of the other clients; without, those are measured that are installed.
"""
import argparse
import json
import pathlib
import shutil
import sys

import baseline
import entries
import environment
import goals
import report
import sections

BUILD = pathlib.Path("build/bench").resolve()


def argument_parser():
    parser = argparse.ArgumentParser(prog="./dev bench", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, help="how often each client runs; the medians count (5, with --quick 2)")
    parser.add_argument("--only", choices=sections.STANDARD, nargs="+", metavar="SECTION",
                        help=f"these sections of the standard run, of {', '.join(sections.STANDARD)}; "
                             "writes no result.json")
    which = parser.add_mutually_exclusive_group()
    which.add_argument("--quick", action="store_true", help="small lists, under a minute; to see that all is well")
    which.add_argument("--check", action="store_true",
                       help=f"compare the instructions per entry with {baseline.FILE.name}; fail when they exceed it by "
                            f"more than {baseline.TOLERANCE * 100:.0f} %%")
    which.add_argument("--baseline", action="store_true", help="write that file's figures for this environment")
    which.add_argument("--docs", action="store_true", help="write docs/performance.md from the last standard run")
    which.add_argument("--record", action="store_true", help="forget what was recorded; after a change of the requests")
    return parser


def measure_all(bench, names, output):
    result = {"environment": environment.describe(bench.programs), "rounds": bench.rounds}
    for name in names:
        result[name] = getattr(sections, name)(bench)
        print(report.as_text(report.tables_of(name, result)), flush=True)
    result["goals"] = goals.judge(result)
    print(report.as_text(report.tables_of("goals", result)))
    if output:
        output.write_text(json.dumps(result, indent=1, ensure_ascii=False) + "\n")
        print(f"All figures are in {output.relative_to(pathlib.Path.cwd())}.")


def main():
    parser = argument_parser()
    options = parser.parse_args()
    if options.only and (options.quick or options.check or options.baseline):
        parser.error("--only is for the standard run")
    if options.docs:
        return report.write_page(BUILD / "result.json", pathlib.Path("docs"))
    if options.record:
        return shutil.rmtree(BUILD / "recordings", ignore_errors=True)
    if options.quick:
        return measure_all(sections.Bench(BUILD, entries.Scale.quick, options.rounds or 2), sections.QUICK,
                           BUILD / "result-quick.json")
    bench = sections.Bench(BUILD, entries.Scale.standard, options.rounds or 5)
    if options.check:
        return baseline.check(bench)
    if options.baseline:
        return baseline.write(bench)
    return measure_all(bench, options.only or sections.STANDARD, None if options.only else BUILD / "result.json")


if __name__ == "__main__":
    sys.exit(main())

"""Measures, prints the table, draws the plots. scripts/bench builds and calls this.

usage: run.py <build directory> [--busy] [--record <file>] [--repetitions <n>] [filter]
  --busy           compare CPU time and fastest repetitions, for a machine with other work to do
  --record <file>  put the table between the markers of that document
  filter           a regular expression: only rows whose name it is found in (bench/goals.py);
                   "idle" names the daemon's own figures, "facts" the counted ones, "dns" the
                   resolver's
"""

import argparse
import json
import os
import shutil
import sys

import measure
import plots
import table

BEGIN, END = "<!-- table -->\n", "<!-- end of table -->\n"


def record(path, text):
    with open(path, encoding="utf-8") as document:
        before, _, rest = document.read().partition(BEGIN)
    after = rest.partition(END)[2]
    with open(path, "w", encoding="utf-8") as document:
        document.write(f"{before}{BEGIN}```text\n{text}```\n{END}{after}")


def main():
    parser = argparse.ArgumentParser(usage="\n" + __doc__.partition("usage: ")[2])
    parser.add_argument("build")
    parser.add_argument("--busy", action="store_true")
    parser.add_argument("--record")
    parser.add_argument("--repetitions", type=int, default=32)
    parser.add_argument("--from", dest="stored", help="a result.json of an earlier run")
    parser.add_argument("filter", nargs="?", default=".")
    arguments = parser.parse_intermixed_args()

    stored = os.path.join(arguments.build, "result.json")
    if arguments.stored:
        with open(arguments.stored, encoding="utf-8") as earlier:
            result = json.load(earlier)
    else:
        result = measure.run_all(arguments.build, arguments.filter, arguments.repetitions)
        with open(stored, "w", encoding="utf-8") as out:
            json.dump(result, out)

    text, verdicts = table.make(result, arguments.busy)
    print(text)
    with open(os.path.join(arguments.build, "table.txt"), "w", encoding="utf-8") as out:
        out.write(text)
    pictures = plots.plot_all(result, verdicts, arguments.build, arguments.busy)
    for path in pictures:
        print(f"drawn: {path}")
    if arguments.record:
        record(arguments.record, text)
        for path in pictures:  # the document shows them
            shutil.copy(path, os.path.dirname(arguments.record))
    return 1 if result["errors"] else 0


if __name__ == "__main__":
    sys.exit(main())

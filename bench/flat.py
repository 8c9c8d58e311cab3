#!/usr/bin/env python3
"""Instructions per session add and delete, and per join, move and leave of a group's member, at growing populations.

usage: flat.py BENCH_FLAT [--csv FILE] [POPULATION...]

Runs the program under callgrind and divides what it counted by the number of events.
"""

import csv
import pathlib
import re
import subprocess
import sys
import tempfile

KINDS = ("members", "sessions")
STEPS = ("add", "delete", "join", "move", "leave")


def count(program, kind, population, events):
    """Instructions per event of each step."""
    with tempfile.TemporaryDirectory() as folder:
        command = ["valgrind", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={folder}/out"]
        subprocess.run(command + [program, kind, str(population), str(events)], check=True, capture_output=True)
        found = {}
        for path in pathlib.Path(folder).iterdir():
            text = path.read_text()
            step = re.search(r"^desc: Trigger: Client Request: (\w+)$", text, re.M)
            if step:
                found[step[1]] = int(re.search(r"^totals: (\d+)$", text, re.M)[1]) / events
        return found


def main(words):
    out = None
    if "--csv" in words:
        at = words.index("--csv")
        out = words[at + 1]
        del words[at : at + 2]
    program = words[0]
    populations = [int(word) for word in words[1:]] or [100, 1000, 10000, 100000]
    rows = []
    print("flat: instructions per event, and as a ratio to the smallest population")
    for kind in KINDS:
        base = None
        for population in populations:
            found = count(program, kind, population, min(populations[0], 100))
            base = base or found
            cells = [f"{step} {found[step]:12,.0f} ({found[step] / base[step]:8.3f})" for step in STEPS]
            print(f"  {population:>7} {kind:<8}", "  ".join(cells), flush=True)
            rows.append([kind, population] + [round(found[step]) for step in STEPS])
    if out:
        with open(out, "w", newline="", encoding="ascii") as file:
            writer = csv.writer(file)
            writer.writerow(["kind", "population", *STEPS])
            writer.writerows(rows)


if __name__ == "__main__":
    main(sys.argv[1:])

#!/usr/bin/env python3
"""Sums up a coverage report: unreached.py REPORT.json EXPLAINED.md

Prints lines and branches reached, by folder, and each line that nothing reaches. EXPLAINED.md has a table with a row
for each such line, its text in the second cell; status 1 when a line has none, a row's line is gone, or app/ is below
its aims.
"""
import json
import pathlib
import re
import sys

AIMS = {"app/": (97, 90), "platform/src/": (0, 0)}  # percent of lines, of branches


def explained(path):
    rows = re.findall(r"^\| `([^`]+)` \| `(.+?)` \|", pathlib.Path(path).read_text(), re.MULTILINE)
    return {(file, text.replace("\\|", "|")) for file, text in rows}


def percent(reached, count):
    return 100 * reached / count if count else 100


def main(report, explanations):
    files = json.loads(pathlib.Path(report).read_text())["files"]
    sums = {folder: [0, 0, 0, 0] for folder in AIMS}
    unreached = {}
    for file in files:
        text = pathlib.Path(file["file"]).read_text().split("\n")
        total = next(total for folder, total in sums.items() if file["file"].startswith(folder))
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            branches = [b for b in line["branches"] if not b["throw"]]
            taken = sum(b["count"] > 0 for b in branches)
            for i, more in enumerate((line["count"] > 0, 1, taken, len(branches))):
                total[i] += more
            if line["count"] == 0:
                number = line["line_number"]
                unreached.setdefault((file["file"], text[number - 1].strip()), []).append(number)

    known = explained(explanations)
    good = True
    for folder, (lines, all_lines, taken, branches) in sums.items():
        reached = percent(lines, all_lines), percent(taken, branches)
        print(f"{folder:15}{reached[0]:6.1f}% of {all_lines} lines,{reached[1]:6.1f}% of {branches} branches")
        good = good and all(have >= aim for have, aim in zip(reached, AIMS[folder]))
    for (file, text), numbers in sorted(unreached.items()):
        note = "" if (file, text) in known else "   <- not explained"
        good = good and not note
        print(f"never reached: {file}:{','.join(map(str, numbers))}: {text}{note}")
    for file, text in sorted(known - set(unreached)):  # some are reached in some runs
        path = pathlib.Path(file)
        if not path.exists() or text not in map(str.strip, path.read_text().split("\n")):
            good = False
            print(f"{explanations}: is gone: {file}: {text}")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

#!/usr/bin/env python3
"""Analyses sources with clang-tidy: analyse.py BUILD_FOLDER FOLDER...

Most of the time goes into the headers of libraries, which every source would bring along again. So the sources of a
target are analysed together, in files that include them. Sources that do not compile together, for instance because
both have a function of one name for themselves, come into different files. Status 1 when clang-tidy finds something.
"""
import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MOST = 14  # sources in a file: enough to share the headers, few enough to keep all processors busy


class Source:
    def __init__(self, entry):
        words = shlex.split(entry["command"])
        self.path = entry["file"]
        self.target = re.search(r"CMakeFiles/([^/]+)\.dir", entry["command"]).group(1)
        self.flags = [w for w in words[1:words.index("-c")] if w != "-Werror"]
        self.flags = self.flags[: self.flags.index("-o")] if "-o" in self.flags else self.flags
        self.flags = self.flags[: self.flags.index("-MD")] if "-MD" in self.flags else self.flags


def sources(build, folders):
    """Those below `folders`, by target, each once."""
    targets, seen = {}, set()
    for entry in json.loads((build / "compile_commands.json").read_text()):
        below = any(pathlib.Path(entry["file"]).is_relative_to(ROOT / folder) for folder in folders)
        if below and entry["file"].endswith(".cpp") and entry["file"] not in seen:
            seen.add(entry["file"])
            source = Source(entry)
            targets.setdefault((source.target, tuple(source.flags)), []).append(source.path)
    return targets


def write(path, members):
    lines = [f"// NOLINTNEXTLINE(bugprone-suspicious-include)\n#include \"{member}\"\n" for member in members]
    path.write_text("".join(lines))


def clashing(path, members, flags):
    """The members at which the compiler stumbles when all are compiled together."""
    command = ["clang++", "-fsyntax-only", "-w", "-ferror-limit=0", *flags, str(path)]
    errors = subprocess.run(command, capture_output=True, text=True, check=False).stderr
    where = set(re.findall(r"^([^:\n]+):\d+:\d+: (?:fatal )?error:", errors, re.MULTILINE))
    return [member for member in members if member in where], bool(where)


def groups(name, members, flags, folder):
    """Files that together include all members."""
    out, waiting = [], sorted(members)
    while waiting:
        taken, waiting = waiting[:MOST], waiting[MOST:]
        path = folder / f"{name}-{len(out)}.cpp"
        later = []
        while len(taken) > 1:
            write(path, taken)
            stumbles, fails = clashing(path, taken, flags)
            if not fails:
                break
            moved = stumbles if stumbles and len(stumbles) < len(taken) else taken[1:]
            later += moved
            taken = [member for member in taken if member not in moved]
        write(path, taken)
        out.append(path if len(taken) > 1 else pathlib.Path(taken[0]))
        waiting = later + waiting
    return out


def analyse(path, flags):
    command = ["clang-tidy", "--quiet", str(path), "--", *flags]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return path, done.returncode, done.stdout


def main(build, *folders):
    build = pathlib.Path(build).resolve()
    folder = build / "analysis"
    folder.mkdir(exist_ok=True)
    failed = False
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        made = [(flags, pool.submit(groups, name, members, flags, folder))
                for (name, flags), members in sources(build, folders).items()]
        jobs = [pool.submit(analyse, path, flags) for flags, some in made for path in some.result()]
        for job in concurrent.futures.as_completed(jobs):
            path, status, text = job.result()
            failed = failed or status != 0
            print(f"{path}: {'found' if status else 'nothing found'}\n{text}", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

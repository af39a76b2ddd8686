#!/usr/bin/env python3
"""Keeps the folders under src/ in one order: a file may include headers of
its own folder and of the folders below it, never of one above. Prints the
order, then every include that goes up or names a folder the order does not
know, and exits 1 if there is any.

Usage: tools/check-layers.py [SRC_DIR]   (default: src/ beside tools/)
"""
import pathlib
import re
import sys

# Bottom first; each line is what the README says of the folder.
ORDER = [
    "platform",     # the operating system and the agent's closed libraries
    "support",      # plain helpers that know nothing of updates
    "records",      # the command, request, source, rule and file records
    "facts",        # version order, hashes, the agent's texts, the stop flag
    "status",       # the status record, its file and its reports
    "runner",       # starts a command line and tells how it went
    "description",  # update.ini into rules, in both formats
    "planning",     # one rule per file across sources, what each file needs
    "transfer",     # libcurl transfers: descriptions and files
    "install",      # the install stage and the client's notifications
    "frame",        # the exports, the state machine, the run, start-up
]

INCLUDE = re.compile(r'^\s*#\s*include\s+"(([^/"]+)/[^"]*)"', re.MULTILINE)


def main() -> int:
    src = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent / "src")
    rank = {name: i for i, name in enumerate(ORDER)}
    print("layers, bottom first: " + " < ".join(ORDER))
    faults = []
    for path in sorted(src.rglob("*")):
        if path.suffix not in (".h", ".cc") or not path.is_file():
            continue
        folder = path.relative_to(src).parts[0]
        if folder not in rank:
            faults.append(f"{path}: folder {folder}/ is not in the order")
            continue
        for match in INCLUDE.finditer(path.read_text(encoding="utf-8", errors="replace")):
            header, target = match.group(1), match.group(2)
            if target not in rank:
                faults.append(f"{path}: includes {header}, outside the module")
            elif rank[target] > rank[folder]:
                faults.append(f"{path}: includes {header}, from {target}/ above {folder}/")
    for fault in faults:
        print(fault)
    if faults:
        print(f"layers: {len(faults)} include(s) against the order")
        return 1
    print("layers: every include goes down or stays")
    return 0


if __name__ == "__main__":
    sys.exit(main())

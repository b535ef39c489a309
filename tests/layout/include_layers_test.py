#!/usr/bin/env python3
"""Checks that the folders under src/ include each other in one direction only.

Each folder may include itself and the folders before it in LAYERS; an include of a later folder
would let the two depend on each other. A folder missing from LAYERS fails too, so that a new
subsystem is placed on purpose.
"""
import pathlib
import re
import sys

LAYERS = ["log", "utils", "core", "net", "conf", "media", "io", "recording", "catalog", "archive", "writer", "storage",
          "app", "stats", "recorder", "web", "tools"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/', re.MULTILINE)


def violations(src: pathlib.Path):
    found = []
    for folder in sorted(p for p in src.iterdir() if p.is_dir()):
        if folder.name not in LAYERS:
            found.append(f"{folder.name}: not placed in the layers")
            continue
        allowed = set(LAYERS[: LAYERS.index(folder.name) + 1])
        for source in sorted(folder.rglob("*")):
            if source.suffix not in (".hpp", ".cpp"):
                continue
            for included in INCLUDE.findall(source.read_text()):
                if included in LAYERS and included not in allowed:
                    found.append(f"{source.relative_to(src)} includes {included}/")
    return found


def main() -> int:
    src = pathlib.Path(sys.argv[1])
    found = violations(src)
    for line in found:
        print(line)
    print(f"{len(LAYERS)} layers checked, {len(found)} include(s) against the order")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Writes COUNT inputs for the configuration parser's fuzz target, each a file line setting
allowed_sources to a random value: runs of the characters a list is made of (digits, dots,
slashes, commas, blanks), with now and then any other byte, and valid lists with one character
changed. The seed is fixed, so every run feeds the same values.

    random_allowed_sources.py DIR COUNT
"""
import pathlib
import random
import sys

LIST_CHARACTERS = "0123456789./, "


def valid_list(rng: random.Random) -> str:
    items = []
    for _ in range(rng.randint(1, 4)):
        address = ".".join(str(rng.randint(0, 255)) for _ in range(4))
        items.append(address + (f"/{rng.randint(0, 32)}" if rng.random() < 0.7 else ""))
    return ", ".join(items)


def random_value(rng: random.Random) -> bytes:
    if rng.random() < 0.5:
        text = bytearray(valid_list(rng).encode())
        at = rng.randrange(len(text))
        text[at] = rng.choice(LIST_CHARACTERS.encode() + bytes([rng.randrange(256)]))
        return bytes(text)
    value = bytearray()
    for _ in range(rng.randint(0, 40)):
        value.append(rng.randrange(256) if rng.random() < 0.05 else ord(rng.choice(LIST_CHARACTERS)))
    return bytes(value)


def main() -> int:
    directory = pathlib.Path(sys.argv[1])
    count = int(sys.argv[2])
    directory.mkdir(parents=True, exist_ok=True)
    rng = random.Random(20261124)
    for index in range(count):
        # The first byte, even, makes the target read the rest as lines of a file.
        line = b"\x00allowed_sources = " + random_value(rng).replace(b"\n", b" ") + b"\n"
        (directory / f"{index:05d}").write_bytes(line)
    return 0


if __name__ == "__main__":
    sys.exit(main())

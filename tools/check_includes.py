#!/usr/bin/python3
"""Checks that every include of the tree follows one of the allowed arrows.

usage: check_includes.py ROOT

A part may include itself and what ALLOWED grants it, of another library only the public headers.
Tests, benchmarks and fuzzers may include anything.
"""

import pathlib
import re
import sys

HOST = {"zandor/runtime", "zandor/instrument", "zandor/performance"}
ALLOWED = {
    "zandor/client": set(),
    "zandor/runtime": set(),
    "zandor/instrument": {"zandor/runtime"},
    "zandor/performance": {"zandor/instrument", "zandor/runtime", "zandor/client"},
    "vantrace/bridge": HOST,
    "vantrace/instrument": HOST | {"vantrace/bridge"},
    "vantrace/performance": HOST | {"vantrace/bridge"},
    "vantrace/module": HOST
    | {"vantrace/bridge", "vantrace/instrument", "vantrace/performance"},
    "python": HOST | {"zandor/client"},
    "examples": HOST | {"zandor/client"},
}
FREE = {"tests", "bench", "fuzz"}
SUFFIXES = {".c", ".h", ".cpp", ".hpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^">]+)[">]', re.MULTILINE)


def part_of(path):
    """The part that a path from the root belongs to: its first folder, or two where a part is
    one of several in a house."""
    folders = path.parts[:-1]
    return "/".join(folders[:2] if folders[:1] in (("zandor",), ("vantrace",)) else folders[:1])


def is_test(path):
    return path.parts[0] in FREE or "testing" in path.parts or path.stem.endswith("_test")


def target_of(root, source, name):
    """The file of the tree that an include names, as a path from the root, or None."""
    library = "/".join(name.split("/")[:2])
    candidates = [source.parent / name, root / library / "include" / name, root / name]
    for candidate in candidates:
        resolved = candidate.resolve()
        if resolved.is_file() and resolved.is_relative_to(root):
            return resolved.relative_to(root)
    return None


def is_public(path):
    return path.parts[2:3] == ("include",)


def problem(source, target):
    """Why SOURCE may not include TARGET, both paths from the root; None when it may."""
    here, there = part_of(source), part_of(target)
    if is_test(source) or here == there:
        return None
    if here not in ALLOWED:
        return f"no rule says what {here or 'the root folder'} may include"
    if there not in ALLOWED[here]:
        return f"{here} may not include {there}"
    if there.startswith("zandor/") and not is_public(target):
        return f"{target} is private to {there}"
    return None


def sources_of(root):
    for folder in sorted({part.split("/")[0] for part in ALLOWED} | FREE):
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in SUFFIXES and "node_modules" not in path.parts:
                yield path


def problems(root):
    for source in sources_of(root):
        place = source.relative_to(root)
        text = source.read_text(encoding="utf-8")
        for match in INCLUDE.finditer(text):
            target = target_of(root, source, match[1])
            reason = target and problem(place, target)
            if reason:
                line = text.count("\n", 0, match.start(1)) + 1
                yield f"{place}:{line}: {match[1]}: {reason}"


def main(root):
    found = list(problems(pathlib.Path(root).resolve()))
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))

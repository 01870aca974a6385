#!/usr/bin/python3
"""Checks what our libraries show to the dynamic loader.

usage: check_exports.py LIBRARY ...

The plug-in exports exactly its two entry points; a symbol of unique linkage, or a destructor that a
thread runs at its end, would keep it mapped after it was unloaded. A module of the Python package
exports exactly its init function. A host library exports what is its own, and instances of templates
of the standard library.
"""

import pathlib
import re
import subprocess
import sys

ENTRY_POINTS = {"ZDInitialize_vantrace", "ZDTerminate_vantrace"}
CLIENT = re.compile(r"zandor_client_\w+")
OWN = re.compile(
    r"(.*\b(instrument|kobs|zandor|[Pp]erformance|matrix|zdutil|fl|tq)::|ut[A-Z]\w+(\(|$))", re.DOTALL
)
STANDARD = re.compile(r".*\b(std|__gnu_cxx)::", re.DOTALL)


def dynamic_symbols(library):
    """Yields (name without version, binding, whether the library defines it)."""
    command = ["readelf", "--dyn-syms", "--wide", library]
    listing = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    for line in listing.splitlines():
        columns = line.split()
        if len(columns) >= 8 and columns[0].rstrip(":").isdigit():
            yield columns[7].split("@")[0], columns[4], columns[6] != "UND"


def readable(names):
    text = "\n".join(names)
    done = subprocess.run(["c++filt"], input=text, check=True, capture_output=True, text=True)
    return done.stdout.split("\n")


def differences(exported, wanted):
    for name in sorted(exported - wanted):
        yield f"exports {name}"
    for name in sorted(wanted - exported):
        yield f"does not export {name}"


def problems_of_plugin(symbols, exported):
    yield from differences(exported, ENTRY_POINTS)
    for name, binding, _ in symbols:
        if binding == "UNIQUE":
            yield f"has the unique symbol {name}"
        if name.startswith("__cxa_thread_atexit"):
            yield "registers a destructor of a thread-local variable"


def problems_of_host(symbols):
    found = [(name, binding) for name, binding, defined in symbols if defined and binding != "LOCAL"]
    for (_, binding), name in zip(found, readable(name for name, _ in found)):
        is_instance = STANDARD.match(name) and binding in ("WEAK", "UNIQUE")
        if not OWN.match(name) and not is_instance:
            yield f"exports {name}"


def problems(library):
    symbols = list(dynamic_symbols(library))
    exported = {name for name, binding, defined in symbols if defined and binding != "LOCAL"}
    file = pathlib.Path(library).name
    if module := re.match(r"(_\w+)\.cpython-", file):
        yield from differences(exported, {f"PyInit_{module[1]}"})
    elif file.startswith("libzandor_client."):
        yield from differences({name for name in exported if not CLIENT.fullmatch(name)}, set())
    elif file.startswith("libzandor_"):
        yield from problems_of_host(symbols)
    else:
        yield from problems_of_plugin(symbols, exported)


def main(libraries):
    found = [f"{library}: {text}" for library in libraries for text in problems(library)]
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

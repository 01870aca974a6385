#!/usr/bin/python3
"""Checks what the plug-in's library shows to the dynamic loader.

Exactly the two entry points may be exported. A symbol of unique linkage, or a destructor that a
thread runs at its end, would keep the library mapped after it was unloaded.
"""

import subprocess
import sys

ENTRY_POINTS = {"ZDInitialize_vantrace", "ZDTerminate_vantrace"}


def dynamic_symbols(library):
    """Yields (name without version, binding, whether the library defines it)."""
    command = ["readelf", "--dyn-syms", "--wide", library]
    listing = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    for line in listing.splitlines():
        columns = line.split()
        if len(columns) >= 8 and columns[0].rstrip(":").isdigit():
            yield columns[7].split("@")[0], columns[4], columns[6] != "UND"


def problems(library):
    symbols = list(dynamic_symbols(library))
    exported = {name for name, binding, defined in symbols if defined and binding != "LOCAL"}
    for name in sorted(exported - ENTRY_POINTS):
        yield f"exports {name}"
    for name in sorted(ENTRY_POINTS - exported):
        yield f"does not export {name}"
    for name, binding, _ in symbols:
        if binding == "UNIQUE":
            yield f"has the unique symbol {name}"
        if name.startswith("__cxa_thread_atexit"):
            yield "registers a destructor of a thread-local variable"


def main(libraries):
    found = [f"{library}: {text}" for library in libraries for text in problems(library)]
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

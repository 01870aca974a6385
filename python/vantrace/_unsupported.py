"""Which interpreters the package was built for."""

import os
import sys


def explain():
    """One sentence, for an interpreter that none of the compiled modules is for."""
    folder = os.path.dirname(os.path.abspath(__file__))
    modules = [name.split(".") for name in os.listdir(folder) if name.startswith("_core.")]
    tags = [tag for _, tag, *_, ending in modules if ending == "so"]
    built = ", ".join(sorted(tags)) or "no interpreter"
    this = sys.implementation.cache_tag or sys.implementation.name
    return f"vantrace is built for {built}; this interpreter is {this}"

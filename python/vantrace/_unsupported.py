"""Which interpreters the package was built for."""

import os
import sys


def explain():
    """One sentence, for an interpreter that none of the compiled modules is for."""
    folder = os.path.dirname(os.path.abspath(__file__))
    names = [name.split(".") for name in os.listdir(folder)]
    tags = [name[1] for name in names if name[0] == "_core" and name[-1] == "so"]
    built = ", ".join(sorted(tags)) or "no interpreter"
    this = sys.implementation.cache_tag or sys.implementation.name
    return f"vantrace is built for {built}; this interpreter is {this}"

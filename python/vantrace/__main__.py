"""The command line: python -m vantrace."""

import sys

from ._cli import console

if __name__ == "__main__":
    sys.exit(console())

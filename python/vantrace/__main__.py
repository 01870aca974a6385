"""The command line: python -m vantrace."""

import sys

from ._cli import main

if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

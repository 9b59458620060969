"""``python3 -m vorlinkit``: the command line."""

import sys

from vorlinkit.cli import main

if __name__ == "__main__":
    sys.exit(main())

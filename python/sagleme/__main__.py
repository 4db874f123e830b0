"""``python -m sagleme stubs DATABASE`` writes classes for its tables."""

from __future__ import annotations

import sys

from . import Error, open
from .stubs import source_of


def main(arguments: list[str]) -> int:
    if len(arguments) != 2 or arguments[0] != "stubs":
        print("usage: python -m sagleme stubs DATABASE", file=sys.stderr)
        return 2
    try:
        with open(arguments[1]) as db:
            print(source_of(db.schema()))
            sys.stdout.flush()
    except BrokenPipeError:
        return 1
    except (Error, OSError) as error:
        print(f"sagleme: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

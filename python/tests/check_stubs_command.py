"""Runs ``sagleme stubs`` with this Python's package, and the classes that it writes.

    check_stubs_command.py COMMAND
"""

import os
import pathlib
import subprocess
import sys
import tempfile

import sagleme as sg


class Person(sg.Table, name="Shop.Person"):
    name: str | None = sg.column(unique=True)


class Order(sg.Table, name="Shop.Order"):
    total: int = 0
    buyer: Person | None = sg.ref()


def main(command: str) -> None:
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        pathlib.Path("sagleme").mkdir()  # no package, though its name is one's
        with sg.open("sagleme/shop", models=[Person, Order]) as db:
            db.apply(allow={"instant", "background"})
        written = subprocess.run([command, "stubs", "sagleme/shop"], capture_output=True, text=True,
                                 check=True).stdout
        names = {"__name__": "written"}
        exec(written, names)
        with sg.open("sagleme/shop", models=[names["Person"], names["Order"]]) as db:
            assert not db.plan(), db.plan()
            with db.write() as tx:
                tx.new(names["Order"], total=3, buyer=tx.new(names["Person"], name="Ada"))


if __name__ == "__main__":
    main(sys.argv[1])

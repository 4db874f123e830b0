import decimal
import subprocess
import sys

from library import MODELS

import sagleme as sg


class Odd(sg.Table, name="Odd.class", indexes=[sg.Index("first", "-second", unique=True)]):
    """Says "odd" things."""

    first: int = sg.column(7, stored=True, comment="it's\nfirst")
    second: decimal.Decimal | None = sg.column(decimal.Decimal("-0.5"), stored=True)
    third: int = sg.column(0, name="id")
    fourth: "Odd | None" = sg.ref(name="with space", on_delete="cascade")
    fifth: sg.ULong = 0


class Bare(sg.Table, name="Odd.Bare", abstract=True):
    """A plain comment."""


def stubs(path):
    return subprocess.run([sys.executable, "-m", "sagleme", "stubs", path], capture_output=True,
                          text=True, check=False)


def test_the_classes_fit_their_database(make):
    make(*MODELS, Odd, Bare, path="shelf").close()
    done = stubs("shelf")
    assert done.returncode == 0, done.stderr
    assert 'name="Odd.Bare", abstract=True):\n    """A plain comment."""' in done.stdout
    assert "isbn: str | None = sg.column(unique=True)" in done.stdout
    names = {"__name__": "written"}
    exec(done.stdout, names)
    models = [each for each in names.values() if isinstance(each, type) and issubclass(each, sg.Table)]
    with sg.open("shelf", models=models) as db:
        assert str(db.plan()) == "nothing to do"


def test_what_the_command_refuses():
    assert "no database in nowhere" in stubs("nowhere").stderr
    assert stubs("nowhere").returncode == 1
    done = subprocess.run([sys.executable, "-m", "sagleme"], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 2 and "usage" in done.stderr

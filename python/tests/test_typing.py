"""mypy --strict on the package's first example, and that it finds what is wrong."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

import sagleme

SKETCH = Path(__file__).with_name("sketch.py")
PACKAGE = Path(sagleme.__file__).parent.parent
# An installed package is found by itself, and mypy refuses to be told of it.
INSTALLED = PACKAGE.name in ("site-packages", "dist-packages")
PATHS = {} if INSTALLED else {"MYPYPATH": str(PACKAGE), "PYTHONPATH": str(PACKAGE)}


def mypy(source, folder):
    (folder / "program.py").write_text(source)
    (folder / "mypy.ini").write_text("[mypy]\nplugins = sagleme.mypy_plugin\n"
                                     "[mypy-pandas.*]\nignore_missing_imports = True\n")
    done = subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--follow-imports=silent", "--no-error-summary",
         "--cache-dir", str(folder / "cache"), "program.py"], cwd=folder, capture_output=True,
        text=True, check=False,
        env={**os.environ, **PATHS})
    return done.stdout + done.stderr


def test_the_sketch_is_typed(tmp_path):
    assert mypy(SKETCH.read_text(), tmp_path) == ""


@pytest.mark.parametrize("line, words", [
    ("tx.all(Item).first().title", 'Item" of "Optional[Item]" has no attribute "title"'),
    ("ada.loans.one().titel", '"Item" has no attribute "titel"'),
    ("tx.all(5)", 'Argument 1 to "all"'),
])
def test_what_is_wrong_is_found(tmp_path, line, words):
    source = SKETCH.read_text().split("with sg.open")[0]
    source += f"\n\ndef work(tx: sg.Transaction, ada: Person) -> None:\n    {line}\n"
    said = mypy(source, tmp_path)
    assert "program.py" in said and words.split('"')[-2] in said, said


def test_the_package_is_typed(tmp_path):
    done = subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--no-error-summary", "--no-warn-return-any",
         "--ignore-missing-imports", "--cache-dir", str(tmp_path / "cache"), "-p", "sagleme"],
        cwd=tmp_path, capture_output=True, text=True, check=False,
        env={**os.environ, **PATHS})
    assert done.stdout + done.stderr == ""

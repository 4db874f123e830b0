"""The package's first example, and that the README shows it."""

import re
import subprocess
import sys
from pathlib import Path

SKETCH = Path(__file__).with_name("sketch.py")


def test_the_sketch_runs(tmp_path):
    done = subprocess.run([sys.executable, str(SKETCH)], cwd=tmp_path, capture_output=True,
                          text=True, check=False)
    assert done.returncode == 0, done.stderr
    lines = done.stdout.splitlines()
    assert lines[0].startswith("instant     create table Library.Person")
    assert "Book Invisible Cities Ada" in lines


def test_the_readme_shows_it():
    readme = SKETCH.parents[2] / "README.md"
    shown = re.findall(r"```python\n(.*?)```", readme.read_text(), re.S)
    assert SKETCH.read_text() in shown

"""The example's notebook: every cell runs, and what it shows is what is meant."""

import ast
import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

NOTEBOOK = Path(__file__).resolve().parents[2] / "examples/notebook/library.ipynb"


def run(source, names):
    """Executes a cell; its last expression is what the cell shows."""
    body = ast.parse(source).body
    last = ast.Expression(body.pop().value) if isinstance(body[-1], ast.Expr) else None
    exec(compile(ast.Module(body, []), "cell", "exec"), names)
    return None if last is None else eval(compile(last, "cell", "eval"), names)


def test_the_cells_run_from_the_top():
    pytest.importorskip("pandas")
    names = {"__name__": "notebook"}
    shown = [run("".join(cell["source"]), names)
             for cell in json.loads(NOTEBOOK.read_text())["cells"] if cell["cell_type"] == "code"]
    plan, described, _, items, loans, index, owners, changed, frame, _ = shown
    assert "create table Library.Book" in plan._repr_html_()
    assert "of the first edition" in described._repr_html_()
    assert "Library.Item.title" in index
    assert owners == [("Ada", 2), ("Grace", 2)] and changed == 2
    assert frame["pages"].tolist() == [166, 286, 265]
    assert repr(items).startswith("<query of Item") and repr(loans).startswith("<query of Item")


def test_jupyter_runs_it(tmp_path):
    pytest.importorskip("nbconvert", reason="jupyter's nbconvert is not installed")
    pytest.importorskip("ipykernel", reason="jupyter's kernel for Python is not installed")
    # The kernel that is installed runs the system's Python, which does not see a virtual environment.
    kernel = tmp_path / "jupyter/kernels/python3"
    kernel.mkdir(parents=True)
    (kernel / "kernel.json").write_text(json.dumps({
        "argv": [sys.executable, "-m", "ipykernel_launcher", "-f", "{connection_file}"],
        "display_name": "Python 3", "language": "python"}))
    subprocess.run([sys.executable, "-m", "jupyter", "nbconvert", "--to", "html", "--execute",
                    str(NOTEBOOK), "--output-dir", str(tmp_path)], check=True,
                   env={**os.environ, "JUPYTER_PATH": str(tmp_path / "jupyter")})
    page = (tmp_path / "library.html").read_text()
    for shown in (">plan</caption>", ">Library.Item \N{EN DASH} What is lent.</caption>",
                  ">index (title)</td>", ">Invisible Cities</td>", ">2 rows</caption>",
                  "<td>161</td>"):
        assert shown in page, shown

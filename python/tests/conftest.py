"""Every test runs in a process of its own (pytest-forked), and in a folder of its own."""

import pytest
from library import place

import sagleme as sg


@pytest.fixture(autouse=True)
def own_folder(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)


@pytest.fixture
def make():
    """Opens a database with models, their schema applied; closes it in the end."""
    opened = []

    def open_with(*models, path=None):
        db = sg.open(path or place(), models=models, sync=False)
        db.apply(allow={"instant", "background", "lossy"})
        opened.append(db)
        return db

    yield open_with
    for db in opened:
        db.close()

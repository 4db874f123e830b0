"""The web application of examples/shelf, through its pages."""

import importlib.util
from pathlib import Path

import pytest

APP = Path(__file__).resolve().parents[2] / "examples" / "shelf" / "app.py"


@pytest.fixture
def client():
    spec = importlib.util.spec_from_file_location("shelf_app", APP)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    app = module.make_app("shelf")
    yield app.test_client()
    app.db.close()


def test_lending(client):
    for title, kind in (("Invisible Cities", "book"), ("Solaris", "film"), ("<b>", "book")):
        answer = client.post("/items", data={"kind": kind, "title": title, "year": "1972",
                                             "author": "Calvino"})
        assert answer.status_code == 302
    listed = client.get("/items.json").json
    assert [each["title"] for each in listed if each["lender.name"]] == []
    cities = next(each["id"] for each in listed if each["title"] == "Invisible Cities")
    assert client.post(f"/items/{cities}/lend", data={"name": "Ada"}).status_code == 302
    page = client.get("/").text
    assert "Calvino, 1972" in page and ">Ada</a>" in page and "&lt;b&gt;" in page
    assert page.index("Invisible Cities") < page.index("Solaris")
    assert "Solaris" not in client.get("/?q=Cities").text
    person = page.split('href="/person/')[1].split('"')[0]
    assert "1 borrowed" in client.get(f"/person/{person}").text
    client.post(f"/items/{cities}/lend", data={"name": ""})
    assert "0 borrowed" in client.get(f"/person/{person}").text


def test_what_is_refused(client):
    assert client.get("/person/1").status_code == 404
    assert client.post("/items/1/lend", data={"name": "Ada"}).status_code == 404
    for wrong in ({"kind": "book", "year": "1972"}, {"kind": "car", "title": "x", "year": "1"},
                  {"kind": "book", "title": "x", "year": "soon"}):
        assert client.post("/items", data=wrong).status_code == 400
    assert client.get("/items.json").json == []

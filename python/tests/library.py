"""The tables that most tests use, and where their databases are."""

import os

import sagleme as sg


def place(name="database"):
    """The test's own: a directory, or a schema of the server that tools/with-postgres runs."""
    server = os.environ.get("SAGLEME_TEST_POSTGRES")
    return name if server is None else f"{server}&schema=python_{os.getpid()}_{name}"


def on_a_server():
    return "SAGLEME_TEST_POSTGRES" in os.environ


class Person(sg.Table, name="Library.Person"):
    name: str | None
    loans: sg.Back["Item", "lender"]


class Item(sg.Table, name="Library.Item"):
    title: str | None = sg.column(index=True)
    year: int = 0
    lender: Person | None = sg.ref()


class Book(Item):
    pages: int = 0
    isbn: str | None = sg.column(unique=True)


class Film(Item):
    minutes: int | None


MODELS = (Person, Item, Book, Film)


def fill(db):
    """Two people, twenty books and ten films; the films are lent to nobody."""
    with db.write() as tx:
        people = [tx.new(Person, name=name) for name in ("Ada", "Grace")]
        for i in range(20):
            tx.new(Book, title=f"Book {i:02}", year=1960 + i, pages=100 + i, isbn=f"isbn {i}",
                   lender=people[i % 2])
        for i in range(10):
            tx.new(Film, title=f"Film {i}", year=1970 + i, minutes=None if i % 2 else 90 + i)

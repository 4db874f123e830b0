"""A small web application over the package: who has borrowed which book.

PYTHONPATH=build/release/python flask --app examples/shelf/app run     (Debian: python3-flask)

Each request has a transaction of its own in the thread that serves it.
"""

import os

import flask

import sagleme as sg


class Person(sg.Table, name="Shelf.Person"):
    name: str | None = sg.column(unique=True)
    loans: sg.Back["Item", "lender"]


class Item(sg.Table, name="Shelf.Item"):
    title: str | None = sg.column(index=True)
    year: int = 0
    lender: Person | None = sg.ref()

    def details(self):
        return str(self.year)


class Book(Item):
    author: str | None

    def details(self):
        return f"{self.author or 'unknown'}, {self.year}"


class Film(Item):
    minutes: int = 0

    def details(self):
        return f"{self.year}, {self.minutes} min"


def make_app(directory=None):
    app = flask.Flask("shelf", root_path=os.path.dirname(os.path.abspath(__file__)))
    db = sg.open(directory or os.environ.get("SHELF", "shelf.db"), models=[Person, Book, Film])
    db.apply()

    @app.get("/")
    def shelf():
        wanted = flask.request.args.get("q", "")
        with db.read() as tx:
            items = tx.all(Item).order("title").prefetch("lender")
            if wanted:
                items = items.where(Item.title.contains(wanted))
            return flask.render_template("shelf.html", items=items, wanted=wanted,
                                         people=tx.all(Person).order("name").all())

    @app.get("/person/<int:id>")
    def person(id):
        with db.read() as tx:
            found = tx.get(Person, id) or flask.abort(404)
            return flask.render_template("person.html", person=found)

    @app.post("/items")
    def add():
        form = flask.request.form
        store(form.get("kind"), form)
        return flask.redirect("/")

    @db.transact
    def store(tx, kind, form):
        title = (form.get("title") or "").strip()
        year = form.get("year", "")
        if not title or not year.lstrip("-").isdigit() or kind not in ("book", "film"):
            flask.abort(400, "a title, a year and a kind are needed")
        if kind == "book":
            tx.new(Book, title=title, year=int(year), author=form.get("author") or None)
        else:
            tx.new(Film, title=title, year=int(year))

    @app.post("/items/<int:id>/lend")
    def lend(id):
        hand_over(id, flask.request.form.get("name", "").strip())
        return flask.redirect("/")

    @db.transact
    def hand_over(tx, id, name):
        item = tx.get(Item, id) or flask.abort(404)
        item.lender = None if not name else (
            tx.all(Person).where(name=name).first() or tx.new(Person, name=name))

    @app.get("/items.json")
    def items():
        with db.read() as tx:
            rows = tx.all(Item).select("id", "title", "year", "lender.name")
            return flask.jsonify([dict(zip(rows.names, row)) for row in rows])

    app.db = db
    return app


if __name__ != "__main__" and os.environ.get("FLASK_RUN_FROM_CLI"):
    app = make_app()

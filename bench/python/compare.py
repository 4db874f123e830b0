"""Python's ways to the same objects, in one run: sagleme, the sqlite3 module, SQLAlchemy, peewee.

PYTHONPATH=build/release/python /usr/bin/python3 bench/python/compare.py [objects] [rows of a column]

Prints a Markdown table: the median of five turns of each, and the ratio to each peer. Peers that are
not installed are left out (Debian: python3-sqlalchemy, python3-peewee, python3-pandas).
"""

import gc
import os
import sqlite3
import statistics
import sys
import tempfile
import time

import sagleme as sg

COUNT = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
LONG = int(sys.argv[2]) if len(sys.argv) > 2 else 1_000_000
TURNS = 5
PEOPLE = 1000


class Person(sg.Table, name="Bench.Person"):
    name: str | None


class Item(sg.Table, name="Bench.Item"):
    title: str | None = sg.column(index=True)
    year: int = sg.column(0, index=True)
    lender: Person | None = sg.ref()


class Book(Item):
    pages: int = 0


class Film(Item):
    minutes: int = 0


class Number(sg.Table, name="Bench.Number"):
    value: int = 0


def rows(of):
    return [(f"{of} number {i}", 1900 + i % 100, i) for i in range(COUNT // 2)]


def seconds(work):
    """The median of some turns, without the collector's."""
    found = []
    for _ in range(TURNS):
        gc.collect()
        begin = time.perf_counter()
        work()
        found.append(time.perf_counter() - begin)
    return statistics.median(found)


def once(work):
    gc.collect()
    begin = time.perf_counter()
    work()
    return time.perf_counter() - begin


class Sagleme:
    name = "sagleme"

    def __init__(self, folder):
        self.db = sg.open(os.path.join(folder, "sagleme"), models=[Book, Film, Number])
        self.db.apply()
        with self.db.write() as tx:
            tx.insert_many(Person, [(f"Person {i}",) for i in range(PEOPLE)])
            self.people = [each.id for each in tx.all(Person)]

    def insert(self):
        for cls in (Book, Film):
            with self.db.write() as tx:
                people = [tx.get(Person, id) for id in self.people]
                tx.insert_many(cls, [(title, year, people[i % PEOPLE], i)
                                     for title, year, i in rows(cls.__name__)])

    def measure(self):
        with self.db.read() as tx:
            objects = list(tx.all(Item))
            for each in objects:
                each.year
            found = {"first text": seconds_of_fresh(tx, objects)}
            found["again"] = seconds(lambda: [each.title for each in objects])
            found["number"] = seconds(lambda: [each.year for each in objects])
            found["empty"] = seconds(lambda: [each for each in objects])
            del objects
            found["objects"] = seconds(lambda: [(each.title, each.year) for each in tx.all(Item)])
            found["tuples"] = seconds(lambda: list(tx.all(Item).select("title", "year")))
            found["follow"] = seconds(lambda: [each.lender.name for each in tx.all(Item)])
        return found

    def column(self):
        with self.db.write() as tx:
            tx.insert_many(Number, [(i,) for i in range(LONG)])
        with self.db.read() as tx:
            return seconds(lambda: tx.all(Number).select("value").to_numpy())


def seconds_of_fresh(tx, objects):
    """Reads a text of each object for the first time, their rows being at hand."""
    def turn():
        tx._touch()
        [each.title for each in objects]
    return seconds(turn)


class Sqlite:
    name = "sqlite3"

    def __init__(self, folder):
        self.db = sqlite3.connect(os.path.join(folder, "sqlite.db"))
        self.db.executescript("""
            pragma journal_mode = wal; pragma synchronous = full;
            create table person (id integer primary key, name text);
            create table book (id integer primary key, title text, year int, lender int, pages int);
            create table film (id integer primary key, title text, year int, lender int, minutes int);
            create index a on book (title); create index b on book (year);
            create index c on film (title); create index d on film (year);
            create view item as select id, title, year, lender from book
                      union all select id, title, year, lender from film;
            create table number (id integer primary key, value int)""")
        with self.db:
            self.db.executemany("insert into person (name) values (?)",
                                [(f"Person {i}",) for i in range(PEOPLE)])

    def insert(self):
        for table, last in (("book", "pages"), ("film", "minutes")):
            with self.db:
                self.db.executemany(
                    f"insert into {table} (title, year, lender, {last}) values (?, ?, ?, ?)",
                    [(title, year, i % PEOPLE + 1, i) for title, year, i in rows(table)])

    def measure(self):
        query = "select title, year from item"
        joined = "select p.name from item i join person p on p.id = i.lender"
        found = seconds(lambda: list(self.db.execute(query)))
        return {"objects": found, "tuples": found,
                "follow": seconds(lambda: list(self.db.execute(joined)))}

    def column(self):
        import pandas

        with self.db:
            self.db.executemany("insert into number (value) values (?)",
                                ((i,) for i in range(LONG)))
        return seconds(lambda: pandas.read_sql("select value from number", self.db))


class SqlAlchemy:
    name = "SQLAlchemy"

    def __init__(self, folder):
        import sqlalchemy as sa
        from sqlalchemy import orm

        self.sa, self.orm = sa, orm
        base = orm.declarative_base()

        class Person(base):
            __tablename__ = "person"
            id = sa.Column(sa.Integer, primary_key=True)
            name = sa.Column(sa.Text)

        class Item(base):
            __tablename__ = "item"
            id = sa.Column(sa.Integer, primary_key=True)
            kind = sa.Column(sa.Text)
            title = sa.Column(sa.Text, index=True)
            year = sa.Column(sa.Integer, index=True)
            lender_id = sa.Column(sa.ForeignKey("person.id"))
            lender = orm.relationship(Person)
            __mapper_args__ = {"polymorphic_on": kind, "polymorphic_identity": "item",
                               "with_polymorphic": "*"}

        class Book(Item):
            __tablename__ = "book"
            id = sa.Column(sa.ForeignKey("item.id"), primary_key=True)
            pages = sa.Column(sa.Integer)
            __mapper_args__ = {"polymorphic_identity": "book"}

        class Film(Item):
            __tablename__ = "film"
            id = sa.Column(sa.ForeignKey("item.id"), primary_key=True)
            minutes = sa.Column(sa.Integer)
            __mapper_args__ = {"polymorphic_identity": "film"}

        self.Person, self.Item, self.Book, self.Film = Person, Item, Book, Film
        self.engine = sa.create_engine("sqlite:///" + os.path.join(folder, "alchemy.db"))
        base.metadata.create_all(self.engine)
        with orm.Session(self.engine) as session:
            session.add_all([Person(name=f"Person {i}") for i in range(PEOPLE)])
            session.commit()

    def insert(self):
        for cls, last in ((self.Book, "pages"), (self.Film, "minutes")):
            with self.orm.Session(self.engine) as session:
                session.add_all([cls(title=title, year=year, lender_id=i % PEOPLE + 1, **{last: i})
                                 for title, year, i in rows(cls.__name__)])
                session.commit()

    def measure(self):
        def objects():
            with self.orm.Session(self.engine) as session:
                return [(each.title, each.year) for each in session.query(self.Item)]

        def follow():
            with self.orm.Session(self.engine) as session:
                query = session.query(self.Item).options(self.orm.selectinload(self.Item.lender))
                return [each.lender.name for each in query]

        return {"objects": once(objects), "follow": once(follow)}


class Peewee:
    name = "peewee"

    def __init__(self, folder):
        import peewee

        self.db = db = peewee.SqliteDatabase(os.path.join(folder, "peewee.db"),
                                             pragmas={"journal_mode": "wal", "synchronous": 2})

        class Base(peewee.Model):
            class Meta:
                database = db

        class Person(Base):
            name = peewee.TextField()

        class Item(Base):
            title = peewee.TextField(index=True)
            year = peewee.IntegerField(index=True)
            lender = peewee.ForeignKeyField(Person)
            pages = peewee.IntegerField()

        self.Item = Item
        db.create_tables([Person, Item])
        Person.insert_many([(f"Person {i}",) for i in range(PEOPLE)]).execute()

    def insert(self):
        for of in ("book", "film"):
            with self.db.atomic():
                data = [(title, year, i % PEOPLE + 1, i) for title, year, i in rows(of)]
                for at in range(0, len(data), 200):
                    self.Item.insert_many(data[at:at + 200]).execute()

    def measure(self):
        return {"objects": once(lambda: [(each.title, each.year) for each in self.Item.select()])}


def engines(folder):
    for make in (Sagleme, Sqlite, SqlAlchemy, Peewee):
        try:
            yield make(folder)
        except ImportError as error:
            print(f"left out: {make.name} ({error})", file=sys.stderr)


def main():
    found = {}
    with tempfile.TemporaryDirectory() as folder:
        for engine in engines(folder):
            inserted = once(engine.insert)
            found[engine.name] = {**engine.measure(), "insert": inserted}
            if hasattr(engine, "column"):
                try:
                    found[engine.name]["column"] = engine.column()
                except ImportError as error:
                    print(f"left out: a column by {engine.name} ({error})", file=sys.stderr)
    show(found)


LABELS = {"objects": f"{COUNT:,} objects of a subtree, two attributes",
          "tuples": "the same as tuples", "follow": "follow a reference of each",
          "insert": f"insert {COUNT:,} objects", "column": f"a column of {LONG:,} rows"}


def show(found):
    ours = found["sagleme"]
    for name in ("number", "first text", "again"):
        print(f"read a {name}: {(ours[name] - ours['empty']) / COUNT * 1e9:.0f} ns")
    peers = [name for name in found if name != "sagleme"]
    print(f"\n| | sagleme | {' | '.join(peers)} |\n|---|---|{'---|' * len(peers)}")
    for key, label in LABELS.items():
        cells = []
        for peer in peers:
            theirs = found[peer].get(key)
            cells.append("" if theirs is None or key not in ours
                         else f"{theirs * 1e3:.0f} ms, x {ours[key] / theirs:.2f}")
        print(f"| {label} | {ours.get(key, 0) * 1e3:.0f} ms | {' | '.join(cells)} |")


if __name__ == "__main__":
    main()

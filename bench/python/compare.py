"""Python's ways to the same objects, in one run: sagleme, the sqlite3 module, SQLAlchemy, peewee.

PYTHONPATH=build/release/python /usr/bin/python3 bench/python/compare.py [objects] [rows of a column]

Prints two Markdown tables: the median of five turns of each and the ratio to each peer, and what was
aimed at beside what was measured. With --markdown it writes the second into docs/python.md too. Peers
that are not installed are left out (Debian: python3-sqlalchemy, python3-peewee, python3-pandas).
"""

import argparse
import gc
import os
import platform
import sqlite3
import statistics
import sys
import tempfile
import time
from pathlib import Path

import sagleme as sg


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("objects", type=int, nargs="?", default=100_000)
    parser.add_argument("rows", type=int, nargs="?", default=1_000_000, help="of a column")
    parser.add_argument("--markdown", action="store_true",
                        help="write the table of goals into docs/python.md")
    return parser.parse_args()


ARGUMENTS = arguments()
COUNT, LONG = ARGUMENTS.objects, ARGUMENTS.rows
PAGE = Path(__file__).parents[2] / "docs" / "python.md"
TURNS = 5
PEOPLE = 1000
EXPIRED = 2000  # objects that SQLAlchemy loads one by one


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

        return {"objects": once(objects), "follow": once(follow), "first text": self.first_access()}

    def first_access(self):
        """Of an object whose values the session has not read, as after each commit; for COUNT."""
        with self.orm.Session(self.engine) as session:
            found = session.query(self.Book).limit(EXPIRED).all()
            session.expire_all()
            return once(lambda: [each.title for each in found]) / len(found) * COUNT


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

        self.Item, self.Person = Item, Person
        db.create_tables([Person, Item])
        Person.insert_many([(f"Person {i}",) for i in range(PEOPLE)]).execute()

    def insert(self):
        for of in ("book", "film"):
            with self.db.atomic():
                data = [(title, year, i % PEOPLE + 1, i) for title, year, i in rows(of)]
                for at in range(0, len(data), 200):
                    self.Item.insert_many(data[at:at + 200]).execute()

    def measure(self):
        columns = (self.Item.title, self.Item.year)
        return {"objects": once(lambda: [(each.title, each.year) for each in self.Item.select()]),
                "tuples": once(lambda: list(self.Item.select(*columns).tuples())),
                "follow": once(lambda: [each.lender.name for each in self.joined()])}

    def joined(self):
        return self.Item.select(self.Item, self.Person).join(self.Person)


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
    table = goals(found)
    print(f"\n{table}")
    if ARGUMENTS.markdown:
        write_into_page(table)


LABELS = {"objects": f"{COUNT:,} objects of a subtree, two attributes",
          "tuples": "the same as tuples", "follow": "follow a reference of each",
          "insert": f"insert {COUNT:,} objects", "column": f"a column of {LONG:,} rows"}


def show(found):
    ours = found["sagleme"]
    for name in ("number", "first text", "again"):
        print(f"{READS[name]}: {nanoseconds(found, name):.0f} ns")
    peers = [name for name in found if name != "sagleme"]
    print(f"\n| | sagleme | {' | '.join(peers)} |\n|---|---|{'---|' * len(peers)}")
    for key, label in LABELS.items():
        cells = []
        for peer in peers:
            theirs = found[peer].get(key)
            cells.append("" if theirs is None or key not in ours
                         else f"{theirs * 1e3:.0f} ms, x {ours[key] / theirs:.2f}")
        print(f"| {label} | {ours.get(key, 0) * 1e3:.0f} ms | {' | '.join(cells)} |")


# What is measured, the peer whose time is the measure or None for nanoseconds, and the most.
GOALS = [
    ("number", None, 60), ("first text", None, 120), ("again", None, 60),
    ("first text", "SQLAlchemy", 0.1),
    ("objects", "sqlite3", 0.8), ("objects", "SQLAlchemy", 0.06), ("objects", "peewee", 1),
    ("tuples", "sqlite3", 0.4), ("tuples", "peewee", 1),
    ("follow", "SQLAlchemy", 0.1), ("follow", "peewee", 1),
    ("insert", "sqlite3", 0.7), ("insert", "SQLAlchemy", 0.1), ("insert", "peewee", 1),
    ("column", "sqlite3", 0.3),
]
READS = {"number": "read a number of an object in hand", "again": "read a text again",
         "first text": "read a text for the first time"}
PEERS = {"sqlite3": "the `sqlite3` module", "SQLAlchemy": "SQLAlchemy's ORM", "peewee": "peewee"}
HOW = {("first text", "SQLAlchemy"): "SQLAlchemy, of an expired object",
       ("objects", "sqlite3"): "the `sqlite3` module, tuples of a union view",
       ("objects", "SQLAlchemy"): "SQLAlchemy's ORM, polymorphic",
       ("tuples", "sqlite3"): "the `sqlite3` module, of a union view",
       ("follow", "SQLAlchemy"): "SQLAlchemy's `selectinload`",
       ("insert", "sqlite3"): "`executemany` into a WAL file with the same indexes, synced",
       ("column", "sqlite3"): "the `sqlite3` module and `pandas.read_sql`"}


def nanoseconds(found, key):
    return (found["sagleme"][key] - found["sagleme"]["empty"]) / COUNT * 1e9


def measured(found, key, peer):
    """Nanoseconds or the ratio to the peer; None if that was not measured."""
    if peer is None:
        return nanoseconds(found, key)
    theirs = found.get(peer, {}).get(key)
    if theirs is None:
        return None
    ours = found["sagleme"][key]
    return (ours - found["sagleme"]["empty"] if key in READS else ours) / theirs


def goal_line(found, key, peer, most):
    label = READS.get(key) or LABELS[key]
    aim = f"at most {most} ns" if peer is None else (
        f"{'less than' if most == 1 else f'at most {most} of'} the time of "
        f"{HOW.get((key, peer), PEERS[peer])}")
    value = measured(found, key, peer)
    if value is None:
        return f"| {label} | {aim} | not measured | |"
    shown = f"{value:.0f} ns" if peer is None else f"{value:.3g}"
    met = value < most if most == 1 and peer else value <= most
    return f"| {label} | {aim} | {shown} | {'met' if met else 'missed'} |"


def goals(found):
    """A Markdown table: what was aimed at, and what was measured."""
    lines = [goal_line(found, *goal) for goal in GOALS]
    where = f"CPython {platform.python_version()}, {COUNT:,} objects, {LONG:,} rows of a column"
    return "\n".join([f"Measured with {where}:\n", "| work | goal | measured | |",
                      "|---|---|---|---|", *lines])


def write_into_page(table):
    begin, end = "<!-- goals: written by bench/python/compare.py -->", "<!-- goals end -->"
    text = PAGE.read_text()
    head, found, rest = text.partition(begin)
    _, closed, tail = rest.partition(end)
    if not found or not closed:
        sys.exit(f"{PAGE} has no line {begin}, or none {end}")
    PAGE.write_text(f"{head}{begin}\n{table}\n{end}{tail}")


if __name__ == "__main__":
    main()

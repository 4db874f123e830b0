import pytest

import sagleme as sg


def lines(db):
    return [repr(step) for step in db.plan()]


def catalogue_ids(path):
    """The identities of columns, by name."""
    with sg.open(path) as db, db.read() as tx:
        return {each["name"]: each["id"] for table in tx._snapshot.tables.values()
                for each in table["columns"]}


def version(number):
    """The classes of one state of a program that changes."""
    if number == 1:
        class Item(sg.Table, name="Shop.Item"):
            Code: str | None = sg.column(unique=True)
            title: str | None
            weight: int = 0
    elif number == 2:
        class Item(sg.Table, name="Shop.Item"):
            isbn: str | None = sg.column(unique=True, was="Code")
            title: str | None = sg.column(index=True)
            price: float = 0.0
    else:
        class Item(sg.Table, name="Shop.Article", was="Shop.Item"):
            isbn: int = sg.column(0, was="Code")
            title: str | None = sg.column(index=True)
            price: float = 0.0
    return Item


@pytest.fixture
def shop():
    """A database of the first version with one object."""
    item = version(1)
    with sg.open("shop", models=[item], sync=False) as db:
        db.apply()
        with db.write() as tx:
            tx.new(item, Code="c1", title="Pen", weight=5)
    return item


def test_a_new_database_plans_its_tables():
    with sg.open("new", models=[version(1)]) as db:
        assert lines(db) == [
            "instant     create table Shop.Item (Code: str | None, title: str | None, weight: int)",
            "background  create unique index over Shop.Item (Code)",
        ]
        db.apply()
        assert lines(db) == [] and str(db.plan()) == "nothing to do"


def test_renames_keep_values_and_identities(shop):
    # Each state of the program is a process of its own.
    before = in_child(lambda: catalogue_ids("shop"))
    item = version(2)

    def change():
        with sg.open("shop", models=[item], sync=False) as db:
            assert lines(db) == [
                "instant     rename column Shop.Item.Code to isbn",
                "lossy       drop column Shop.Item.weight, with its values",
                "instant     add to table Shop.Item (price: float)",
                "background  create index over Shop.Item (title)",
            ]
            with pytest.raises(sg.SchemaError, match="nothing was changed; not allowed") as caught:
                db.apply()
            assert "lossy" in caught.value.hint
            assert len(lines(db)) == 4
            db.apply(allow={"instant", "background", "lossy"})
            with db.read() as tx:
                found = tx.all(item).where(isbn="c1").one()
                assert (found.title, found.price) == ("Pen", 0.0)

    in_child(change)
    after = in_child(lambda: catalogue_ids("shop"))
    assert after["isbn"] == before["Code"] and "weight" not in after


def test_tables_are_renamed_and_types_changed(shop):
    item = version(3)
    text = ("change column Shop.Article.isbn from str | None to int: 1 value of column Code of "
            "Shop.Item does not convert to long without null: \"c1\"")

    def change():
        with sg.open("shop", models=[item], sync=False) as db:
            plan = lines(db)
            assert "instant     rename table Shop.Item to Shop.Article" in plan
            assert any(line.startswith("lossy       " + text) for line in plan), plan
            with db.read() as tx, pytest.raises(sg.SchemaError, match="has no table Shop.Article"):
                tx.all(item).count()
            with pytest.raises(sg.SchemaError, match="nothing was changed; not allowed") as caught:
                db.apply()
            assert text in str(caught.value) and lines(db) == plan
            db.apply(allow={"instant", "background", "lossy"})
            assert lines(db) == []
            with db.read() as tx:
                assert (tx.all(item).one().isbn, tx.all(item).one().title) == (0, "Pen")

    in_child(change)


def test_a_was_that_names_nothing_is_ignored():
    class Item(sg.Table, was="Nothing"):
        code: str | None = sg.column(was="Neither")

    with sg.open("new", models=[Item]) as db:
        assert lines(db) == ["instant     create table Item (code: str | None)"]


def test_a_base_changes():
    class Top(sg.Table, name="T.Top"):
        pass

    class Leaf(sg.Table, name="T.Leaf"):
        size: int = 0

    class Below(Top, name="T.Leaf"):
        size: int = 0

    with sg.open("tree", models=[Top, Leaf]) as db:
        db.apply()
        with db.write() as tx:
            tx.new(Leaf, size=3)
    with sg.open("tree", models=[Below]) as db:
        assert lines(db) == ["background  move table T.Leaf under T.Top"]
        with db.read() as tx, pytest.raises(sg.SchemaError, match="does not fit table T.Leaf"):
            tx.all(Below).count()
        db.apply()
        with db.read() as tx:
            assert [each.size for each in tx.all(Top)] == [3]
            assert tx.all(Top).one() is tx.all(Below).one()


def test_indexes_that_the_class_has_no_more():
    class Before(sg.Table, name="Thing"):
        size: int = sg.column(0, index=True)

    class After(sg.Table, name="Thing"):
        size: int = 0

    with sg.open("things", models=[Before]) as db:
        db.apply()
    with sg.open("things", models=[After]) as db:
        assert lines(db) == ["instant     drop index Thing.size of table Thing"]
        db.apply()
        assert lines(db) == []


def test_classes_from_the_catalogue(make):
    class Person(sg.Table, name="Library.Person"):
        name: str | None
        best: "Person | None" = sg.ref()

    class Author(Person):
        works: int = 0

    with sg.open("people", models=[Author]) as db:
        db.apply()
        with db.write() as tx:
            ada = tx.new(Author, name="Ada", works=3)
            tx.new(Person, name="Grace", best=ada)
    with sg.open("people") as db:
        person, author = db["Library.Person"], db["Author"]
        assert issubclass(author, person) and db["Author"] is author
        with db.write() as tx:
            grace = tx.all(person).where(name="Grace").one()
            assert type(grace.best) is author and grace.best.works == 3
            grace.best.works = 4
            assert tx.all(person).where(person.best.name == "Ada").count() == 1
        with pytest.raises(sg.SchemaError, match="no table Persn"):
            db["Persn"]


def test_models_for_a_part_of_the_tables():
    class Person(sg.Table, name="P.Person"):
        name: str | None

    class Other(sg.Table, name="P.Other"):
        size: int = 0

    with sg.open("part", models=[Person, Other]) as db:
        db.apply()
        with db.write() as tx:
            tx.new(Other, size=3)
    with sg.open("part", models=[Person]) as db:
        assert lines(db) == []
        with db.read() as tx:
            assert tx.all(db["Other"]).first().size == 3
            with pytest.raises(sg.SchemaError, match="Other is no class of this database"):
                tx.all(Other).count()


def test_cyclic_references():
    class Left(sg.Table):
        right: "Right | None" = sg.ref()

    class Right(sg.Table):
        left: Left | None = sg.ref()

    with sg.open("cycle", models=[Left]) as db:
        db.apply()
        with db.write() as tx:
            left = tx.new(Left)
            left.right = tx.new(Right, left=left)
            assert left.right.left is left
            assert tx.all(Left).where(Left.right.left == left).one() is left


def test_abstract_bases():
    class Named(sg.Table, abstract=True):
        name: str | None

    class Dated(Named, abstract=True):
        year: int = 7

    class Event(Dated, name="E.Event"):
        place: str | None

    class Concert(Event):
        band: str | None

    with sg.open("events", models=[Concert]) as db:
        assert lines(db)[0] == ("instant     create table E.Event (name: str | None, year: int, "
                                "place: str | None)")
        db.apply()
        with db.write() as tx:
            made = tx.new(Concert, name="n", band="b")
            assert (made.year, made.name, made.band) == (7, "n", "b")
            assert tx.all(Event).where(Event.year == 7).one() is made
            with pytest.raises(sg.WrongType, match="Dated is abstract"):
                tx.all(Dated)


def test_adding_to_a_table_with_objects_and_descendants():
    class Item1(sg.Table, name="Item"):
        title: str | None

    class Book1(Item1, name="Book"):
        pages: int = 0

    class Item2(sg.Table, name="Item"):
        title: str | None
        year: int = 3
        other: "Book2 | None" = sg.ref()

    class Book2(Item2, name="Book"):
        pages: int = 0
        note: str | None

    def old():
        with sg.open("grow", models=[Book1], sync=False) as db:
            db.apply()
            with db.write() as tx:
                tx.new(Book1, title="t", pages=5)

    def new():
        with sg.open("grow", models=[Book2], sync=False) as db:
            db.apply()
            with db.write() as tx:
                book = tx.all(Item2).one()
                assert (book.title, book.pages, book.year, book.note) == ("t", 5, 0, None)
                book.year, book.note, book.other = 9, "n", book
                assert tx.new(Book2).year == 3
            with db.read() as tx:
                found = tx.all(Book2).where(Item2.year == 9).one()
                assert (found.title, found.pages, found.note, found.other) == ("t", 5, "n", found)

    in_child(old)
    in_child(new)


def test_missing_directories():
    with pytest.raises(sg.OpenError, match="no database in nowhere"):
        sg.open("nowhere")

    class Thing(sg.Table):
        size: int = 0

    with sg.open("made", models=[Thing]) as db:
        db.apply()
    with open("file", "w") as file:
        file.write("x")
    with pytest.raises(sg.OpenError):
        sg.open("file/below", models=[Thing])


def test_copies():
    class Thing(sg.Table):
        size: int = 0

    with sg.open("first", models=[Thing]) as db:
        db.apply()
        with db.write() as tx:
            tx.new(Thing, size=4)
        db.copy("second")
        with pytest.raises(sg.OpenError):
            db.copy("first")
        assert db.statistics()["file_size"] > 0

    def look():
        with sg.open("second", models=[Thing]) as db, db.read() as tx:
            assert tx.all(Thing).one().size == 4

    in_child(look)


def in_child(work):
    """Runs work in a process of its own, and gives back what it returns."""
    import multiprocessing

    def run(pipe):
        try:
            pipe.send((work(), None))
        except BaseException:
            import traceback

            pipe.send((None, traceback.format_exc()))

    ours, theirs = multiprocessing.Pipe()
    child = multiprocessing.get_context("fork").Process(target=run, args=(theirs,))
    child.start()
    result, failure = ours.recv()
    child.join()
    assert failure is None, failure
    return result

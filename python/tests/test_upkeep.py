import pytest
from library import MODELS, Book, Film, Item, Person, fill
from test_schema import in_child

import sagleme as sg


def test_vacuum_moves_objects(make):
    class Before(sg.Table, name="Thing"):
        size: int = 0

    class After(sg.Table, name="Thing"):
        size: int = 0
        note: str | None

    def old():
        with sg.open("things", models=[Before]) as db:
            db.apply()
            with db.write() as tx:
                tx.insert_many(Before, [(i,) for i in range(250)])

    def new():
        with sg.open("things", models=[After]) as db:
            db.apply()
            reports = []
            done = db.vacuum(batch=100, report=reports.append)
            assert done["moved"] == 250 and done["requests_done"] == done["requests"] == 1
            assert [each["moved"] for each in reports][:3] == [100, 200, 250]
            assert db.vacuum()["moved"] == 0
            with db.read() as tx:
                assert tx.all(After).where(After.size < 250).count() == 250
                with pytest.raises(sg.NestedTransaction):
                    db.vacuum()
            with pytest.raises(sg.WrongType, match="at least one object, not 0"):
                db.vacuum(batch=0)

    def stopped():
        with sg.open("things", models=[Before]) as db:
            db.apply(allow={"lossy"})

            def fail(progress):
                with pytest.raises(sg.InUse):
                    db.close()
                raise KeyError("stop")

            with pytest.raises(KeyError, match="stop"):
                db.vacuum(batch=100, report=fail)
            assert db.vacuum(batch=100, report=lambda done: False)["moved"] <= 100
            db.vacuum()
            assert db.check() == []

    for work in (old, new, stopped):
        in_child(work)


def test_check_finds_references_that_lead_nowhere(make):
    db = make(*MODELS)
    fill(db)
    assert db.check(references=True) == []
    with db.write() as tx:
        tx.delete(tx.all(Book).first().lender)
    assert db.check() == []
    found = db.check(references=True)
    assert len(found) == 10 and found[0].rule == "reference"
    assert "lender" in found[0].what


def test_descriptions(make):
    db = make(*MODELS)
    text = str(db.describe(Book))
    assert text == ("Library.Book under Library.Item\n    pages: int\n    isbn: str | None\n"
                    "    unique index (isbn)")
    assert str(db.describe()).count("Library.") > 4
    assert "<td>pages</td><td>int</td>" in db.describe(Book)._repr_html_()
    assert [table["name"] for table in db.schema()] == [
        "Library.Book", "Library.Film", "Library.Item", "Library.Person"]
    with db.read() as tx:
        assert "Library.Item" in str(db.describe(Item)) and tx.open


def test_objects_of_a_dropped_table_are_found_no_more():
    def drop():
        with sg.open("database", models=MODELS, sync=False) as db:
            db.apply()
            fill(db)
            with db.write() as tx:
                sg._core.drop_table(tx, Film._table_name)

    def look():
        with sg.open("database", models=(Person, Item, Book)) as db, db.read() as tx:
            assert tx.all(Item).count() == 20
            assert {each.title[:4] for each in tx.all(Item)} == {"Book"}
            assert tx.all(Item).where(title="Film 1").count() == 0
            assert tx.all(Item).where(year=1970).count() == 1

    in_child(drop)
    in_child(look)

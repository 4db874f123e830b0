import subprocess
import sys

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
    shown = db.describe(Book)._repr_html_()
    assert ">pages</td>" in shown and ">int</td>" in shown and "unique index (isbn)</td>" in shown
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


def test_an_index_is_built_beside_writers(make):
    class Before(sg.Table, name="Thing"):
        size: int = 0
        name: str | None

    class After(sg.Table, name="Thing", indexes=[sg.Index("size", "-name")]):
        size: int = 0
        name: str | None

    def old():
        with sg.open("things", models=[Before]) as db:
            db.apply()
            with db.write() as tx:
                tx.insert_many(Before, [(i, str(i)) for i in range(100)])

    def new():
        with sg.open("things", models=[After]) as db:
            assert len(db.plan()) == 1
            assert not db.build_index(After, "size", "-name", batch=10, report=lambda told: False)
            told = []
            assert db.build_index(After, "size", "-name", batch=10, report=told.append)
            assert told[-1]["done"] == told[-1]["total"] or told[-1]["state"] == "ready"
            assert str(db.plan()) == "nothing to do"
            assert db.build_index(After, "size", "-name")
            with db.read() as tx:
                assert "Thing.size+-name" in tx.all(After).where(After.size == 3).explain()
                with pytest.raises(sg.NestedTransaction, match="before an index is built"):
                    db.build_index(After, "size")
            with pytest.raises(sg.ModelError, match="'missing', which is no column"):
                db.build_index(After, "missing")
            with pytest.raises(KeyError, match="stop"):
                db.build_index(After, "name", report=lambda told: {}["stop"])

    for work in (old, new):
        in_child(work)


def things(rows):
    """A table with objects, in a process of its own."""
    class Thing(sg.Table):
        size: int = 0
        name: str | None

    def fill():
        with sg.open("things", models=[Thing], sync=False) as db:
            db.apply()
            with db.write() as tx:
                tx.insert_many(Thing, rows)

    in_child(fill)


class Indexed(sg.Table, name="Thing"):
    size: int = sg.column(0, index=True)
    name: str | None = sg.column(unique=True)
    weight: int = 0


def test_a_plan_is_applied_beside_writers():
    things([(i, str(i)) for i in range(200)])
    told = []

    def report(each):
        told.append(each)
        with sg.open("things") as other:  # nobody waits
            other.sql("UPDATE Thing SET size = size + 1 WHERE name = '7'")

    with sg.open("things", models=[Indexed], sync=False) as db:
        assert len(db.plan()) == 3
        plan = db.apply(beside_writers=True, objects=100, batch=50, report=report)
        assert len(plan) == 3 and str(db.plan()) == "nothing to do" and db.jobs() == []
        assert {each["index"] for each in told} == {"Thing.size", "Thing.name unique"}
        assert len(told) > 8 and all(each["state"] for each in told)
        with db.read() as tx:
            found = tx.all(Indexed).where(size=7 + len(told)).order("name")
            assert "Thing.size" in found.explain()
            assert "7" in [each.name for each in found]
        assert db.apply(beside_writers=True) == []


def test_what_was_built_beside_writers_is_kept_for_the_next_apply():
    things([(i, str(i)) for i in range(200)])
    with sg.open("things", models=[Indexed], sync=False) as db:
        assert db.apply(beside_writers=True, objects=100, batch=50, report=lambda told: False) == []
        assert len(db.plan()) == 3
        [job] = db.jobs()
        assert job.state == "cut off"
        assert len(db.apply(beside_writers=True, objects=100, batch=50)) == 3
        assert db.jobs() == []


def test_small_tables_and_other_changes_are_applied_in_one_transaction():
    things([(i, str(i)) for i in range(50)])
    told = []
    with sg.open("things", models=[Indexed], sync=False) as db:
        assert len(db.apply(beside_writers=True, report=told.append)) == 3
        assert told == []

    class Renamed(sg.Table, name="Thing"):
        size: int = 0
        title: str | None = sg.column(was="name", index=True)

    def change():
        with sg.open("things", models=[Renamed], sync=False) as db:
            db.apply(allow={"instant", "background", "lossy"}, beside_writers=True, objects=1,
                     report=told.append)
            assert str(db.plan()) == "nothing to do"
        assert told == []

    in_child(change)


def test_duplicates_found_beside_writers_leave_nothing_behind():
    things([(i, "same") for i in range(200)])
    with sg.open("things", models=[Indexed], sync=False) as db:
        with pytest.raises(sg.DuplicateKey, match="same"):
            db.apply(beside_writers=True, objects=100, batch=50)
        assert len(db.plan()) >= 2
        assert [job.kind for job in db.jobs() if "unique" in job.description] == []
        with db.read(), pytest.raises(sg.NestedTransaction):
            db.apply(beside_writers=True)
        with pytest.raises(sg.SchemaError, match="not allowed"):
            db.apply(allow={"instant"}, beside_writers=True, objects=100)
        with pytest.raises(sg.WrongType, match="at least one object, not 0"):
            db.apply(batch=0)


def test_a_unique_index_names_duplicates(make):
    db = make(*MODELS)
    fill(db)
    with pytest.raises(sg.DuplicateKey):
        db.build_index(Book, "lender", unique=True)


def test_long_work_shows_how_far_it_is(make, capfd):
    pytest.importorskip("tqdm")
    db = make(*MODELS)
    fill(db)
    db.copy("packed", progress=True)
    assert db.check(progress=True) == []
    db.vacuum(progress=True)
    assert db.build_index(Item, "year", progress=True)
    assert capfd.readouterr().err.count(" steps") >= 2
    with sg.open("packed") as copy, copy.read() as tx:
        assert tx.all(copy["Book"]).count() == 20


def test_ctrl_c_ends_a_copy_and_a_check():
    program = """
import signal, sagleme as sg
class T(sg.Table):
    a: int = 0
    text: str | None
with sg.open("big", models=[T], sync=False) as db:
    db.apply()
    with db.write() as tx:
        tx.insert_many(T, [(i, "x" * 200) for i in range(20000)])
    def ctrl_c(done, total):
        signal.raise_signal(signal.SIGINT)
    for work in (lambda: db._handle.copy("packed", ctrl_c),
                 lambda: sg._core.check("big", False, ctrl_c)):
        try:
            work()
        except KeyboardInterrupt:
            print("stopped")
    with db.read() as tx:
        print(tx.all(T).count())
"""
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          timeout=120, check=False)
    assert done.stdout == "stopped\nstopped\n20000\n", done.stderr

"""Several databases in one process."""

import os

import pytest
from library import MODELS, Book, Item, Person, fill

import sagleme as sg


def test_two_databases_with_the_same_classes(make):
    one, two = make(*MODELS, path="one"), make(*MODELS, path="two")
    fill(one)
    with two.write() as tx:
        tx.new(Book, title="alone")
    with one.read() as first, two.read() as second:
        assert (first.all(Item).count(), second.all(Item).count()) == (30, 1)
        assert second.all(Book).one().title == "alone"
        assert [each.title for each in first.all(Book).limit(1)] == ["Book 00"]


def test_databases_of_different_schemas(make):
    class Other(sg.Table, name="Other.Thing"):
        size: int = sg.column(0, index=True)

    one, two = make(Other, path="one"), make(*MODELS, path="two")
    fill(two)
    with one.write() as tx:
        tx.insert_many(Other, [(i,) for i in range(10)])
        with two.read() as second:
            assert second.all(Book).where(title="Book 03").one().year == 1963
            with pytest.raises(sg.SchemaError, match="Other is no class of this database"):
                second.all(Other).count()
        assert tx.all(Other).where(Other.size < 5).count() == 5


def test_objects_stay_in_their_database(make):
    one, two = make(*MODELS, path="one"), make(*MODELS, path="two")
    fill(one)
    with one.read() as first, two.write() as second:
        ada = first.all(Person).first()
        with pytest.raises(sg.WrongTransaction, match="belongs to another"):
            second.new(Book, lender=ada)
        same = second.new(Person)
        assert same != ada and not second.all(Book).exists()


def test_one_after_another_and_in_memory(make):
    for turn in range(3):
        with sg.open(None, models=MODELS) as db:
            db.apply()
            fill(db)
            with db.read() as tx:
                assert tx.all(Item).count() == 30, turn


@pytest.mark.skipif("SAGLEME_TEST_POSTGRES" in os.environ, reason="a server's database has no log")
def test_a_directory_has_a_log_unless_it_was_opened_without():
    def has_log(path, **options):
        with sg.open(path, models=MODELS, **options) as db:
            return db.statistics()["log"]

    assert has_log("first") and has_log("first", log=False)
    assert not has_log("second", log=False) and not has_log("second")
    assert has_log("second", log=True) and has_log("second")

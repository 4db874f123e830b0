import pytest
from library import MODELS, Book, Film, Item, Person, fill

import sagleme as sg


@pytest.fixture
def tx(make):
    db = make(*MODELS)
    fill(db)
    with db.write() as tx:
        yield tx


def test_an_exception_takes_back_the_block(tx):
    book = tx.all(Book).first()
    with pytest.raises(ZeroDivisionError), tx.savepoint():
        book.title = "changed"
        made = tx.new(Person, name="nobody")
        tx.delete(tx.all(Film).first())
        assert book.title == "changed"
        1 / 0
    assert book.title == "Book 00"
    with pytest.raises(sg.DeletedError, match=f"Person {made.id} was deleted or moved to another table, or made behind a"):
        made.name
    assert tx.get(Person, made.id) is None
    assert tx.all(Film).count() == 10 and tx.all(Person).count() == 2


def test_what_sql_made_is_taken_back(tx):
    with tx.savepoint() as point:
        tx.sql("INSERT INTO Person(name) VALUES('nobody')")
        made = tx.all(Person).where(name="nobody").one()
        tx.insert_many(Person, [{"name": "somebody"}])
        many = tx.all(Person).where(name="somebody").one()
        point.rollback()
    for each in (made, many):
        assert not each._live
        with pytest.raises(sg.DeletedError, match="made behind a savepoint that was rolled back"):
            each.name


def test_an_object_is_of_its_old_table_again(tx):
    id = tx.all(Book).first().id
    with tx.savepoint() as point:
        tx.sql("UPDATE Item SET _table = 'Library.Film' WHERE _oid = ?", [id])
        film = tx.get(Film, id)
        assert film.minutes is None
        point.rollback()
    with pytest.raises(sg.DeletedError, match=f"Film {id} was deleted or moved to another table"):
        film.minutes
    assert tx.get(Book, id).pages == 100


def test_what_is_kept(tx):
    with tx.savepoint():
        made = tx.new(Person, name="kept")
    assert made.name == "kept" and tx.all(Person).where(name="kept").one() is made


def test_savepoints_nest_and_repeat(tx):
    book = tx.all(Book).first()
    with tx.savepoint() as outer:
        book.pages = 1
        with pytest.raises(KeyError), tx.savepoint():
            book.pages = 2
            raise KeyError
        assert book.pages == 1
        outer.rollback()
        assert book.pages == 100
        made = tx.new(Person, name="again")
        outer.rollback()
        with pytest.raises(sg.DeletedError):
            made.name
    assert book.pages == 100


def test_a_walk_that_began_behind_the_savepoint(tx):
    with tx.savepoint() as point:
        scan = iter(tx.all(Item))
        next(scan)
        point.rollback()
        with pytest.raises(sg.EndedError):
            list(scan)
    before = iter(tx.all(Book))
    next(before)
    with tx.savepoint() as point:
        tx.new(Book)
        point.rollback()
    assert len(list(before)) == 19


def test_a_savepoint_that_has_ended(tx):
    point = tx.savepoint()
    point.release()
    with pytest.raises(sg.EndedError):
        point.rollback()
    tx.rollback()
    with pytest.raises(sg.EndedError):
        tx.savepoint()

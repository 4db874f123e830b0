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


def test_what_was_deleted_is_there_again(tx):
    book, film = tx.all(Book).first(), tx.all(Film).first()
    early = tx.all(Film).where(title="Film 3").one()
    tx.delete(early)
    with tx.savepoint() as point:
        tx.delete(book)
        tx.sql("DELETE FROM Film")
        assert not book._live and not film._live
        for _ in range(2):
            point.rollback()
            assert book._live and book.title == "Book 00" and tx.get(Book, book.id) is book
            assert film._live and film.minutes == 90 and tx.all(Film).first() is film
            tx.delete(book)
        point.rollback()
    assert not early._live, "deleted before"
    book.title = "written"
    assert tx.all(Book).where(title="written").one() is book
    tx.delete(book)
    with pytest.raises(sg.DeletedError):
        book.title


def test_what_was_deleted_in_nested_savepoints(tx):
    first, second, third = tx.all(Book).limit(3)
    with tx.savepoint() as outer:
        tx.delete(first)
        with tx.savepoint() as inner:
            tx.delete(second)
            inner.rollback()
            assert second._live and not first._live
            tx.delete(second)
        with tx.savepoint():
            tx.delete(third)
        made = tx.new(Book, title="made")
        tx.delete(made)
        outer.rollback()
    assert [each.title for each in (first, second, third)] == ["Book 00", "Book 01", "Book 02"]
    assert tx.all(Book).limit(3).all() == [first, second, third]
    assert tx.all(Book).first() is first and not made._live


def test_an_object_that_was_forgotten_comes_back_as_another(tx):
    id = tx.all(Book).first().id
    with tx.savepoint() as point:
        tx.delete(tx.get(Book, id))
        live = tx.live
        point.rollback()
        assert tx.live == live
    book = tx.get(Book, id)
    assert book.title == "Book 00" and tx.live == live + 1


def test_what_rules_delete_is_there_again(make):
    class Shelf(sg.Table):
        name: str | None

    class Volume(sg.Table):
        shelf: Shelf | None = sg.ref(on_delete="cascade")

    with make(Shelf, Volume).write() as tx:
        shelf = tx.new(Shelf, name="upper")
        volumes = [tx.new(Volume, shelf=shelf) for _ in range(3)]
        with pytest.raises(KeyError), tx.savepoint():
            tx.delete(shelf)
            assert not any(each._live for each in volumes)
            raise KeyError
        assert shelf.name == "upper" and all(each.shelf is shelf for each in volumes)
        assert tx.all(Volume).all() == volumes


def test_an_object_that_sql_moves_there_and_back(tx):
    book = tx.all(Book).first()
    tx.sql("UPDATE Item SET _table = 'Library.Film' WHERE _oid = ?", [book.id])
    film = tx.get(Film, book.id)
    tx.sql("UPDATE Item SET _table = 'Library.Book' WHERE _oid = ?", [book.id])
    assert book._live and book.title == "Book 00" and tx.get(Book, book.id) is book
    assert not film._live


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

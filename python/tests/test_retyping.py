"""Objects that become objects of another class."""

import subprocess
import sys
import threading

import pytest
from library import MODELS, Book, Film, Item, Person, fill, place

import sagleme as sg


class Rare(Book):
    signer: Person | None = sg.ref()


class Anything(sg.Table, name="Library.Anything", abstract=True):
    note: str | None


class Note(Anything):
    pages: int = 0
    text: str | None = sg.column(unique=True)


class Loan(sg.Table, name="Library.Loan"):
    book: Book | None = sg.ref()
    item: Item | None = sg.ref()


EVERY = (*MODELS, Rare, Anything, Note, Loan)


@pytest.fixture
def db(make):
    made = make(*EVERY)
    fill(made)
    return made


@pytest.fixture
def tx(db):
    with db.write() as tx:
        yield tx


def ids_of(db, cls, **equals):
    with db.read() as tx:
        return [each.id for each in tx.all(cls).where(**equals)]


def test_an_object_becomes_one_of_another_class(db, tx):
    book = tx.all(Book).where(title="Book 03").one()
    ada = book.lender
    film = tx.retype(book, Film, allow_losses=True, minutes=95, year=1999)
    assert type(film) is Film and film.id == book.id
    assert (film.title, film.year, film.minutes, film.lender) == ("Book 03", 1999, 95, ada)
    assert tx.get(Film, film.id) is film and tx.get(Book, film.id) is None
    assert not book._live
    with pytest.raises(sg.DeletedError, match="moved to another table"):
        book.title
    assert tx.all(Book).where(isbn="isbn 3").all() == []
    assert tx.all(Item).where(title="Book 03").one() is film
    assert film in ada.loans.all()
    tx.commit()
    assert len(ids_of(db, Film)) == 11 and db.check() == []


def test_columns_that_are_new_are_empty_and_defaults_are_for_new_objects(tx):
    film = tx.all(Film).first()
    book = tx.retype(film, Book, allow_losses=True)
    assert (book.pages, book.isbn) == (0, None)


def test_the_class_that_it_has_is_no_change_but_values_are_written(tx):
    book = tx.all(Book).first()
    assert tx.retype(book, Book) is book
    assert tx.retype(book, Book, pages=5, title="five") is book
    assert (book.pages, book.title) == (5, "five")
    with pytest.raises(sg.WrongType, match="pages"):
        tx.retype(book, Book, title="six", pages="many")
    assert (book.pages, book.title) == (5, "five")


def test_a_class_below_takes_all_values_along(tx):
    book = tx.all(Book).first()
    ada = tx.all(Person).first()
    rare = tx.retype(book, Rare, signer=ada)
    assert (rare.title, rare.pages, rare.isbn, rare.signer) == ("Book 00", 100, "isbn 0", ada)
    with pytest.raises(sg.SchemaError, match="column signer of Library.Rare"):
        tx.retype(rare, Book)
    rare.signer = None
    assert tx.retype(rare, Book) is book, "the object of before"
    assert book._live and not rare._live and book.title == "Book 00"


def test_zeros_that_nobody_wrote_stay_where_null_may_be(make):
    class Draft(sg.Table, name="Zero.Draft"):
        pages: int = 0
        price: float = 0.0

    class Sketch(sg.Table, name="Zero.Sketch"):
        title: str | None

    class Print(sg.Table, name="Zero.Print"):
        pages: int | None = sg.column(unique=True)
        price: float | None = sg.column(index=True)

    db = make(Draft, Sketch, Print)
    with db.write() as tx:
        sketches = [tx.new(Sketch) for _ in range(2)]
        drafts = [tx.retype(each, Draft) for each in sketches]
        assert [(each.pages, each.price) for each in drafts] == [(0, 0.0)] * 2
        made = tx.retype(drafts[0], Print, by_name=True)
        assert (made.pages, made.price) == (0, 0.0)
        assert tx.all(Print).where(price=0.0).one() is made
        with pytest.raises(sg.DuplicateKey):
            tx.retype(drafts[1], Print, by_name=True)
        assert tx.retype(drafts[1], Print, by_name=True, pages=3).price == 0.0
    assert db.check() == []


def test_values_that_would_be_lost_are_refused(tx):
    book = tx.all(Book).first()
    with pytest.raises(sg.SchemaError, match="has a value in column isbn of Library.Book") as told:
        tx.retype(book, Film, minutes=90)
    assert "allow_losses=True" in told.value.hint
    assert book._live and book.pages == 100 and tx.get(Book, book.id) is book
    with pytest.raises(sg.SchemaError, match="would be lost"):
        tx.retype(book, Note, by_name=True)
    note = tx.retype(book, Note, by_name=True, allow_losses=True, text="was a book")
    assert (note.pages, note.text, note.note) == (100, "was a book", None)


def test_references_that_no_longer_fit(tx):
    book = tx.all(Book).first()
    loan = tx.new(Loan, book=book, item=book)
    with pytest.raises(sg.SchemaError, match=f"object {loan.id} refers to object {book.id}") as told:
        tx.retype(book, Film, allow_losses=True)
    assert "references=" in told.value.hint and book._live
    with pytest.raises(sg.WrongType, match="'refuse', 'null', 'keep', not 'drop'"):
        tx.retype(book, Film, allow_losses=True, references="drop")
    film = tx.retype(book, Film, allow_losses=True, references="null")
    assert loan.book is None and loan.item is film
    again = tx.retype(film, Book, allow_losses=True)
    assert again is book
    loan.book = again
    film = tx.retype(book, Film, allow_losses=True, references="keep")
    assert loan.item is film and tx.sql("SELECT book FROM Loan").value() == film.id


def test_unique_keys(tx):
    films = tx.all(Film).all()
    taken = tx.all(Book).first()
    with pytest.raises(sg.DuplicateKey, match="isbn 0"):
        tx.retype(films[1], Book, isbn="isbn 0")
    assert films[1]._live and films[1].title == "Film 1" and tx.all(Film).count() == 10
    book = tx.retype(films[1], Book, isbn="new")
    assert tx.all(Book).where(isbn="new").one() is book
    with pytest.raises(sg.DuplicateKey):
        book.isbn = taken.isbn


def test_values_that_are_refused_leave_the_object(tx):
    film = tx.all(Film).where(title="Film 1").one()
    for values, error in (({"pages": None}, sg.WrongType), ({"pages": 2**63}, sg.BadValue),
                          ({"title": "t", "pages": "x"}, sg.WrongType),
                          ({"minutes": 5}, sg.WrongType), ({"lender": film}, sg.WrongType),
                          ({"title": "a\0b"}, sg.BadValue)):
        with pytest.raises(error):
            tx.retype(film, Book, **values)
        assert film._live and film.title == "Film 1" and tx.get(Film, film.id) is film
    assert tx.all(Film).count() == 10 and tx.all(Book).count() == 20


def test_objects_and_classes_that_cannot_be(db, tx, make):
    book = tx.all(Book).first()
    with pytest.raises(sg.SchemaError, match="Library.Anything is abstract"):
        tx.retype(book, Anything, allow_losses=True)
    for cls in (int, "Film", None, sg.Table):
        with pytest.raises(sg.WrongType):
            tx.retype(book, cls)
    with pytest.raises(sg.WrongType, match="retype takes an object of a table, not 5"):
        tx.retype(5, Film)

    class Stranger(sg.Table):
        pass

    with pytest.raises(sg.SchemaError, match="Stranger is no class of this database"):
        tx.retype(book, Stranger)
    gone = tx.all(Film).first()
    tx.delete(gone)
    with pytest.raises(sg.DeletedError):
        tx.retype(gone, Book)
    other = make(*EVERY, path=place("other"))
    with other.write() as elsewhere:
        theirs = elsewhere.new(Book, title="theirs")
        with pytest.raises(sg.WrongTransaction):
            tx.retype(theirs, Film)
        with pytest.raises(sg.WrongTransaction):
            tx.retype(tx.all(Film).first(), Rare, signer=elsewhere.new(Person))
    tx.commit()
    with pytest.raises(sg.EndedError):
        tx.retype(book, Film)
    with db.read() as reading, pytest.raises(sg.ReadOnly):
        reading.retype(reading.all(Film).where(minutes=None).first(), Book)


def test_hints_are_about_what_is_refused(tx):
    class Stranger(sg.Table, name="Library.Stranger"):
        pages: int = 0

    book = tx.all(Book).first()
    with pytest.raises(sg.SchemaError, match="no class of this database") as told:
        tx.retype(book, Stranger)
    assert "allow_losses" not in told.value.hint
    with pytest.raises(sg.SchemaError, match="would be lost") as told:
        tx.retype(book, Film)
    assert "allow_losses" in told.value.hint


def test_values_whose_code_uses_the_transaction(db, tx):
    class Number:
        def __init__(self, work):
            self.work = work

        def __index__(self):
            self.work()
            return 7

    film = tx.all(Film).where(minutes=None).first()
    for end in (tx.commit, tx.rollback, db.close):
        with pytest.raises(sg.InUse):
            tx.retype(film, Book, pages=Number(end))
        assert film._live and tx.open
    seen = []
    book = tx.retype(film, Book, pages=Number(lambda: seen.append(tx.all(Person).count())))
    assert book.pages == 7 and seen == [2]


def test_a_rule_that_a_failure_takes_back(make):
    class Cover(sg.Table):
        text: str | None

    class Album(sg.Table):
        cover: Cover | None = sg.ref(on_delete="last")
        year: int = 0

    class Single(Album):
        side: int = 0

    db = make(Cover, Album, Single)
    with db.write() as tx:
        first, second = tx.new(Cover, text="1"), tx.new(Cover, text="2")
        album = tx.new(Album, cover=first)
        for cls in (Album, Single):
            with pytest.raises(sg.WrongType):
                tx.retype(album, cls, cover=second, year="none")
            assert album.cover is first and first._live and first.text == "1" and album._live
        single = tx.retype(album, Single, cover=second, side=2)
        assert single.cover is second and not first._live and tx.all(Cover).all() == [second]


def test_what_a_rollback_to_a_savepoint_takes_back(tx):
    book = tx.all(Book).first()
    with tx.savepoint() as outer:
        film = tx.retype(book, Film, allow_losses=True, minutes=1)
        with tx.savepoint() as inner:
            assert tx.retype(film, Book, pages=9, allow_losses=True) is book and book.pages == 9
            inner.rollback()
            assert film._live and film.minutes == 1 and not book._live
        outer.rollback()
    assert not film._live and tx.get(Book, book.id) is book
    assert (book.title, book.pages, book.isbn) == ("Book 00", 100, "isbn 0")
    book.pages = 7
    assert tx.all(Book).where(isbn="isbn 0").one().pages == 7


# ---- many objects


def test_many_objects_in_batches(db):
    told = []
    with pytest.raises(sg.SchemaError, match=r"column isbn of Library.Book is lost, with 20 values"):
        db.retype(Book, Film)
    assert len(ids_of(db, Book)) == 20 and db.jobs() == []
    assert db.retype(Book, Film, where=Book.pages >= 110, allow_losses=True, batch=3,
                     report=told.append) == 10
    assert told == [{"done": done, "total": 10} for done in (3, 6, 9, 10)]
    assert len(ids_of(db, Book)) == 10 and len(ids_of(db, Film)) == 20 and db.jobs() == []
    assert db.retype(Film, Note, where=[Film.year > 1970, Film.minutes == 92], by_name=True,
                     allow_losses=True) == 1
    assert db.retype(Film, Note, where=Film.year > 3000) == 0
    assert db.check(references=True) == []


def test_a_plan_changes_nothing(db):
    plan = db.plan_retype(Book, Film, where=Book.pages < 103)
    assert plan == (3, [("Library.Book", "pages", 3), ("Library.Book", "isbn", 3)], [])
    assert str(plan) == ("3 objects to change\ncolumn pages of Library.Book is lost, with 3 values\n"
                         "column isbn of Library.Book is lost, with 3 values")
    with db.write() as tx:
        book = tx.all(Book).first()
        loan = tx.new(Loan, book=book)
        book_id, loan_id = book.id, loan.id
    plan = db.plan_retype(Item, Film)
    assert plan.objects == 20 and plan.referrers == [(loan_id, "Library.Loan", "book", book_id)]
    assert f"object {loan_id} refers to object {book_id} by book of Library.Loan" in repr(plan)
    with pytest.raises(sg.SchemaError, match=f"may not lead to Film:\nobject {loan_id} refers"):
        db.retype(Item, Film, allow_losses=True)
    assert len(ids_of(db, Book)) == 20


def test_only_leaves_subclasses_alone(db):
    with db.write() as tx:
        tx.retype(tx.all(Book).first(), Rare)
    assert db.plan_retype(Book, Item).objects == 20
    assert db.retype(Book, Item, only=True, allow_losses=True) == 19
    assert len(ids_of(db, Rare)) == 1 and len(ids_of(db, Book)) == 1
    assert db.retype(Rare, Book) == 1


def test_bad_arguments(db):
    for bad in ({"batch": 0}, {"batch": "1"}, {"references": "drop"}, {"where": 5},
                {"where": [True]}):
        with pytest.raises((sg.WrongType, TypeError)):
            db.retype(Book, Film, allow_losses=True, **bad)
    with pytest.raises(sg.WrongType):
        db.retype(Book, "Film")
    with pytest.raises(sg.SchemaError, match="abstract"):
        db.retype(Book, Anything, allow_losses=True)
    with db.read(), pytest.raises(sg.NestedTransaction):
        db.retype(Book, Film, allow_losses=True)
    assert len(ids_of(db, Book)) == 20


def test_a_run_that_its_report_ends_is_a_job(db):
    assert db.retype(Book, Film, allow_losses=True, batch=4, report=lambda told: False) == 4
    [job] = db.jobs()
    assert (job.kind, job.state, job.done, job.total) == ("retype", "cut off", 4, 20)
    assert "Library.Film" in job.description
    assert job.resume() and db.jobs() == []
    assert ids_of(db, Book) == [] and len(ids_of(db, Film)) == 30

    class Stop(Exception):
        pass

    def stop(told):
        raise Stop

    with pytest.raises(Stop):
        db.retype(Film, Book, allow_losses=True, batch=4, report=stop)
    assert [job.done for job in db.jobs()] == [4]


def test_values_that_others_write_meanwhile_end_the_run(db):
    def write(told):
        def work():
            with db.write() as tx:
                tx.all(Film).where(title="Film 9").one().minutes = 9
        thread = threading.Thread(target=work)
        thread.start()
        thread.join()

    with db.write() as tx:
        for film in tx.all(Film):
            film.minutes = None
    with pytest.raises(sg.SchemaError, match="column minutes of Library.Film"):
        db.retype(Film, Item, batch=5, report=write)
    [job] = db.jobs()
    assert job.state == "cut off" and "minutes" in job.reason and job.done == 5
    with pytest.raises(sg.SchemaError):
        job.resume()
    assert job.resume(allow_losses=True)
    assert ids_of(db, Film) == []


KILLED = """
import os, signal, sys
sys.path[:0] = {path!r}
import sagleme as sg
from test_retyping import EVERY, Book, Film
db = sg.open(sys.argv[1], models=EVERY)
db.retype(Book, Film, allow_losses=True, batch=6,
          report=lambda told: os.kill(os.getpid(), signal.SIGKILL))
"""


def test_a_killed_run_is_resumed(make):
    path = place()
    db = make(*EVERY, path=path)
    fill(db)
    done = subprocess.run([sys.executable, "-c", KILLED.format(path=sys.path), path], check=False)
    assert done.returncode == -9
    [job] = db.jobs()
    assert (job.state, job.done, job.total) == ("cut off", 6, 20)
    assert len(ids_of(db, Film)) == 16
    assert job.resume() and ids_of(db, Book) == [] and db.jobs() == []
    assert db.check() == []

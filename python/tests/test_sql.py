"""SQL in the program's transactions."""

import datetime
import decimal
import os
import subprocess
import sys
import threading

import pytest
from library import MODELS, Book, Film, Item, Person, fill

import sagleme as sg


@pytest.fixture
def db(make):
    made = make(*MODELS)
    fill(made)
    return made


def test_rows_are_tuples_and_more_on_request(db):
    with db.read() as tx:
        rows = tx.sql("SELECT title, year FROM Book WHERE year < ? ORDER BY title", [1962])
        assert rows == [("Book 00", 1960), ("Book 01", 1961)]
        assert rows.names == ["title", "year"]
        assert rows.dicts()[1] == {"title": "Book 01", "year": 1961}
        assert rows.to_pandas()["year"].tolist() == [1960, 1961]
        assert ">Book 00</td>" in rows._repr_html_()
        named = tx.sql("SELECT count(*) FROM Item WHERE year >= :from", {"from": 1970})
        assert named.value() == 20
        with pytest.raises(sg.NotFound, match="no row"):
            tx.sql("SELECT 1 WHERE 0").one()
        with pytest.raises(sg.SeveralFound, match="2 rows"):
            rows.value()
    assert db.sql("SELECT count(*) FROM Film").value() == 10


def test_a_statement_sees_what_the_transaction_wrote(db):
    with db.write() as tx:
        ada = tx.new(Person, name="Ada the second")
        book = tx.new(Book, title="New", lender=ada)
        book.year = 2001
        found = tx.sql("SELECT title, Lender->'name' FROM Book WHERE year = 2001")
        assert found == [("New", "Ada the second")]
        assert tx.sql("SELECT count(*) FROM Item WHERE _oid = ?", [book]).value() == 1
        point = tx.savepoint()
        book.year = 2002
        point.rollback()
        assert tx.sql("SELECT year FROM Book WHERE title = 'New'").value() == 2001
    assert db.sql("SELECT count(*) FROM Book").value() == 21


def test_writes_go_with_the_transaction(db):
    with db.write() as tx:
        book = tx.all(Book).where(isbn="isbn 3").one()
        assert book.title == "Book 03"
        changed = tx.sql("UPDATE Book SET title = ? WHERE isbn = ?", ["Changed", "isbn 3"])
        assert changed == [] and changed.changed == 1
        assert book.title == "Changed"
        assert tx.all(Book).where(title="Changed").one() is book
        tx.sql("INSERT INTO Film (title, year, minutes) VALUES ('F', 2000, 7)")
        assert tx.all(Film).where(Film.year == 2000).one().minutes == 7
        tx.rollback()
    with db.read() as tx:
        assert tx.sql("SELECT title FROM Book WHERE isbn = 'isbn 3'").value() == "Book 03"
        assert tx.all(Film).where(Film.year == 2000).count() == 0


def test_savepoints_undo_what_sql_wrote(db):
    with db.write() as tx:
        book = tx.all(Book).where(isbn="isbn 3").one()
        with pytest.raises(KeyError), tx.savepoint():
            tx.sql("UPDATE Book SET title = 'X'")
            assert book.title == "X"
            raise KeyError
        assert book.title == "Book 03"
        assert tx.sql("SELECT count(*) FROM Book WHERE title = 'X'").value() == 0


def test_a_statement_that_fails_is_undone_alone(db):
    with db.write() as tx:
        tx.sql("UPDATE Book SET pages = 1 WHERE isbn = 'isbn 0'")
        with pytest.raises(sg.DuplicateKey):
            tx.sql("UPDATE Book SET isbn = 'same'")
        assert tx.sql("SELECT count(*) FROM Book WHERE isbn = 'same'").value() == 0
        assert tx.sql("SELECT pages FROM Book WHERE isbn = 'isbn 0'").value() == 1
    assert db.sql("SELECT pages FROM Book WHERE isbn = 'isbn 0'").value() == 1


def test_objects_that_sql_deleted_or_moved_are_gone(db):
    with db.write() as tx:
        book = tx.all(Book).where(isbn="isbn 3").one()
        other = tx.all(Book).where(isbn="isbn 4").one()
        kept = tx.all(Book).where(isbn="isbn 5").one()
        id = book.id
        tx.sql("DELETE FROM Book WHERE isbn = 'isbn 3'")
        with pytest.raises(sg.DeletedError, match="Book"):
            book.title  # noqa: B018
        assert tx.get(Book, id) is None
        tx.sql("UPDATE Item SET _table = 'Library.Film' WHERE _oid = ?", [other])
        with pytest.raises(sg.DeletedError, match="moved to another table"):
            other.title  # noqa: B018
        assert kept.title == "Book 05"
        assert isinstance(tx.all(Item).where(title="Book 04").one(), Film)


def test_values_are_bound_as_columns_store_them(make):
    class Sale(sg.Table, name="Shop.Sale"):
        at: datetime.datetime | None
        price: decimal.Decimal = decimal.Decimal(0)
        number: sg.ULong = 0
        paid: bool = False
        note: bytes | None

    db = make(Sale)
    at = datetime.datetime(2020, 1, 2, 3, 4, 5, 6, tzinfo=datetime.timezone.utc)
    with db.write() as tx:
        sale = tx.new(Sale, at=at, price=decimal.Decimal("1.000001"), number=2**63 + 1, paid=True,
                      note=b"\0x")
        for column, value in [("at", at), ("price", sale.price), ("paid", True), ("note", b"\0x")]:
            assert tx.sql(f"SELECT _oid FROM Sale WHERE {column} = ?", [value]).value() == sale.id
        tx.sql("UPDATE Sale SET at = :at, price = :price, number = :number",
               {"at": at + datetime.timedelta(days=1), "price": decimal.Decimal("2.000003"),
                "number": 2**64 - 1})
        assert sale.at == at + datetime.timedelta(days=1)
        assert sale.price == decimal.Decimal("2.000003") and sale.number == 2**64 - 1
        with pytest.raises(sg.BadValue, match="no time zone"):
            tx.sql("SELECT ?", [datetime.datetime(2020, 1, 1)])
        with pytest.raises(sg.BadValue):
            tx.sql("SELECT ?", ["\ud800"])
        with pytest.raises(sg.WrongType):
            tx.sql("SELECT ?", [object()])


def test_faults_are_named(db):
    with db.read() as tx:
        for statement, error, text in [
            ("SELEC 1", sg.SqlError, "syntax error"),
            ("SELECT * FROM Nowhere", sg.SqlError, "no such table: Nowhere"),
            ("SELECT 1; SELECT 2", sg.SqlError, "one statement"),
            ("SELECT ?", sg.SqlError, "binding"),
            ("BEGIN", sg.SqlError, "neither begins nor ends transactions"),
            ("COMMIT", sg.SqlError, "neither begins nor ends transactions"),
            ("SAVEPOINT x", sg.SqlError, "neither begins nor ends transactions"),
            ("CREATE TABLE mine (a)", sg.SqlError, "nor makes tables"),
            ("CREATE TABLE db.mine (a)", sg.SqlError, "nor makes tables"),
            ("DETACH db", sg.SqlError, "nor makes tables or detaches the database"),
            ("SELECT sagleme_exec('CREATE TABLE A (x integer)')", sg.SqlError, "change the models"),
            ("UPDATE Book SET pages = 1", sg.ReadOnly, ""),
            ("INSERT INTO Person (name) VALUES ('x')", sg.ReadOnly, ""),
        ]:
            with pytest.raises(error, match=text):
                tx.sql(statement)
        with pytest.raises(sg.WrongType, match="a statement is a text, not 7"):
            tx.sql(7)
        with pytest.raises(sg.WrongType, match="not 'abc'"):
            tx.sql("SELECT ?", "abc")
        assert tx.sql("SELECT count(*) FROM Book").value() == 20
    with db.write() as tx:
        with pytest.raises(sg.DeletedError, match="object 12345678, which does not exist"):
            tx.sql("UPDATE Book SET lender = 12345678")
        with pytest.raises(sg.BadValue):
            tx.sql("UPDATE Book SET pages = NULL")
    with pytest.raises(sg.EndedError):
        tx.sql("SELECT 1")


def test_objects_of_other_transactions_are_refused(db):
    with db.read() as tx:
        book = tx.all(Book).first()
    with db.read() as tx, pytest.raises(sg.EndedError, match="Book"):
        tx.sql("SELECT ?", [book])


def test_one_off_statements_read_or_write(db):
    assert db.sql("SELECT count(*) FROM Book").value() == 20
    assert db.sql("DELETE FROM Book WHERE year < 1965").changed == 5
    assert db.sql("WITH x AS (SELECT 1) SELECT count(*) FROM Book").value() == 15
    with db.read() as tx:
        assert tx.all(Book).count() == 15
        with pytest.raises(sg.NestedTransaction):
            db.sql("SELECT 1")


def test_rules_of_references_hold(make):
    class Party(sg.Table, name="Shop.Party"):
        name: str | None

    class Order(sg.Table, name="Shop.Order"):
        by: Party | None = sg.ref(on_delete="cascade")

    db = make(Party, Order)
    with db.write() as tx:
        party = tx.new(Party, name="x")
        order = tx.new(Order, by=party)
        tx.sql("DELETE FROM Party")
        with pytest.raises(sg.DeletedError):
            order.by  # noqa: B018
        assert tx.all(Order).count() == 0


def test_a_changed_schema_is_seen(db):
    assert db.sql("SELECT count(*) FROM Book").value() == 20
    with db.write() as tx:
        sg._core.add_columns(tx, "Library.Book", [("shelf", sg.declarations.LONG, True, "")])
    assert db.sql("SELECT shelf FROM Book LIMIT 1").value() is None


def test_memory_and_two_databases(make):
    class Thing(sg.Table, name="Thing"):
        size: int = 0

    with sg.open(None, models=[Thing]) as one, make(Thing) as two:
        one.apply()
        with one.write() as first, two.write() as second:
            first.new(Thing, size=1)
            second.sql("INSERT INTO Thing (size) VALUES (2)")
            assert first.sql("SELECT size FROM Thing") == [(1,)]
            assert second.sql("SELECT size FROM Thing") == [(2,)]
        assert one.sql("SELECT sum(size) FROM Thing").value() == 1


def test_threads_have_their_own(db):
    found = []

    def work():
        for _ in range(20):
            found.append(db.sql("SELECT count(*) FROM Item").value())

    threads = [threading.Thread(target=work) for _ in range(4)]
    for each in threads:
        each.start()
    for each in threads:
        each.join()
    assert found == [30] * 80


def test_closing_while_sql_runs_is_refused(db):
    caught = []

    def close():
        try:
            db.close()
        except sg.Error as error:
            caught.append(error)

    with db.read() as tx:
        tx.sql("SELECT 1")
        engine = db._local.engine[1]

        def while_running():
            thread = threading.Thread(target=close)
            thread.start()
            thread.join()
            with pytest.raises(sg.InUse):
                tx.sql("SELECT 1")
            return 7

        engine.connection.create_function("while_running", 0, while_running)
        assert tx.sql("SELECT while_running()").value() == 7
        assert [type(each) for each in caught] == [sg.InUse]
        db.close()
        with pytest.raises(sg.EndedError):
            tx.sql("SELECT 1")
    with pytest.raises(sg.ClosedError):
        db.sql("SELECT 1")


def test_a_child_opens_the_database_anew(db):
    with db.read() as tx:
        tx.sql("SELECT 1")
        child = os.fork()
        if child == 0:
            code = 1
            try:
                tx.sql("SELECT 1")
            except sg.ForkedError:
                with sg.open("database") as own:
                    code = 0 if own.sql("SELECT count(*) FROM Book").value() == 20 else 2
            os._exit(code)
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
        assert tx.sql("SELECT count(*) FROM Book").value() == 20


def test_ctrl_c_ends_a_statement():
    program = """
import sagleme as sg, _thread, threading
class T(sg.Table):
    a: int = 0
with sg.open(None, models=[T]) as db:
    db.apply()
    with db.write() as tx:
        tx.insert_many(T, [(i,) for i in range(1000)])
        try:
            tx.sql("SELECT 1")
            db._local.engine[1].connection.create_function("stop", 0, _thread.interrupt_main)
            tx.sql("SELECT count(*) FROM T, T AS b, T AS c, T AS d WHERE T.a < 0 OR stop() + d.a < 0")
        except KeyboardInterrupt:
            print("stopped", tx.sql("SELECT count(*) FROM T").value())
"""
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          timeout=60, check=False)
    assert done.stdout == "stopped 1000\n", done.stderr


def test_sqlite_is_loaded_when_it_is_used():
    program = """
import sys, sagleme as sg
class T(sg.Table):
    a: int = 0
with sg.open(None, models=[T]) as db:
    db.apply()
    print("sqlite3" in sys.modules, end=" ")
    db.sql("SELECT 1")
    print("sqlite3" in sys.modules)
"""
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          check=True)
    assert done.stdout == "False True\n"

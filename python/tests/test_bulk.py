import datetime
import decimal
import gc
import sys

import arrow_records
import numpy
import pandas
import pytest
from library import MODELS, Book, Film, Item, Person, fill

import sagleme as sg

UTC = datetime.timezone.utc


class Row(sg.Table, name="Bulk.Row"):
    text: str | None
    data: bytes | None
    number: int | None
    count: sg.ULong | None
    money: decimal.Decimal | None
    small: sg.Float32 | None
    real: float | None
    flag: bool | None
    when: datetime.datetime | None
    other: Person | None = sg.ref()


class Copy(Row, name="Bulk.Copy"):
    pass


class Other(sg.Table, name="Bulk.Other"):
    text: int | None


VALUES = {
    "text": ["a", "\xe9", None, "\U0001f600"],
    "data": [b"\0x", b"", None, b"y" * 100],
    "number": [1, -(2**63), None, 2**63 - 1],
    "count": [0, 2**64 - 1, None, 7],
    "money": [decimal.Decimal("1.500000"), decimal.Decimal("-0.000001"), None,
              decimal.Decimal("12.000000")],
    "small": [0.5, -2.0, None, 1.0],
    "real": [0.1, -1e300, None, 3.0],
    "flag": [True, False, None, True],
    "when": [datetime.datetime(2020, 1, 2, 3, 4, 5, 6, UTC), datetime.datetime(1960, 1, 1, tzinfo=UTC),
             None, datetime.datetime(2262, 1, 1, tzinfo=UTC)],
}
NAMES = list(VALUES)
ROWS = list(zip(*VALUES.values()))


@pytest.fixture
def db(make):
    db = make(Row, Copy, Other, *MODELS)
    with db.write() as tx:
        assert tx.insert_many(Row, [dict(zip(NAMES, row)) for row in ROWS]) == 4
    return db


def test_rows_of_dictionaries_and_tuples(db):
    with db.write() as tx:
        assert list(tx.only(Row).select(*NAMES)) == ROWS
        assert tx.insert_many(Copy, [row + (None,) for row in ROWS]) == 4
        assert list(tx.only(Copy).select(*NAMES)) == ROWS
        assert tx.insert_many(Copy, []) == 0
        assert tx.insert_many(Book, ({"title": f"t{i}"} for i in range(1000))) == 1000
        assert tx.all(Book).where(pages=0, year=0).count() == 1000


@pytest.mark.parametrize("rows, words", [
    ([{"nothing": 1}], "Book has no column 'nothing'"),
    ([{"title": "a"}, {"pages": 3}], "a row lacks title"),
    ([{"title": "a"}, {"title": "a", "pages": 3}], "all rows have the columns of the first"),
    ([{"pages": "x"}], "Book.pages takes int, not str 'x'"),
    ([("a", 1)], "a row has 2 values for 5 columns"),
])
def test_rows_that_are_refused(db, rows, words):
    with db.write() as tx:
        with pytest.raises(sg.WrongType, match=words):
            tx.insert_many(Book, rows)
        tx.rollback()


def test_numpy(db):
    with db.read() as tx:
        arrays = tx.only(Row).select(*NAMES).to_numpy()
    assert arrays["number"].dtype == "int64" and arrays["count"].dtype == "uint64"
    assert arrays["real"].dtype == "float64" and arrays["small"].dtype == "float32"
    assert arrays["flag"].dtype == bool and arrays["when"].dtype == "datetime64[us]"
    for name in NAMES:
        values = arrays[name].tolist()
        if name == "when":
            values = [each and each.replace(tzinfo=UTC) for each in values]
        assert values == VALUES[name], name


def test_columns_without_nulls_are_plain_arrays(make):
    db = make(*MODELS)
    fill(db)
    with db.read() as tx:
        arrays = tx.all(Book).select("year", "lender").to_numpy()
        assert type(arrays["year"]) is numpy.ndarray
        assert arrays["lender"].tolist() == [each.lender.id for each in tx.all(Book)]
    assert arrays["year"].sum() == sum(range(1960, 1980))  # lives on without the transaction


def test_pandas(db):
    with db.read() as tx:
        frame = tx.only(Row).select(*NAMES).to_pandas()
    assert str(frame.dtypes["number"]) == "Int64" and str(frame.dtypes["flag"]) == "boolean"
    assert str(frame.dtypes["when"]) == "datetime64[ns, UTC]"
    assert frame["number"].sum() == 0 and frame["text"].isna().sum() == 1
    assert frame["number"][1] == -(2**63) and frame["count"][1] == 2**64 - 1


def test_frames_go_back(db):
    with db.write() as tx:
        frame = tx.only(Row).select(*NAMES).to_pandas()
        assert tx.insert_many(Copy, frame) == 4
        assert list(tx.only(Copy).select(*NAMES)) == ROWS
        with pytest.raises(sg.WrongType, match="Copy has no column 'x'"):
            tx.insert_many(Copy, pandas.DataFrame({"x": [1]}))


def test_whole_numbers_that_pandas_made_floats(make):
    db = make(*MODELS)
    with db.write() as tx:
        frame = pandas.DataFrame({"minutes": [1.0, None, 3.0], "title": ["a", "b", None]})
        assert str(frame.dtypes["minutes"]) == "float64"
        tx.insert_many(Film, frame)
        assert [row for row in tx.all(Film).select("minutes", "title")] == [
            (1, "a"), (None, "b"), (3, None)]
        with pytest.raises(sg.WrongType, match="Film.minutes takes int, not float 1.5"):
            tx.insert_many(Film, pandas.DataFrame({"minutes": [1.5]}))
        tx.rollback()


def test_arrow_out(db):
    with db.read() as tx:
        columns = arrow_records.read(tx.only(Row).select(*NAMES))
    assert [(name, format) for name, format, _ in columns] == list(zip(
        NAMES, ["U", "Z", "l", "L", "d:19,6", "g", "g", "b", "tsu:UTC"]))
    found = {name: values for name, _, values in columns}
    epoch = datetime.datetime(1970, 1, 1, tzinfo=UTC)
    for name in NAMES:
        wanted = VALUES[name]
        if name == "money":
            wanted = [each and int(each.scaleb(6)) for each in wanted]
        if name == "when":
            wanted = [each and (each - epoch) // datetime.timedelta(microseconds=1)
                      for each in wanted]
        assert found[name] == wanted, name


def test_arrow_in(db):
    with db.write() as tx:
        assert tx.insert_many(Copy, tx.only(Row).select(*NAMES).columns()) == 4
        assert list(tx.only(Copy).select(*NAMES)) == ROWS


def test_arrow_keeps_references_and_defaults(make):
    db = make(*MODELS)
    fill(db)
    with db.write() as tx:
        tx.insert_many(Film, tx.all(Book).select("title", "lender").columns())
        lent = tx.all(Film).where(Item.lender.name == "Ada")
        assert lent.count() == 10 and lent.first().year == 0
        gone = tx.all(Person).where(name="Ada").one()
        columns = tx.all(Book).select("lender").columns()
        tx.delete(gone)
        with pytest.raises(sg.BadValue, match=f"row 0: .*object {gone.id}, which does not exist"):
            tx.insert_many(Film, columns)
        tx.rollback()


def test_arrow_that_does_not_fit(db):
    with db.write() as tx:
        with pytest.raises(sg.WrongType, match="column text: Arrow's type 'U' does not go"):
            tx.insert_many(Other, tx.only(Row).select("text"))
        with pytest.raises(sg.WrongType, match="Book has no column text"):
            tx.insert_many(Book, tx.only(Row).select("text").columns())
        with pytest.raises(sg.WrongType, match="Book has no column number"):
            tx.insert_many(Book, tx.only(Row).select("number"))
        tx.rollback()


def test_arrow_refuses_lone_surrogates(db):
    with db.write() as tx:
        tx.new(Row, text="\ud800")
        with pytest.raises(sg.BadValue, match="column text holds a text with a lone surrogate"):
            tx.all(Row).select("text").columns().__arrow_c_stream__()
        tx.rollback()


def test_sorting_is_refused_or_done_in_the_frame(make):
    db = make(*MODELS)
    fill(db)
    with db.read() as tx:
        rows = tx.all(Item).order("year", "-title").select("title", "year")
        frame = rows.to_pandas()
        assert list(frame["title"]) == [row[0] for row in rows]
        with pytest.raises(sg.WrongType, match="in the order of an index"):
            rows.columns()
        assert tx.all(Item).order("title").select("title").to_numpy()["title"][0] == "Book 00"


def test_exports_do_not_leak(db):
    with db.read() as tx:
        def once():
            rows = tx.only(Row).select(*NAMES)
            arrow_records.read(rows)
            rows.columns().__arrow_c_stream__()  # never taken
            rows.to_numpy()

        for _ in range(5):
            once()
        gc.collect()
        blocks = sys.getallocatedblocks()
        for _ in range(1000):
            once()
        gc.collect()
        assert sys.getallocatedblocks() - blocks < 800  # one a turn would be 1000

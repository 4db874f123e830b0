import pytest
from library import MODELS, Book, Film, Item, Person, fill

import sagleme as sg


@pytest.fixture
def tx(make):
    db = make(*MODELS)
    fill(db)
    with db.read() as tx:
        yield tx


def titles(query):
    return [each.title for each in query]


def test_a_subtree_and_exactly_one_class(tx):
    assert tx.all(Item).count() == 30
    assert tx.only(Item).count() == 0
    assert tx.only(Book).count() == 20
    assert {type(each) for each in tx.all(Item)} == {Book, Film}


@pytest.mark.parametrize("condition, wanted", [
    (lambda: Item.year < 1962, ["Book 00", "Book 01"]),
    (lambda: Item.year <= 1961, ["Book 00", "Book 01"]),
    (lambda: Item.year > 1978, ["Book 19", "Film 9"]),
    (lambda: Item.year >= 1979, ["Book 19", "Film 9"]),
    (lambda: Item.title == "Film 3", ["Film 3"]),
    (lambda: Item.title.in_(["Film 3", "Book 07", "none", None]), ["Book 07", "Film 3"]),
    (lambda: Item.title.startswith("Book 1") & (Item.year < 1972), ["Book 10", "Book 11"]),
    (lambda: Item.title.contains("k 05"), ["Book 05"]),
    (lambda: (Item.title == "Film 1") | (Item.title == "Film 2"), ["Film 1", "Film 2"]),
    (lambda: ~(Item.year >= 1961), ["Book 00"]),
    (lambda: Item.year.between(1960, 1961), ["Book 00", "Book 01"]),
    (lambda: (Item.lender.name == "Ada") & (Item.year < 1963), ["Book 00", "Book 02"]),
    (lambda: Item.lender.is_null() & (Item.year == 1970), ["Film 0"]),
    (lambda: (Item.lender != None) & (Item.year == 1970), ["Book 10"]),  # noqa: E711
])
def test_conditions(tx, condition, wanted):
    assert sorted(titles(tx.all(Item).where(condition()))) == wanted


def test_null_is_neither_below_nor_above(tx):
    assert tx.all(Film).where(Film.minutes < 1000).count() == 5
    assert tx.all(Film).where(Film.minutes > -1000).count() == 5
    assert tx.all(Film).where(Film.minutes == None).count() == 5  # noqa: E711
    assert tx.all(Film).where(Film.minutes != 90).count() == 9


def test_what_an_index_serves(tx):
    query = tx.all(Item).where(Item.title == "Book 03")
    assert query.explain() == ("objects of the subtree of Library.Item, by index "
                               "Library.Item.title (title = 'Book 03')")
    unique = tx.all(Book).where(isbn="isbn 3")
    assert "by index Library.Book.isbn unique" in unique.explain()
    assert unique.one().title == "Book 03"
    below = tx.all(Film).where(Film.title.startswith("Film")).order("-title").limit(2)
    assert "backwards" in below.explain() and "in the index's order" in below.explain()
    assert titles(below) == ["Film 9", "Film 8"]
    filtered = tx.all(Item).where(Item.title >= "Film 8", Item.year < 1979)
    assert "filtered in the scan" in filtered.explain()
    assert titles(filtered) == ["Film 8"]
    assert "sorted: year" in tx.all(Item).order("year").explain()


def test_a_range_open_at_both_ends(tx):
    query = tx.all(Item).where(Item.title > "Book 18", Item.title < "Film 1")
    assert titles(query) == ["Book 19", "Film 0"]
    assert "by index" in query.explain()


def test_orders(tx):
    assert titles(tx.all(Book).order(Book.pages.desc()).limit(2)) == ["Book 19", "Book 18"]
    assert titles(tx.all(Item).order("year", "-title").limit(3, 10)) == [
        "Film 0", "Book 10", "Film 1"]
    assert titles(tx.all(Film).order("minutes", "title"))[:6] == [
        "Film 1", "Film 3", "Film 5", "Film 7", "Film 9", "Film 0"]
    assert [row for row in tx.all(Book).order("lender.name", "-year").select("title").limit(1)] == [
        ("Book 18",)]


def test_texts_sort_as_in_the_index(make):
    class Word(sg.Table):
        plain: str | None
        indexed: str | None = sg.column(index=True)

    db = make(Word)
    words = ["\uffff", "\U0001f600", "a", "", None, "\ud7ff", "b"]
    with db.write() as tx:
        for word in words:
            tx.new(Word, plain=word, indexed=word)
        by_sort = [each.plain for each in tx.all(Word).order("plain")]
        by_index = [each.plain for each in tx.all(Word).order("indexed")]
    assert by_sort == by_index == [None, "", "a", "b", "\ud7ff", "\U0001f600", "\uffff"]


def test_limits(tx):
    assert titles(tx.all(Book).limit(2)) == ["Book 00", "Book 01"]
    assert titles(tx.all(Book).limit(2, 19)) == ["Book 19"]
    assert tx.all(Book).limit(0).first() is None
    assert tx.all(Book).limit(7, 5).count() == 7
    with pytest.raises(sg.WrongType, match="whole numbers from 0, not -1"):
        tx.all(Book).limit(-1)


def test_one_first_exists(tx):
    assert tx.all(Book).where(title="Book 03").one().year == 1963
    with pytest.raises(sg.NotFound, match="there is no Book where title = 'none'"):
        tx.all(Book).where(title="none").one()
    with pytest.raises(sg.SeveralFound, match="there are several Film"):
        tx.all(Film).one()
    assert tx.all(Book).where(title="none").first() is None
    assert tx.all(Film).exists() and not tx.all(Film).where(year=1).exists()


def test_aggregates(tx):
    found = tx.all(Book).aggregate(n=sg.count(), pages=sg.sum(Book.pages), mean=sg.avg(Book.pages),
                                   first=sg.min(Item.title), last=sg.max(Item.title))
    assert found == {"n": 20, "pages": 2190, "mean": 109.5, "first": "Book 00", "last": "Book 19"}
    nothing = tx.all(Book).where(year=1).aggregate(
        n=sg.count(), s=sg.sum(Book.pages), a=sg.avg(Book.pages), least=sg.min(Book.pages))
    assert nothing == {"n": 0, "s": 0, "a": None, "least": None}
    assert tx.all(Film).aggregate(n=sg.count(Film.minutes)) == {"n": 5}
    assert tx.all(Item).aggregate(by="lender.name", n=sg.count()) == {
        "Ada": {"n": 10}, "Grace": {"n": 10}, None: {"n": 10}}
    with pytest.raises(sg.WrongType, match="title is no number and has no sum"):
        tx.all(Book).aggregate(x=sg.sum(Book.title))


def test_sums_beyond_64_bits(make):
    class Number(sg.Table):
        value: sg.ULong = 0

    db = make(Number)
    with db.write() as tx:
        for _ in range(3):
            tx.new(Number, value=2**64 - 1)
        assert tx.all(Number).aggregate(s=sg.sum(Number.value))["s"] == 3 * (2**64 - 1)


def test_select(tx):
    rows = tx.all(Item).where(Item.year == 1970).select("title", "lender.name", Item.year, "id")
    assert sorted(row[:3] for row in rows) == [("Book 10", "Ada", 1970), ("Film 0", None, 1970)]
    assert rows.names == ["title", "lender.name", "year", "id"]
    assert rows.count() == 2
    person = tx.all(Book).select("lender").first()[0]
    assert isinstance(person, Person) and person.name == "Ada"


def test_back_references(tx):
    ada = tx.all(Person).where(name="Ada").one()
    assert ada.loans.count() == 10
    assert "Library.Item.lender" in ada.loans.explain()
    assert titles(ada.loans.order("-year").limit(1)) == ["Book 18"]


def test_prefetch_changes_nothing_but_time(tx):
    plain = [(each.title, each.lender and each.lender.name) for each in tx.all(Item)]
    fetched = tx.all(Item).prefetch(Item.lender)
    assert [(each.title, each.lender and each.lender.name) for each in fetched] == plain
    with pytest.raises(sg.WrongType, match="prefetch takes references; title is none"):
        tx.all(Item).prefetch(Item.title)


@pytest.mark.parametrize("use, words", [
    (lambda tx: tx.all(Item).where(Book.pages > 1), "pages belongs to Book; Item has no such"),
    (lambda tx: tx.all(Item).where("x"), "where takes conditions"),
    (lambda tx: tx.all(Item).where(1960 < Item.year < 1970), "combine conditions with &"),
    (lambda tx: tx.all(Item).where(titel="x"), "Item has no column 'titel'"),
    (lambda tx: tx.all(Item).order("lender"), "lender has no order"),
    (lambda tx: tx.all(Item).where(Item.year == Item.year), "not with another column"),
    (lambda tx: tx.all(Item).where(Item.year == "x").count(), "Item.year takes int, not str 'x'"),
    (lambda tx: tx.all(Item).where(lender=5).count(), "Item.lender takes Person, not int 5"),
    (lambda tx: tx.all(int), "a class of a table is needed"),
    (lambda tx: tx.all(sg.Table), "Table is abstract"),
    (lambda tx: tx.all(Item).select("lender.naem"), "Person has no column 'naem'"),
    (lambda tx: bool(tx.all(Item)), "a query has no truth"),
    (lambda tx: tx.all(Item).aggregate(x=5), "an aggregate such as sg.count"),
])
def test_questions_that_cannot_be_asked(tx, use, words):
    with pytest.raises(sg.WrongType, match=words):
        use(tx)


def test_walks_and_writes(make):
    db = make(*MODELS)
    fill(db)
    with db.write() as tx:
        seen = []
        for book in tx.all(Book).where(Book.title >= "").order("title"):
            seen.append(book.title)
            book.title = "z" + book.title  # into the part of the index that is still to come
        assert len(seen) == 20
        scan = iter(tx.all(Film))
        first = next(scan)
        for film in list(tx.all(Film)):
            if film is not first:
                tx.delete(film)
        assert list(scan) == []


def test_indexes_of_several_columns(make):
    class Entry(sg.Table, indexes=[sg.Index("author", "-year"), sg.Index("year", unique=False)]):
        author: str | None
        year: int = 0
        note: str | None

    db = make(Entry)
    with db.write() as tx:
        for author in ("a", "b", None):
            for year in range(5):
                tx.new(Entry, author=author, year=year, note=f"{author}{year}")
        query = tx.all(Entry).where(Entry.author == "a", Entry.year >= 3)
        assert "Entry.author+-year" in query.explain()
        assert [each.note for each in query] == ["a4", "a3"]
        assert [e.note for e in tx.all(Entry).where(Entry.author == "a", Entry.year < 2)] == [
            "a1", "a0"]
        ordered = tx.all(Entry).where(author="b").order("year")
        assert "backwards" in ordered.explain()
        assert [each.year for each in ordered] == [0, 1, 2, 3, 4]
        assert tx.all(Entry).where(Entry.author == None).count() == 5  # noqa: E711
        assert [e.note for e in tx.all(Entry).where(Entry.author.in_(["b", "a"]), Entry.year == 1)
                .order("note")] == ["a1", "b1"]


def test_binaries_with_an_index(make):
    class Cover(sg.Table, indexes=[sg.Index("kind", "image")]):
        kind: int = 0
        image: bytes | None = sg.column(unique=True)

    db = make(Cover)
    with db.write() as tx:
        for image in (b"", b"a", b"a\0", None, b"\xff" * 40):
            tx.new(Cover, image=image)
        assert tx.all(Cover).where(Cover.image == b"a").one().image == b"a"
        assert tx.all(Cover).where(Cover.image > b"a").count() == 2
        assert tx.all(Cover).where(Cover.image.in_([b"", b"a", b"b", None])).count() == 3
        assert tx.all(Cover).where(Cover.kind == 0, Cover.image == b"a\0").count() == 1
        assert tx.all(Cover).where(Cover.image == None).count() == 1  # noqa: E711
        with pytest.raises(sg.DuplicateKey):
            tx.new(Cover, image=b"a")
        assert tx.sql("SELECT count(*) FROM Cover WHERE image = X'61'").value() == 1
        assert tx.sql("SELECT count(*) FROM Cover WHERE image >= X'61'").value() == 3


@pytest.mark.parametrize("order", [[], ["title"], ["-year"]])
def test_a_walk_leaves_out_what_is_deleted_meanwhile(make, order):
    db = make(*MODELS)
    fill(db)
    with db.write() as tx:
        seen = []
        for book in tx.all(Book).order(*order):
            seen.append(book.pages)
            for other in tx.all(Book).where(pages=seen[0] ^ 1):
                tx.delete(other)
        assert len(seen) == 19 and seen[0] ^ 1 not in seen


@pytest.mark.parametrize("order", [[], ["title"]])
def test_a_walk_over_tuples_sees_what_is_written_meanwhile(make, order):
    db = make(*MODELS)
    fill(db)
    with db.write() as tx:
        rows = iter(tx.all(Book).order(*order).select("title", "year", "lender.name"))
        assert next(rows) == ("Book 00", 1960, "Ada")
        gone, changed = (tx.all(Book).where(title=f"Book {i:02}").one() for i in (1, 2))
        changed.year, changed.lender = 7, None
        tx.delete(gone)
        assert list(rows)[:2] == [("Book 02", 7, None), ("Book 03", 1963, "Grace")]

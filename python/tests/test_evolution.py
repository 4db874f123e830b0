"""Classes that change while their tables have objects: types, bases, and columns that move."""

import threading

import pytest
from library import place

import sagleme as sg

ALL = {"instant", "background", "lossy"}


def lines(db):
    return [repr(step) for step in db.plan()]


def begin(*models, path="shelf"):
    """A database of the first classes, with their objects to make."""
    db = sg.open(path, models=models, sync=False)
    db.apply()
    return db


def item(**annotations):
    """A class of the table L.Item; values are (annotation, options)."""
    return table("Item", sg.Table, annotations, name="L.Item")


def table(class_name, base, annotations, **options):
    body = {"__module__": __name__, "__annotations__": {}}
    for name, told in annotations.items():
        annotation, default = told if isinstance(told, tuple) else (told, None)
        body["__annotations__"][name] = annotation
        if default is not None:
            body[name] = default
    return type(sg.Table)(class_name, (base,), body, **options)


# ---- another type


def test_a_column_takes_another_type_with_its_values():
    before = item(year=(int, sg.column(0, index=True)), code=str | None, price=float | None)
    after = item(year=(str | None, sg.column(index=True)), code=int | None, price=float)
    with begin(before) as db, db.write() as tx:
        tx.new(before, year=1999, code="17", price=1.5)
        tx.new(before, year=5, code="-4", price=0.0)
    with sg.open("shelf", models=[after], sync=False) as db:
        assert lines(db) == [
            "background  change column L.Item.year from int to str | None",
            "background  change column L.Item.code from str | None to int | None",
            "background  change column L.Item.price from float | None to float",
        ]
        db.apply()
        assert lines(db) == []
        with db.write() as tx:
            assert tx.all(after).where(year="1999").one().code == 17
            assert "index" in tx.all(after).where(after.year == "1999").explain()
            assert [each.code for each in tx.all(after).order("year")] == [17, -4]
            tx.new(after, year="later", price=2.0)
        assert db.check(references=True) == []


def test_values_that_do_not_convert_are_named_and_lost_only_if_that_is_allowed():
    before = item(code=str | None, size=int | None)
    after = item(code=int | None, size=(int, 7))
    with begin(before) as db, db.write() as tx:
        tx.new(before, code="17", size=4)
        wrong = tx.new(before, code="seventeen", size=None).id
    with sg.open("shelf", models=[after], sync=False) as db:
        code, size = db.plan()
        assert code.label == size.label == "lossy"
        assert code.text == ("change column L.Item.code from str | None to int | None: 1 value of "
                             "column code of L.Item does not convert to long: \"seventeen\" "
                             f"(object {wrong})")
        assert size.text.startswith("change column L.Item.size from int | None to int: 1 value")
        assert f"null (object {wrong})" in size.text
        with pytest.raises(sg.SchemaError, match="not allowed:\nlossy") as told:
            db.apply()
        assert "seventeen" in str(told.value) and "lossy" in told.value.hint
        db.apply(allow=ALL)
        with db.read() as tx:
            assert [(each.code, each.size) for each in tx.all(after)] == [(17, 4), (None, 0)]


def test_a_type_of_which_no_value_converts_is_dropped_and_made_anew():
    before, after = item(code=bytes | None), item(code=int | None)
    with begin(before) as db, db.write() as tx:
        tx.new(before, code=b"x")
    with sg.open("shelf", models=[after], sync=False) as db:
        assert lines(db) == ["lossy       drop column L.Item.code, with its values",
                             "instant     add to table L.Item (code: int | None)"]
        db.apply(allow=ALL)
        with db.read() as tx:
            assert tx.all(after).one().code is None


def test_renames_and_types_change_together():
    before = item(code=(str | None, sg.column(unique=True, comment="of the shop")))
    after = table("Item", sg.Table, {"number": (
        int | None, sg.column(was="code", unique=True, comment="of the shop"))},
        name="L.Article", was="L.Item")
    with begin(before) as db, db.write() as tx:
        tx.new(before, code="17")
    with sg.open("shelf", models=[after], sync=False) as db:
        assert lines(db)[:3] == [
            "instant     rename table L.Item to L.Article",
            "instant     rename column L.Article.code to number",
            "background  change column L.Article.number from str | None to int | None",
        ]
        db.apply()
        assert lines(db) == []
        with db.read() as tx:
            assert tx.all(after).one().number == 17
        assert "of the shop" in str(db.describe(after))
        with pytest.raises(sg.DuplicateKey), db.write() as tx:
            tx.new(after, number=17)


def test_a_default_in_the_database_follows_the_class():
    before = item(size=(int, sg.column(3, stored=True)))
    after = item(size=(str | None, sg.column("three", stored=True)))
    with begin(before) as db, db.write() as tx:
        tx.new(before)
    with sg.open("shelf", models=[after], sync=False) as db:
        db.apply()
        assert lines(db) == []
        with db.write() as tx:
            assert [each.size for each in tx.all(after)] == ["3"]
            tx.sql("INSERT INTO Item DEFAULT VALUES")
        with db.read() as tx:
            assert [each.size for each in tx.all(after)] == ["3", "three"]


# ---- a unique index, and a later step, that refuse


def test_values_that_become_one_in_a_unique_index_change_nothing():
    before = item(code=(str | None, sg.column(unique=True)), name=(int, 0))
    after = item(code=(int, sg.column(0, unique=True)), name=str | None)
    with begin(before) as db, db.write() as tx:
        tx.new(before, code="a", name=4)
        tx.new(before, code="b", name=5)
    with sg.open("shelf", models=[after], sync=False) as db:
        plan = lines(db)
        with pytest.raises(sg.DuplicateKey):
            db.apply(allow=ALL)
        assert lines(db) == plan
    with sg.open("shelf", models=[before], sync=False) as db, db.read() as tx:
        assert [(each.code, each.name) for each in tx.all(before)] == [("a", 4), ("b", 5)]


def test_a_later_step_that_fails_takes_all_back():
    before = item(code=str | None, name=(int, 0))
    after = item(code=(str | None, sg.column(unique=True)), name=str | None)
    with begin(before) as db, db.write() as tx:
        tx.new(before, code="a")
        tx.new(before, code="a")
    with sg.open("shelf", models=[after], sync=False) as db:
        with pytest.raises(sg.DuplicateKey):
            db.apply()
        with db.read() as tx, pytest.raises(sg.SchemaError, match="name is int there"):
            tx.all(after).count()
        assert db.check() == []


# ---- columns that move


def library(number):
    class Item(sg.Table, name="L.Item"):
        if number == 2:
            title: str | None = sg.column(index=True, comment="the printed one")
            pages: int | None
        if number == 3:
            name: str | None = sg.column(was="title", index=True)

    class Book(Item):
        if number == 1:
            title: str | None = sg.column(index=True, comment="the printed one")
            pages: int | None

    class Film(Item):
        if number == 1:
            title: str | None

    class Disc(Item):
        pass

    return Item, Book, Film, Disc


def filled_library():
    _, book, film, disc = models = library(1)
    with begin(*models) as db, db.write() as tx:
        tx.new(book, title="b", pages=7)
        tx.new(film, title="f")
        tx.new(disc)


def test_a_column_moves_up_from_two_classes():
    filled_library()
    with sg.open("shelf", models=library(2), sync=False) as db:
        assert lines(db)[:3] == [
            "instant     drop index L.Book.title of table L.Book",
            "background  move column L.Book.title and L.Film.title up to L.Item",
            "background  move column L.Book.pages up to L.Item",
        ]
        db.apply()
        assert lines(db) == []
        with db.read() as tx:
            assert {(each.title, each.pages) for each in tx.all(db["L.Item"])} == {
                ("b", 7), ("f", None), (None, None)}
            assert tx.all(db["L.Item"]).where(title="f").one().to_dict()["title"] == "f"
        assert "the printed one" in str(db.describe(db["L.Item"]))


@pytest.mark.parametrize("how", [{}, {"beside_writers": True, "objects": 1}])
def test_a_zero_keeps_its_sign(how):
    base, child = item(), {"size": float, "width": sg.Float32}
    kinds = [table(name, base, child) for name in ("First", "Second")]
    with begin(base, *kinds) as db, db.write() as tx:
        ids = [tx.new(kind, size=-0.0, width=-0.0).id for kind in kinds]
    base = item(size=float, width=float)
    kinds = [table(name, base, {}) for name in ("First", "Second")]
    with sg.open("shelf", models=[base, *kinds], sync=False) as db:
        assert "lossy" not in db.plan().labels
        db.apply(**how)
        with db.read() as tx:
            found = [tx.get(base, id) for id in ids]
            assert [str(each.size) for each in found] == ["-0.0"] * 2
            assert [str(each.width) for each in found] == ["-0.0"] * 2


def test_a_column_moves_down_to_two_classes():
    with begin(*library(2)) as db, db.write() as tx:
        for cls in library_of(db)[1:3]:
            tx.new(cls, title=cls.__name__, pages=3 if cls.__name__ == "Book" else None)
        tx.new(library_of(db)[3])
    with sg.open("shelf", models=library(1), sync=False) as db:
        assert "background  move column L.Item.title down to L.Book and L.Film" in lines(db)
        db.apply()
        assert lines(db) == []
        with db.read() as tx:
            assert [(each.title, each.pages) for each in tx.all(db["L.Book"])] == [("Book", 3)]
            assert [each.title for each in tx.all(db["L.Film"])] == ["Film"]
            assert tx.all(db["L.Item"]).count() == 3
        assert db.check(references=True) == []


def library_of(db):
    return [db[f"L.{name}"] for name in ("Item", "Book", "Film", "Disc")]


def test_a_column_that_moves_down_loses_the_values_of_others():
    with begin(*library(2)) as db, db.write() as tx:
        lost = tx.new(db["L.Disc"], title="d").id
    with sg.open("shelf", models=library(1), sync=False) as db:
        [step] = [each for each in db.plan() if "L.Item.title" in each.text and "move" in each.text]
        assert step.label == "lossy" and step.text.endswith(f": \"d\" (object {lost})")
        with pytest.raises(sg.SchemaError, match="nothing was changed"):
            db.apply()
        db.apply(allow=ALL)
        assert lines(db) == []


def test_a_column_moves_up_under_another_name():
    filled_library()
    with sg.open("shelf", models=library(3), sync=False) as db:
        plan = lines(db)
        assert "instant     rename column L.Book.title to name" in plan
        assert "background  move column L.Book.name and L.Film.name up to L.Item" in plan
        db.apply(allow=ALL)
        assert lines(db) == []
        with db.read() as tx:
            assert {each.name for each in tx.all(db["L.Item"])} == {"b", "f", None}


def test_a_table_without_a_class_keeps_the_column_that_its_base_gets():
    filled_library()
    item_class, book, *_ = library(2)
    with sg.open("shelf", models=[item_class, book], sync=False) as db:
        db.apply()
        with db.read() as tx:
            assert {each.title for each in tx.all(item_class)} == {"b", "f", None}
            assert tx.all(db["L.Film"]).one().title == "f"


# ---- bases


def shop(number):
    class Party(sg.Table, name="S.Party"):
        name: str | None

    class Person(Party if number != 2 else sg.Table, name="S.Person"):
        if number == 2:
            name: str | None
        born: int = 0

    class Middle(Person, name="S.Middle"):
        rank: int | None

    class Author(Middle if number == 3 else Person, name="S.Author"):
        books: int = 0

    class Order(sg.Table, name="S.Order"):
        by: Party | None = sg.ref()

    return [Party, Person, Author, Order] + ([Middle] if number == 3 else [])


def filled_shop(order=True):
    _, person, author, orders = models = shop(1)
    with begin(*models) as db, db.write() as tx:
        tx.new(person, name="Ada", born=1815)
        last = tx.new(author, name="Grace", born=1906, books=3)
        if order:
            tx.new(orders, by=last)


def test_a_class_between_two_and_gone_again():
    filled_shop()
    with sg.open("shelf", models=shop(3), sync=False) as db:
        assert lines(db) == [
            "instant     create table S.Middle under S.Person (rank: int | None)",
            "background  move table S.Author under S.Middle",
        ]
        db.apply()
        with db.write() as tx:
            author = tx.all(db["S.Middle"]).one()
            assert (author.name, author.born, author.books, author.rank) == ("Grace", 1906, 3, None)
            assert tx.all(db["S.Order"]).one().by is author
            author.rank = 4
    with sg.open("shelf", models=shop(1), sync=False) as db:
        assert lines(db) == [
            "background  move table S.Author under S.Person",
            "lossy       drop column S.Author.rank, with its values",
        ]
        db.apply(allow=ALL)
        assert lines(db) == []
        with db.read() as tx:
            assert tx.all(db["S.Person"]).count() == 2 and tx.all(db["S.Middle"]).count() == 0
            assert tx.all(db["S.Order"]).one().by.books == 3
        assert db.check(references=True) == []


def test_references_to_the_old_base_refuse_the_move():
    filled_shop()
    with sg.open("shelf", models=shop(2), sync=False) as db:
        [step] = [each for each in db.plan() if each.label == "refused"]
        assert step.text.startswith("move table S.Person to the root: object ")
        assert "by of S.Order" in step.text
        with pytest.raises(sg.SchemaError, match="move table S.Person to the root: object"):
            db.apply(allow=ALL)


def test_columns_of_the_old_base_become_the_tables_own():
    filled_shop(order=False)
    with sg.open("shelf", models=shop(2), sync=False) as db:
        assert lines(db) == ["background  move table S.Person to the root"]
        db.apply()
        with db.read() as tx:
            assert {(each.name, each.born) for each in tx.all(db["S.Person"])} == {
                ("Ada", 1815), ("Grace", 1906)}
            assert tx.all(db["S.Party"]).count() == 0


def test_a_reference_gets_another_target():
    class Party(sg.Table, name="S.Party"):
        pass

    class Person(Party):
        pass

    def orders(target):
        return table("Order", sg.Table, {"by": (target | None, sg.ref(index=True))}, name="S.Order")

    old, new = orders(Party), orders(Person)
    with begin(old, Person) as db, db.write() as tx:
        tx.new(old, by=tx.new(Person))
    with sg.open("shelf", models=[new, Person], sync=False) as db:
        assert lines(db) == [
            "instant     change column S.Order.by from S.Party | None to S.Person | None"]
        with sg.open("shelf", models=[old, Person], sync=False) as other, other.write() as tx:
            wrong = tx.new(old, by=tx.new(Party)).id
        [step] = db.plan()
        assert step.label == "lossy" and f"(object {wrong})" in step.text
        db.apply(allow=ALL)
        with db.read() as tx:
            assert [type(each.by) for each in tx.all(new)] == [Person, type(None)]


def test_a_reference_to_a_class_that_is_new():
    def classes(new):
        base = table("Item", sg.Table, {}, name="L.Item")
        middle = [table("Work", base, {})] if new else []
        book = table("Book", middle[0] if new == "between" else base, {})
        target = middle[0] if new else base
        loan = table("Loan", sg.Table, {"item": target | None, "other": target | None},
                     name="L.Loan")
        return base, *middle, book, loan

    base, book, loan = classes("")
    with begin(base, book, loan) as db, db.write() as tx:
        item = tx.new(book)
        id = tx.new(loan, item=item).id
    base, work, book, loan = classes("beside")
    with sg.open("shelf", models=[base, work, book, loan], sync=False) as db:
        assert lines(db) == [
            "instant     create table L.Work under L.Item ()",
            "lossy       change column L.Loan.item from L.Item | None to L.Work | None: L.Work is new, "
            "and no value of the column leads to an object of it",
            "instant     change column L.Loan.other from L.Item | None to L.Work | None"]
    base, work, book, loan = classes("between")
    with sg.open("shelf", models=[base, work, book, loan], sync=False) as db:
        assert "lossy" not in db.plan().labels
        db.apply()
        with db.read() as tx:
            assert tx.get(loan, id).item is tx.all(book).one()
        assert db.check(references=True) == []


def test_a_column_of_the_old_base_that_the_new_one_has_otherwise():
    def models(number):
        first = table("One", sg.Table, {"code": (int, 0)}, name="B.One")
        second = table("Two", sg.Table, {"code" if number < 3 else "text": (
            str | None, sg.column(was="code") if number == 3 else None)}, name="B.Two")
        return first, second, table("Leaf", first if number == 1 else second, {
            "code": (int, 0)} if number == 3 else {}, name="B.Leaf")

    with begin(*models(1)) as db, db.write() as tx:
        tx.new(db["B.Leaf"], code=4)
    with sg.open("shelf", models=models(2), sync=False) as db:
        [step] = [each for each in db.plan() if each.label == "refused"]
        assert step.text == ("move table B.Leaf under B.Two: it has B.One.code, and B.Two.code is "
                             "another column; give one of them another name, with was=")
        with pytest.raises(sg.SchemaError, match="give one of them another name"):
            db.apply(allow=ALL)
    with sg.open("shelf", models=models(3), sync=False) as db:
        assert lines(db) == ["instant     rename column B.Two.code to text",
                             "background  move table B.Leaf under B.Two"]
        db.apply()
        with db.read() as tx:
            assert [(each.code, each.text) for each in tx.all(db["B.Two"])] == [(4, None)]


def test_a_class_between_two_takes_columns_of_both():
    def models(number):
        top = table("Top", sg.Table, {"title": str | None, "rest": (int, 0)} if number == 1
                    else {"rest": (int, 0)}, name="B.Top")
        if number == 1:
            return top, table("Leaf", top, {"pages": (int, 0)}, name="B.Leaf")
        middle = table("Middle", top, {"title": str | None, "pages": str | None}, name="B.Middle")
        return top, table("Leaf", middle, {}, name="B.Leaf")

    with begin(*models(1)) as db, db.write() as tx:
        tx.new(db["B.Leaf"], title="t", pages=7, rest=1)
        tx.new(db["B.Top"], rest=2)
    with sg.open("shelf", models=models(2), sync=False) as db:
        assert {each.label for each in db.plan()} <= {"instant", "background", "lossy"}
        db.apply(allow=ALL)
        assert lines(db) == []
        with db.read() as tx:
            assert [(each.title, each.pages) for each in tx.all(db["B.Middle"])] == [("t", "7")]


def test_objects_get_no_zeros_with_a_column_that_moves_up_and_takes_none():
    def models(number):
        top = table("Top", sg.Table, {"pages": int | None} if number == 2 else {}, name="B.Top")
        return (top, table("Leaf", top, {"pages": (int, 0)} if number == 1 else {}, name="B.Leaf"),
                table("Other", top, {}, name="B.Other"))

    with begin(*models(1)) as db, db.write() as tx:
        tx.new(db["B.Leaf"], pages=7)
        tx.new(db["B.Leaf"])
        tx.new(db["B.Other"])
    with sg.open("shelf", models=models(2), sync=False) as db:
        db.apply()
        with db.read() as tx:
            assert {(type(each).__name__, each.pages) for each in tx.all(db["B.Top"])} == {
                ("Leaf", 7), ("Leaf", 0), ("Other", None)}


# ---- beside what others do


def test_a_table_with_objects_of_its_own_does_not_become_abstract():
    def classes(abstract):
        base = table("Item", sg.Table, {"year": int}, name="L.Item", abstract=abstract)
        return base, table("Book", base, {})

    base, book = classes(False)
    with begin(base, book) as db, db.write() as tx:
        tx.new(book, year=1)
        item = tx.new(base, year=2).id
    with sg.open("shelf", models=classes(True), sync=False) as db:
        assert lines(db) == ["refused     table L.Item cannot be abstract: it has 1 object of its own; "
                             "delete them, or make them objects of a class below it"]
        with pytest.raises(sg.SchemaError, match="cannot be abstract"):
            db.apply(allow=ALL)
    with sg.open("shelf", models=[base, book], sync=False) as db, db.write() as tx:
        tx.retype(tx.get(base, item), book)
    with sg.open("shelf", models=classes(True), sync=False) as db:
        assert lines(db) == ["instant     table L.Item is abstract"]
        db.apply()
        assert lines(db) == []


def test_others_see_the_classes_of_their_snapshot_and_then_an_error():
    before, after = item(year=(int, 0)), item(year=str | None)
    path = place()
    with begin(before, path=path) as old:
        with old.write() as tx:
            for year in range(500):
                tx.new(before, year=year)
        with sg.open(path, models=[after], sync=False) as new:
            with old.read() as tx:
                rows = iter(tx.all(before).order("year"))
                first = next(rows)
                thread = threading.Thread(target=new.apply)
                thread.start()
                thread.join()
                assert lines(new) == []
                assert [first.year, *(each.year for each in rows)] == list(range(500))
                assert tx.all(before).where(before.year < 3).count() == 3
            with old.read() as tx, pytest.raises(sg.SchemaError, match="year is str . None there"):
                tx.all(before).count()
            with pytest.raises(sg.EndedError):
                first.year
            with new.read() as tx:
                assert sorted(int(each.year) for each in tx.all(after)) == list(range(500))


def test_a_writer_that_began_before_meets_a_conflict():
    before, after = item(year=(int, 0)), item(year=str | None)
    path = place()
    with begin(before, path=path) as old, sg.open(path, models=[after], sync=False) as new:
        with old.write() as tx:
            tx.new(before, year=1)
        with pytest.raises(sg.Conflict), old.write() as tx:
            thread = threading.Thread(target=new.apply)
            tx.all(before).one().year = 2
            thread.start()
            thread.join()
        with new.read() as tx:
            assert tx.all(after).one().year == "1"


def test_the_same_classes_in_a_second_database():
    before, after = item(year=(int, 0)), item(year=str | None)
    for path in ("one", "two"):
        with begin(before, path=path) as db, db.write() as tx:
            tx.new(before, year=4)
    with sg.open("one", models=[after], sync=False) as one, \
            sg.open("two", models=[after], sync=False) as two:
        one.apply()
        with one.read() as tx:
            assert tx.all(after).one().year == "4"
        with two.read() as tx, pytest.raises(sg.SchemaError, match="year is int there"):
            tx.all(after).count()
        assert lines(one) == [] and len(lines(two)) == 1


def test_a_plan_in_an_open_transaction_sees_what_it_wrote():
    before, after = item(code=str | None), item(code=int | None)
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        with old.write() as tx:
            tx.new(before, code="1")
        with new.write():
            assert [each.label for each in new.plan()] == ["background"]
            with pytest.raises(sg.NestedTransaction):
                new.apply()


# ---- in batches, beside writers


def rows_of(db, cls, **columns):
    with db.write() as tx:
        tx.insert_many(cls, [{name: value(i) for name, value in columns.items()}
                             for i in range(300)])


def test_large_tables_change_in_batches_beside_writers():
    before, after = item(year=(int, 0), code=str | None), item(year=str | None, code=int | None)
    told = []
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, year=lambda i: i, code=str)

        def report(done):
            told.append(done)
            if len(told) == 2:
                with old.write() as tx:
                    tx.new(before, year=300, code="300")
                    tx.all(before).where(year=7).one().code = "-7"

        plan = new.apply(beside_writers=True, objects=100, batch=50, report=report)
        assert [step.label for step in plan] == ["background", "background"]
        assert {each["column"] for each in told} == {"L.Item.year", "L.Item.code"}
        assert all(set(each) == {"column", "done", "total", "conflicts"} for each in told)
        assert lines(new) == []
        with new.read() as tx:
            found = {each.year: each.code for each in tx.all(after)}
        assert found == {str(i): i for i in range(301)} | {"7": -7}
        assert new.check(references=True) == [] and new.jobs() == []


def test_a_table_without_room_for_a_hidden_column_changes_all_the_same():
    columns = {f"c{i}": int | None for i in range(112)}
    before, after = item(**columns), item(**columns | {"c5": str | None, "c7": str | None})
    with begin(before) as db, db.write() as tx:
        tx.insert_many(before, [tuple([i] * 112) for i in range(20)])
    with sg.open("shelf", models=[after], sync=False) as db:
        db.apply(beside_writers=True, objects=1, batch=3)
        assert lines(db) == [] and db.jobs() == []
        with db.read() as tx:
            assert [(each.c5, each.c6) for each in tx.all(after)] == [
                (str(i), i) for i in range(20)]


def test_what_was_written_in_batches_is_kept_for_the_next_call():
    before, after = item(year=(int, 0)), item(year=str | None)
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, year=lambda i: i)
        plan = lines(new)
        assert not new.apply(beside_writers=True, objects=100, batch=50, report=lambda _: False)
        assert lines(new) == plan
        with old.read() as tx:
            assert tx.all(before).where(year=4).count() == 1
        told = []
        assert new.apply(beside_writers=True, objects=100, batch=50, report=told.append)
        assert told[-1]["done"] == 250
        with new.read() as tx:
            assert sorted(int(each.year) for each in tx.all(after)) == list(range(300))


def test_what_is_refused_in_a_batch_leaves_nothing_behind():
    before, after = item(code=str | None), item(code=int | None)
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, code=str)
        told = []

        def report(done):
            told.append(done)
            if len(told) == 1:
                with old.write() as tx:
                    tx.new(before, code="none")

        with pytest.raises(sg.SchemaError, match='not allowed:\nlossy .*"none"'):
            new.apply(beside_writers=True, objects=100, batch=50, report=report)
        with old.read() as tx:
            assert [each["name"] for each in tx._snapshot.tables["L.Item"]["columns"]
                    if each["name"].startswith("__next")] == []
        assert new.jobs() == []
        with old.read() as tx:
            assert tx.all(before).count() == 301
        new.apply(allow=ALL, beside_writers=True, objects=100, batch=50)
        with new.read() as tx:
            assert sum(each.code is None for each in tx.all(after)) == 1


def test_an_exception_of_the_report_keeps_what_was_written():
    before, after = item(year=(int, 0)), item(year=str | None)
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, year=lambda i: i)

        def report(done):
            raise ZeroDivisionError

        with pytest.raises(ZeroDivisionError):
            new.apply(beside_writers=True, objects=100, batch=50, report=report)
        assert len(lines(new)) == 1
        new.apply()
        assert lines(new) == []


def cut_off(new):
    """A change of columns that ended after its first batch."""
    assert not new.apply(beside_writers=True, objects=100, batch=50, report=lambda _: False)
    [job] = new.jobs()
    assert (job.kind, job.state, job.total) == ("apply", "cut off", 3)
    return job


def annotated(annotation, default, comment):
    return item(year=(annotation, sg.column(default, stored=True, index=True, comment=comment)),
                code=(str | None if annotation is int else int | None))


def test_a_job_goes_on_with_what_was_cut_off():
    before, after = annotated(int, 1, "old"), annotated(str | None, "one", "new")
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, year=lambda i: i, code=str)
        job = cut_off(new)
        with pytest.raises(sg.NestedTransaction), new.read():
            new.apply(beside_writers=True, objects=100)
        assert job.resume() and new.jobs() == []
        assert lines(new) == []
        with new.write() as tx:
            assert {each.year: each.code for each in tx.all(after)} == {
                str(i): i for i in range(300)}
            tx.sql("INSERT INTO Item DEFAULT VALUES")
            assert tx.all(after).where(year="one").count() == 1
        assert "new" in str(new.describe(after)) and new.check(references=True) == []


def test_the_same_call_takes_the_job_up():
    before, after = annotated(int, 1, "old"), annotated(str | None, "one", "new")
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, year=lambda i: i, code=str)
        cut_off(new)
        seen = []
        new.apply(beside_writers=True, objects=100, batch=50,
                  report=lambda _: seen.extend(each.state for each in old.jobs()))
        assert set(seen) == {"running"}
        assert old.jobs() == [] and lines(new) == []


def test_a_job_that_would_lose_values_goes_on_when_that_is_allowed():
    before, after = item(code=str | None, name=str | None), item(code=int | None, name=int | None)
    with begin(before) as old, sg.open("shelf", models=[after], sync=False) as new:
        rows_of(old, before, code=str, name=str)
        cut_off(new)
        with old.write() as tx:
            tx.new(before, code="none")
        with pytest.raises(sg.SchemaError, match="not allowed"):
            new.apply(beside_writers=True, objects=100, batch=50)
        [job] = new.jobs()
        with pytest.raises(sg.SchemaError, match="does not convert|do not convert"):
            job.resume()
        assert job.resume(allow_losses=True) and lines(new) == []


def test_a_process_that_was_killed_leaves_a_job():
    import multiprocessing
    import os

    before, after = item(code=str | None, name=str | None), item(code=int | None, name=int | None)
    with begin(before) as old:
        rows_of(old, before, code=str, name=str)

    def work():
        with sg.open("shelf", models=[after], sync=False) as new:
            new.apply(beside_writers=True, objects=100, batch=50, report=lambda _: os._exit(7))

    child = multiprocessing.get_context("fork").Process(target=work)
    child.start()
    child.join()
    assert child.exitcode == 7
    with sg.open("shelf", models=[after], sync=False) as new:
        [job] = new.jobs()
        assert job.state == "cut off"
        new.apply(beside_writers=True, objects=100, batch=50)
        assert new.jobs() == [] and lines(new) == []
        with new.read() as tx:
            assert sorted(each.code for each in tx.all(after)) == list(range(300))

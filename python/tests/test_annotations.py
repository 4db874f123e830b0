"""Defaults, abstract tables and rules of references that the database has."""

import datetime
import decimal

import pytest

import sagleme as sg
from sagleme import statuses
from sagleme.stubs import source_of


class Party(sg.Table, name="Shop.Party"):
    name: str | None


class Order(sg.Table, name="Shop.Order"):
    by: Party | None = sg.ref(on_delete="refuse")
    next: "Order | None" = sg.ref(on_delete="cascade")
    note: Party | None = sg.ref(on_delete="last")


def test_rules_are_planned_and_applied_once(make):
    db = make(Party, Order)
    assert str(db.plan()) == "nothing to do"


def test_refuse_keeps_the_target(make):
    db = make(Party, Order)
    with db.write() as tx:
        party = tx.new(Party)
        order = tx.new(Order, by=party)
        with pytest.raises(sg.Error) as refused:
            tx.delete(party)
        assert refused.value.status == statuses.SAGLEME_OBJECT_REFERENCED
        assert party.name is None
        order.by = None
        tx.delete(party)


def test_cascade_ends_the_objects_that_went_along(make):
    db = make(Party, Order)
    with db.write() as tx:
        first = tx.new(Order)
        second = tx.new(Order, next=first)
        first.next = second
        ids = [first.id, second.id]
        tx.delete(first)
        assert [tx.get(Order, id) for id in ids] == [None, None]
        with pytest.raises(sg.Error):
            second.next  # noqa: B018


def test_last_reference_takes_its_target_along(make):
    db = make(Party, Order)
    with db.write() as tx:
        old, new = tx.new(Party), tx.new(Party)
        order = tx.new(Order, note=old)
        id = old.id
        order.note = new
        assert tx.get(Party, id) is None
        id = new.id
        order.note = None
        assert tx.get(Party, id) is None


def test_unknown_rules_are_refused():
    with pytest.raises(sg.ModelError, match="not 'explode'"):
        class Wrong(sg.Table):
            other: "Wrong | None" = sg.ref(on_delete="explode")


class Part(sg.Table, name="Shop.Part", abstract=True):
    """What can be sold.

    Or given away.
    """

    weight: decimal.Decimal = sg.column(decimal.Decimal("1.5"), stored=True, comment="in kilograms")
    count: int = sg.column(3, stored=True)
    label: str | None = sg.column("it's", stored=True)
    kept: bool = sg.column(True, stored=True)
    since: datetime.datetime = sg.column(
        datetime.datetime(2020, 1, 1, tzinfo=datetime.timezone.utc), stored=True)
    plain: int = 8
    of: "Part | None" = sg.ref(on_delete="set_null", comment="the whole")


class Wheel(Part, name="Shop.Wheel"):
    teeth: int = 0


def test_annotations_are_applied_once_and_shown(make):
    db = make(Part, Wheel)
    assert str(db.plan()) == "nothing to do"
    assert str(db.describe(Part)) == (
        "Shop.Part, abstract\n    # What can be sold.\n    # \n    # Or given away.\n"
        "    weight: Decimal  # default Decimal('1.5'); in kilograms\n"
        "    count: int  # default 3\n"
        '    label: str | None  # default "it\'s"\n'
        "    kept: bool  # default True\n"
        "    since: int  # default 1577836800000000\n"
        "    plain: int\n"
        "    of: Shop.Part | None  # on delete set_null; the whole\n"
        "    index (of)")
    assert "in kilograms" in db.describe()._repr_html_()


def test_the_plan_says_what_is_annotated():
    with sg.open("database", models=[Part]) as db:
        lines = [repr(step) for step in db.plan()]
        assert "instant     table Shop.Part is abstract" in lines
        assert "instant     default of Shop.Part.count: 3" in lines
        assert "instant     comment on Shop.Part.weight: 'in kilograms'" in lines


def test_stored_defaults_hold_for_sql(make):
    db = make(Part, Wheel)
    with db.write() as tx:
        tx.sql("INSERT INTO Wheel (teeth, plain) VALUES (5, 1)")
        wheel = tx.all(Wheel).one()
        assert (wheel.weight, wheel.count, wheel.label, wheel.kept) == (
            decimal.Decimal("1.5"), 3, "it's", True)
        assert wheel.since == Part.since._default and wheel.plain == 1


def test_abstract_tables_are_queried_and_have_no_objects(make):
    db = make(Part, Wheel)
    with db.write() as tx:
        wheel = tx.new(Wheel, teeth=7)
        assert tx.all(Part).where(Part.count == 3).one() is wheel
        with pytest.raises(sg.Error, match="Shop.Part"):
            tx.new(Part)
        assert tx.all(Part).count() == 1


def test_a_class_changes_annotations_and_leaves_what_it_does_not_name(make):
    make(Part, Wheel, path="shop").close()

    class Silent(sg.Table, name="Shop.Part"):
        weight: decimal.Decimal = decimal.Decimal(2)
        count: int = sg.column(4, stored=True, comment="how many")
        label: str | None
        kept: bool
        since: datetime.datetime
        plain: int
        of: "Silent | None" = sg.ref(index=True)

    with sg.open("shop", models=[Silent]) as db:
        assert [repr(step) for step in db.plan()] == [
            "instant     comment on Shop.Part.count: 'how many'",
            "instant     default of Shop.Part.count: 4"]
        db.apply()
        assert str(db.plan()) == "nothing to do"
        part = next(each for each in db.schema() if each["name"] == "Shop.Part")
        assert part["abstract"] and part["comment"].startswith("What can be sold")
        assert part["columns"][1] == {"name": "count", "type": "int", "default": 4,
                                      "comment": "how many"}


def test_classes_from_the_catalogue_have_annotations(make):
    make(Part, Wheel, path="shop").close()
    with sg.open("shop") as db:
        part = db["Shop.Part"]
        assert part.__doc__.startswith("What can be sold") and part._bare
        assert part.count._default == 3 and part.weight._comment == "in kilograms"
        with db.write() as tx:
            assert tx.new(db["Wheel"]).weight == decimal.Decimal("1.5")


def test_indexes_have_comments(make):
    class Before(sg.Table, name="Thing", indexes=[sg.Index("a", "-b", comment="for the list")]):
        a: int = 0
        b: int = 0

    def shown(db):
        return [(index["columns"], index.get("comment")) for index in db.schema()[0]["indexes"]]

    with sg.open("shop", models=[Before]) as db:
        assert "instant     comment on index Thing.a+-b: 'for the list'" in map(repr, db.plan())
        db.apply()
        assert str(db.plan()) == "nothing to do"
        assert shown(db) == [([("a", True), ("b", False)], "for the list")]
        assert "index (a, -b)  # for the list" in str(db.describe(Before))
        assert "comment='for the list'" in source_of(db.schema())

    class After(sg.Table, name="Thing", indexes=[sg.Index("a", "-b", comment="")]):
        a: int = 0
        b: int = 0

    with sg.open("shop", models=[After]) as db:
        assert [repr(step) for step in db.plan()] == [
            "instant     comment on index Thing.a+-b: ''"]
        db.apply()
        assert shown(db) == [([("a", True), ("b", False)], None)]


def test_an_abstract_table_with_objects_is_refused(make):
    class Before(sg.Table, name="Shop.Thing"):
        size: int = 0

    db = make(Before, path="shop")
    with db.write() as tx:
        tx.new(Before)
    db.close()

    class After(sg.Table, name="Shop.Thing", abstract=True):
        size: int = 0

    with sg.open("shop", models=[After]) as db, pytest.raises(sg.Error, match="1"):
        db.apply()

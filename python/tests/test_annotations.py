"""Defaults, abstract tables and rules of references that the database has."""

import pytest

import sagleme as sg
from sagleme import statuses


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


def test_unknown_rules_and_rules_of_other_columns_are_refused():
    with pytest.raises(sg.ModelError, match="not 'explode'"):
        sg.ref(on_delete="explode")
    with pytest.raises(sg.ModelError, match="on_delete is for references"):
        class Wrong(sg.Table, name="Shop.Wrong"):
            name: str | None = sg.ref(on_delete="refuse")

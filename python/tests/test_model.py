"""Random classes, changes and data, against plain Python objects."""

import tempfile

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from test_schema import in_child

import sagleme as sg

KINDS = {
    "int": (int | None, st.none() | st.integers(-(2**63), 2**63 - 1)),
    "float": (float | None, st.none() | st.floats(allow_nan=False)),
    "str": (str | None, st.none() | st.text(st.characters(min_codepoint=1), max_size=20)),
    "bytes": (bytes | None, st.none() | st.binary(max_size=20)),
    "bool": (bool | None, st.none() | st.booleans()),
}
names = st.sampled_from(["alpha", "beta", "gamma", "delta"])
columns = st.dictionaries(names, st.sampled_from(sorted(KINDS)), max_size=4)


@st.composite
def programs(draw):
    """Two versions of a class and its descendant, and objects of both."""
    first, second = draw(columns), draw(columns)
    kept = {name: kind for name, kind in second.items() if first.get(name, kind) == kind}
    indexed = draw(st.sets(names))

    def rows(of):
        return draw(st.lists(st.tuples(st.booleans(), st.fixed_dictionaries(
            {name: KINDS[kind][1] for name, kind in of.items()})), max_size=12))

    return first, kept, indexed, rows(first), rows(kept)


def classes(shape, indexed):
    namespace = {"__annotations__": {name: KINDS[kind][0] for name, kind in shape.items()}}
    for name, kind in shape.items():
        if name in indexed and kind != "bytes":
            namespace[name] = sg.column(index=True)
    top = type(sg.Table)("Top", (sg.Table,), {"__module__": __name__, **namespace}, name="M.Top")
    leaf = type(sg.Table)("Leaf", (top,), {"__module__": __name__}, name="M.Leaf")
    return top, leaf


def as_rows(query, names):
    return sorted(repr(tuple(getattr(each, name) for name in names)) for each in query)


def wanted_rows(rows, names):
    return sorted(repr(tuple(row.get(name) for name in names)) for _, row in rows)


def check(tx, top, leaf, rows, shape):
    names = sorted(shape)
    assert as_rows(tx.all(top), names) == wanted_rows(rows, names)
    assert as_rows(tx.all(leaf), names) == wanted_rows([r for r in rows if r[0]], names)
    for name, kind in shape.items():
        column = getattr(top, name)
        values = [row.get(name) for _, row in rows]
        for value in values[:4]:
            equal = [row for row in rows if row[1].get(name) == value]
            assert tx.all(top).where(column == value).count() == len(equal)
            if value is not None:
                below = [each for each in values if each is not None and below_of(kind, each, value)]
                assert tx.all(top).where(column < value).count() == len(below)
        if kind != "bytes":
            found = [getattr(each, name) for each in tx.all(top).order(column)]
            assert found == sorted(values, key=lambda each: key_of(kind, each))


def key_of(kind, value):
    if value is None:
        return (0,)
    return (1, value.encode("utf-16-be", "surrogatepass") if kind == "str" else value)


def below_of(kind, one, two):
    return key_of(kind, one) < key_of(kind, two)


def run(program, folder):
    first, second, indexed, old_rows, new_rows = program

    def create():
        top, leaf = classes(first, indexed)
        with sg.open(folder, models=[leaf], sync=False) as db:
            db.apply()
            with db.write() as tx:
                for is_leaf, row in old_rows:
                    tx.new(leaf if is_leaf else top, **row)
                check(tx, top, leaf, old_rows, first)
            with db.read() as tx:
                check(tx, top, leaf, old_rows, first)

    def change():
        top, leaf = classes(second, set(names_of(second)) - indexed)
        with sg.open(folder, models=[leaf], sync=False) as db:
            db.apply(allow={"instant", "background", "lossy"})
            assert db.plan() == []
            kept = [(is_leaf, {name: value for name, value in row.items() if name in second})
                    for is_leaf, row in old_rows]
            with db.write() as tx:
                check(tx, top, leaf, kept, second)
                with tx.savepoint() as point:
                    tx.insert_many(top, [row for _, row in new_rows] or [])
                    point.rollback()
                check(tx, top, leaf, kept, second)
                for is_leaf, row in new_rows:
                    tx.new(leaf if is_leaf else top, **row)
            if second:
                db.vacuum()
            with db.read() as tx:
                check(tx, top, leaf, kept + new_rows, second)
            assert db.check(references=True) == []

    in_child(create)
    in_child(change)


def names_of(shape):
    return list(shape)


@settings(max_examples=40, deadline=None, derandomize=True,
          suppress_health_check=list(HealthCheck))
@given(programs())
def test_programs_and_their_changes(program):
    with tempfile.TemporaryDirectory() as folder:
        run(program, folder + "/database")

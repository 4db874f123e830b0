"""Random trees of classes, and others in their place, against plain Python objects."""

import tempfile

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from test_schema import in_child

import sagleme as sg

# The annotation, values, and the value of an object that has none.
KINDS = {
    "int": (int, st.integers(-3, 3), 0),
    "int | None": (int | None, st.none() | st.integers(-3, 3), None),
    "str | None": (str | None, st.none() | st.sampled_from(["1", "2", "x"]), None),
    "float | None": (float | None, st.none() | st.sampled_from([1.0, 2.5]), None),
}
TABLES, COLUMNS = "ABCD", "pqr"
LOST = object()


def line(tree, name):
    """The table and those above it."""
    while name is not None:
        yield name
        name = tree[name][0]


def columns_of(tree, name):
    return {column: kind for each in line(tree, name) for column, kind in tree[each][1].items()}


@st.composite
def trees(draw):
    """Tables by name, bases first: the base, the columns with their kinds."""
    tree = {}
    for name in draw(st.permutations(TABLES))[:draw(st.integers(1, len(TABLES)))]:
        base = draw(st.sampled_from([None, *tree]))
        inherited = columns_of(tree, base) if base is not None else {}
        own = draw(st.dictionaries(st.sampled_from(COLUMNS), st.sampled_from(sorted(KINDS)),
                                   max_size=2))
        tree[name] = (base, {each: kind for each, kind in own.items() if each not in inherited})
    return tree


@st.composite
def programs(draw):
    first = draw(trees())
    rows = []
    for name in draw(st.lists(st.sampled_from(list(first)), max_size=8)):
        rows.append((name, {column: draw(KINDS[kind][1])
                            for column, kind in columns_of(first, name).items()}))
    return first, draw(trees()), rows, draw(st.booleans())


def classes(tree, indexed):
    made = {}
    for name, (base, columns) in tree.items():
        body = {"__module__": __name__,
                "__annotations__": {each: KINDS[kind][0] for each, kind in columns.items()}}
        body |= {each: sg.column(index=True) for each in columns if indexed and each != "r"}
        made[name] = type(sg.Table)(name, (made[base] if base else sg.Table,), body,
                                    name=f"M.{name}")
    return made


def converted(value, before, after):
    """What becomes of a value; LOST if the new type does not hold it."""
    if value is None or before == after:
        return value if value is not None or after != "int" else LOST
    if after == "str | None":
        return str(int(value)) if value == int(value) else str(value)
    try:
        number = float(value)
    except ValueError:
        return LOST
    if after == "float | None":
        return number
    return int(number) if number == int(number) else LOST


def check(tx, made, first, second, rows, lossy):
    for id, (name, row) in rows:
        if name not in second:
            continue
        found = tx.get(made[name], id)
        assert type(found) is made[name]
        before = columns_of(first, name)
        for column, kind in columns_of(second, name).items():
            value, none = getattr(found, column), KINDS[kind][2]
            wanted = converted(row[column], before[column], kind) if column in row else none
            if f".{column}" in lossy and (value != wanted or wanted is LOST):
                continue
            assert wanted is not LOST and value == wanted or (column not in row and value == 0)
    for name, cls in made.items():
        ids = {id for id, (each, _) in rows if each in second and name in line(second, each)}
        others = {id for id, (each, _) in rows if each not in second}
        assert {each.id for each in tx.all(cls)} - others == ids
        for column in columns_of(second, name):
            values = [getattr(each, column) for each in tx.all(cls)]
            for value in values[:3]:
                query = tx.all(cls).where(getattr(cls, column) == value)
                assert query.count() == values.count(value)


def run(first, second, rows, indexed, folder):
    def create():
        made = classes(first, indexed)
        with sg.open(folder, models=made.values(), sync=False) as db:
            db.apply()
            with db.write() as tx:
                return [tx.new(made[name], **row).id for name, row in rows]

    def change(ids):
        made = classes(second, indexed)
        with sg.open(folder, models=made.values(), sync=False) as db:
            plan = db.plan()
            allowed = {"instant", "background", "lossy"}
            if "refused" in plan.labels:
                with pytest.raises(sg.SchemaError):
                    db.apply(allow=allowed)
                assert str(db.plan()) == str(plan)
                return
            db.apply(allow=allowed)
            assert db.plan() == []
            lossy = " ".join(step.text for step in plan if step.label == "lossy")
            for _ in range(2):
                with db.read() as tx:
                    check(tx, made, first, second, list(zip(ids, rows)), lossy)
                db.vacuum()
            assert db.check(references=True) == []

    ids = in_child(create)
    in_child(lambda: change(ids))


@settings(max_examples=40, deadline=None, derandomize=True,
          suppress_health_check=list(HealthCheck))
@given(programs())
def test_trees_of_classes_and_those_that_follow_them(program):
    first, second, rows, indexed = program
    with tempfile.TemporaryDirectory() as folder:
        run(first, second, rows, indexed, folder + "/database")

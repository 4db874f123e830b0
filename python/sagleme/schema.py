"""What leads from the schema of a database to that of its classes."""

from __future__ import annotations

import datetime
import decimal
from collections.abc import Callable, Iterable
from typing import Any

from . import _core, declarations, models
from .errors import SchemaError

# Name, table, columns, and whether it is unique.
IndexKey = tuple[str, str, list[tuple[str, bool]], bool]

LABELS = ("instant", "background", "lossy", "refused")


class Step:
    """One change. Its label says what it costs:

    instant: only the catalogue changes. background: objects are read now, for an index, or moved
    later, by db.vacuum(). lossy: values are lost. refused: it cannot be done; the text says why.
    """

    __slots__ = ("label", "text", "run", "rank", "index")

    def __init__(self, label: str, text: str, rank: int, run: Callable[[Any], None],
                 index: IndexKey | None = None) -> None:
        self.label, self.text, self.rank, self.run = label, text, rank, run
        self.index = index  # that it creates

    def __repr__(self) -> str:
        return f"{self.label:<10}  {self.text}"


class Plan(list[Step]):
    """The steps, in the order in which they are made."""

    def __str__(self) -> str:
        return "\n".join(map(repr, self)) if self else "nothing to do"

    @property
    def labels(self) -> set[str]:
        return {step.label for step in self}

    def _indexes(self) -> list[IndexKey]:
        """What can be built before the plan is made: none if the plan moves what it is built on, or
        has steps that objects may refuse."""
        if any(step.rank not in _IN_PLACE for step in self):
            return []
        return [step.index for step in self if step.index is not None]

    def _repr_html_(self) -> str:
        from .html import table_of

        return table_of("plan", ["label", "step"], [[step.label, step.text] for step in self])


# The order in which changes can be made.
(_DROP_INDEX, _RENAME_TABLE, _RENAME_COLUMN, _DROP_COLUMN, _CREATE_TABLE, _ADD_COLUMNS, _FINISH,
 _CREATE_INDEX, _RULE, _BARE, _ANNOTATE, _REFUSED) = range(12)
_IN_PLACE = {_DROP_INDEX, _CREATE_TABLE, _ADD_COLUMNS, _FINISH, _CREATE_INDEX, _ANNOTATE}


def _refused(text: str) -> Step:
    def run(tx: Any) -> None:
        raise SchemaError(text)

    return Step("refused", text, _REFUSED, run)


def column_type(entry: dict[str, Any]) -> str:
    """The type of a column of the catalogue, as a class would annotate it."""
    name = entry["target"] if entry["type"] == declarations.REFERENCE else declarations.TYPE_NAMES[entry["type"]]
    return f"{name} | None" if entry["nullable"] else str(name)


def field_type(column: Any) -> str:
    if column._kind == declarations.REFERENCE:
        name = column._target_class()._table_name
    else:
        name = declarations.TYPE_NAMES[column._kind]
    return f"{name} | None" if column._nullable else name


def _spec(column: Any) -> tuple[str, int, bool, str]:
    target = column._target_class()
    return (column._column, declarations.STORED[column._kind], column._nullable,
            target._table_name if target is not None else "")


_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)


def stored_default(kind: int, value: Any) -> Any:
    """A default as the extension takes it."""
    if kind == declarations.DECIMAL:
        return int(value.scaleb(6))
    if kind == declarations.DATETIME:
        return (value - _EPOCH) // datetime.timedelta(microseconds=1)
    return value


def shown_default(entry: dict[str, Any]) -> Any:
    """The default that the catalogue has, as a class would write it."""
    value = entry["default"]
    if entry["type"] != declarations.DECIMAL or value is None:
        return value
    return decimal.Decimal(f"{decimal.Decimal(value).scaleb(-6):f}".rstrip("0").rstrip("."))


class _Planner:
    """Compares classes with the tables of the catalogue."""

    def __init__(self, classes: list[Any], tables: Iterable[dict[str, Any]]) -> None:
        self.classes = classes
        self.tables = {table["name"]: table for table in tables}
        self.steps: list[Step] = []
        self.renamed: dict[str, str] = {}  # new name -> old name
        self.new_references = False

    def plan(self) -> Plan:
        for cls in self.classes:
            self._find_rename(cls)
        for cls in self.classes:
            old = self.tables.get(self.renamed.get(cls._table_name, cls._table_name))
            if old is None:
                self._create(cls)
            else:
                self._alter(cls, old)
        if self.new_references:
            self.steps.append(Step("instant", "", _FINISH, _core.finish_references))
        ordered = sorted(self.steps, key=lambda step: step.rank)
        return Plan(ordered)

    def _find_rename(self, cls: Any) -> None:
        name, was = cls._table_name, cls._was
        wanted = {each._table_name for each in self.classes}
        if name in self.tables or not was or was not in self.tables or was in wanted:
            return
        self.renamed[name] = was
        self.steps.append(Step("instant", f"rename table {was} to {name}", _RENAME_TABLE,
                               lambda tx: _core.rename_table(tx, was, name)))

    def _new_name(self, table: str) -> str:
        return next((new for new, old in self.renamed.items() if old == table), table)

    def _create(self, cls: Any) -> None:
        name = cls._table_name
        base = cls._base._table_name if cls._base is not None else ""
        columns = [_spec(each) for each in cls._own]
        self.new_references |= any(each._kind == declarations.REFERENCE for each in cls._own)
        shown = ", ".join(f"{each._column}: {field_type(each)}" for each in cls._own)
        under = f" under {base}" if base else ""
        self.steps.append(Step("instant", f"create table {name}{under} ({shown})", _CREATE_TABLE,
                               lambda tx: _core.create_table(tx, name, base, columns)))
        for index in cls._indexes:
            self._create_index(cls, index)
        self._annotate_table(cls, None)
        for column in cls._own:
            self._rule(cls, column, "")
            self._annotate_column(cls, column, None)

    def _alter(self, cls: Any, table: dict[str, Any]) -> None:
        if not self._base_fits(cls, table):
            return
        present = {each["name"]: each for each in _own_columns(table)}
        kept: dict[str, str] = {}  # column before -> column after
        added = []
        self._annotate_table(cls, table)
        for column in cls._own:
            before = self._before(cls, column, present)
            self._annotate_column(cls, column, before)
            self._rule(cls, column, before["on_delete"] if before is not None else "")
            if before is None:
                added.append(column)
                continue
            kept[before["name"]] = column._column
            self._compare(cls, column, before)
        self._rename_columns(cls, kept)
        gone = [name for name in present if name not in kept]
        self._indexes(cls, table, kept)
        for name in gone:
            self._drop_column(cls, name)
        if added:
            self._add_columns(cls, added)

    def _base_fits(self, cls: Any, table: dict[str, Any]) -> bool:
        base = self._new_name(table["base"]) if table["base"] in self.tables else ""
        wanted = cls._base._table_name if cls._base is not None else ""
        if base != wanted:
            self.steps.append(_refused(
                f"table {cls._table_name} derives from {base or 'no table'} in the database and "
                f"from {wanted or 'no table'} in class {cls.__name__}; a base cannot change"))
        return base == wanted

    @staticmethod
    def _before(cls: Any, column: Any, present: dict[str, Any]) -> dict[str, Any] | None:
        if column._column in present:
            return present[column._column]
        declared = {each._column for each in cls._own}
        return present.get(column._was) if column._was not in declared else None

    def _compare(self, cls: Any, column: Any, before: dict[str, Any]) -> None:
        name, type_, nullable, target = _spec(column)
        same_target = type_ != declarations.REFERENCE or self._new_name(before["target"]) == target
        if before["type"] == type_ and before["nullable"] == nullable and same_target:
            return
        self.steps.append(_refused(
            f"column {cls._table_name}.{name} is {column_type(before)} in the database and "
            f"{field_type(column)} as {column!r}; a column's type cannot change: declare a new "
            f"column and copy the values"))

    def _rule(self, cls: Any, column: Any, before: str) -> None:
        rule = column._on_delete
        if rule is None or rule == (before or "keep"):
            return
        table, name = cls._table_name, column._column
        text = f"on deletion of the target of {table}.{name}: {rule}"
        self.steps.append(Step("background", text, _RULE,
                               lambda tx: _core.set_on_delete(tx, table, name, rule)))

    def _annotate_table(self, cls: Any, before: dict[str, Any] | None) -> None:
        table, comment, bare = cls._table_name, cls._comment, cls._bare
        if comment is not None and comment != (before["comment"] if before else ""):
            self._annotate(f"comment on table {table}: {comment!r}",
                           lambda tx: _core.set_comment(tx, table, "", comment))
        if bare is not None and bool(bare) != (before["abstract"] if before else False):
            what = "abstract" if bare else "no longer abstract"
            self.steps.append(Step("instant", f"table {table} is {what}", _BARE,
                                   lambda tx: _core.set_abstract(tx, table, bool(bare))))

    def _annotate_column(self, cls: Any, column: Any, before: dict[str, Any] | None) -> None:
        table, name, comment = cls._table_name, column._column, column._comment
        if comment is not None and comment != (before["comment"] if before else ""):
            self._annotate(f"comment on {table}.{name}: {comment!r}",
                           lambda tx: _core.set_comment(tx, table, name, comment))
        if not column._stored:
            return
        value = stored_default(column._kind, column._default)
        if before is None or value != before["default"]:
            self._annotate(f"default of {table}.{name}: {column._default!r}",
                           lambda tx: _core.set_default(tx, table, name, value))

    def _annotate(self, text: str, run: Callable[[Any], None]) -> None:
        self.steps.append(Step("instant", text, _ANNOTATE, run))

    def _rename_columns(self, cls: Any, kept: dict[str, str]) -> None:
        for before, after in kept.items():
            if before == after:
                continue
            text = f"rename column {cls._table_name}.{before} to {after}"
            self.steps.append(Step("instant", text, _RENAME_COLUMN, _renaming(cls, before, after)))

    def _drop_column(self, cls: Any, name: str) -> None:
        table = cls._table_name
        self.steps.append(Step("lossy", f"drop column {table}.{name}, with its values",
                               _DROP_COLUMN, lambda tx: _core.drop_column(tx, table, name)))

    def _add_columns(self, cls: Any, added: list[Any]) -> None:
        table, columns = cls._table_name, [_spec(each) for each in added]
        self.new_references |= any(each._kind == declarations.REFERENCE for each in added)
        shown = ", ".join(f"{each._column}: {field_type(each)}" for each in added)
        self.steps.append(Step("instant", f"add to table {table} ({shown})", _ADD_COLUMNS,
                               lambda tx: _core.add_columns(tx, table, columns)))

    def _indexes(self, cls: Any, table: dict[str, Any], kept: dict[str, str]) -> None:
        wanted = {(index_columns(cls, index), index.unique): index for index in cls._indexes}
        inherited = {} if cls._base is None else {
            each._column: each._column for each in cls._base._columns.values()}
        for index in table["indexes"]:
            names = {**inherited, **kept}
            columns = tuple((names.get(name, ""), up) for name, up in index["columns"])
            same = wanted.pop((columns, index["unique"]), None)
            if same is None:
                self._drop_index(cls, index)
            else:
                self._annotate_index(index["name"], index["comment"], same.comment)
        for index in wanted.values():
            self._create_index(cls, index)

    def _drop_index(self, cls: Any, index: dict[str, Any]) -> None:
        name = index["name"]
        text = f"drop index {name} of table {cls._table_name}"
        self.steps.append(Step("instant", text, _DROP_INDEX,
                               lambda tx: _core.drop_index(tx, name)))

    def _create_index(self, cls: Any, index: Any) -> None:
        table, columns = cls._table_name, index_columns(cls, index)
        name = index_name(table, columns, index.unique)
        shown = ", ".join(each if up else f"{each} backwards" for each, up in columns)
        text = f"create {'unique ' if index.unique else ''}index over {table} ({shown})"
        key = (name, table, list(columns), index.unique)
        self.steps.append(Step("background", text, _CREATE_INDEX,
                               lambda tx: _core.create_index(tx, *key), key))
        self._annotate_index(name, "", index.comment)

    def _annotate_index(self, name: str, before: str, comment: str | None) -> None:
        if comment is None or comment == before:
            return
        text = comment
        self._annotate(f"comment on index {name}: {text!r}",
                       lambda tx: _core.set_index_comment(tx, name, text))


def index_name(table: str, columns: Iterable[tuple[str, bool]], unique: bool) -> str:
    shown = "+".join(each if up else f"-{each}" for each, up in columns)
    return f"{table}.{shown}" + (" unique" if unique else "")


def _renaming(cls: Any, before: str, after: str) -> Callable[[Any], None]:
    return lambda tx: _core.rename_column(tx, cls._table_name, before, after)


def index_columns(cls: Any, index: Any) -> tuple[tuple[str, bool], ...]:
    return tuple((cls._columns[name]._column, up) for name, up in index.columns)


def make_plan(classes: list[Any], tables: Iterable[dict[str, Any]]) -> Plan:
    return _Planner(classes, tables).plan()


def visible(plan: Plan) -> Plan:
    """Without the steps that only finish others."""
    return Plan(step for step in plan if step.text)


# ---- the schema for people


def _own_columns(table: dict[str, Any]) -> list[dict[str, Any]]:
    return [each for each in table["columns"]
            if not each["inherited"] and not each["name"].startswith("__")]


def _described_column(entry: dict[str, Any]) -> dict[str, Any]:
    found = {"name": entry["name"], "type": column_type(entry)}
    annotations = {"default": shown_default(entry), "on_delete": entry["on_delete"] or None,
                   "comment": entry["comment"] or None}
    return found | {name: value for name, value in annotations.items() if value is not None}


def _described_index(entry: dict[str, Any]) -> dict[str, Any]:
    found = {name: entry[name] for name in ("name", "unique", "columns")}
    return found | ({"comment": entry["comment"]} if entry["comment"] else {})


def described(table: dict[str, Any]) -> dict[str, Any]:
    """A table as a plain dictionary."""
    return {
        "name": table["name"],
        "base": "" if table["base"].startswith("Lorvenstack.") else table["base"],
        "comment": table["comment"],
        "abstract": table["abstract"],
        "columns": [_described_column(each) for each in _own_columns(table)],
        "indexes": [_described_index(each) for each in table["indexes"]],
    }


class Description:
    """Tables in words."""

    def __init__(self, tables: list[dict[str, Any]]) -> None:
        self._tables = [described(table) for table in tables]

    def __str__(self) -> str:
        return "\n\n".join(map(_table_in_words, self._tables))

    __repr__ = __str__

    def _repr_html_(self) -> str:
        from .html import table_of

        return "".join(
            table_of(_head_of(table) + "".join(f" \N{EN DASH} {line}" for line
                                               in table["comment"].splitlines()[:1]),
                     ["column", "type", ""],
                     [[each["name"], each["type"], _annotations_in_words(each)]
                      for each in table["columns"]]
                     + [[_index_in_words(each), "", each.get("comment", "")]
                        for each in table["indexes"]])
            for table in self._tables)


def _table_in_words(table: dict[str, Any]) -> str:
    lines = [f"    # {line}" for line in table["comment"].splitlines()]
    for each in table["columns"]:
        more = _annotations_in_words(each)
        lines.append(f"    {each['name']}: {each['type']}" + (f"  # {more}" if more else ""))
    for index in table["indexes"]:
        more = f"  # {' '.join(index['comment'].splitlines())}" if "comment" in index else ""
        lines.append(f"    {_index_in_words(index)}{more}")
    return "\n".join([_head_of(table), *lines])


def _index_in_words(index: dict[str, Any]) -> str:
    names = ", ".join(name if up else f"-{name}" for name, up in index["columns"])
    return f"{'unique ' if index['unique'] else ''}index ({names})"


def _head_of(table: dict[str, Any]) -> str:
    head = str(table["name"]) + (f" under {table['base']}" if table["base"] else "")
    return head + (", abstract" if table["abstract"] else "")


def _annotations_in_words(column: dict[str, Any]) -> str:
    words = [f"default {column['default']!r}"] if "default" in column else []
    words += [f"on delete {column['on_delete']}"] if "on_delete" in column else []
    return "; ".join(words + column.get("comment", "").splitlines())


# ---- classes for the tables of a catalogue


def misfit_of(cls: Any, tables: dict[str, Any]) -> str:
    """Why objects of a class cannot be used; empty when they can."""
    table = tables.get(cls._table_name)
    if table is None:
        return (f"the database has no table {cls._table_name} for class {cls.__name__}; "
                f"db.apply() creates it")
    base = table["base"] if table["base"] in tables else ""
    wanted = cls._base._table_name if cls._base is not None else ""
    if base != wanted:
        return (f"class {cls.__name__} does not fit table {cls._table_name}, which derives from "
                f"{base or 'no table'}; db.plan() shows more")
    present = {each["name"]: each for each in table["columns"]}
    for column in cls._columns.values():
        name, type_, nullable, target = _spec(column)
        before = present.get(name)
        if before is None:
            return (f"class {cls.__name__} does not fit table {cls._table_name}, which has no "
                    f"column {name}; db.apply() adds it")
        same_target = type_ != declarations.REFERENCE or before["target"] == target
        if before["type"] != type_ or before["nullable"] != nullable or not same_target:
            return (f"class {cls.__name__} does not fit table {cls._table_name}: column {name} is "
                    f"{column_type(before)} there and {field_type(column)} as {column!r}; "
                    f"db.plan() shows more")
    return ""


class ClassMaker:
    """Makes classes for tables that have none, and keeps them while their shape stays."""

    def __init__(self, classes: list[Any]) -> None:
        self.given = {cls._table_name: cls for cls in classes}
        self.made: dict[int, tuple[Any, Any]] = {}  # by the table's identity: its shape, the class

    def classes(self, tables: dict[str, Any]) -> dict[str, Any]:
        found: dict[str, Any] = dict(self.given)
        for name in tables:
            self._class_for(name, tables, found)
        return found

    def _class_for(self, name: str, tables: dict[str, Any], found: dict[str, Any]) -> Any:
        if name in found:
            return found[name]
        table = tables[name]
        base = models.Table
        if table["base"] in tables:
            base = self._class_for(table["base"], tables, found)
        own = _own_columns(table)
        shape = (name, base, table["comment"], table["abstract"], [
            (each["name"], each["type"], each["nullable"], each["target"], each["on_delete"],
             each["comment"], each["default"]) for each in own])
        known = self.made.get(table["id"])
        if known is None or known[0] != shape:
            self.made[table["id"]] = known = (shape, _made_class(table, base, own))
        found[name] = known[1]
        return known[1]


def _made_class(table: dict[str, Any], base: Any, own: list[dict[str, Any]]) -> Any:
    specs, name = [], table["name"]
    for each in own:
        attribute = each["name"]
        while attribute in models._TAKEN or attribute.startswith("_") or attribute in base._columns:
            attribute = attribute.lstrip("_") + "_"
        default = shown_default(each)
        options = declarations.Options(default, each["name"], stored=default is not None,
                                  on_delete=each["on_delete"] or None,
                                  comment=each["comment"] or None)
        target = (each["target"] or None) if each["type"] == declarations.REFERENCE else None
        specs.append(models._Spec(attribute, each["type"], each["nullable"], target, options))
    meta: Any = models.TableMeta
    body = {"__module__": "sagleme.made", "__doc__": table["comment"] or None}
    return meta(name.rpartition(".")[2], (base,), body, name=name,
                abstract=table["abstract"] or None, _specs=specs)


def bind(found: dict[str, Any], tables: dict[str, Any]) -> Any:
    """The view of the classes for the extension."""
    entries = []
    for name, cls in found.items():
        table = tables.get(name)
        for column in cls._own:
            if isinstance(column._target, str):
                column._target = found.get(column._target) or column._target_class()
        misfit = misfit_of(cls, tables)
        columns = []
        if table is not None and not misfit:
            ordinals = {each["name"]: each["ordinal"] for each in table["columns"]}
            columns = [(each, ordinals[each._column], each._kind, each._target_class(),
                        each._default) for each in cls._columns.values()]
        entries.append((cls, table["layout"] if table else 0, table["setspec"] if table else "",
                        misfit, columns))
    return _core.View(entries)

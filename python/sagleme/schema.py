"""The schema of a database for people, and the classes that its tables get."""

from __future__ import annotations

import datetime
import decimal
from collections.abc import Iterable
from typing import Any

from . import _core, declarations, models


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


def column_spec(column: Any) -> tuple[str, int, bool, str]:
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


def index_name(table: str, columns: Iterable[tuple[str, bool]], unique: bool) -> str:
    shown = "+".join(each if up else f"-{each}" for each, up in columns)
    return f"{table}.{shown}" + (" unique" if unique else "")


def index_columns(cls: Any, index: Any) -> tuple[tuple[str, bool], ...]:
    return tuple((cls._columns[name]._column, up) for name, up in index.columns)


# ---- the schema for people


def own_columns(table: dict[str, Any]) -> list[dict[str, Any]]:
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
        "columns": [_described_column(each) for each in own_columns(table)],
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
        name, type_, nullable, target = column_spec(column)
        before = present.get(name)
        if before is None:
            return (f"class {cls.__name__} does not fit table {cls._table_name}, which has no "
                    f"column {name}; db.apply() adds it")
        same_target = type_ != declarations.REFERENCE or before["target"] == target
        if before["type"] != type_ or before["nullable"] != nullable or not same_target:
            return (f"class {cls.__name__} does not fit table {cls._table_name}: column {name} is "
                    f"{column_type(before)} there and {field_type(column)} as {column!r}; "
                    f"db.plan() shows more")
    return "" if cls._base is None else misfit_of(cls._base, tables)


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
        own = own_columns(table)
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
    inherited = {each._column for each in base._columns.values()}  # of a class that is ahead of it
    for each in own:
        attribute = each["name"]
        if attribute in inherited:
            continue
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

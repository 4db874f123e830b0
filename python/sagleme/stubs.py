"""Classes for the tables of a database, as a program would write them.

>>> print(source_of([{"name": "Shop.Item", "base": "", "indexes": [], "columns": [
...     {"name": "title", "type": "str | None"}, {"name": "weight", "type": "int"}]}]))
import sagleme as sg
<BLANKLINE>
<BLANKLINE>
class Item(sg.Table, name="Shop.Item"):
    title: str | None
    weight: int
"""

from __future__ import annotations

import keyword
import math
from typing import Any

from . import models

_IMPORTS = {"Decimal": "from decimal import Decimal", "datetime": "from datetime import datetime"}


def source_of(tables: list[dict[str, Any]]) -> str:
    """Python's source of classes for tables as db.schema() gives them."""
    names = _class_names(tables)
    body = [_class_source(table, names) for table in _bases_first(tables)]
    used = [line for word, line in _IMPORTS.items() if any(f": {word}" in each for each in body)]
    head = "\n".join(used + ([""] if used else []) + ["import sagleme as sg"])
    return "\n\n\n".join([head, *body])


def _class_names(tables: list[dict[str, Any]]) -> dict[str, str]:
    """The last part of each table's name, with a number where that is taken."""
    found: dict[str, str] = {}
    for table in tables:
        plain = _identifier(table["name"].rpartition(".")[2])
        name, number = plain, 2
        while name in found.values():
            name, number = f"{plain}{number}", number + 1
        found[table["name"]] = name
    return found


def _identifier(name: str) -> str:
    text = "".join(each if each.isidentifier() or each.isdigit() else "_" for each in name)
    if not text.isidentifier() or keyword.iskeyword(text):
        text = f"_{text}" if not text[:1].isalpha() else f"{text}_"
    return text


def _bases_first(tables: list[dict[str, Any]]) -> list[dict[str, Any]]:
    by_name = {table["name"]: table for table in tables}
    done: dict[str, dict[str, Any]] = {}

    def add(table: dict[str, Any]) -> None:
        if table["base"] in by_name and table["base"] not in done:
            add(by_name[table["base"]])
        done.setdefault(table["name"], table)

    for table in tables:
        add(table)
    return list(done.values())


def _class_source(table: dict[str, Any], names: dict[str, str]) -> str:
    attributes = {each["name"]: _attribute(each["name"]) for each in table["columns"]}
    several = [index for index in table["indexes"] if not _is_simple(index, attributes)]
    options = [names.get(table["base"], "sg.Table"), f"name={table['name']!r}".replace("'", '"')]
    if table.get("abstract"):
        options.append("abstract=True")
    if several:
        shown = ", ".join(_index_source(index, attributes) for index in several)
        options.append(f"indexes=[{shown}]")
    lines = [f"class {names[table['name']]}({', '.join(options)}):"]
    if table.get("comment"):
        lines.append(f"    {_docstring(table['comment'])}")
    for column in table["columns"]:
        lines.append("    " + _column_source(column, attributes[column["name"]], table, names))
    return "\n".join(lines if len(lines) > 1 else [*lines, "    pass"])


def _docstring(text: str) -> str:
    plain = text.isprintable() and not set(text) & set('"\\')
    return f'"""{text}"""' if plain else repr(text)


def _attribute(name: str) -> str:
    text = _identifier(name).lstrip("_") or "column"
    return f"{text}_" if text in models._TAKEN or keyword.iskeyword(text) else text


def _is_simple(index: dict[str, Any], attributes: dict[str, str]) -> bool:
    columns = index["columns"]
    plain = len(columns) == 1 and columns[0][1] and "comment" not in index
    return plain and columns[0][0] in attributes


def _index_source(index: dict[str, Any], attributes: dict[str, str]) -> str:
    shown = [f'"{"" if up else "-"}{attributes.get(name, _attribute(name))}"'
             for name, up in index["columns"]]
    options = ["unique=True"] if index["unique"] else []
    options += [f"comment={index['comment']!r}"] if "comment" in index else []
    return f"sg.Index({', '.join(shown + options)})"


def _column_source(column: dict[str, Any], attribute: str, table: dict[str, Any],
                   names: dict[str, str]) -> str:
    annotation = column["type"]
    target = annotation.removesuffix(" | None")
    reference = target in names
    if reference:
        annotation = f'"{names[target]} | None"'
    options = [f'name="{column["name"]}"'] if attribute != column["name"] else []
    for index in table["indexes"]:
        if _is_simple(index, {column["name"]: attribute}):
            options.append("unique=True" if index["unique"] else "index=True")
    if "default" in column:
        options[:0] = [_default_source(column["default"]), "stored=True"]
    options += [f"{name}={column[name]!r}" for name in ("on_delete", "comment") if name in column]
    if reference:
        return f"{attribute}: {annotation} = sg.ref({', '.join(options)})"
    return f"{attribute}: {annotation}" + (f" = sg.column({', '.join(options)})" if options else "")


def _default_source(value: Any) -> str:
    # What has no literal is float("nan"), float("inf").
    return f'float("{value}")' if isinstance(value, float) and not math.isfinite(value) else repr(value)

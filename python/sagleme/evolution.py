"""Which tables and columns of a database those of classes come from, and the two schemas.

What a class or column calls its former name is renamed first, wherever that name is. From then on
names alone say what is the same, and the library finds out what moves and what changes its type.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator
from typing import Any

from . import declarations, schema

# (name, type, nullable, target, former name)
_ColumnSpec = tuple[str, int, bool, str, str]
_IndexSpec = tuple[str, list[tuple[str, bool]], bool]


class Column:
    """A column of the database, as it is called once all that can be renamed first is renamed."""

    __slots__ = ("entry", "target")

    def __init__(self, entry: dict[str, Any]) -> None:
        self.entry = entry  # of the catalogue
        self.target: str = entry["target"] if entry["type"] == declarations.REFERENCE else ""

    def shape(self) -> tuple[int, bool, str]:
        return self.entry["type"], self.entry["nullable"], self.target


class TableState:
    """A table of the database, likewise."""

    __slots__ = ("entry", "name", "base", "columns", "indexes")

    def __init__(self, entry: dict[str, Any], base: str) -> None:
        self.entry = entry
        self.name: str = entry["name"]
        self.base = base
        self.columns = {each["name"]: Column(each) for each in schema.own_columns(entry)}
        self.indexes: list[_IndexSpec] = [
            (each["name"], list(each["columns"]), each["unique"]) for each in entry["indexes"]]

    def specs(self) -> list[_ColumnSpec]:
        return [(name, *column.shape(), "") for name, column in self.columns.items()]


class Evolution:
    """The schema before, with the renames that are made first, and the schema of the classes."""

    def __init__(self, classes: list[Any], tables: Iterable[dict[str, Any]]) -> None:
        self.classes = {cls._table_name: cls for cls in classes}
        entries = {table["name"]: table for table in tables}
        self.before = {name: TableState(entry, entry["base"] if entry["base"] in entries else "")
                       for name, entry in entries.items()}
        self.renamed_tables: list[tuple[str, str]] = []  # before, after
        self.renamed_columns: list[tuple[str, str, str]] = []  # table, before, after
        self.index_names: dict[str, list[str]] = {}  # of each table's indexes, once it is planned
        self._declarers: dict[str, list[TableState]] = {}  # by the column
        for state in self.before.values():
            for column in state.columns:
                self._declarers.setdefault(column, []).append(state)
        for cls in classes:
            self._rename_table(cls)
        for cls in classes:
            self._rename_in_place(cls)
        for cls in classes:
            self._rename_elsewhere(cls)

    # ---- renames

    def _rename_table(self, cls: Any) -> None:
        name, was = cls._table_name, cls._was
        if name in self.before or not was or was not in self.before or was in self.classes:
            return
        self.renamed_tables.append((was, name))
        state = self.before.pop(was)
        state.name = name
        self.before[name] = state
        for each in self.before.values():
            each.base = name if each.base == was else each.base
            for column in each.columns.values():
                column.target = name if column.target == was else column.target

    def _rename_in_place(self, cls: Any) -> None:
        state = self.before.get(cls._table_name)
        if state is None:
            return
        declared = {each._column for each in cls._own}
        for column in cls._own:
            name, was = column._column, column._was
            if was is None or name in state.columns or was in declared or was not in state.columns:
                continue
            self._rename_column(state, was, name)

    def _rename_elsewhere(self, cls: Any) -> None:
        """A column that moves to this class, with another name than where it was."""
        for column in cls._own:
            name, was = column._column, column._was
            if was is None or self.holders(cls._table_name, name):
                continue
            for state in self.holders(cls._table_name, was):
                owner = self.classes.get(state.name)
                if owner is None or owner is cls or was in {each._column for each in owner._own}:
                    continue
                self._rename_column(state, was, name)

    def _rename_column(self, state: TableState, before: str, after: str) -> None:
        """Unless the name is still taken: the library then renames it when it is free."""
        below = list(self._below(state.name))
        if any(after in each.columns for each in [*self._above(state.name), *below]):
            return
        self.renamed_columns.append((state.name, before, after))
        state.columns = {after if name == before else name: column
                         for name, column in state.columns.items()}
        self._declarers[before].remove(state)
        self._declarers.setdefault(after, []).append(state)
        for each in [state, *below]:
            each.indexes = [
                (name, [(after if column == before else column, up) for column, up in columns],
                 unique) for name, columns, unique in each.indexes]

    # ---- places

    def _above(self, table: str) -> Iterator[TableState]:
        at = self.before.get(table)
        while at is not None:
            at = self.before.get(at.base)
            if at is not None:
                yield at

    def _below(self, table: str) -> Iterator[TableState]:
        for each in self.before.values():
            if each.base == table:
                yield each
                yield from self._below(each.name)

    def _is_in_line(self, table: str, other: str) -> bool:
        """Whether one of them is above the other, in the database or as classes."""
        if self.derives(table, other) or self.derives(other, table):
            return True
        cls, relative = self.classes[table], self.classes.get(other)
        return relative is not None and (issubclass(cls, relative) or issubclass(relative, cls))

    def holders(self, table: str, column: str) -> list[TableState]:
        """The tables of the line that declare such a column; only the table itself, if it does."""
        own = self.before.get(table)
        if own is not None and column in own.columns:
            return [own]
        return [each for each in self._declarers.get(column, ())
                if self._is_in_line(table, each.name)]

    def sources(self, table: str, column: str) -> list[TableState]:
        """Where its values may come from: a base that a class of the line is taken from, too."""
        found = self.holders(table, column)
        if found:
            return found
        line = [name for name in self.classes if self._is_in_line(table, name)]
        return [each for each in self._declarers.get(column, ())
                if any(self.derives(name, each.name) for name in line)]

    def old_column(self, table: str, column: str) -> tuple[Column | None, bool]:
        """What a column of a class was, and whether it was so in another table."""
        found = self.holders(table, column)
        if not found:
            return None, False
        return found[0].columns[column], found[0].name != table

    def old_name(self, table: str) -> str | None:
        """None for a table that is new."""
        state = self.before.get(table)
        return None if state is None else str(state.entry["name"])

    def line_above(self, table: str) -> list[TableState]:
        return list(self._above(table))

    def line_of(self, table: str) -> list[TableState]:
        """The table, or the nearest above it that is in the database, and what is above that."""
        while table and table not in self.before:
            cls = self.classes[table]._base
            table = cls._table_name if cls is not None else ""
        return [self.before[table], *self._above(table)] if table else []

    def derives(self, table: str, base: str) -> bool:
        """Whether one is below the other in the database."""
        return any(each.name == base for each in self._above(table))

    def tables_to_come_under(self, table: str) -> list[str]:
        """By their names in the database; without those that are below another one there."""
        top = self.classes[table]
        names = [name for name, cls in self.classes.items()
                 if name != table and name in self.before and issubclass(cls, top)]
        return [str(self.before[name].entry["name"]) for name in names
                if not any(self.derives(name, other) for other in names)]

    # ---- schemas

    def schema_before(self) -> list[Any]:
        return _bases_first([(each.name, each.base, each.specs(), each.indexes)
                             for each in self.before.values()])

    def schema_after(self) -> list[Any]:
        """With the tables that have no class as they are."""
        kept: set[str] = {index[0] for name, each in self.before.items()
                          if name not in self.classes for index in each.indexes}
        tables = [self._table_of(cls, kept) for cls in self.classes.values()]
        tables += [(each.name, each.base, self._left_alone(each), each.indexes)
                   for name, each in self.before.items() if name not in self.classes]
        return _bases_first(tables)

    def _table_of(self, cls: Any, taken: set[str]) -> Any:
        name = cls._table_name
        columns = [(*schema.column_spec(each), self._former_name(name, each)) for each in cls._own]
        base = cls._base._table_name if cls._base is not None else ""
        return name, base, columns, self._indexes(cls, taken)

    def _former_name(self, table: str, column: Any) -> str:
        """The name that it could not yet give up; one that names nothing is ignored."""
        name, was = column._column, column._was
        if was is None or self.holders(table, name) or not self.holders(table, was):
            return ""
        return str(was)

    def _indexes(self, cls: Any, taken: set[str]) -> list[_IndexSpec]:
        state = self.before.get(cls._table_name)
        present = {} if state is None else {
            (tuple(columns), unique): name for name, columns, unique in state.indexes}
        wanted = [(schema.index_columns(cls, each), each.unique) for each in cls._indexes]
        found = {key: present[key] for key in wanted if key in present}
        taken.update(found.values())
        for columns, unique in wanted:
            if (columns, unique) in found:
                continue
            plain = name = schema.index_name(cls._table_name, columns, unique)
            number = 1
            while name in taken:
                number += 1
                name = f"{plain} {number}"
            found[columns, unique] = name
            taken.add(name)
        self.index_names[cls._table_name] = [found[key] for key in wanted]
        return [(found[key], list(key[0]), key[1]) for key in wanted]

    def _left_alone(self, state: TableState) -> list[_ColumnSpec]:
        """Without columns that become one with an equal one of a class above."""
        inherited: dict[str, tuple[Any, ...]] = {}
        at = state.base
        while at:
            cls = self.classes.get(at)
            if cls is not None:
                specs = [schema.column_spec(each) for each in cls._own]
                inherited |= {name: tuple(shape) for name, *shape in specs}
                at = cls._base._table_name if cls._base is not None else ""
            else:
                at = self.before[at].base
        return [spec for spec in state.specs() if inherited.get(spec[0]) != tuple(spec[1:4])]


def _bases_first(tables: list[Any]) -> list[Any]:
    by_name = {table[0]: table for table in tables}
    found: dict[str, Any] = {}

    def add(name: str) -> None:
        if name in found or name not in by_name:
            return
        add(by_name[name][1])
        found[name] = by_name[name]

    for name in by_name:
        add(name)
    return list(found.values())

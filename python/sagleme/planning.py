"""What leads from the schema of a database to that of its classes."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import Any

from . import _core, declarations, schema
from .errors import SchemaError
from .evolution import Column, Evolution, TableState

# Name, table, columns, and whether it is unique.
IndexKey = tuple[str, str, list[tuple[str, bool]], bool]
# Makes a step in a transaction; where values may be lost, that is said.
_Work = Callable[[Any, bool], None]

LABELS = ("instant", "background", "lossy", "refused")


class Step:
    """One change. Its label says what it costs:

    instant: only the catalogue changes. background: objects are read or written now, for an index,
    a converted value or another base, or moved later, by db.vacuum(). lossy: values are lost.
    refused: it cannot be done; the text says why.
    """

    __slots__ = ("label", "text", "index")

    def __init__(self, label: str, text: str, index: IndexKey | None = None) -> None:
        self.label, self.text = label, text
        self.index = index  # that it creates

    def __repr__(self) -> str:
        return f"{self.label:<10}  {self.text}"


class Plan(list[Step]):
    """The steps, in the order in which they are made."""

    def __init__(self, steps: Iterable[Step] = (), work: Iterable[_Work] = (),
                 changes: Any = None, schema_after: Iterable[Any] = (),
                 annotations: Iterable[Any] = ()) -> None:
        super().__init__(steps)
        self._work = list(work)
        self._changes = changes  # those of the library, if it may prepare them beside writers
        self._schema_after, self._annotations = list(schema_after), list(annotations)

    def __str__(self) -> str:
        return "\n".join(map(repr, self)) if self else "nothing to do"

    @property
    def labels(self) -> set[str]:
        return {step.label for step in self}

    def _make(self, tx: Any, allow_losses: bool) -> None:
        for work in self._work:
            work(tx, allow_losses)

    def _document(self, tx: Any) -> str:
        """What leads to the same schema wherever the plan is cut off."""
        return _core.schema_document(tx, self._schema_after, self._annotations)

    def _repr_html_(self) -> str:
        from .html import table_of

        return table_of("plan", ["label", "step"], [[step.label, step.text] for step in self])


def make_plan(classes: list[Any], tx: Any) -> Plan:
    """The plan for the schema that the transaction sees. Reads objects whose values may be lost."""
    return _Planner(classes, tx).plan()


class _Planner:
    """Compares classes with the tables of the catalogue."""

    def __init__(self, classes: list[Any], tx: Any) -> None:
        self.tx, self.classes = tx, classes
        self.evolution = Evolution(classes, tx._snapshot.tables.values())
        self.steps: list[Step] = []
        self.work: list[_Work] = []

    def plan(self) -> Plan:
        before, after = self.evolution.schema_before(), self.evolution.schema_after()
        try:
            changes, told = _core.plan_changes(before, after)
        except SchemaError as error:
            return Plan([Step("refused", error.text)])
        self._add(_renames(self.evolution))
        shown = _Changes(self.tx, self.evolution, after)
        self.steps += [shown.step(label, change) for label, change in told]
        self.work.append(lambda tx, lossy: _core.apply_changes(tx, changes, lossy))
        annotations = _Annotations(self.tx, self.evolution, {
            change[1][0] for _, change in told if change[0] == "create index"})
        for cls in self.classes:
            annotations.add(cls)
        for each in (annotations.rules, annotations.abstract, annotations.others):
            self._add(each)
        # What objects may refuse would leave behind what was prepared for it.
        refusable = annotations.rules or annotations.abstract
        moving = self.evolution.renamed_tables or self.evolution.renamed_columns
        return Plan(self.steps, self.work, None if refusable or moving else changes, after,
                    annotations.told)

    def _add(self, pairs: Iterable[tuple[Step, _Work]]) -> None:
        for step, work in pairs:
            self.steps.append(step)
            self.work.append(work)


def _renames(evolution: Evolution) -> Iterable[tuple[Step, _Work]]:
    for was, name in evolution.renamed_tables:
        yield Step("instant", f"rename table {was} to {name}"), _renaming_table(was, name)
    for table, before, after in evolution.renamed_columns:
        yield (Step("instant", f"rename column {table}.{before} to {after}"),
               _renaming_column(table, before, after))


def _renaming_table(was: str, name: str) -> _Work:
    return lambda tx, _: _core.rename_table(tx, was, name)


def _renaming_column(table: str, before: str, after: str) -> _Work:
    return lambda tx, _: _core.rename_column(tx, table, before, after)


class _Changes:
    """The library's changes as steps."""

    _LABELS = {"instant": "instant", "background": "background", "destructive": "lossy"}

    def __init__(self, tx: Any, evolution: Evolution, after: list[Any]) -> None:
        self.tx, self.evolution = tx, evolution
        self.after = {table: {column[0]: column[:4] for column in columns}
                      for table, _, columns, _ in after}
        self.moved: set[str] = set()  # tables
        self.dropped: set[tuple[str, str]] = set()  # tables and columns

    def step(self, label: str, change: Any) -> Step:
        kind, *parts = change
        make = getattr(self, "_" + kind.replace(" ", "_"))
        found: Step = make(self._LABELS[label], *parts)
        return found

    def _other(self, label: str, text: str) -> Step:
        return Step(label, text)

    def _drop_index(self, label: str, name: str) -> Step:
        tables = [each.name for each in self.evolution.before.values()
                  if name in [index[0] for index in each.indexes]]
        return Step(label, f"drop index {name} of table {tables[0]}")

    def _create_index(self, label: str, key: IndexKey) -> Step:
        _, table, columns, unique = key
        shown = ", ".join(each if up else f"{each} backwards" for each, up in columns)
        what = "unique index" if unique else "index"
        return Step(label, f"create {what} over {table} ({shown})", key)

    def _create_table(self, _: str, name: str, base: str, columns: list[str]) -> Step:
        under = f" under {base}" if base else ""
        return Step("instant", f"create table {name}{under} ({self._shown(name, columns)})")

    def _add_columns(self, _: str, table: str, columns: list[str]) -> Step:
        return Step("instant", f"add to table {table} ({self._shown(table, columns)})")

    def _shown(self, table: str, columns: list[str]) -> str:
        return ", ".join(f"{each}: {self._type(table, *self.after[table][each])}"
                         for each in columns)

    def _drop_column(self, label: str, table: str, column: str) -> Step:
        self.dropped.add((table, column))
        return Step(label, f"drop column {table}.{column}, with its values")

    def _pull_up(self, label: str, column: str, tables: list[str], base: str) -> Step:
        shown = _listed(f"{table}.{column}" for table in tables)
        return Step(label, f"move column {shown} up to {base}")

    def _push_down(self, label: str, table: str, column: str, tables: list[str]) -> Step:
        text = f"move column {table}.{column} down to {_listed(tables)}"
        source = self.evolution.before.get(table)
        below = [name for each in tables if self.evolution.derives(each, table)
                 and (name := self.evolution.old_name(each)) is not None]
        if source is None or column not in source.columns or not below:
            return Step("lossy", f"{text}, without the values of objects of other tables")
        refusal = _core.refusal_of(self.tx, ("push down", source.entry["name"],
                                             source.columns[column].entry["name"], below))
        return _unless_lost(label, text, [refusal])

    def _change_column(self, label: str, table: str, name: str, type_: int, nullable: bool,
                       target: str) -> Step:
        sources = self.evolution.sources(table, name)
        before = [schema.column_type(each.columns[name].entry) for each in sources]
        text = f"change column {table}.{name}{f' from {before[0]}' if before else ''} to "
        text += self._type(table, name, type_, nullable, target)
        old_target = self.evolution.old_name(target) if target else ""
        if old_target is None:
            below = self.evolution.tables_to_come_under(target)
            if not below:
                return self._to_new_target(label, text, target, sources, name)
            if len(below) > 1:
                return Step(label, text)  # it is refused when it is made, if values are lost
            old_target = below[0]
        return _unless_lost(label, text, [
            self._refusal_of_change(each, name, type_, nullable, old_target) for each in sources])

    def _refusal_of_change(self, source: TableState, name: str, type_: int, nullable: bool,
                           target: str) -> str:
        refusal: str = _core.refusal_of(self.tx, (
            "change column", source.entry["name"],
            (source.columns[name].entry["name"], type_, nullable, target, "")))
        return refusal

    def _to_new_target(self, label: str, text: str, target: str, sources: list[TableState],
                       name: str) -> Step:
        """Of the values none leads there; what converts to nothing tells whether there are any."""
        values = any(self._refusal_of_change(each, name, declarations.BINARY, True, "")
                     for each in sources)
        lost = f"{target} is new, and no value of the column leads to an object of it"
        return _unless_lost(label, text, [lost if values else ""])

    def _type(self, table: str, name: str, type_: int, nullable: bool, target: str) -> str:
        """As the class writes it, if it is not to be another one in the end."""
        cls = self.evolution.classes.get(table)
        for column in cls._own if cls is not None else ():
            if schema.column_spec(column) == (name, type_, nullable, target):
                return schema.field_type(column)
        return schema.column_type({"type": type_, "nullable": nullable, "target": target})

    def _set_base(self, label: str, table: str, base: str) -> Step:
        text = f"move table {table} under {base}" if base else f"move table {table} to the root"
        new = self.evolution.line_of(base)
        refusal = self._in_the_way(table, new) or _core.refusal_of(
            self.tx, ("set base", self.evolution.old_name(table),
                      new[0].entry["name"] if new else ""))
        self.moved.add(table)
        return Step("refused", f"{text}: {refusal}") if refusal else Step(label, text)

    def _in_the_way(self, table: str, new: list[TableState]) -> str:
        """What the table would take along from its bases beside another column of that name."""
        old = self.evolution.line_above(table)
        if self.moved & {each.name for each in [*old, *new]}:
            return ""  # they are no longer what they were
        inherited = {name: (each, column) for each in new if each not in old
                     for name, column in each.columns.items()}
        for each in old:
            for name, column in each.columns.items() if each not in new else ():
                other, same = inherited.get(name, (each, column))
                gone = {(each.name, name), (other.name, name)} & self.dropped
                if column.shape() != same.shape() and not gone:
                    return (f"it has {each.name}.{name}, and {other.name}.{name} is another column; "
                            f"give one of them another name, with was=")
        return ""


def place_of(change: tuple[Any, ...]) -> str:
    """The column of a change of columns, in the table whose subtree has the objects."""
    if change[0] == "pull up":
        _, column, _, base = change
        return f"{base}.{column}"
    return f"{change[1]}.{change[2]}"


def _listed(names: Iterable[str]) -> str:
    *others, last = names
    return f"{', '.join(others)} and {last}" if others else last


def _unless_lost(label: str, text: str, refusals: list[str]) -> Step:
    lost = "; ".join(each.rstrip(".") for each in refusals if each)
    return Step("lossy", f"{text}: {lost}") if lost else Step(label, text)


class _Annotations:
    """The steps that set what classes say of their tables, columns and indexes."""

    def __init__(self, tx: Any, evolution: Evolution, created_indexes: set[str]) -> None:
        self.tx, self.evolution, self.created_indexes = tx, evolution, created_indexes
        self.rules: list[tuple[Step, _Work]] = []
        self.abstract: list[tuple[Step, _Work]] = []
        self.others: list[tuple[Step, _Work]] = []
        # Of the others: (table, column, index, comment, default)
        self.told: list[tuple[str, str, str, str | None, Any]] = []

    def add(self, cls: Any) -> None:
        state = self.evolution.before.get(cls._table_name)
        entry = None if state is None else state.entry
        self._table(cls, entry)
        for column in cls._own:
            before, moved = self.evolution.old_column(cls._table_name, column._column)
            self._column(cls._table_name, column, before, moved)
        comments = {} if entry is None else {
            each["name"]: each["comment"] for each in entry["indexes"]}
        for index, name in zip(cls._indexes, self.evolution.index_names[cls._table_name]):
            before_it = "" if name in self.created_indexes else comments.get(name, "")
            self._index(cls._table_name, name, before_it, index.comment)

    def _table(self, cls: Any, before: dict[str, Any] | None) -> None:
        table, comment, bare = cls._table_name, cls._comment, cls._bare
        if comment is not None and comment != (before["comment"] if before else ""):
            self.told.append((table, "", "", comment, None))
            self._annotate(f"comment on table {table}: {comment!r}",
                           lambda tx, _: _core.set_comment(tx, table, "", comment))
        if bare is not None and bool(bare) != (before["abstract"] if before else False):
            refusal = (_core.refusal_of(self.tx, ("abstract", before["name"]))
                       if bare and before else "")
            step = (Step("refused", f"table {table} cannot be abstract: {refusal}") if refusal
                    else Step("instant", f"table {table} is {'' if bare else 'no longer '}abstract"))
            self.abstract.append((step, lambda tx, _: _core.set_abstract(tx, table, bool(bare))))

    def _column(self, table: str, column: Any, before: Column | None, moved: bool) -> None:
        """What a column that moved or has another type keeps is said again."""
        name, comment = column._column, column._comment
        entry = None if before is None else before.entry
        same = before is not None and not moved and before.shape() == schema.column_spec(column)[1:]
        if comment is not None and not (same and entry and comment == entry["comment"]):
            if comment or entry:
                self.told.append((table, name, "", comment, None))
                self._annotate(f"comment on {table}.{name}: {comment!r}",
                               lambda tx, _: _core.set_comment(tx, table, name, comment))
        self._rule(table, column, entry["on_delete"] if entry else "", same)
        if column._stored:
            value = schema.stored_default(column._kind, column._default)
            if not same or entry is None or value != entry["default"]:
                self.told.append((table, name, "", None, value))
                self._annotate(f"default of {table}.{name}: {column._default!r}",
                               lambda tx, _: _core.set_default(tx, table, name, value))

    def _rule(self, table: str, column: Any, before: str, same: bool) -> None:
        rule, name = column._on_delete, column._column
        if rule is None or rule == (before or "keep") and (same or rule == "keep"):
            return
        self.rules.append((
            Step("background", f"on deletion of the target of {table}.{name}: {rule}"),
            lambda tx, _: _core.set_on_delete(tx, table, name, rule)))

    def _index(self, table: str, name: str, before: str, comment: str | None) -> None:
        if comment is None or comment == before:
            return
        text = comment
        self.told.append((table, "", name, text, None))
        self._annotate(f"comment on index {name}: {text!r}",
                       lambda tx, _: _core.set_index_comment(tx, name, text))

    def _annotate(self, text: str, work: _Work) -> None:
        self.others.append((Step("instant", text), work))

"""Queries: ``tx.all(Item).where(Item.year < 1980).order(Item.year.desc())``.

A query does nothing until it is asked: iterated, counted, taken the first of. It is never changed;
each method gives a new one. What an index serves is served by it; the rest of a condition is
evaluated in the extension, on objects that Python never sees.
"""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any, Generic, TypeVar

from . import _core, declarations
from .errors import NotFound, SeveralFound, WrongType
from .expressions import (
    Aggregate, Comparison, Condition, Expression, Logic, OneOf, Order, TextPart, conjuncts,
    named_path, path_of, show_path, steps,
)

T = TypeVar("T")

_MOST_SOURCES = 500


class Explanation(str):
    """How a query is executed, in a sentence."""

    def __repr__(self) -> str:
        return str(self)


class _Access:
    """Where the objects of a query come from: ranges of an index, or the table itself."""

    def __init__(self, query: Query[Any]) -> None:
        self.query = query
        self.index: Any = None
        self.sources: list[Any] | None = None
        self.served: list[Condition] = []
        self.ordered = not query._orders
        self.ranges = ""

    def choose(self) -> _Access:
        parts = _single_steps(self.query)
        best = 0
        for index in self.query._tx._indexes_of(self.query._cls):
            candidate = _IndexUse(self.query, index, parts)
            if candidate.score > best:
                best = candidate.score
                candidate.fill(self)
        return self

    def residual(self) -> Condition | None:
        rest = [each for each in self.query._parts if not any(each is one for one in self.served)]
        if not rest:
            return None
        return rest[0] if len(rest) == 1 else Logic("and", rest)

    def explain(self) -> Explanation:
        query = self.query
        what = "objects of exactly" if query._only else "objects of the subtree of"
        text = f"{what} {query._cls._table_name}"
        if self.index is not None:
            text += f", by index {self.index.name}{self.ranges}"
        rest = self.residual()
        if rest is not None:
            text += f"; filtered in the scan: {rest!r}"
        if query._orders:
            shown = ", ".join(map(repr, query._orders))
            text += f"; in the index's order: {shown}" if self.ordered else f"; sorted: {shown}"
        if query._limit is not None or query._offset:
            text += f"; {query._limit if query._limit is not None else 'all'} from {query._offset}"
        return Explanation(text)


def _single_steps(query: Query[Any]) -> dict[Any, list[Condition]]:
    """The conditions on columns of the class itself, by column."""
    found: dict[Any, list[Condition]] = {}
    for part in query._parts:
        if isinstance(part, (Comparison, OneOf, TextPart)) and len(part.path) == 1:
            steps(query._cls, part.path)
            if _may_be_looked_up(part):
                found.setdefault(part.path[0], []).append(part)
    return found


def _may_be_looked_up(part: Comparison | OneOf | TextPart) -> bool:
    """Of binaries only null is: the keys of a search have no bytes."""
    null = isinstance(part, Comparison) and part.value is None
    return null or part.path[0]._kind != declarations.BINARY


def _is_equality(part: Condition) -> bool:
    # Two zeros are equal and have two keys.
    return isinstance(part, Comparison) and part.operator == "==" and part.value != 0.0 or (
        isinstance(part, Comparison) and part.operator == "==" and isinstance(part.value, (int, str))
    )


class _IndexUse:
    """What one index contributes to a query."""

    def __init__(self, query: Query[Any], index: Any, parts: dict[Any, list[Condition]]) -> None:
        self.query, self.index = query, index
        self.equal: list[Comparison] = []
        self.choice: OneOf | None = None
        self.bounds: list[Comparison] = []
        self.prefix: TextPart | None = None
        self._match(parts)
        self.reverse = False
        self.ordered = self._serves_order()
        bounded = self.choice is not None or bool(self.bounds) or self.prefix is not None
        filtering = 4 * len(self.equal) + (3 if self.choice is not None else 0) + (2 if bounded else 0)
        self.score = filtering + (1 if self.ordered else 0)
        if index.unique and len(self.equal) == len(index.columns):
            self.score += 100

    def _match(self, parts: dict[Any, list[Condition]]) -> None:
        for column, ascending in self.index.columns:
            on_column = parts.get(column, [])
            equal = next((each for each in on_column if _is_equality(each)), None)
            if equal is not None:
                assert isinstance(equal, Comparison)
                self.equal.append(equal)
                continue
            for each in on_column:
                self._match_range(each, ascending)
            return

    def _match_range(self, part: Condition, ascending: bool) -> None:
        if isinstance(part, OneOf) and len(part.values) <= _MOST_SOURCES:
            if not any(value == 0.0 and isinstance(value, float) for value in part.values):
                self.choice = part
        elif isinstance(part, TextPart) and part.where == "prefix" and ascending:
            self.prefix = part
        elif isinstance(part, Comparison) and part.value is not None:
            if part.operator in ("<", "<=", ">", ">="):
                self.bounds.append(part)

    def _serves_order(self) -> bool:
        orders = self.query._orders
        rest = self.index.columns[len(self.equal):]
        if not orders or self.choice is not None or len(orders) > len(rest):
            return False
        turned = set()
        for order, (column, ascending) in zip(orders, rest):
            if len(order.path) != 1 or order.path[0] is not column:
                return False
            turned.add(order.descending == ascending)
        self.reverse = turned == {True}
        return len(turned) == 1

    def fill(self, access: _Access) -> None:
        access.index = self.index
        access.ordered = self.ordered or not self.query._orders
        access.served = list(self.equal)
        start = [self._bound(each.path[0], each.value) for each in self.equal]
        shown = [repr(each) for each in self.equal]
        if self.choice is not None:
            column = self.choice.path[0]
            values = list(dict.fromkeys(self.choice.values))
            access.sources = [self._source(start + [self._bound(column, value)]) for value in values]
            access.served.append(self.choice)
            shown.append(repr(self.choice))
        elif self.prefix is not None:
            bound = start + [self._bound(self.prefix.path[0], self.prefix.text)]
            access.sources = [(self.index.handle, self.reverse, bound, bound, True)]
            access.served.append(self.prefix)
            shown.append(repr(self.prefix))
        else:
            access.sources = [self._range(start)]
            shown += map(repr, self.bounds)
        access.ranges = f" ({', '.join(shown)})" if shown else ""
        if self.reverse:
            access.ranges += " backwards"

    def _bound(self, column: Any, value: Any) -> tuple[Any, Any, Any]:
        return (self.index.table, column, value)

    def _source(self, bound: list[Any]) -> tuple[Any, ...]:
        return (self.index.handle, self.reverse, bound, bound, False)

    def _range(self, start: list[Any]) -> tuple[Any, ...]:
        """Both ends are included; the filter excludes open ends."""
        low = [each for each in self.bounds if each.operator in (">", ">=")][:1]
        high = [each for each in self.bounds if each.operator in ("<", "<=")][:1]
        column_ascends = True
        if self.bounds:
            column_ascends = self.index.columns[len(self.equal)][1]
        first, last = (low, high) if column_ascends else (high, low)
        ends = [start + [self._bound(each.path[0], each.value) for each in end]
                for end in (first, last)]
        return (self.index.handle, self.reverse, ends[0], ends[1], False)


class Query(Generic[T]):
    """Objects of a class and of its subclasses."""

    def __init__(self, tx: Any, cls: type[T], only: bool = False) -> None:
        self._tx, self._cls, self._only = tx, cls, only
        self._parts: list[Condition] = []
        self._orders: list[Order] = []
        self._limit: int | None = None
        self._offset = 0
        self._prefetch: list[tuple[Any, ...]] = []
        self._outputs: list[tuple[Any, ...]] | None = None

    def _copy(self, **changes: Any) -> Any:
        made = object.__new__(type(self))
        made.__dict__.update(self.__dict__)
        made.__dict__.update(changes)
        return made

    # ---- building

    def where(self, *conditions: Condition, **equals: Any) -> Query[T]:
        """Only objects for which all conditions hold; ``where(year=1972)`` for equality."""
        parts = list(self._parts)
        for condition in conditions:
            if not isinstance(condition, Condition):
                raise WrongType(f"where takes conditions such as Item.year < 1980, not {condition!r}")
            condition.form(self._cls)
            parts += conjuncts(condition)
        for name, value in equals.items():
            parts.append(Comparison(named_path(self._cls, name), "==", value))
        return self._copy(_parts=parts)

    def order(self, *keys: Any) -> Query[T]:
        """Sorted by columns: ``Item.year``, ``Item.year.desc()``, "year" or "-year"."""
        return self._copy(_orders=[self._order(key) for key in keys])

    def _order(self, key: Any) -> Order:
        if isinstance(key, str):
            order = Order(named_path(self._cls, key.lstrip("-")), key.startswith("-"))
        else:
            order = key if isinstance(key, Order) else Order(path_of(key), False)
        steps(self._cls, order.path)
        if order.path[-1]._kind in (declarations.BINARY, declarations.REFERENCE):
            raise WrongType(f"{show_path(order.path)} has no order; sort by a column of it")
        return order

    def limit(self, count: int, offset: int = 0) -> Query[T]:
        """At most `count` objects, after the first `offset`."""
        for number in (count, offset):
            if not isinstance(number, int) or isinstance(number, bool) or number < 0:
                raise WrongType(f"limit takes whole numbers from 0, not {number!r}")
        return self._copy(_limit=count, _offset=offset)

    def prefetch(self, *paths: Any) -> Query[T]:
        """Reads the targets of references along with the objects, a batch at a time."""
        found = list(self._prefetch)
        for path in paths:
            steps_taken = self._path(path)
            if steps_taken[-1]._kind != declarations.REFERENCE:
                raise WrongType(f"prefetch takes references; {show_path(steps_taken)} is none")
            found.append(steps_taken)
        return self._copy(_prefetch=found)

    def select(self, *paths: Any) -> Rows:
        """Tuples of columns instead of objects: ``select("title", Item.lender.name)``."""
        if not paths:
            raise WrongType('select takes columns: select("title", "lender.name")')
        rows = Rows(self._tx, self._cls, self._only)
        rows.__dict__.update(self.__dict__)
        rows._outputs = [self._path(path) for path in paths]
        return rows

    def _path(self, path: Any) -> tuple[Any, ...]:
        if path == "id" if isinstance(path, str) else False:
            return ()
        found = named_path(self._cls, path) if isinstance(path, str) else path_of(path)
        steps(self._cls, found)
        return found

    # ---- asking

    def _access(self) -> _Access:
        return _Access(self).choose()

    def _scan(self, access: _Access, outputs: Any, limit: int | None, offset: int) -> Any:
        rest = access.residual()
        forms = None if outputs is None else [steps(self._cls, path) for path in outputs]
        return _core.scan(
            self._tx, self._cls, self._only, access.sources,
            None if rest is None else rest.form(self._cls), forms, limit, offset,
            [steps(self._cls, path) for path in self._prefetch])

    def _iterate(self) -> Iterator[Any]:
        access = self._access()
        if access.ordered:
            return iter(self._scan(access, self._outputs, self._limit, self._offset))
        return self._sorted(access)

    def _sorted(self, access: _Access) -> Iterator[Any]:
        """Sorts by keys and identities; objects are created only for results."""
        keys = [order.path for order in self._orders]
        values: list[tuple[Any, ...]] = [()] if self._outputs is None else self._outputs
        rows = list(self._scan(access, keys + values, None, 0))
        for position in reversed(range(len(keys))):
            key = _sort_key(position, keys[position][-1]._kind == declarations.STRING)
            rows.sort(key=key, reverse=self._orders[position].descending)
        end = None if self._limit is None else self._offset + self._limit
        chosen = rows[self._offset:end]
        if self._outputs is not None:
            return iter([row[len(keys):] for row in chosen])
        found = (self._tx._get(row[-1]) for row in chosen)
        return (each for each in found if each is not None)

    def __iter__(self) -> Iterator[T]:
        return self._iterate()

    def explain(self) -> Explanation:
        """How the query is executed, and with which index."""
        return self._access().explain()

    def count(self) -> int:
        """The number of objects."""
        return self._scan(self._access(), None, self._limit, self._offset).count()

    def exists(self) -> bool:
        """Whether there is any."""
        return bool(self.limit(1, self._offset).count())

    def first(self) -> T | None:
        """The first object, or None."""
        limit = 1 if self._limit is None else min(1, self._limit)
        return next(iter(self.limit(limit, self._offset)), None)

    def one(self) -> T:
        """The only object; raises NotFound or SeveralFound otherwise."""
        found = list(self.limit(2, self._offset))
        if len(found) == 1:
            return found[0]
        shown = self._described()
        if not found:
            raise NotFound(f"there is no {shown}")
        raise SeveralFound(f"there are several {shown}; first() takes the first, where() narrows")

    def _described(self) -> str:
        conditions = " and ".join(map(repr, self._parts))
        return f"{self._cls.__name__} where {conditions}" if conditions else self._cls.__name__

    def all(self) -> list[T]:
        """All objects in a list."""
        return list(self)

    def aggregate(self, *, by: Any = None, **wanted: Aggregate) -> Any:
        """Computes over the objects: ``aggregate(n=sg.count(), pages=sg.sum(Book.pages))``.

        A dictionary; with `by`, a dictionary of those by the values of that column.
        """
        for name, each in wanted.items():
            if not isinstance(each, Aggregate):
                raise WrongType(f"{name}: an aggregate such as sg.count() is needed, not {each!r}")
            _need_number(each)
        if by is None:
            return self._aggregated(wanted)
        path = self._path(by)
        values = dict.fromkeys(row[0] for row in self.select(by))
        return {value: self.where(Comparison(path, "==", value))._aggregated(wanted)
                for value in values}

    def _aggregated(self, wanted: dict[str, Aggregate]) -> dict[str, Any]:
        forms = []
        for each in wanted.values():
            path = steps(self._cls, each.of)
            forms += [("sum", path), ("count", path)] if each.what == "avg" else [(each.what, path)]
        access = self._access()
        results = iter(self._scan(access, None, self._limit, self._offset).aggregate(forms))
        return {name: _finished(each, results) for name, each in wanted.items()}

    def delete(self) -> int:
        """Deletes the objects; returns how many."""
        number = 0
        for each in list(self):
            self._tx.delete(each)
            number += 1
        return number

    def __bool__(self) -> bool:
        raise WrongType("a query has no truth by itself; ask exists(), or iterate it")

    def __repr__(self) -> str:
        return f"<query of {self._described()}>"

    def _repr_html_(self) -> str:
        from .html import table_of

        shown = [each.to_dict() for each in self.limit(20)]  # type: ignore[attr-defined]
        head = list(dict.fromkeys(name for each in shown for name in each))
        return table_of(self._described(), head, [[each.get(name) for name in head]
                                                  for each in shown])


class Rows(Query[Any]):
    """Tuples of columns."""

    @property
    def names(self) -> list[str]:
        return [show_path(path) for path in self._outputs or []]

    def columns(self) -> Any:
        """The columns with their values in memory, without Python objects for them."""
        from . import bulk

        return bulk.columns_of(self)

    def to_numpy(self) -> Any:
        """A dictionary of NumPy arrays by column; masked arrays where values are null."""
        from . import bulk

        return bulk.to_numpy(self)

    def to_pandas(self) -> Any:
        """A pandas DataFrame."""
        from . import bulk

        return bulk.to_pandas(self)

    def __arrow_c_stream__(self, requested_schema: Any = None) -> Any:
        return self.columns().__arrow_c_stream__(requested_schema)

    def _repr_html_(self) -> str:
        from .html import table_of

        return table_of(self._described(), self.names, self.limit(20))


def _sort_key(position: int, text: bool) -> Any:
    """Null is below everything; texts are in the order of their UTF-16 units, as in an index."""
    if not text:
        return lambda row: (row[position] is not None, row[position])
    return lambda row: (b"" if row[position] is None
                        else b"\1" + row[position].encode("utf-16-be", "surrogatepass"))


_NUMBERS = {declarations.LONG, declarations.ULONG, declarations.DECIMAL, declarations.FLOAT, declarations.DOUBLE, declarations.KEY}


def _need_number(each: Aggregate) -> None:
    if each.what in ("sum", "avg") and each.of[-1]._kind not in _NUMBERS:
        raise WrongType(f"{show_path(each.of)} is no number and has no {each.what}")


def _finished(each: Aggregate, results: Iterator[Any]) -> Any:
    value = next(results)
    decimals = each.what in ("sum", "avg") and each.of[-1]._kind == declarations.DECIMAL
    if decimals:
        import decimal

        value = decimal.Decimal(value).scaleb(-6)
    if each.what != "avg":
        return value
    number = next(results)
    return None if number == 0 else value / number


__all__ = ["Query", "Rows", "Explanation", "Expression", "Order"]

"""Columns in conditions, orders and selections: ``Item.year < 1980``, ``Item.lender.name``.

A condition is combined with ``&``, ``|`` and ``~``. None equals only None, and is neither below nor
above anything.
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

from .errors import WrongType

_WORDS = {"<": "<", "<=": "<=", "==": "=", "!=": "is not", ">": ">", ">=": ">="}


class Expression:
    """What can be compared: a column, or a path through references to one."""

    __slots__ = ()

    def _path(self) -> tuple[Any, ...]:
        raise NotImplementedError

    def _compare(self, operator: str, value: Any) -> Condition:
        if isinstance(value, Expression):
            raise WrongType(f"{show(self)} is compared with a value, not with another column")
        return Comparison(self._path(), operator, value)

    def __lt__(self, value: Any) -> Condition:
        return self._compare("<", value)

    def __le__(self, value: Any) -> Condition:
        return self._compare("<=", value)

    def __gt__(self, value: Any) -> Condition:
        return self._compare(">", value)

    def __ge__(self, value: Any) -> Condition:
        return self._compare(">=", value)

    def __eq__(self, value: Any) -> Condition:  # type: ignore[override]
        return self._compare("==", value)

    def __ne__(self, value: Any) -> Condition:  # type: ignore[override]
        return self._compare("!=", value)

    def in_(self, values: Iterable[Any]) -> Condition:
        """One of the values."""
        return OneOf(self._path(), list(values))

    def between(self, first: Any, last: Any) -> Condition:
        """From the first to the last value, inclusive."""
        return (self >= first) & (self <= last)

    def startswith(self, text: str) -> Condition:
        """Texts that begin with it; case-sensitive."""
        return TextPart(self._path(), "prefix", text)

    def contains(self, text: str) -> Condition:
        """Texts that contain it; case-sensitive."""
        return TextPart(self._path(), "contains", text)

    def is_null(self) -> Condition:
        return self._compare("==", None)

    def asc(self) -> Order:
        return Order(self._path(), False)

    def desc(self) -> Order:
        return Order(self._path(), True)


class Path(Expression):
    """A column of the target of a reference."""

    __slots__ = ("_steps",)
    _steps: tuple[Any, ...]

    def __init__(self, steps: tuple[Any, ...]) -> None:
        self._steps = steps

    __hash__ = object.__hash__

    def __getattribute__(self, name: str) -> Any:
        if not name.startswith("_"):
            target = object.__getattribute__(self, "_steps")[-1]._target_class()
            if target is not None and name in target._columns:
                return Path(self._steps + (target._columns[name],))
        return object.__getattribute__(self, name)

    def _path(self) -> tuple[Any, ...]:
        return self._steps

    def __repr__(self) -> str:
        return show(self)


class Order:
    """A column to sort by, and the direction."""

    __slots__ = ("path", "descending")

    def __init__(self, path: tuple[Any, ...], descending: bool) -> None:
        self.path = path
        self.descending = descending

    def __repr__(self) -> str:
        return show_path(self.path) + (" backwards" if self.descending else "")


class Condition:
    """Base of all conditions."""

    __slots__ = ()

    def __and__(self, other: Condition) -> Condition:
        return Logic("and", _parts("and", self) + _parts("and", _need(other)))

    def __or__(self, other: Condition) -> Condition:
        return Logic("or", _parts("or", self) + _parts("or", _need(other)))

    def __invert__(self) -> Condition:
        return Negation(self)

    def __bool__(self) -> bool:
        raise WrongType(
            "a condition has no truth by itself: combine conditions with &, | and ~ in parentheses, "
            "not with and, or, not and chains such as 1 < x < 2"
        )

    def form(self, root: type) -> tuple[Any, ...]:
        """The form that the extension evaluates."""
        raise NotImplementedError


class Comparison(Condition):
    __slots__ = ("path", "operator", "value")

    def __init__(self, path: tuple[Any, ...], operator: str, value: Any) -> None:
        self.path, self.operator, self.value = path, operator, value

    def form(self, root: type) -> tuple[Any, ...]:
        return ("cmp", steps(root, self.path), self.operator, self.value)

    def __repr__(self) -> str:
        return f"{show_path(self.path)} {_WORDS[self.operator]} {self.value!r}"


class OneOf(Condition):
    __slots__ = ("path", "values")

    def __init__(self, path: tuple[Any, ...], values: list[Any]) -> None:
        self.path, self.values = path, values

    def form(self, root: type) -> tuple[Any, ...]:
        return ("in", steps(root, self.path), self.values)

    def __repr__(self) -> str:
        return f"{show_path(self.path)} in {self.values!r}"


class TextPart(Condition):
    __slots__ = ("path", "where", "text")

    def __init__(self, path: tuple[Any, ...], where: str, text: str) -> None:
        if not isinstance(text, str):
            raise WrongType(f"{show_path(path)} is searched for a str, not {text!r}")
        self.path, self.where, self.text = path, where, text

    def form(self, root: type) -> tuple[Any, ...]:
        return (self.where, steps(root, self.path), self.text)

    def __repr__(self) -> str:
        word = "begins with" if self.where == "prefix" else "contains"
        return f"{show_path(self.path)} {word} {self.text!r}"


class Logic(Condition):
    __slots__ = ("word", "parts")

    def __init__(self, word: str, parts: list[Condition]) -> None:
        self.word, self.parts = word, parts

    def form(self, root: type) -> tuple[Any, ...]:
        return (self.word, [part.form(root) for part in self.parts])

    def __repr__(self) -> str:
        return "(" + f" {self.word} ".join(map(repr, self.parts)) + ")"


class Negation(Condition):
    __slots__ = ("part",)

    def __init__(self, part: Condition) -> None:
        self.part = part

    def form(self, root: type) -> tuple[Any, ...]:
        return ("not", self.part.form(root))

    def __repr__(self) -> str:
        return f"not {self.part!r}"


class Aggregate:
    """An aggregate over the objects of a query; see count, sum, min, max and avg."""

    __slots__ = ("what", "of")

    def __init__(self, what: str, of: tuple[Any, ...]) -> None:
        self.what, self.of = what, of


def count(of: Any = None) -> Aggregate:
    """The number of objects; with a column, of those that have a value there."""
    return Aggregate("count", () if of is None else path_of(of))


def sum(of: Any) -> Aggregate:
    """The sum of a column of numbers; 0 for no values."""
    return Aggregate("sum", path_of(of))


def min(of: Any) -> Aggregate:
    """The least value; None for no values."""
    return Aggregate("min", path_of(of))


def max(of: Any) -> Aggregate:
    """The greatest value; None for no values."""
    return Aggregate("max", path_of(of))


def avg(of: Any) -> Aggregate:
    """The mean of a column of numbers; None for no values."""
    return Aggregate("avg", path_of(of))


def _need(other: Any) -> Condition:
    if not isinstance(other, Condition):
        raise WrongType(f"a condition is combined with a condition, not with {other!r}")
    return other


def _parts(word: str, condition: Condition) -> list[Condition]:
    if isinstance(condition, Logic) and condition.word == word:
        return condition.parts
    return [condition]


def conjuncts(condition: Condition) -> list[Condition]:
    """The conditions that must all hold."""
    return _parts("and", condition)


def path_of(expression: Any) -> tuple[Any, ...]:
    if isinstance(expression, Expression):
        return expression._path()
    raise WrongType(f"a column such as Item.year is needed, not {expression!r}")


def steps(root: type, path: tuple[Any, ...]) -> tuple[tuple[type, Any], ...]:
    """The path from objects of a class, as the extension takes it."""
    if not path:
        return ()
    first = path[0]
    if not issubclass(root, first._table):
        raise WrongType(
            f"{show_path(path)} belongs to {first._table.__name__}; "
            f"{root.__name__} has no such column"
        )
    found = [(root, first)]
    for before, step in zip(path, path[1:]):
        found.append((before._target_class(), step))
    return tuple(found)


def named_path(root: type, name: str) -> tuple[Any, ...]:
    """The path of a dotted name such as "lender.name"."""
    at: Any = root
    path: list[Any] = []
    for part in name.split("."):
        column = None if at is None else at._columns.get(part)
        if column is None:
            owner = at.__name__ if at is not None else show_path(tuple(path))
            raise WrongType(f"{owner} has no column {part!r}, which {name!r} asks for")
        path.append(column)
        at = column._target_class()
    return tuple(path)


def show(expression: Expression) -> str:
    return show_path(expression._path())


def show_path(path: tuple[Any, ...]) -> str:
    return ".".join(step._name for step in path) if path else "id"

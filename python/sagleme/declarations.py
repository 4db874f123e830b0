"""What a class body says of a column: its type, its default, and the options of column() and ref()."""

from __future__ import annotations

import datetime
import decimal
import fractions
import inspect
import struct
from collections.abc import Callable
from typing import Annotated, Any

from .errors import ModelError

STRING, BINARY, LONG, ULONG, DECIMAL = 1, 2, 3, 4, 5
FLOAT, DOUBLE, REFERENCE, KEY, BOOL, DATETIME = 6, 7, 8, 9, 10, 11

# What a column takes up in the database, by kind.
STORED = {kind: kind for kind in range(1, 11)} | {DATETIME: LONG}
MUST_BE_NULLABLE = {STRING, BINARY, REFERENCE, KEY}
TYPE_NAMES = {
    STRING: "str", BINARY: "bytes", LONG: "int", ULONG: "sg.ULong", DECIMAL: "Decimal",
    FLOAT: "sg.Float32", DOUBLE: "float", REFERENCE: "reference", KEY: "sg.Key", BOOL: "bool",
    DATETIME: "datetime",
}


MOST_COLUMNS = 112  # of a table, inherited ones included
MOST_INDEX_COLUMNS = 15


class Kind:
    """Marks an Annotated type with a special column."""

    def __init__(self, kind: int) -> None:
        self.kind = kind


ULong = Annotated[int, Kind(ULONG)]
Key = Annotated[int, Kind(KEY)]
Float32 = Annotated[float, Kind(FLOAT)]

KINDS: dict[Any, int] = {
    str: STRING, bytes: BINARY, int: LONG, decimal.Decimal: DECIMAL, float: DOUBLE, bool: BOOL,
    datetime.datetime: DATETIME,
}
CHOICES = (
    "int, float, bool, decimal.Decimal, datetime.datetime, each with or without | None; "
    "str | None, bytes | None, or a class of a table | None; sg.ULong, sg.Key | None, sg.Float32"
)


# ---- defaults


def _is_whole(value: Any, least: int, most: int) -> bool:
    return isinstance(value, int) and not isinstance(value, bool) and least <= value <= most


def _is_real(value: Any, form: str) -> bool:
    if not isinstance(value, (int, float)) or isinstance(value, bool):
        return False
    try:
        return bool(struct.pack(form, value))
    except (OverflowError, struct.error):
        return False


def _is_millionths(value: Any) -> bool:
    if not isinstance(value, decimal.Decimal) or not value.is_finite():
        return False
    millionths = fractions.Fraction(value) * 10**6
    return millionths.denominator == 1 and -2**63 <= millionths < 2**63


# By kind, whether a value can be a default, and what can be one.
_DEFAULTS: dict[int, tuple[Callable[[Any], bool], str]] = {
    STRING: (lambda value: isinstance(value, str) and "\0" not in value, "a str without U+0000"),
    BINARY: (lambda value: isinstance(value, bytes), "bytes"),
    LONG: (lambda value: _is_whole(value, -2**63, 2**63 - 1), "an int from -2**63 to 2**63 - 1"),
    ULONG: (lambda value: _is_whole(value, 0, 2**64 - 1), "an int from 0 to 2**64 - 1"),
    KEY: (lambda value: _is_whole(value, 0, 2**64 - 1), "an int from 0 to 2**64 - 1"),
    DECIMAL: (_is_millionths,
              "a decimal.Decimal of at most 6 places, up to 9223372036854.775807"),
    DOUBLE: (lambda value: _is_real(value, "<d"), "a float"),
    FLOAT: (lambda value: _is_real(value, "<f"), "a float that 32 bits hold"),
    BOOL: (lambda value: isinstance(value, bool), "True or False"),
    DATETIME: (lambda value: isinstance(value, datetime.datetime) and value.utcoffset() is not None,
               "a datetime with a time zone, such as datetime.timezone.utc"),
    REFERENCE: (lambda value: False, "none: it is None until it is set"),
}


# ---- options


ON_DELETE = ("keep", "refuse", "set_null", "cascade", "last")


class Options:
    """The options of column() and ref() for a column."""

    def __init__(self, default: Any, name: str | None = None, was: str | None = None,
                 index: bool = False, unique: bool = False, on_delete: str | None = None,
                 stored: bool = False, comment: str | None = None, by: str = "") -> None:
        self.default, self.name, self.was = default, name, was
        self.index, self.unique = index, unique
        self.on_delete, self.stored, self.comment = on_delete, stored, comment
        self.by = by  # the function that made them; empty: a value alone, or the catalogue

    def check(self, where: str, kind: int) -> None:
        """Raises ModelError if a column of that kind cannot have them."""
        if self.by == "ref" and kind != REFERENCE:
            raise ModelError(f"{where}: sg.ref() is for references; write sg.column() for "
                             f"{TYPE_NAMES[kind]}")
        if self.on_delete is not None and self.on_delete not in ON_DELETE:
            raise ModelError(f"{where}: on_delete is one of {', '.join(ON_DELETE)}, not "
                             f"{self.on_delete!r}")
        for option, text in (("name", self.name), ("was", self.was)):
            if text is not None:
                _need_column_name(where, option, text)
        self.comment = checked_comment(where, self.comment)
        if self.default is not None:
            fits, wanted = _DEFAULTS[kind]
            if not fits(self.default):
                raise ModelError(f"{where}: {self.default!r} is no default for {TYPE_NAMES[kind]}, "
                                 f"which takes {wanted}")
        elif self.stored:
            raise ModelError(f"{where}: stored=True keeps a default in the database; there is none "
                             f"to keep: give one, or leave stored=True out")


def _need_column_name(where: str, option: str, text: Any) -> None:
    if not isinstance(text, str):
        raise ModelError(f"{where}: {option}= takes a name, not {text!r}")
    if not text or "\0" in text or text.startswith("__"):
        raise ModelError(f"{where}: a column cannot be called {text!r}; its name has a character "
                         f"at least, no U+0000, and does not begin with __")


def checked_comment(where: str, text: Any) -> str | None:
    if text is not None and not isinstance(text, str):
        raise ModelError(f"{where}: a comment is a text, not {text!r}")
    return None if text is None else inspect.cleandoc(text)


def column(default: Any = None, *, name: str | None = None, was: str | None = None,
           index: bool = False, unique: bool = False, stored: bool = False,
           comment: str | None = None) -> Any:
    """Gives options of a column that its annotation cannot.

    `default` is what new objects get, `name` the column's name in the database where it differs
    from the attribute's, `was` a name that it had before. `index` makes an index over it, `unique`
    one that holds every value once; None may occur any number of times. With `stored` the database
    keeps the default too, for SQL and other programs. `comment` is a text that it shows.
    """
    return Options(default, name, was, index or unique, unique, stored=stored, comment=comment,
                   by="column")


def ref(*, name: str | None = None, was: str | None = None, index: bool = False,
        unique: bool = False, on_delete: str | None = None, comment: str | None = None) -> Any:
    """The same for a reference, which has no default.

    `on_delete` says what becomes of it when its target is deleted: "keep", "refuse", "set_null",
    "cascade" or "last", which deletes a target with the last reference to it. A rule makes an index
    over the column. Without `on_delete` the rule that the database has stays.
    """
    ruled = on_delete not in (None, "keep")
    return Options(None, name, was, index or unique or ruled, unique, on_delete, comment=comment,
                   by="ref")


class Index:
    """An index over several columns: ``class Book(Item, indexes=[sg.Index("author", "-year")])``.

    A minus in front of a name lets that column run backwards. `comment` is a text that the database
    shows.
    """

    def __init__(self, *columns: str, unique: bool = False, comment: str | None = None) -> None:
        self._given = columns
        self.columns = tuple((each.removeprefix("-"), not each.startswith("-"))
                             for each in columns if isinstance(each, str))
        self.unique, self.comment = unique, comment

    def is_like(self, other: Index) -> bool:
        return self.columns == other.columns and self.unique == other.unique

    def check(self, where: str, names: Any) -> None:
        """Raises ModelError if a class with columns of these names cannot have it."""
        if len(self.columns) < max(len(self._given), 1):
            raise ModelError(f"{where}: an index takes names of columns, as in "
                             f'sg.Index("author", "-year"), not {self._given!r}')
        if len(self.columns) > MOST_INDEX_COLUMNS:
            raise ModelError(f"{where}: an index has at most {MOST_INDEX_COLUMNS} columns, not "
                             f"{len(self.columns)}")
        seen = set()
        for name, _ in self.columns:
            if name not in names:
                raise ModelError(f"{where}: an index names {name!r}, which is no column; "
                                 f"{_those(names)}")
            if name in seen:
                raise ModelError(f"{where}: an index names {name!r} twice")
            seen.add(name)
        self.comment = checked_comment(f"{where}: sg.Index", self.comment)


def _those(names: Any) -> str:
    return f"there are {', '.join(names)}" if names else "there are none"


# ---- names


_RESERVED = ("Lorvenstack.", "Sagleme.Internal.")  # name spaces of the system's tables


def need_table_name(where: str, option: str, given: Any) -> None:
    if not isinstance(given, str):
        raise ModelError(f"{where}: {option}= takes the name of a table, not {given!r}")
    if not all(given.split(".")) or "\0" in given:
        raise ModelError(f"{where}: {given!r} is no name for a table; write words with dots between "
                         f"them, as in Library.Book")
    if given.startswith(_RESERVED):
        raise ModelError(f"{where}: {given!r} is in a name space of the system's tables; choose "
                         f"another one")


def checked_was(where: str, was: Any) -> str | None:
    if was is None:
        return None
    need_table_name(where, "was", was)
    return str(was)


def refuse_bad_was(entries: list[tuple[str, str, str | None]]) -> None:
    """Entries are a column or class as messages have it, its name, and the name it had before."""
    heirs: dict[str, str] = {}
    before = {name: was for _, name, was in entries if was is not None and was != name}
    for shown, name, was in entries:
        if was is None or was == name:
            continue
        if was in heirs:
            raise ModelError(f"{heirs[was]} and {shown}: both were {was!r}; one can be, so take "
                             f"was= from the other")
        heirs[was] = shown
        seen = {name}
        at: str | None = was
        while at is not None and at not in seen:
            seen.add(at)
            at = before.get(at)
        if at == name:
            raise ModelError(f"{shown}: was={was!r} leads back to {name!r}, and names that change "
                             f"places are not told from names that stay; rename one to a third name "
                             f"and apply that first")

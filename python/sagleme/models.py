"""Classes that are tables.

>>> class Person(Table, name="Doc.Person"):
...     name: str | None
...     born: int = 0
>>> Person._table_name, list(Person._columns)
('Doc.Person', ['name', 'born'])
"""

from __future__ import annotations

import datetime
import decimal
import inspect
import re
import sys
import types
import typing
from collections.abc import Iterable
from typing import Annotated, Any, ClassVar, Generic, TypeVar

from . import _core
from .errors import ModelError
from .expressions import Expression, Path

T = TypeVar("T")
N = TypeVar("N")

STRING, BINARY, LONG, ULONG, DECIMAL = 1, 2, 3, 4, 5
FLOAT, DOUBLE, REFERENCE, KEY, BOOL, DATETIME = 6, 7, 8, 9, 10, 11

# What a column takes up in the database, by kind.
STORED = {kind: kind for kind in range(1, 11)} | {DATETIME: LONG}
MUST_BE_NULLABLE = {STRING, BINARY, REFERENCE}
TYPE_NAMES = {
    STRING: "str", BINARY: "bytes", LONG: "int", ULONG: "sg.ULong", DECIMAL: "Decimal",
    FLOAT: "sg.Float32", DOUBLE: "float", REFERENCE: "reference", KEY: "sg.Key", BOOL: "bool",
    DATETIME: "datetime",
}


class _Kind:
    """Marks an Annotated type with a special column."""

    def __init__(self, kind: int) -> None:
        self.kind = kind


ULong = Annotated[int, _Kind(ULONG)]
Key = Annotated[int, _Kind(KEY)]
Float32 = Annotated[float, _Kind(FLOAT)]

_KINDS: dict[Any, int] = {
    str: STRING, bytes: BINARY, int: LONG, decimal.Decimal: DECIMAL, float: DOUBLE, bool: BOOL,
    datetime.datetime: DATETIME,
}
_TAKEN = {"id", "to_dict"}
_CHOICES = (
    "int, float, bool, decimal.Decimal, datetime.datetime, each with or without | None; "
    "str | None, bytes | None, or a class of a table | None; sg.ULong, sg.Key, sg.Float32"
)


class _Options:
    """The options of column() and ref() for a column."""

    def __init__(self, default: Any, name: str | None = None, was: str | None = None,
                 index: bool = False, unique: bool = False, on_delete: str | None = None,
                 stored: bool = False, comment: str | None = None) -> None:
        self.default, self.name, self.was = default, name, was
        self.index, self.unique = index, unique
        self.on_delete, self.stored, self.comment = on_delete, stored, comment


def column(default: Any = None, *, name: str | None = None, was: str | None = None,
           index: bool = False, unique: bool = False, stored: bool = False,
           comment: str | None = None) -> Any:
    """Gives options of a column that its annotation cannot.

    `default` is what new objects get, `name` the column's name in the database where it differs
    from the attribute's, `was` a name that it had before. `index` makes an index over it, `unique`
    one that holds every value once; None may occur any number of times. With `stored` the database
    keeps the default too, for SQL and other programs. `comment` is a text that it shows.
    """
    if stored and default is None:
        raise ModelError("stored=True keeps a default in the database; there is none to keep")
    return _Options(default, name, was, index or unique, unique, stored=stored,
                    comment=_comment(comment))


def _comment(text: Any) -> str | None:
    if text is not None and not isinstance(text, str):
        raise ModelError(f"a comment is a text, not {text!r}")
    return None if text is None else inspect.cleandoc(text)


ON_DELETE = ("keep", "refuse", "set_null", "cascade", "last")


def ref(*, name: str | None = None, was: str | None = None, index: bool = False,
        unique: bool = False, on_delete: str | None = None, comment: str | None = None) -> Any:
    """The same for a reference, which has no default.

    `on_delete` says what becomes of it when its target is deleted: "keep", "refuse", "set_null",
    "cascade" or "last", which deletes a target with the last reference to it. A rule makes an index
    over the column. Without `on_delete` the rule that the database has stays.
    """
    if on_delete is not None and on_delete not in ON_DELETE:
        raise ModelError(f"on_delete is one of {', '.join(ON_DELETE)}, not {on_delete!r}")
    ruled = on_delete not in (None, "keep")
    return _Options(None, name, was, index or unique or ruled, unique, on_delete,
                    comment=_comment(comment))


class Index:
    """An index over several columns: ``class Book(Item, indexes=[sg.Index("author", "-year")])``.

    A minus in front of a name lets that column run backwards.
    """

    def __init__(self, *columns: str, unique: bool = False) -> None:
        if not columns or not all(isinstance(each, str) for each in columns):
            raise ModelError('an index takes names of columns: sg.Index("author", "-year")')
        self.columns = tuple((each.lstrip("-"), not each.startswith("-")) for each in columns)
        self.unique = unique


class Column(Expression, _core.Field):
    """A column of a class: reads and writes it in objects, and represents it in conditions."""

    _table: type[Table]
    _column: str  # its name in the database
    _target: Any  # of a reference: the class, or the name of one that comes later
    _default: Any
    _was: str | None
    _on_delete: str | None
    _stored: bool
    _comment: str | None
    _index: bool
    _unique: bool

    __hash__ = object.__hash__

    def _path(self) -> tuple[Any, ...]:
        return (self,)

    def _target_class(self) -> type[Table] | None:
        if isinstance(self._target, str):
            self._target = _find_class(self._target, self._table)
        return self._target

    def __repr__(self) -> str:
        return f"{self._owner}.{self._name}"

    if typing.TYPE_CHECKING:
        # Through a reference: Item.lender.name.
        def __getattr__(self, name: str) -> Any: ...


class ReferenceColumn(Column):
    """A column of references, through which the target's columns are reached."""

    __hash__ = object.__hash__

    def __getattribute__(self, name: str) -> Any:
        if not name.startswith("_"):
            target = object.__getattribute__(self, "_target_class")()
            if target is not None and name in target._columns:
                return Path((self, target._columns[name]))
        return object.__getattribute__(self, name)


class Back(Generic[T, N]):
    """``loans: sg.Back["Item", "lender"]``: the objects that refer to one, as a query."""

    def __init__(self, source: Any, column: str) -> None:
        self._source, self._via = source, column
        self._owner: type[Table] | None = None

    def __class_getitem__(cls, items: Any) -> Any:
        if not isinstance(items, tuple) or len(items) != 2 or not isinstance(items[1], str):
            raise ModelError(
                'a back reference names a class and its reference: sg.Back["Item", "lender"]'
            )
        return cls(*items)

    def _resolve(self) -> tuple[type[Table], Column]:
        source = self._source
        if isinstance(source, str):
            source = self._source = _find_class(source, self._owner)
        column = source._columns.get(self._via)
        if column is None or column._kind != REFERENCE:
            raise ModelError(f"{source.__name__} has no reference {self._via!r}")
        return source, column

    def __get__(self, obj: Any, owner: Any = None) -> Any:
        if obj is None:
            return self
        source, column = self._resolve()
        return obj._transaction.all(source).where(column == obj)


_registry: dict[str, list[Any]] = {}


def _find_class(name: str, near: Any) -> Any:
    """A class by its name or its table's: of the same module if there are several."""
    found = [each for each in _registry.get(name, []) if each() is not None]
    classes = [each() for each in found]
    same = [each for each in classes if near is not None and each.__module__ == near.__module__]
    if not classes:
        where = f"{near.__name__} refers to" if near is not None else "there is"
        raise ModelError(f"{where} no class {name!r}; define it, or import its module")
    return (same or classes)[-1]


def _register(cls: Any) -> None:
    import weakref

    for name in {cls.__name__, cls._table_name}:
        _registry.setdefault(name, []).append(weakref.ref(cls))


def _strip_none(annotation: Any) -> tuple[Any, bool]:
    """The choices without None, and whether None was among them."""
    if typing.get_origin(annotation) not in (typing.Union, types.UnionType):
        return annotation, False
    choices = [each for each in typing.get_args(annotation) if each is not type(None)]
    nullable = len(choices) < len(typing.get_args(annotation))
    return (choices[0], nullable) if len(choices) == 1 else (annotation, nullable)


_FORWARD = re.compile(r"^\s*(?:([\w.]+)\s*\|\s*None|None\s*\|\s*([\w.]+)|(?:typing\.)?Optional\[([\w.]+)\])\s*$")


class _Annotation:
    """A parsed annotation: a kind of column, a back reference, or neither."""

    def __init__(self, where: str, annotation: Any, names: dict[str, Any]) -> None:
        self.kind = 0
        self.nullable = False
        self.target: Any = None
        self.back: Back[Any, Any] | None = None
        self.ignored = False
        if isinstance(annotation, str):
            annotation = self._evaluate(where, annotation, names)
        self._understand(where, annotation)

    def _evaluate(self, where: str, text: str, names: dict[str, Any]) -> Any:
        try:
            return eval(text, names)
        except NameError as error:
            match = _FORWARD.match(text)
            if match is None:
                raise ModelError(f"{where}: {text} cannot be understood: {error}") from None
            return typing.Optional[typing.ForwardRef(next(filter(None, match.groups())))]
        except (TypeError, SyntaxError) as error:
            raise ModelError(f"{where}: {text} cannot be understood: {error}") from None

    def _understand(self, where: str, annotation: Any) -> None:
        if annotation is ClassVar or typing.get_origin(annotation) is ClassVar:
            self.ignored = True
            return
        if isinstance(annotation, Back):
            self.back = annotation
            return
        inner, self.nullable = _strip_none(annotation)
        self.kind = self._kind_of(inner)
        if self.kind == 0:
            shown = getattr(annotation, "__name__", None) or str(annotation)
            raise ModelError(f"{where}: {shown} is no type of a column; it is one of {_CHOICES}")
        if self.kind in MUST_BE_NULLABLE and not self.nullable:
            shown = getattr(inner, "__name__", None) or str(inner)
            raise ModelError(
                f"{where}: texts, binaries and references can be null in the database; "
                f"write {shown} | None"
            )

    def _kind_of(self, inner: Any) -> int:
        if isinstance(inner, typing.ForwardRef):
            self.target = inner.__forward_arg__.rsplit(".", 1)[-1]
            return REFERENCE
        if isinstance(inner, type) and issubclass(inner, Table):
            self.target = inner
            return REFERENCE
        if typing.get_origin(inner) is Annotated:
            marks = [each for each in typing.get_args(inner)[1:] if isinstance(each, _Kind)]
            return marks[0].kind if marks else self._kind_of(typing.get_args(inner)[0])
        return _KINDS.get(inner, 0) if isinstance(inner, type) else 0


class _Spec:
    """A column as a class body declares it."""

    def __init__(self, attribute: str, kind: int, nullable: bool, target: Any,
                 options: _Options) -> None:
        self.attribute, self.kind, self.nullable, self.target = attribute, kind, nullable, target
        self.options = options

    def make(self, cls: Any, slot: int) -> Column:
        make = ReferenceColumn if self.kind == REFERENCE else Column
        made = make(self.attribute, cls.__name__, slot, self.kind, self.nullable)
        made._table = cls
        made._column = self.options.name or self.attribute
        made._target = self.target
        made._default = self.options.default
        made._was = self.options.was
        made._on_delete = self.options.on_delete
        made._stored, made._comment = self.options.stored, self.options.comment
        made._index, made._unique = self.options.index, self.options.unique
        return made


def _default_fits(kind: int, value: Any) -> bool:
    wanted = next((each for each, its in _KINDS.items() if its == kind), None)
    if kind in (ULONG, KEY):
        return isinstance(value, int) and not isinstance(value, bool) and value >= 0
    if kind in (DOUBLE, FLOAT):
        return isinstance(value, (int, float)) and not isinstance(value, bool)
    if kind == LONG:
        return isinstance(value, int) and not isinstance(value, bool)
    return wanted is not None and isinstance(value, wanted)


def _options_of(where: str, understood: _Annotation, given: Any) -> _Options:
    options = given if isinstance(given, _Options) else _Options(given)
    if options.on_delete is not None and understood.kind != REFERENCE:
        raise ModelError(f"{where}: on_delete is for references, not {TYPE_NAMES[understood.kind]}")
    if options.default is not None:
        if understood.kind == REFERENCE or not _default_fits(understood.kind, options.default):
            raise ModelError(
                f"{where}: {options.default!r} is no default for {TYPE_NAMES[understood.kind]}"
            )
    return options


def _specs_of(name: str, ns: dict[str, Any], names: dict[str, Any]) -> tuple[list[_Spec],
                                                                             list[Back[Any, Any]]]:
    specs: list[_Spec] = []
    backs: list[Back[Any, Any]] = []
    for attribute, annotation in ns.get("__annotations__", {}).items():
        where = f"{name}.{attribute}"
        understood = _Annotation(where, annotation, names)
        if understood.ignored:
            continue
        if attribute in _TAKEN or attribute.startswith("_"):
            raise ModelError(
                f"{where}: the attribute's name is taken; give the column another one, "
                f"as in {attribute.strip('_')}_: ... = sg.column(name={attribute!r})"
            )
        if understood.back is not None:
            ns[attribute] = understood.back
            backs.append(understood.back)
            continue
        options = _options_of(where, understood, ns.pop(attribute, None))
        specs.append(_Spec(attribute, understood.kind, understood.nullable, understood.target,
                           options))
    for attribute, value in ns.items():
        if isinstance(value, _Options):
            raise ModelError(f"{name}.{attribute} has no annotation; write {attribute}: int = ...")
    return specs, backs


class TableMeta(type):
    """Makes a class a table when it is defined."""

    _columns: dict[str, Column]
    _own: list[Column]
    _specs: list[_Spec]
    _base: Any
    _table_name: str
    _was: str | None
    _abstract: bool  # without a table
    _bare: bool | None  # with a table that has no objects of its own; None: as the database has it
    _comment: str | None
    _indexes: list[Index]

    def __new__(mcs, class_name: str, bases: tuple[type, ...], ns: dict[str, Any],
                **options: Any) -> Any:
        made_specs = options.get("_specs")
        unknown = set(options) - {"name", "was", "abstract", "indexes", "_specs"}
        if unknown:
            raise ModelError(
                f"{class_name}: a table takes name, was, abstract and indexes, "
                f"not {', '.join(sorted(unknown))}"
            )
        tables = [base for base in bases if isinstance(base, TableMeta)]
        if len(tables) > 1:
            both = " and ".join(base.__name__ for base in tables)
            raise ModelError(f"{class_name} derives from {both}; a table has one base")
        backs: list[Back[Any, Any]] = []
        if made_specs is None:
            names = _names_for(class_name, ns)
            made_specs, backs = _specs_of(class_name, ns, names)
        ns.setdefault("__slots__", ())
        if ns["__slots__"]:
            raise ModelError(f"{class_name}: objects of a table have columns and no __slots__")
        cls: Any = super().__new__(mcs, class_name, bases, ns)
        cls._define(tables[0] if tables else None, made_specs, options)
        for back in backs:
            back._owner = cls
        return cls

    def __init__(cls, class_name: str, bases: tuple[type, ...], ns: dict[str, Any],
                 **options: Any) -> None:
        super().__init__(class_name, bases, ns)

    def _define(cls, base: Any, specs: list[_Spec], options: dict[str, Any]) -> None:
        root = base is None
        named = options.get("name") is not None
        cls._abstract = bool(options.get("abstract")) and not named or root
        cls._bare = options.get("abstract") if named else None
        cls._comment = _comment(vars(cls).get("__doc__"))
        cls._was = options.get("was")
        inherited_specs = base._specs if base is not None and base._abstract else []
        cls._specs = inherited_specs + specs if cls._abstract else []
        cls._base = _concrete(base)
        cls._table_name = "" if cls._abstract else _table_name(cls, options.get("name"))
        cls._columns = dict(cls._base._columns) if cls._base is not None else {}
        cls._own = []
        cls._indexes = []
        for spec in inherited_specs + specs:
            cls._add(spec)
        for index in options.get("indexes") or ():
            cls._add_index(index)
        if not cls._abstract and "_specs" not in options:
            _register(cls)

    def _add(cls, spec: _Spec) -> None:
        if spec.attribute in cls._columns:
            owner = cls._columns[spec.attribute]._owner
            raise ModelError(f"{cls.__name__}.{spec.attribute}: {owner} has a column of that name")
        made = spec.make(cls, len(cls._columns))
        for other in cls._columns.values():
            if other._column == made._column:
                raise ModelError(
                    f"{cls.__name__}: {other._name} and {made._name} are both column "
                    f"{made._column!r}"
                )
        if "\0" in made._column or made._column.startswith("__") or not made._column:
            raise ModelError(f"{cls.__name__}: a column cannot be called {made._column!r}")
        cls._columns[spec.attribute] = made
        cls._own.append(made)
        type.__setattr__(cls, spec.attribute, made)
        if made._index:
            cls._indexes.append(Index(spec.attribute, unique=made._unique))

    def _add_index(cls, index: Any) -> None:
        if not isinstance(index, Index):
            raise ModelError(f"{cls.__name__}: indexes=[...] takes sg.Index(...), not {index!r}")
        cls._need_columns(index)
        cls._indexes.append(index)

    def _need_columns(cls, index: Index) -> None:
        for name, _ in index.columns:
            if name not in cls._columns:
                raise ModelError(f"{cls.__name__}: an index names {name!r}, which is no column")

    def __repr__(cls) -> str:
        return f"<table {cls._table_name or cls.__name__}>"


def _concrete(base: Any) -> Any:
    while base is not None and base._abstract:
        base = base.__base__ if isinstance(base.__base__, TableMeta) else None
    return base


def _table_name(cls: Any, given: str | None) -> str:
    if given is not None:
        if not given or not all(given.split(".")):
            raise ModelError(f"{cls.__name__}: {given!r} is no name for a table")
        return given
    space = cls._base._table_name.rpartition(".")[0] if cls._base is not None else ""
    return f"{space}.{cls.__name__}" if space else cls.__name__


def _names_for(class_name: str, ns: dict[str, Any]) -> dict[str, Any]:
    """The names that string annotations may use: the module's, and those around the class."""
    module = sys.modules.get(ns.get("__module__", ""))
    names = dict(vars(module)) if module is not None else {}
    frame = sys._getframe(2)
    names.update(frame.f_locals)
    return names


class Table(_core.Object, metaclass=TableMeta):
    """The base of all classes that are tables; see the package's documentation."""

    def to_dict(self) -> dict[str, Any]:
        """The columns by name, for use after the transaction; references as identities."""
        found: dict[str, Any] = {"id": self.id}
        for name in type(self)._columns:
            value = getattr(self, name)
            found[name] = value.id if isinstance(value, Table) else value
        return found

    def __repr__(self) -> str:
        name = type(self).__name__
        if not self._live:
            return f"<{name} {self.id}, of a transaction that has ended>"
        shown = []
        for column in list(type(self)._columns)[:4]:
            value = getattr(self, column)
            text = f"{type(value).__name__} {value.id}" if isinstance(value, Table) else repr(value)
            shown.append(f"{column}={text if len(text) <= 40 else text[:37] + '...'}")
        return f"<{name} {self.id} {' '.join(shown)}>" if shown else f"<{name} {self.id}>"

    def _repr_html_(self) -> str:
        from .html import table_of

        return table_of(f"{type(self).__name__} {self.id}", ["column", "value"],
                        [[name, value] for name, value in self.to_dict().items()])


def closure(models: Iterable[Any]) -> list[Any]:
    """The classes with their bases and the targets of their references, bases first."""
    found: list[Any] = []
    seen: set[Any] = set()

    def add(cls: Any) -> None:
        if cls is None or cls in seen:
            return
        seen.add(cls)
        add(cls._base)
        if not cls._abstract:
            found.append(cls)
        for each in cls._own:
            if each._kind == REFERENCE and each._target is not None:
                add(each._target_class())

    for cls in models:
        if not isinstance(cls, TableMeta):
            raise ModelError(f"models=[...] takes classes derived from sg.Table, not {cls!r}")
        add(cls)
    for cls in found:  # grows meanwhile
        for value in vars(cls).values():
            if isinstance(value, Back):
                source, column = value._resolve()
                add(source)
                _index_for_back(column)
    _refuse_shared_names(found)
    return found


def _index_for_back(column: Column) -> None:
    """A back reference is a search, which needs an index over the reference."""
    if not any(index.columns[0][0] == column._name for index in column._table._indexes):
        column._table._indexes.append(Index(column._name))


def _refuse_shared_names(classes: list[Any]) -> None:
    by_name: dict[str, Any] = {}
    for cls in classes:
        other = by_name.setdefault(cls._table_name, cls)
        if other is not cls:
            raise ModelError(
                f"{other.__module__}.{other.__qualname__} and {cls.__module__}.{cls.__qualname__} "
                f"are both table {cls._table_name!r}"
            )

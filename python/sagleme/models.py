"""Classes that are tables.

>>> class Person(Table, name="Doc.Person"):
...     name: str | None
...     born: int = 0
>>> Person._table_name, list(Person._columns)
('Doc.Person', ['name', 'born'])
"""

from __future__ import annotations

import re
import sys
import types
import typing
from collections.abc import Collection, Iterable
from typing import Annotated, Any, ClassVar, Generic, TypeVar

from . import _core
from .declarations import (
    CHOICES,
    KINDS,
    MOST_COLUMNS,
    MUST_BE_NULLABLE,
    REFERENCE,
    TYPE_NAMES,
    Index,
    Kind,
    Options,
    checked_comment,
    checked_was,
    need_table_name,
    refuse_bad_was,
)
from .errors import ModelError
from .expressions import Expression, Path

T = TypeVar("T")
N = TypeVar("N")

_TAKEN = {"id", "to_dict"}


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
            self._target = _find_class(self._target, self._table, repr(self))
            _need_table(repr(self), self._target)
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
        self._owner: Any = None
        self._where = ""

    def __class_getitem__(cls, items: Any) -> Any:
        if not isinstance(items, tuple) or len(items) != 2 or not isinstance(items[1], str):
            raise ModelError(
                'a back reference names a class and its reference: sg.Back["Item", "lender"]'
            )
        return cls(*items)

    def _resolve(self) -> tuple[type[Table], Column]:
        source = self._source
        if isinstance(source, str):
            source = self._source = _find_class(source, self._owner, self._where)
        _need_table(self._where, source)
        column = source._columns.get(self._via)
        if column is None or column._kind != REFERENCE:
            known = [each._name for each in source._columns.values() if each._kind == REFERENCE]
            raise ModelError(f"{self._where}: {source.__name__} has no reference {self._via!r}; "
                             f"it has {', '.join(known) or 'none'}")
        return source, column

    def _belongs_to(self, cls: Any, attribute: str) -> None:
        """Makes it an attribute of the class, and refuses what is known to be wrong already."""
        self._owner, self._where = cls, f"{cls.__name__}.{attribute}"
        if isinstance(self._source, TableMeta):
            self._resolve()
        elif not isinstance(self._source, str):
            raise ModelError(f"{self._where}: a back reference names a class of a table, not "
                             f"{self._source!r}")

    def _check(self) -> tuple[type[Table], Column]:
        source, column = self._resolve()
        target = column._target_class()
        if target is not None and not (issubclass(self._owner, target)
                                       or issubclass(target, self._owner)):
            raise ModelError(f"{self._where}: {column!r} leads to {target.__name__}, never to "
                             f"{self._owner.__name__}; name a reference to {self._owner.__name__}")
        return source, column

    def __get__(self, obj: Any, owner: Any = None) -> Any:
        if obj is None:
            return self
        source, column = self._resolve()
        return obj._transaction.all(source).where(column == obj)


_registry: dict[str, list[Any]] = {}


def _find_class(name: str, near: Any, where: str) -> Any:
    """A class by its name or its table's: of the same module if there are several."""
    found = [each for each in _registry.get(name, []) if each() is not None]
    classes = [each() for each in found]
    same = [each for each in classes if each.__module__ == near.__module__]
    if not classes:
        raise ModelError(f"{where} refers to no class {name!r}; define it, or import its module")
    return (same or classes)[-1]


def _register(cls: Any) -> None:
    import weakref

    for name in {cls.__name__, cls._table_name}:
        _registry.setdefault(name, []).append(weakref.ref(cls))


def _need_table(where: str, target: Any) -> None:
    if target._abstract:
        raise ModelError(f"{where}: {target.__name__} has no table to refer to; refer to a class "
                         f"that has one, or give {target.__name__} a name=")


def _strip_none(annotation: Any) -> tuple[Any, bool]:
    """The choices without None, and whether None was among them."""
    if typing.get_origin(annotation) not in (typing.Union, types.UnionType):
        return annotation, False
    choices = [each for each in typing.get_args(annotation) if each is not type(None)]
    nullable = len(choices) < len(typing.get_args(annotation))
    return (choices[0], nullable) if len(choices) == 1 else (annotation, nullable)


_FORWARD = re.compile(r"^\s*(?:([\w.]+)\s*\|\s*None|None\s*\|\s*([\w.]+)|(?:typing\.)?Optional\[([\w.]+)\])\s*$")


def _shown(annotation: Any) -> str:
    """An annotation as a program writes it."""
    if typing.get_origin(annotation) in (typing.Union, types.UnionType):
        return " | ".join(map(_shown, typing.get_args(annotation)))
    if annotation is None or annotation is type(None):
        return "None"
    if isinstance(annotation, type) and typing.get_origin(annotation) is None:
        return annotation.__name__
    return str(annotation).replace("typing.", "")


def _advice(annotation: Any) -> str:
    """What to write instead of an annotation that is no type of a column."""
    inner, _ = _strip_none(annotation)
    if typing.get_origin(inner) in (typing.Union, types.UnionType):
        choices = [each for each in typing.get_args(inner) if each is not type(None)]
        if all(isinstance(each, TableMeta) for each in choices):
            return "a reference leads to one class and those below it; give these a common base"
        return "a column has one type; make a column for each of these"
    made = typing.get_origin(inner) or inner
    if isinstance(made, type) and issubclass(made, Collection):
        return ("a column holds one value; make the elements objects of a class that refers to "
                "this one, and reach them with sg.Back")
    return f"it is one of {CHOICES}"


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
                raise ModelError(
                    f"{where}: {text} cannot be understood: {error}; import it, or write a class "
                    f"that comes later as \"Name | None\"") from None
            return typing.Optional[typing.ForwardRef(next(filter(None, match.groups())))]
        except ModelError as error:
            raise ModelError(f"{where}: {error}") from None
        except Exception as error:
            raise ModelError(f"{where}: {text} cannot be understood: {error}; write a type, as in "
                             f"\"int | None\"") from None

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
            raise ModelError(
                f"{where}: {_shown(annotation)} is no type of a column; {_advice(annotation)}")
        if isinstance(self.target, TableMeta):
            _need_table(where, self.target)
        if self.kind in MUST_BE_NULLABLE and not self.nullable:
            shown = _shown(inner) if self.kind == REFERENCE else TYPE_NAMES[self.kind]
            raise ModelError(f"{where}: texts, binaries, references and keys can be null in the "
                             f"database; write {shown} | None")

    def _kind_of(self, inner: Any) -> int:
        if isinstance(inner, typing.ForwardRef):
            self.target = inner.__forward_arg__.rsplit(".", 1)[-1]
            return REFERENCE
        if isinstance(inner, type) and issubclass(inner, Table):
            self.target = inner
            return REFERENCE
        if typing.get_origin(inner) is Annotated:
            marks = [each for each in typing.get_args(inner)[1:] if isinstance(each, Kind)]
            return marks[0].kind if marks else self._kind_of(typing.get_args(inner)[0])
        return KINDS.get(inner, 0) if isinstance(inner, type) else 0


class _Spec:
    """A column as a class body declares it."""

    def __init__(self, attribute: str, kind: int, nullable: bool, target: Any,
                 options: Options) -> None:
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


def _options_of(where: str, understood: _Annotation, given: Any) -> Options:
    options = given if isinstance(given, Options) else Options(given)
    options.check(where, understood.kind)
    return options


def _need_free_name(name: str, attribute: str) -> None:
    shown = attribute.removeprefix(f"_{name.lstrip('_')}__")  # as the class body has it
    shown = attribute if shown == attribute else f"__{shown}"
    plain = shown.strip("_") or "column"
    if attribute in _TAKEN:
        raise ModelError(f"{name}.{shown}: the attribute's name is taken; give the column another "
                         f"one, as in {shown}_: ... = sg.column(name={shown!r})")
    if attribute.startswith("_"):
        stored = "" if shown.startswith("__") else f" = sg.column(name={shown!r})"
        raise ModelError(f"{name}.{shown}: the attribute of a column does not begin with an "
                         f"underscore; write {plain}: ...{stored}")


def _specs_of(name: str, ns: dict[str, Any],
              names: dict[str, Any]) -> tuple[list[_Spec], dict[str, Back[Any, Any]]]:
    specs: list[_Spec] = []
    backs: dict[str, Back[Any, Any]] = {}
    for attribute, annotation in ns.get("__annotations__", {}).items():
        where = f"{name}.{attribute}"
        understood = _Annotation(where, annotation, names)
        if understood.ignored:
            continue
        _need_free_name(name, attribute)
        if understood.back is not None:
            if attribute in ns:
                raise ModelError(f"{where}: a back reference is no column and takes no value")
            ns[attribute] = backs[attribute] = understood.back
            continue
        options = _options_of(where, understood, ns.pop(attribute, None))
        specs.append(_Spec(attribute, understood.kind, understood.nullable, understood.target,
                           options))
    for attribute, value in ns.items():
        if isinstance(value, Options):
            raise ModelError(f"{name}.{attribute} has no annotation; write {attribute}: int = ...")
        if isinstance(value, Back) and attribute not in backs:
            raise ModelError(f"{name}.{attribute}: a back reference is an annotation; write "
                             f"{attribute}: sg.Back[...]")
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
    _declared: list[Index]  # those of indexes=[...], which classes below an abstract one get too

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
        backs: dict[str, Back[Any, Any]] = {}
        if made_specs is None:
            names = _names_for(class_name, ns)
            made_specs, backs = _specs_of(class_name, ns, names)
        ns.setdefault("__slots__", ())
        if ns["__slots__"]:
            raise ModelError(f"{class_name}: objects of a table have columns and no __slots__")
        cls: Any = _made(mcs, class_name, bases, ns)
        cls._define(tables[0] if tables else None, made_specs, options)
        for attribute, back in backs.items():
            back._belongs_to(cls, attribute)
        if not cls._abstract and "_specs" not in options:
            _register(cls)
        return cls

    def __init__(cls, class_name: str, bases: tuple[type, ...], ns: dict[str, Any],
                 **options: Any) -> None:
        super().__init__(class_name, bases, ns)

    def _define(cls, base: Any, specs: list[_Spec], options: dict[str, Any]) -> None:
        root = base is None
        named = options.get("name") is not None
        cls._abstract = bool(options.get("abstract")) and not named or root
        cls._bare = options.get("abstract") if named else None
        cls._comment = checked_comment(cls.__name__, vars(cls).get("__doc__"))
        cls._was = checked_was(cls.__name__, options.get("was"))
        inherited_specs = base._specs if base is not None and base._abstract else []
        cls._specs = inherited_specs + specs if cls._abstract else []
        cls._base = _concrete(base)
        cls._table_name = "" if cls._abstract else _table_name(
            cls, options.get("name"), "_specs" in options)
        cls._columns = dict(cls._base._columns) if cls._base is not None else {}
        cls._own = []
        cls._indexes = []
        _refuse_hidden_columns(cls, inherited_specs)
        for spec in inherited_specs + specs:
            cls._add(spec)
        if len(cls._columns) > MOST_COLUMNS:
            raise ModelError(f"{cls.__name__}: a table has at most {MOST_COLUMNS} columns, "
                             f"inherited ones included, not {len(cls._columns)}; move some to a "
                             f"class that it refers to")
        refuse_bad_was([(repr(each), each._column, each._was) for each in cls._own])
        given = options.get("indexes") or ()
        if not isinstance(given, (list, tuple)):
            raise ModelError(f"{cls.__name__}: indexes=[...] takes a list of sg.Index(...), not "
                             f"{given!r}")
        inherited = base._declared if base is not None and base._abstract else []
        cls._declared = [*inherited, *given]
        for index in cls._declared:
            cls._add_index(index)

    def _add(cls, spec: _Spec) -> None:
        if spec.attribute in cls._columns:
            owner = cls._columns[spec.attribute]._owner
            raise ModelError(f"{cls.__name__}.{spec.attribute}: {owner} has a column of that name; "
                             f"give this one another")
        made = spec.make(cls, len(cls._columns))
        for other in cls._columns.values():
            if other._column == made._column:
                raise ModelError(f"{cls.__name__}: {other!r} and {made!r} are both column "
                                 f"{made._column!r} in the database; give one another name=")
        cls._columns[spec.attribute] = made
        cls._own.append(made)
        type.__setattr__(cls, spec.attribute, made)
        if made._index:
            cls._indexes.append(Index(spec.attribute, unique=made._unique))

    def _add_index(cls, index: Any) -> None:
        if not isinstance(index, Index):
            raise ModelError(f"{cls.__name__}: indexes=[...] takes sg.Index(...), not {index!r}")
        index.check(cls.__name__, cls._columns)
        if any(index.is_like(each) for each in cls._indexes):
            raise ModelError(f"{cls.__name__}: an index over {', '.join(index._given)} is declared "
                             f"twice; leave one out")
        cls._indexes.append(index)

    def __repr__(cls) -> str:
        return f"<table {cls._table_name or cls.__name__}>"


def _made(mcs: Any, class_name: str, bases: tuple[type, ...], ns: dict[str, Any]) -> Any:
    try:
        return type.__new__(mcs, class_name, bases, ns)
    except TypeError as error:  # as of a base that has an object layout of its own
        others = [base.__name__ for base in bases if not isinstance(base, TableMeta)]
        if not others:
            raise
        raise ModelError(f"{class_name} cannot derive from {', '.join(others)}: {error}; beside "
                         f"its table's base a class takes plain mixins without slots") from error


def _refuse_hidden_columns(cls: Any, inherited: list[_Spec]) -> None:
    """An attribute of the class body would stand where a base's column is read."""
    owners = {name: column._owner for name, column in cls._columns.items()}
    owners |= {spec.attribute: "its abstract base" for spec in inherited}
    for attribute in vars(cls):
        if attribute in owners:
            raise ModelError(f"{cls.__name__}.{attribute}: {owners[attribute]} has a column of that "
                             f"name, which would be hidden; give this one another")


def _concrete(base: Any) -> Any:
    while base is not None and base._abstract:
        base = base.__base__ if isinstance(base.__base__, TableMeta) else None
    return base


def _table_name(cls: Any, given: Any, made: bool) -> str:
    if given is not None:
        if not made:
            need_table_name(cls.__name__, "name", given)
        return str(given)
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

    if not isinstance(models, Iterable) or isinstance(models, (TableMeta, str)):
        raise ModelError(f"models= takes a list of classes, not {models!r}")
    for cls in models:
        if not isinstance(cls, TableMeta):
            raise ModelError(f"models=[...] takes classes derived from sg.Table, not {cls!r}")
        add(cls)
    for cls in found:  # grows meanwhile
        for back in _backs_of(cls):
            source, column = back._check()
            add(source)
            _index_for_back(column)
    _refuse_shared_names(found)
    refuse_bad_was([(cls.__name__, cls._table_name, cls._was) for cls in found])
    return found


def _backs_of(cls: Any) -> list[Back[Any, Any]]:
    """The back references of a class and of its abstract bases."""
    found = []
    at = cls
    while at is not None and (at is cls or at._abstract):
        found += [value for value in vars(at).values() if isinstance(value, Back)]
        at = at.__base__ if isinstance(at.__base__, TableMeta) else None
    return found


def _index_for_back(column: Column) -> None:
    """A back reference is a search, which needs an index over the reference."""
    if not any(index.columns[0][0] == column._name for index in column._table._indexes):
        column._table._indexes.append(Index(column._name))


def _refuse_shared_names(classes: list[Any]) -> None:
    by_name: dict[str, Any] = {}
    for cls in classes:
        other = by_name.setdefault(cls._table_name, cls)
        if other is cls:
            continue
        shown = [f"{each.__module__}.{each.__qualname__}" for each in (other, cls)]
        if shown[0] == shown[1]:
            raise ModelError(f"{shown[0]} was defined twice, and both are in use here: define the "
                             f"classes that derive from it or refer to it again too")
        raise ModelError(f"{shown[0]} and {shown[1]} are both table {cls._table_name!r}; give one "
                         f"another name=")

"""Databases and transactions."""

from __future__ import annotations

import contextlib
import functools
import os
import threading
import weakref
from collections.abc import Callable, Iterable, Iterator, Sequence
from types import TracebackType
from typing import TYPE_CHECKING, Any, NamedTuple, TypeVar

from . import _core, declarations, models
from . import schema as schemas
from .errors import ClosedError, Conflict, ReadOnly, SchemaError, WrongType
from .queries import Query

if TYPE_CHECKING:
    from .backup import BackupPart
    from .changes import Changes, Kept
    from .expressions import Condition
    from .jobs import Job
    from .planning import Plan
    from .retyping import References, RetypePlan
    from .sql import SqlRows

T = TypeVar("T")
R = TypeVar("R")

os.register_at_fork(after_in_child=_core.give_up_after_fork)


class _IndexInfo:
    """An index that a query can use."""

    __slots__ = ("name", "handle", "unique", "table", "columns")

    def __init__(self, table: Any, entry: dict[str, Any]) -> None:
        by_name = {each._column: each for each in table._columns.values()}
        self.name, self.handle, self.unique = entry["name"], entry["handle"], entry["unique"]
        self.table = table
        self.columns = [(by_name.get(name), up) for name, up in entry["columns"]]


class _Snapshot:
    """One state of the schema in Python: classes, indexes, and the extension's view."""

    def __init__(self, maker: schemas.ClassMaker, entries: list[dict[str, Any]]) -> None:
        self.tables = {each["name"]: each for each in entries}
        self.classes = maker.classes(self.tables)
        self.view = schemas.bind(self.classes, self.tables)
        self.indexes: dict[Any, list[_IndexInfo]] = {}
        for name, cls in self.classes.items():
            if name in self.tables and not schemas.misfit_of(cls, self.tables):
                self.indexes[cls] = self._indexes_of(cls)

    def _indexes_of(self, cls: Any) -> list[_IndexInfo]:
        found = []
        at = cls
        while at is not None:
            for entry in self.tables[at._table_name]["indexes"]:
                info = _IndexInfo(at, entry)
                if info.columns and info.columns[0][0] is not None:
                    found.append(info)
            at = at._base
        return found


class Finding(NamedTuple):
    """A finding of a check."""

    rule: str
    table: str
    object: int
    what: str


class Savepoint:
    """A state of a transaction that it can return to: ``with tx.savepoint():``.

    An exception that leaves the block takes back what was written in it, and goes on. `rollback`
    does so at once; the savepoint stays and can be rolled back to again.
    """

    def __init__(self, tx: Transaction) -> None:
        self._tx = tx
        self._number, self._ours = tx._savepoint()

    def rollback(self) -> None:
        """Undoes everything written since. Objects created since are gone."""
        self._tx._rollback_to(self._number, self._ours)

    def release(self) -> None:
        """Ends the savepoint and later ones, and keeps the writes."""
        self._tx._release(self._number)

    def __enter__(self) -> Savepoint:
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None,
                 trace: TracebackType | None) -> None:
        if not self._tx.open:
            return
        if kind is not None:
            self.rollback()
        self.release()


class Transaction(_core.Transaction):
    """A view of the database as of its begin, plus its own writes.

    It ends with its ``with`` block: committed, or rolled back when an exception leaves the block.
    """

    def __init__(self, database: Database, context: Any, writes: bool) -> None:
        super().__init__(context, writes)
        self.database = database
        database._local.transaction = weakref.ref(self)
        try:
            self._snapshot = database._snapshot_for(self)
            self._bind(self._snapshot.view)
        except BaseException:
            self.rollback()
            raise

    def all(self, cls: type[T]) -> Query[T]:
        """The objects of a class and of its subclasses."""
        return Query(self, _need_class(cls))

    def only(self, cls: type[T]) -> Query[T]:
        """The objects of exactly that class."""
        return Query(self, _need_class(cls), True)

    def get(self, cls: type[T], id: int) -> T | None:
        """An object by its identity; None if there is none of that class."""
        found = self._get(id)
        return found if isinstance(found, cls) else None

    def retype(self, object: Any, cls: type[T], /, *, by_name: bool = False,
               references: References = "refuse", allow_losses: bool = False, **values: Any) -> T:
        """Makes an object one of another class, and returns it; the identity stays.

        It keeps the values of columns that both classes inherit from the same one, with `by_name`
        also those of equal name and type. Other columns are None or zero unless they are given.
        Values that the new class has no column for are refused unless `allow_losses`, and so are
        references that may not lead to the class, unless `references` is "null" or "keep". The
        object that was given cannot be used any more.
        """
        from . import retyping

        return retyping.one(self, object, _need_class(cls), by_name, references, allow_losses, values)

    def insert_many(self, cls: type[Any], rows: Any, *, progress: bool = False) -> int:
        """Creates many objects from dictionaries, tuples, a frame, or any Arrow exporter."""
        from . import bulk

        return bulk.insert_many(self, _need_class(cls), rows, progress)

    def sql(self, statement: str, parameters: Any = ()) -> SqlRows:
        """Runs a statement of SQL and returns its rows, tuples in a list.

        It sees what the transaction wrote, and its own writes go with the transaction. Parameters
        are a list for ``?``, or a dictionary for ``:name``. `dicts()`, `one()`, `value()` and
        `to_pandas()` of the result give the rows in other forms.
        """
        from . import sql

        return sql.run(self, statement, parameters)

    def savepoint(self) -> Savepoint:
        """Sets a savepoint; savepoints nest."""
        return Savepoint(self)

    def _indexes_of(self, cls: Any) -> list[_IndexInfo]:
        return self._snapshot.indexes.get(cls, [])

    def __enter__(self) -> Transaction:
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None,
                 trace: TracebackType | None) -> None:
        if not self.open:
            return
        if kind is None and self.writing:
            self.commit()
        else:
            self.rollback()

    def __reduce__(self) -> Any:
        from .errors import PickleError

        raise PickleError("a transaction belongs to its thread and cannot be pickled")

    def __repr__(self) -> str:
        state = "open" if self.open else "ended"
        return f"<{'write' if self.writing else 'read'} transaction, {state}>"


def _need_class(cls: Any) -> Any:
    if isinstance(cls, models.TableMeta) and not cls._abstract:
        return cls
    if isinstance(cls, models.TableMeta):
        raise WrongType(f"{cls.__name__} is abstract and has no objects of its own")
    raise WrongType(f"a class of a table is needed, not {cls!r}")


class Database:
    """An open database. Threads share it; each has its own transaction."""

    def __init__(self, handle: Any, classes: list[Any], path: str | None) -> None:
        self._handle, self._models, self.path = handle, classes, path
        self._maker = schemas.ClassMaker(classes)
        self._local = threading.local()
        self._lock = threading.Lock()
        self._snapshots: dict[int, _Snapshot] = {}
        self._followers: weakref.WeakSet[Changes] = weakref.WeakSet()

    # ---- transactions

    def read(self) -> Transaction:
        """Begins a read-only transaction in this thread."""
        return Transaction(self, self._context(), False)

    def write(self) -> Transaction:
        """Begins a read-write transaction in this thread."""
        return Transaction(self, self._context(), True)

    def transact(self, work: Callable[..., Any] | None = None, *, retries: int = 10) -> Any:
        """Runs a function in a transaction, its first argument, and again after a conflict.

        ``@db.transact`` or ``@db.transact(retries=3)``.
        """
        if work is None:
            return functools.partial(self.transact, retries=retries)
        body = work

        @functools.wraps(work)
        def run(*args: Any, **kwargs: Any) -> Any:
            for attempt in range(retries + 1):
                try:
                    with self.write() as tx:
                        return body(tx, *args, **kwargs)
                except Conflict:
                    if attempt == retries:
                        raise
            raise AssertionError("unreachable")

        return run

    def sql(self, statement: str, parameters: Any = ()) -> SqlRows:
        """Runs a statement of SQL in a transaction of its own, to read, or if it writes, to write."""
        try:
            with self.read() as tx:
                return tx.sql(statement, parameters)
        except ReadOnly:
            with self.write() as tx:
                return tx.sql(statement, parameters)

    def _engine(self, context: int) -> Any:
        """What runs SQL in the transactions of this thread's context."""
        from .sql import Engine

        number, engine = getattr(self._local, "engine", (None, None))
        if number != context:
            place = "memory" if self.path is None else _core.shown_place(self.path)
            engine = Engine(context, place)
            self._local.engine = (context, engine)
        return engine

    def _context(self) -> Any:
        context = getattr(self._local, "context", None)
        if context is None or not context.open:
            context = self._local.context = self._handle.context()
        return context

    # ---- schema

    def _snapshot_for(self, tx: Any) -> _Snapshot:
        generation = tx.generation
        found = self._snapshots.get(generation)
        if found is None:
            entries = _core.catalogue(tx)
            with self._lock:
                found = self._snapshots.get(generation)
                if found is None:
                    found = _Snapshot(self._maker, entries)
                    while len(self._snapshots) >= 4:
                        del self._snapshots[min(self._snapshots)]
                    self._snapshots[generation] = found
        return found

    def plan(self) -> Plan:
        """The steps from the database's schema to the models. Print it."""
        from . import planning

        with self._looking() as tx:
            return planning.make_plan(self._models, tx)

    def apply(self, *, allow: Iterable[str] = ("instant", "background"), beside_writers: bool = False,
              objects: int = 10_000, batch: int = 5000, progress: bool = False,
              report: Callable[[dict[str, Any]], bool | None] | None = None) -> Plan:
        """Makes all steps of the plan in one transaction, or none, if their labels are allowed.

        With `beside_writers` it builds the indexes of tables with at least `objects` objects, and
        writes converted values, before that, in commits of `batch` objects that keep nobody waiting,
        unless the plan renames, drops, moves a table, or makes a step that objects may refuse. Each
        batch calls `report`; False from it, an exception or Ctrl-C ends it with nothing changed, the
        plan returned empty, and what was built kept for the next call, and listed by `jobs`.
        """
        from . import applying

        _need_batch(batch)
        return applying.apply(self, applying.labels(allow), objects if beside_writers else None,
                              batch, progress, report)

    @property
    def classes(self) -> dict[str, Any]:
        """The classes of all tables by name: models, and classes generated from the catalogue."""
        return dict(self._seen().classes)

    @contextlib.contextmanager
    def _looking(self) -> Iterator[Transaction]:
        """This thread's transaction, or one that sees what is committed."""
        current = getattr(self._local, "transaction", None)
        tx = current() if current is not None else None
        if tx is not None and tx.open:
            yield tx
            return
        with self.read() as tx:
            yield tx

    def _seen(self) -> _Snapshot:
        """The schema as this thread's transaction sees it, or as it is now."""
        with self._looking() as tx:
            return tx._snapshot

    def __getitem__(self, name: str) -> Any:
        """The class of a table by its full name or the last part of it."""
        classes = self.classes
        if name in classes:
            return classes[name]
        found = [cls for full, cls in classes.items() if full.endswith("." + name)]
        if len(found) == 1:
            return found[0]
        if found:
            names = ", ".join(sorted(cls._table_name for cls in found))
            raise SchemaError(f"several tables are called {name}: {names}")
        raise SchemaError(f"the database has no table {name}")

    # ---- upkeep

    def copy(self, directory: str | os.PathLike[str], *, progress: bool = False) -> None:
        """Writes a packed copy of the newest committed state into a new directory."""
        from .bulk import Meter

        with Meter(progress, " steps") as meter:
            self._handle.copy(os.fspath(directory), meter.show)

    def backup(self, folder: str | os.PathLike[str], *, full: bool = False, prune: bool = False,
               progress: bool = False) -> BackupPart | None:
        """Adds a part to the backup in a folder, which is made if it is missing; others may write.

        The first part is full, and so is any with `full`. Later ones are increments; they need a
        database that has kept its changes since the last part, or else raise `NeedsFullBackup`.
        `prune` then removes the parts before the last full one. None if nothing was committed since
        the last part. `restore` makes a database of a backup, `backups` lists its parts.
        """
        from . import backup

        return backup.add(self._handle, folder, full, prune, progress)

    def statistics(self) -> dict[str, int]:
        """Sizes, commits and open transactions, over all processes; whether there is a log."""
        found: dict[str, int] = self._handle.statistics()
        return found

    def build_index(self, cls: Any, *columns: str, unique: bool = False, batch: int = 5000,
                    progress: bool = False,
                    report: Callable[[dict[str, Any]], bool | None] | None = None) -> bool:
        """Builds an index beside writers, in small commits, where `apply` would keep them waiting.

        ``db.build_index(Book, "author", "-year")`` for what the class declares as an index: a later
        `apply` finds it there. `apply(beside_writers=True)` does so by itself. Each batch calls `report`; False from it ends the build, which goes
        on when it is called for again. True if the index is there.
        """
        from .bulk import Reports

        index = declarations.Index(*columns, unique=unique)
        _need_batch(batch)
        index.check(_need_class(cls).__name__, cls._columns)
        found = schemas.index_columns(cls, index)
        table = cls._table_name
        key = (schemas.index_name(table, found, unique), table, list(found), unique)
        with Reports(progress, report, "done", "total") as reports:
            return _core.build_index(self._context(), key, True, batch, reports.take)

    def retype(self, cls: Any, to: Any, *, where: Condition | Sequence[Condition] | None = None,
               only: bool = False, by_name: bool = False, references: References = "refuse",
               allow_losses: bool = False, batch: int = 10_000, progress: bool = False,
               report: Callable[[dict[str, Any]], bool | None] | None = None) -> int:
        """Makes the objects of a class and of its subclasses objects of another one; how many.

        `where` chooses among them, `only` leaves those of subclasses alone, and the rest is as for
        `tx.retype`. Values or references that are in the way raise SchemaError before anything is
        changed. Each batch is a transaction of its own, after which `report` is called; False from
        it ends the run. The rest is a job then, which `jobs` lists and resumes. Objects that refer to
        each other so that only both may change need a `batch` that takes both.
        """
        from . import retyping

        _need_batch(batch)
        return retyping.many(self, _need_class(cls), _need_class(to), where, only, by_name,
                             references, allow_losses, batch, progress, report)

    def plan_retype(self, cls: Any, to: Any, *,
                    where: Condition | Sequence[Condition] | None = None, only: bool = False,
                    by_name: bool = False) -> RetypePlan:
        """What `retype` would do with the same arguments. Print it."""
        from . import retyping

        return retyping.planned(self, _need_class(cls), _need_class(to), where, only, by_name)[1]

    def jobs(self) -> list[Job]:
        """Long work in the database that runs in any process or was cut off, oldest first."""
        from .jobs import Job

        return [Job(self, told) for told in _core.jobs(self._context())]

    def vacuum(self, *, batch: int = 1000, progress: bool = False,
               report: Callable[[dict[str, Any]], bool | None] | None = None) -> dict[str, int]:
        """Moves objects to the current layout of their tables, and removes those of dropped ones.

        Each batch is a transaction of its own, after which `report` gets what was done so far;
        False from it ends the run. A later run goes on.
        """
        from .bulk import Reports

        _need_batch(batch)
        with Reports(progress, report, "requests_done", "requests") as reports:
            found: dict[str, int] = _core.vacuum(self._context(), batch, reports.take)
        return found

    def check(self, *, references: bool = False, progress: bool = False) -> list[Finding]:
        """Reads everything that is committed and returns what is inconsistent, usually nothing.

        With `references` it also reports those that lead to no object of their class.
        """
        if self.path is None:
            raise WrongType("a database in memory has no file to check")
        if self.closed:
            raise ClosedError("the database is closed")
        from .bulk import Meter

        with Meter(progress, " steps") as meter:
            return [Finding(*each) for each in _core.check(self.path, references, meter.show)]

    # ---- changes

    def keep_changes(self, *, bytes: int = 0, seconds: int = 0) -> None:
        """Keeps the changes of later commits, for good: so many bytes of them, and so old at most.

        0 sets no such bound; with both 0 nothing is kept any more. A directory needs a log, which
        it has unless it was opened with ``log=False``.
        """
        _core.keep_changes(self._handle, bytes, seconds)

    def kept_changes(self) -> Kept:
        """The retention of changes, the oldest commit that can be read, and the newest commit."""
        from .changes import Kept

        return Kept(*_core.kept_changes(self._handle))

    def changes(self, *, after: Any = None, follow: bool = False) -> Changes:
        """What commits of any process changed, in their order; to iterate, or ``async for``.

        All that is kept, or with `follow` what comes from now on, for which the iteration waits.
        `after` is where to begin: a change, its `position`, or the number of a commit.
        """
        from .changes import Changes

        asks = self.path is not None and _core.is_url(self.path)
        made = Changes(self._handle, after, follow, asks)
        self._followers.add(made)
        return made

    def schema(self) -> list[dict[str, Any]]:
        """All tables with their columns and indexes, as plain dictionaries."""
        return [schemas.described(table) for _, table in sorted(self._seen().tables.items())]

    def describe(self, cls: Any = None) -> schemas.Description:
        """Tables as classes would declare them, in a text and in HTML."""
        seen = self._seen()
        names = sorted(seen.tables) if cls is None else [_need_class(cls)._table_name]
        return schemas.Description([seen.tables[name] for name in names if name in seen.tables])

    # ---- life

    def close(self) -> None:
        """Rolls back open transactions and closes. Its objects and queries then raise an error."""
        with contextlib.ExitStack() as held:
            followers = list(self._followers)
            for each in followers:
                held.enter_context(each._lock)
            self._handle.close()
            for each in followers:
                each._end()
        self._local.__dict__.pop("engine", None)

    @property
    def closed(self) -> bool:
        return bool(self._handle.closed)

    def __enter__(self) -> Database:
        if self.closed:
            raise ClosedError("the database is closed")
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def __reduce__(self) -> Any:
        from .errors import PickleError

        raise PickleError("a database cannot be pickled; open its directory in the other process")

    def __repr__(self) -> str:
        where = "in memory" if self.path is None else repr(_core.shown_place(self.path))
        return f"<database {where}{', closed' if self.closed else ''}>"


def _need_batch(batch: Any) -> None:
    if not isinstance(batch, int) or batch < 1:
        raise WrongType(f"a batch holds at least one object, not {batch!r}")


def open(path: str | os.PathLike[str] | None, models: Iterable[Any] | None = None, *,
         sync: bool = True, max_file_size: int = 0, row_memory: int = 0,
         log: bool | None = None) -> Database:
    """Opens the database in a directory or at a server's URL; None gives a new one in memory.

    With `models` a missing directory is created. Without them, every table gets a class made from
    the catalogue: ``db["Library.Book"]``. `sync=False` lets commits survive the process but not the
    machine. `max_file_size` and `row_memory` are bytes; 0 takes the library's own.

    Commits go to a log first. A directory without one gets one when nobody else has it open, unless
    it was opened with `log=False`, which it remembers; `log=True` gives it one all the same.
    """
    from .models import closure

    classes = closure(models) if models is not None else []
    name = None if path is None else os.fspath(path)
    create = name is not None and models is not None and not _core.holds_database(name)
    handle = _core.Database(name, create=create, no_sync=not sync, max_file_size=max_file_size,
                            row_memory=row_memory, log=log)
    return Database(handle, classes, name)

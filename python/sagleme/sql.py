"""SQL inside a transaction: ``tx.sql("SELECT title FROM Book WHERE year < ?", [1980])``.

SQLite's engine, which Python brings along, runs over the tables of the database by the extension
for SQLite. A connection of its own joins the transactions of one context, so that a statement sees
what the transaction wrote before, and what it writes itself goes with the transaction. All of this
is loaded when SQL is first used.
"""

from __future__ import annotations

import datetime
import decimal
import sqlite3
from collections.abc import Mapping, Sequence
from pathlib import Path
from typing import Any

from . import _core
from .errors import (
    BadValue, Error, Full, NotFound, ReadOnly, SeveralFound, SqlError, WrongTransaction, WrongType,
    from_status,
)

SCHEMA = "db"  # the name that SQL has for the database, wherever its directory lies

# The extension under the name whose entry point joins transactions.
_EXTENSION = Path(__file__).with_name("lib") / "saglemejoin.so"
_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_MICROSECOND = datetime.timedelta(microseconds=1)
_STEPS_BETWEEN_SIGNALS = 100_000


class SqlRows(list[tuple[Any, ...]]):
    """What a statement returned: a list of tuples that knows the columns' names.

    >>> rows = SqlRows([("Mars", 2)], names=["name", "moons"])
    >>> rows.one(), rows.dicts()
    (('Mars', 2), [{'name': 'Mars', 'moons': 2}])
    """

    def __init__(self, rows: Sequence[tuple[Any, ...]], names: Sequence[str] = (),
                 changed: int = 0) -> None:
        super().__init__(rows)
        self.names = list(names)
        self.changed = changed  # rows that the statement wrote

    def dicts(self) -> list[dict[str, Any]]:
        """The rows as dictionaries; of columns with the same name the last one counts."""
        return [dict(zip(self.names, row)) for row in self]

    def one(self) -> tuple[Any, ...]:
        """The only row; raises NotFound or SeveralFound otherwise."""
        if len(self) == 1:
            return self[0]
        if not self:
            raise NotFound("the statement returned no row")
        raise SeveralFound(f"the statement returned {len(self)} rows, not one")

    def value(self) -> Any:
        """The first column of the only row: ``tx.sql("SELECT count(*) FROM Book").value()``."""
        return self.one()[0]

    def to_pandas(self) -> Any:
        """A pandas DataFrame."""
        import pandas

        return pandas.DataFrame(list(self), columns=self.names)

    def _repr_html_(self) -> str:
        from .html import table_of

        return table_of(f"{len(self)} rows", self.names, self[:20])


class Engine:
    """SQLite's engine over the transactions of one context."""

    def __init__(self, context: int, place: str) -> None:
        self.connection = sqlite3.connect(":memory:", isolation_level=None, check_same_thread=False)
        try:
            _load_extension(self.connection)
            self.connection.execute("SELECT sagleme_join(?, ?, ?)", (context, place, SCHEMA))
        except sqlite3.Error as error:
            raise self._translated(error) from None
        # Python looks for Ctrl-C whenever it runs a line of its own.
        self.connection.set_progress_handler(lambda: None, _STEPS_BETWEEN_SIGNALS)

    def __del__(self) -> None:
        connection = getattr(self, "connection", None)
        if connection is not None:
            connection.close()

    def run(self, statement: str, parameters: Any) -> SqlRows:
        cursor = self.connection.cursor()
        try:
            cursor.execute(statement, parameters)
            names = [each[0] for each in cursor.description or ()]
            return SqlRows(cursor.fetchall(), names, max(cursor.rowcount, 0))
        except (sqlite3.Error, sqlite3.Warning) as error:
            raise self._translated(error) from None
        except UnicodeEncodeError as error:
            raise BadValue(f"a parameter is no text that SQL can hold: {error}") from None
        finally:
            cursor.close()

    def _translated(self, error: Exception) -> BaseException:
        code = getattr(error, "sqlite_errorcode", None)
        if code is None:
            return _misuse(str(error))
        status = self._status(code)
        if status:
            return from_status(status, str(error))
        return _from_code(code & 0xFF, str(error))

    def _status(self, code: int) -> int:
        """The library's status behind a failure; 0 where SQLite itself found the fault."""
        try:
            return int(self.connection.execute("SELECT sagleme_status(?)", (code,)).fetchone()[0])
        except sqlite3.Error:
            return 0


def _load_extension(connection: sqlite3.Connection) -> None:
    if not hasattr(connection, "enable_load_extension"):
        raise SqlError("this Python's module sqlite3 was built without extensions",
                       hint="use a Python that has them, as Debian's has")
    connection.enable_load_extension(True)
    try:
        connection.load_extension(str(_EXTENSION))
    except sqlite3.Error as error:
        raise SqlError(f"the extension for SQL cannot be loaded: {error}",
                       hint="install the package libsqlite3-mod-sagleme of the same version") from None
    finally:
        connection.enable_load_extension(False)


def _misuse(text: str) -> Error:
    return (WrongType if "type" in text and "not supported" in text else SqlError)(text)


def _from_code(code: int, text: str) -> BaseException:
    if code == sqlite3.SQLITE_INTERRUPT:
        return KeyboardInterrupt()
    if code == sqlite3.SQLITE_NOMEM:
        return MemoryError()
    if code == sqlite3.SQLITE_AUTH:
        return SqlError("SQL neither begins nor ends transactions here, nor makes tables or detaches "
                        "the database",
                        hint="db.write() begins one, tx.savepoint() nests in it; db.apply() makes "
                             "tables, and CREATE TEMP TABLE temporary ones")
    families: dict[int, type[Error]] = {
        sqlite3.SQLITE_CONSTRAINT: BadValue, sqlite3.SQLITE_MISMATCH: WrongType,
        sqlite3.SQLITE_READONLY: ReadOnly, sqlite3.SQLITE_FULL: Full, sqlite3.SQLITE_TOOBIG: BadValue,
    }
    return families.get(code, SqlError)(text)


def run(tx: Any, statement: str, parameters: Any) -> SqlRows:
    """Runs a statement in a transaction."""
    if not isinstance(statement, str):
        raise WrongType(f"a statement is a text, not {statement!r}")
    bound = _bound_all(tx, parameters)
    context = tx._lend()
    wrote = tx.writing
    try:
        engine = tx.database._engine(context)
        before = engine.connection.total_changes
        rows: SqlRows = engine.run(statement, bound)
        wrote = engine.connection.total_changes != before
        return rows
    finally:
        tx._take_back(wrote)


def _bound_all(tx: Any, parameters: Any) -> Any:
    if isinstance(parameters, Mapping):
        return {name: _bound(tx, value) for name, value in parameters.items()}
    if isinstance(parameters, Sequence) and not isinstance(parameters, (str, bytes)):
        return [_bound(tx, value) for value in parameters]
    raise WrongType(f"parameters are a list, a tuple or a dictionary, not {parameters!r}")


def _bound(tx: Any, value: Any) -> Any:
    """A value as its column stores it."""
    if value is None or isinstance(value, (str, bytes, float)):
        return value
    if isinstance(value, decimal.Decimal):
        return str(value)
    if isinstance(value, datetime.datetime):
        if value.tzinfo is None:
            raise BadValue(f"{value!r} has no time zone; say which, such as tzinfo=timezone.utc")
        return (value - _EPOCH) // _MICROSECOND
    if isinstance(value, _core.Object):
        return _identity(tx, value)
    if hasattr(value, "__index__"):
        number = int(value)
        # Columns take digits; whole numbers of SQL end at 2^63.
        return number if -2**63 <= number < 2**63 else str(number)
    return value


def _identity(tx: Any, value: Any) -> int:
    value.to_dict()  # refuses an object whose transaction has ended
    if value._transaction is not tx:
        raise WrongTransaction(f"{value!r} belongs to another transaction")
    return int(value.id)

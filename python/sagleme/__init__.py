"""An object database for programs: classes are tables.

>>> import sagleme as sg
>>> class Planet(sg.Table):
...     name: str | None
...     moons: int = 0
>>> db = sg.open(None, models=[Planet])
>>> print(db.apply())
instant     create table Planet (name: str | None, moons: int)
>>> with db.write() as tx:
...     _ = tx.new(Planet, name="Mars", moons=2)
>>> with db.read() as tx:
...     [planet.name for planet in tx.all(Planet).where(Planet.moons > 1)]
['Mars']
>>> db.close()
"""

from .backup import BackupPart, Restored, backups, restore
from .database import Database, Savepoint, Transaction, open
from .declarations import Float32, Index, Key, ULong, column, ref
from .errors import (
    BackupError,
    BadValue,
    ChangesGone,
    ClosedError,
    Conflict,
    Damaged,
    DeletedError,
    DuplicateKey,
    EndedError,
    Error,
    ForkedError,
    Full,
    InUse,
    ModelError,
    NeedsFullBackup,
    NestedTransaction,
    NotFound,
    OpenError,
    PickleError,
    ReadOnly,
    SchemaError,
    SeveralFound,
    SqlError,
    WrongTransaction,
    WrongType,
)
from .expressions import Condition, avg, count, max, min, sum
from .models import Back, Column, Table
from .planning import Plan, Step
from .queries import Query, Rows
from .retyping import RetypePlan

__version__ = "0.1.0"

__all__ = [
    "Back", "BackupError", "BackupPart", "BadValue", "ChangesGone", "ClosedError", "Column",
    "Condition", "Conflict", "Damaged", "Database", "DeletedError", "DuplicateKey",
    "EndedError", "Error", "Float32", "ForkedError", "Full", "InUse", "Index", "Key",
    "ModelError", "NeedsFullBackup", "NestedTransaction", "NotFound", "OpenError",
    "PickleError", "Plan", "Query", "ReadOnly", "Restored", "RetypePlan", "Rows", "Savepoint",
    "SchemaError", "SeveralFound", "SqlError", "Step", "Table", "Transaction", "ULong",
    "WrongTransaction", "WrongType", "avg", "backups", "column", "count", "max", "min", "open", "ref",
    "restore", "sum",
]

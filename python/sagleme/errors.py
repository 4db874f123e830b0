"""The exceptions of the package.

Each has a status (0 where the package itself found the fault), a text that says what was wrong, and
a hint that says what to do about it.

>>> from sagleme import statuses
>>> error = from_status(statuses.LSCOREDB_CONFLICT, "another transaction changed the object")
>>> type(error).__name__, error.status == statuses.LSCOREDB_CONFLICT
('Conflict', True)
"""

from __future__ import annotations

from . import statuses


class Error(Exception):
    """Base of all exceptions of the package."""

    default_hint = ""

    def __init__(self, text: str, status: int = 0, hint: str | None = None) -> None:
        super().__init__(text)
        self.text = text
        self.status = status
        self.hint = self.default_hint if hint is None else hint


class Conflict(Error):
    """Another transaction committed a change of the same object first."""

    default_hint = "run the work again in a new transaction; @db.transact(retries=...) does"


class DuplicateKey(Error):
    """A unique index already holds the key."""

    default_hint = "look for the object that has the value, or give another one"


class WrongType(Error, TypeError):
    """A value of a type that its column or argument does not take."""


class BadValue(Error, ValueError):
    """A value of the right type that its column cannot hold."""


class ModelError(Error, TypeError):
    """A class that cannot be a table."""


class SchemaError(Error):
    """The database's schema does not allow the request."""

    default_hint = "print(db.plan()) shows how models and database differ"


class SqlError(Error):
    """A statement of SQL that cannot be run."""


class ReadOnly(Error):
    """A write in a read-only transaction."""

    default_hint = "begin with db.write()"


class EndedError(Error):
    """A transaction, or an object of one, that has ended."""

    default_hint = "begin a new transaction and read the object again"


class DeletedError(Error):
    """An object that no longer exists."""


class WrongTransaction(Error):
    """An object of one transaction used in another."""

    default_hint = "read the object in the transaction that uses it: tx.get(Class, id)"


class NestedTransaction(Error):
    """A second transaction in one thread."""

    default_hint = "pass the open transaction on, or take a savepoint in it"


class InUse(Error):
    """Another thread or process is using it."""


class ClosedError(Error):
    """A database that was closed."""


class ForkedError(Error):
    """A database that was opened in the parent of a fork."""

    default_hint = "open the database anew in the child"


class OpenError(Error, OSError):
    """A directory that cannot be opened as a database."""


class Damaged(OpenError):
    """A database whose file is damaged."""

    default_hint = "restore a copy; sagleme check names what is damaged"


class Full(Error, OSError):
    """No room for the data, on the disk or within the given maximum size."""

    default_hint = "free space on the disk, or open with a larger max_file_size"


class ChangesGone(Error):
    """Changes that are not kept any more."""

    default_hint = ("read the database afresh and follow from the `last` of db.kept_changes(), taken "
                    "before that")


class BackupError(Error):
    """A backup that is not there, is of another database, or lacks the state that is asked for."""


class NeedsFullBackup(BackupError):
    """Commits since the last part of a backup that are not kept any more, or never were."""

    default_hint = ("db.backup(folder, full=True) adds a full part; increments after it need "
                    "db.keep_changes")


class PickleError(Error, TypeError):
    """Objects live in their transaction and are not pickled."""


class NotFound(Error, LookupError):
    """A query for one object found none."""


class SeveralFound(Error, LookupError):
    """A query for one object found several."""


_FAMILIES: dict[int, type[Error]] = {
    statuses.SAGLEME_BAD_ARGUMENT: SchemaError,
    statuses.LORV_STATUS_UNREACHABLE: DeletedError,
    statuses.LORV_STATUS_NO_OBJECT: DeletedError,
    statuses.LSCOREDB_NO_TRANSACTION: EndedError,
    statuses.LSCOREDB_TRANSACTION_OPEN: NestedTransaction,
    statuses.LSCOREDB_WRITE_REFUSED: ReadOnly,
    statuses.LSCOREDB_WRONG_TYPE: WrongType,
    statuses.LSCOREDB_INVALID_ARGUMENT: BadValue,
    statuses.LSCOREDB_UNKNOWN_SAVEPOINT: EndedError,
    statuses.LSCOREDB_ROLLED_BACK: EndedError,
    statuses.LSCOREDB_CONFLICT: Conflict,
    statuses.LSCOREDB_DUPLICATE_KEY: DuplicateKey,
    statuses.LSCOREDB_TOO_LARGE: BadValue,
    statuses.LSCOREDB_IN_USE: InUse,
    statuses.LSCOREDB_NOT_A_DATABASE: OpenError,
    statuses.LSCOREDB_NEWER_FORMAT: OpenError,
    statuses.LSCOREDB_DAMAGED: Damaged,
    statuses.LSCOREDB_CANNOT_OPEN: OpenError,
    statuses.LSCOREDB_SERVER_SET_BACK: OpenError,
    statuses.LSCOREDB_MAP_FULL: Full,
    statuses.LSCOREDB_DISK_FULL: Full,
    statuses.LSCOREDB_IO_ERROR: OpenError,
    statuses.LSCOREDB_CHANGES_GONE: ChangesGone,
    statuses.LSCOREDB_NOT_A_BACKUP: BackupError,
    statuses.LSCOREDB_OTHER_BACKUP: BackupError,
    statuses.LSCOREDB_NOT_IN_BACKUP: BackupError,
    statuses.LSCOREDB_NEEDS_FULL_BACKUP: NeedsFullBackup,
    statuses.LSCOREDB_BACKUP_BUSY: InUse,
    statuses.LSCOREDB_BACKUP_DAMAGED: Damaged,
    statuses.SAGLEME_NOT_PREPARED: OpenError,
    statuses.SAGLEME_VERSION_MISMATCH: OpenError,
}

_HINTS = {
    statuses.LSCOREDB_NOT_A_BACKUP: ("name a folder that holds a backup; for db.backup, one that "
                                     "does not exist or is empty will do"),
    statuses.LSCOREDB_OTHER_BACKUP: ("name another folder; a database that was put back to an earlier "
                                     "state by other means goes on in the same one with full=True"),
    statuses.LSCOREDB_NOT_IN_BACKUP: "sg.backups(folder) lists what is in it",
    statuses.LSCOREDB_BACKUP_BUSY: "try again when that has ended",
    statuses.LSCOREDB_BACKUP_DAMAGED: ("sg.restore(folder, path, until=...) restores what is before "
                                       "the damage; begin another backup in a new folder"),
}


def from_status(status: int, text: str) -> Error:
    """The exception for a status of the libraries."""
    family = _FAMILIES.get(status)
    if family is None:
        family = SchemaError if 4000 <= status < 5000 or 7000 <= status < 20000 else Error
        if 9000 <= status < 9100:
            family = Error
    return family(text, status, _HINTS.get(status))

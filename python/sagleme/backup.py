"""Backups of databases, and databases made of them.

>>> import tempfile
>>> import sagleme as sg
>>> class Planet(sg.Table):
...     name: str | None
>>> folder = tempfile.TemporaryDirectory()
>>> place = folder.name + "/"
>>> with sg.open(place + "sky", models=[Planet]) as db:
...     _ = db.apply()
...     db.keep_changes(bytes=1 << 20)
...     before = db.backup(place + "backup")
...     with db.write() as tx:
...         _ = tx.new(Planet, name="Mars")
...     after = db.backup(place + "backup")
>>> before.kind, after.kind, after.first - before.last, db.closed
('full', 'increment', 1, True)
>>> sg.backups(place + "backup", verify=True) == [before, after]
True
>>> restored = sg.restore(place + "backup", place + "newest")
>>> with sg.open(place + "newest") as db, db.read() as tx:
...     [each.name for each in tx.all(db["Planet"])]
['Mars']
>>> sg.restore(place + "backup", place + "earlier", before.last).commit == before.last
True
>>> folder.cleanup()
"""

from __future__ import annotations

import datetime
import os
from typing import Any, NamedTuple

from . import _core
from .bulk import Meter
from .errors import BadValue, OpenError, WrongType

_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
_MICROSECOND = datetime.timedelta(microseconds=1)


class BackupPart(NamedTuple):
    """A part of a backup: a whole copy of the database, or what was committed since the part before.

    `kind` is "full" or "increment". `first` and `last` are the commits of an increment; of a full
    part both are the last one. The part is of the state at `time`.
    """

    kind: str
    number: int
    first: int
    last: int
    time: datetime.datetime
    bytes: int


class Restored(NamedTuple):
    """The state that was restored: that after a commit, and its time."""

    commit: int
    time: datetime.datetime


def add(handle: Any, folder: str | os.PathLike[str], full: bool, prune: bool,
        progress: bool) -> BackupPart | None:
    """What `Database.backup` does."""
    with Meter(progress, " steps") as meter:
        told = _core.backup(handle, folder, full, prune, meter.show)
    return None if told is None else _part(told)


def backups(folder: str | os.PathLike[str], *, verify: bool = False,
            progress: bool = False) -> list[BackupPart]:
    """The parts of the backup in a folder, in their order.

    With `verify` all of them are read and their checksums compared first; one that is damaged
    raises `Damaged`. Nobody is kept from adding to the backup meanwhile.
    """
    with Meter(progress, " steps") as meter:
        return [_part(each) for each in _core.backups(folder, verify, meter.show)]


def restore(folder: str | os.PathLike[str], path: str | os.PathLike[str],
            until: int | datetime.datetime | None = None, *, check: bool = True,
            progress: bool = False) -> Restored:
    """Makes a database of the backup in a folder; returns which state it has.

    It lies in the directory `path`, which must not exist or be empty. `until` is the number of the
    last commit, or a time, local if it has no zone: everything is restored up to the first commit
    that is later. A state that is not in the backup raises `BackupError`. The new database is
    checked unless `check` is False. It is another database: continue its backups in a new folder.
    """
    commit, time = _limit(until)
    with Meter(progress, " steps") as meter:
        try:
            told = _core.restore(folder, path, commit, time, check, meter.show)
        except OpenError as error:
            if _is_taken(path):
                error.hint = ("restore makes a new database and overwrites nothing: give it a path "
                              "that does not exist, or an empty directory")
            raise
    return Restored(told[0], moment(told[1]))


def moment(microseconds: int) -> datetime.datetime:
    """The time so many microseconds after the beginning of 1970, in UTC."""
    return _EPOCH + datetime.timedelta(microseconds=microseconds)


def _is_taken(path: str | os.PathLike[str]) -> bool:
    """Whether something is there that restore leaves alone."""
    try:
        return bool(os.listdir(path))
    except NotADirectoryError:
        return True
    except OSError:
        return False


def _part(told: tuple[bool, int, int, int, int, int]) -> BackupPart:
    full, number, first, last, time, size = told
    return BackupPart("full" if full else "increment", number, first, last, moment(time), size)


def _limit(until: Any) -> tuple[int, int]:
    """The last commit and the last time, one of which is 0: no limit."""
    if until is None:
        return 0, 0
    if isinstance(until, datetime.datetime):
        return 0, _microseconds(until)
    if isinstance(until, int) and not isinstance(until, bool):
        if 0 < until < 1 << 64:
            return until, 0
        raise BadValue(f"commits have numbers from 1 on, not {until}")
    raise WrongType(f"until is the number of a commit or a datetime, not {until!r}")


def _microseconds(time: datetime.datetime) -> int:
    try:
        since = time.astimezone(datetime.timezone.utc) - _EPOCH
    except (OverflowError, ValueError, OSError):
        raise BadValue(f"the time {time} has no place in UTC") from None
    return max(since // _MICROSECOND, 1)  # 0 would be no limit; no backup is that old

"""The feed of changes: ``for change in db.changes(follow=True)``.

A database with a log, and one on a server, keeps what its commits changed, once `db.keep_changes`
has asked for it. Any number of readers, in any process, follow it at their own pace.
"""

from __future__ import annotations

import asyncio
import datetime
import os
import select
import threading
import time
from collections import deque
from typing import Any, NamedTuple

from . import _core
from .backup import moment
from .errors import ClosedError, ForkedError, InUse, WrongType

KINDS = ("", "created", "changed", "deleted", "moved", "schema")

_AT_ONCE = 256
_WHOLE_COMMIT = -1


class Change(NamedTuple):
    """What a commit did to one object, or to the schema.

    `kind` is "created", "changed", "deleted", "moved" (to another table) or "schema", which has no
    object. Names are those of the newest schema; `columns` are those whose value changed.
    """

    commit: int
    place: int
    transaction: int
    last: bool
    time: datetime.datetime
    kind: str
    object: int | None
    table: str
    former_table: str
    columns: tuple[str, ...]

    @property
    def position(self) -> tuple[int, int]:
        """Where to go on: ``db.changes(after=change)``, or after what was kept of this."""
        return self.commit, self.place


class Kept(NamedTuple):
    """What is kept of a database's changes: the retention, the oldest commit and the newest."""

    bytes: int
    seconds: int
    first: int
    last: int


class Changes:
    """Changes in their order, as an iterator and an asynchronous one; see `Database.changes`.

    It belongs to one thread at a time. `close`, of it or of its database, ends the iteration, also
    where another thread waits in it.
    """

    def __init__(self, handle: Any, after: Any, follow: bool, asks: bool) -> None:
        self._follow = follow
        self._asks = asks  # a server, which takes its time
        self._reader = _core.Changes(handle, *_position(handle, after, follow))
        self._found: deque[Change] = deque()
        self._lock = threading.Lock()  # around what the reader does, for close
        self._process = os.getpid()
        self._awaited = self.closed = False
        self._ended, self._bell = os.pipe()
        self._poll = select.epoll()
        self._poll.register(self._ended, select.EPOLLIN)
        self._poll.register(self._reader.file(), select.EPOLLIN)

    # ---- waiting

    def wait(self, timeout: float | None = None) -> bool:
        """Whether there is something to read, after at most `timeout` seconds."""
        end = None if timeout is None else time.monotonic() + timeout
        while True:
            if not self._found:
                self._read()
            left = None if end is None else end - time.monotonic()
            if self._found or self.closed or (left is not None and left <= 0):
                return bool(self._found)
            self._poll.poll(left)

    def fileno(self) -> int:
        """A descriptor for event loops: readable when there may be something to read."""
        if self.closed:
            raise ClosedError("the changes are closed")
        return self._poll.fileno()

    def _take(self) -> Change | None:
        """The next change that there is now."""
        if not self._found:
            self._read()
        return self._found.popleft() if self._found else None

    def _read(self) -> None:
        if os.getpid() != self._process:
            raise ForkedError("the changes were opened before the process forked; open them anew")
        with self._lock:
            if not self.closed:
                self._found.extend(map(_change, self._reader.take(_AT_ONCE)))

    def __iter__(self) -> Changes:
        return self

    def __next__(self) -> Change:
        while True:
            found = self._take()
            if found is not None:
                return found
            if self.closed or not self._follow:
                raise StopIteration
            self.wait()

    def __aiter__(self) -> Changes:
        return self

    async def __anext__(self) -> Change:
        if self._awaited:
            raise InUse("another task waits for these changes; open others for it")
        self._awaited = True
        try:
            return await self._next_in_loop()
        finally:
            self._awaited = False

    async def _next_in_loop(self) -> Change:
        while True:
            if not self._found:
                await self._read_in_loop()
            if self._found:
                return self._found.popleft()
            if self.closed or not self._follow:
                raise StopAsyncIteration
            await self._wait_in_loop()

    async def _read_in_loop(self) -> None:
        """A server is asked by another thread: the loop has more to do than to wait for it."""
        if self._asks:
            await asyncio.get_running_loop().run_in_executor(None, self._read)
        else:
            self._read()

    async def _wait_in_loop(self) -> None:
        loop = asyncio.get_running_loop()
        ready = loop.create_future()
        file = self.fileno()
        loop.add_reader(file, _finish, ready)
        try:
            await ready
        finally:
            loop.remove_reader(file)

    # ---- life

    def close(self) -> None:
        """Ends the iteration, and lets go of the database."""
        with self._lock:
            self._end()

    def _end(self) -> None:
        if not self.closed:
            self.closed = True
            os.write(self._bell, b"\0")
            self._reader.close()

    def __enter__(self) -> Changes:
        return self

    def __exit__(self, *exception: Any) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_bell"):
            os.close(self._bell)
            os.close(self._ended)


def _finish(ready: asyncio.Future[None]) -> None:
    if not ready.done():
        ready.set_result(None)


def _change(entry: tuple[Any, ...]) -> Change:
    commit, place, transaction, last, time, kind, id, table, former, columns = entry
    return Change(commit, place, transaction, last,
                  moment(time), KINDS[kind], id or None, table,
                  former, columns)


def _position(handle: Any, after: Any, follow: bool) -> tuple[int, int]:
    if after is None:
        kept = Kept(*_core.kept_changes(handle))
        return (kept.last if follow else kept.first - 1), _WHOLE_COMMIT
    if isinstance(after, Change):
        return after.position
    if isinstance(after, tuple) and len(after) == 2 and all(isinstance(each, int) for each in after):
        return after[0], after[1]
    if isinstance(after, int) and not isinstance(after, bool):
        return after, _WHOLE_COMMIT
    raise WrongType(f"after is a change, its position or a number of a commit, not {after!r}")

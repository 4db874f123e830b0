"""Long work that a database records: what runs in it, and what was cut off."""

from __future__ import annotations

from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from . import _core
from .bulk import Reports
from .errors import SchemaError

if TYPE_CHECKING:
    from .database import Database


class Job:
    """A vacuum, an index build, or other work in many transactions.

    `state` is "running", "elsewhere" (on another machine) or "cut off"; `runner` names the process
    that works on it, `reason` why it was cut off, where that is known. `done` of `total` count what
    `description` is about, `rate` is per second.
    """

    id: int
    kind: str
    description: str
    state: str
    step: str
    runner: str
    reason: str
    done: int
    total: int
    rate: int
    batch: int
    pause: float

    def __init__(self, db: Database, told: dict[str, Any]) -> None:
        self._db = db
        self.__dict__.update(told)

    def resume(self, *, report: Callable[[dict[str, Any]], bool | None] | None = None,
               progress: bool = False, allow_losses: bool = False) -> bool:
        """Goes on where it was; False if `report` ended it. Fails while somebody works on it.

        A schema, a retype or a column change that was begun to lose nothing raises SchemaError where
        it would lose values or objects, and is cut off again with that as its `reason`. With
        `allow_losses` it goes on in spite of them.
        """
        with Reports(progress, report, "done", "total") as reports:
            try:
                return _core.resume_job(self._db._context(), self.id, reports.take, allow_losses)
            except SchemaError as error:
                error.hint = ("where it would lose values or objects, resume(allow_losses=True) goes "
                              "on in spite of that")
                raise

    def stop(self) -> None:
        """Makes it end after the batch that it is in, whatever process it is in."""
        _core.stop_job(self._db._context(), self.id)

    def abandon(self) -> None:
        """Stops it and forgets it; what its batches committed stays."""
        _core.abandon_job(self._db._context(), self.id, None)

    def __repr__(self) -> str:
        of = f" of {self.total}" if self.total else ""
        return f"<job {self.id}, {self.kind}: {self.description}; {self.state}, {self.done}{of}>"

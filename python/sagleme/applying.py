"""Makes the schema of a database that of its classes."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import TYPE_CHECKING, Any

from . import _core, planning
from .bulk import Reports
from .errors import Conflict, DuplicateKey, SchemaError, WrongType

if TYPE_CHECKING:
    from .database import Database

_Report = Callable[[dict[str, Any]], "bool | None"]

# What others change between the preparation and the plan, objects of the tables among it.
_ATTEMPTS = 1000


def labels(allow: Iterable[str]) -> set[str]:
    known = planning.LABELS[:3]
    if isinstance(allow, str) or not set(allow) <= set(known):
        raise WrongType(f"allow takes a set of {', '.join(known)}, not {allow!r}")
    return set(allow)


def apply(db: Database, allowed: set[str], objects: int | None, batch: int, progress: bool,
          report: _Report | None) -> planning.Plan:
    """With a number of objects, prepares what reads or writes so many of them beside writers."""
    if objects is None:
        return _make(db, allowed)
    preparation = _Preparation(db, allowed, objects, batch, progress, report)
    for attempt in range(1, _ATTEMPTS + 1):
        try:
            return _make(db, allowed) if preparation.run() else planning.Plan()
        except Conflict:
            if attempt == _ATTEMPTS:
                raise
        except (SchemaError, DuplicateKey, WrongType):
            preparation.abandon()
            raise
    raise AssertionError("unreachable")


def _make(db: Database, allowed: set[str]) -> planning.Plan:
    with db.write() as tx:
        plan = _plan(db, tx, allowed)
        plan._make(tx, "lossy" in allowed)
    return plan


def _plan(db: Database, tx: Any, allowed: set[str]) -> planning.Plan:
    plan = planning.make_plan(db._models, tx)
    _refuse(plan, allowed)
    return plan


class _Preparation:
    """What the plan's transaction will adopt: built indexes, and values in hidden columns."""

    def __init__(self, db: Database, allowed: set[str], objects: int, batch: int, progress: bool,
                 report: _Report | None) -> None:
        self.db, self.allowed, self.objects, self.batch = db, allowed, objects, batch
        self.progress, self.report = progress, report
        self.changes: dict[str, Any] = {}  # that were begun, by the column

    def run(self) -> bool:
        """Whether it was prepared to the end."""
        with self.db.read() as tx:
            plan = _plan(self.db, tx, self.allowed)
            if plan._changes is None:
                return True
            names = _core.indexes_to_prepare(tx, plan._changes, self.objects)
            changes = _core.changes_to_prepare(tx, plan._changes, self.objects)
        indexes = [step.index for step in plan if step.index is not None]
        return (all(self._build(index) for index in indexes if index[0] in names)
                and all(self._write(change, alone) for change, alone in changes))

    def _build(self, index: planning.IndexKey) -> bool:
        with self._reports("index", index[0]) as reports:
            return _core.build_index(self.db._context(), index, False, self.batch, reports.take)

    def _write(self, change: tuple[Any, ...], alone: Any) -> bool:
        column = planning.place_of(change)
        self.changes[column] = alone
        with self._reports("column", column) as reports:
            return _core.prepare_change(self.db._context(), alone, "lossy" in self.allowed,
                                        self.batch, reports.take)

    def _reports(self, kind: str, name: str) -> Reports:
        report = self.report
        named = None if report is None else lambda told: report({kind: name} | told)
        return Reports(self.progress, named, "done", "total")

    def abandon(self) -> None:
        for change in self.changes.values():
            _core.abandon_change(self.db._context(), change)


def _refuse(plan: planning.Plan, allowed: set[str]) -> None:
    refused = [step for step in plan if step.label == "refused"]
    if refused:
        raise SchemaError("\n".join(step.text for step in refused))
    held = [step for step in plan if step.label not in allowed]
    if held:
        labels = sorted({step.label for step in held})
        raise SchemaError(
            "nothing was changed; not allowed:\n" + "\n".join(map(repr, held)),
            hint=f"allow={sorted(allowed | set(labels))!r} allows it",
        )

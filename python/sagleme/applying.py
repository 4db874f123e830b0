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
    try:
        for attempt in range(1, _ATTEMPTS + 1):
            try:
                return (_make(db, allowed, preparation.job) if preparation.run()
                        else planning.Plan())
            except Conflict:
                if attempt == _ATTEMPTS:
                    raise
            except (SchemaError, DuplicateKey):
                preparation.abandon()
                raise
        raise AssertionError("unreachable")
    finally:
        preparation.leave()


def _make(db: Database, allowed: set[str], job: Any = None) -> planning.Plan:
    with db.write() as tx:
        plan = _plan(db, tx, allowed)
        plan._make(tx, "lossy" in allowed)
        if job is not None:
            _core.finish_schema_job(tx, job)
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
        self.job: Any = None  # that records it, once columns change

    def run(self) -> bool:
        """Whether it was prepared to the end."""
        with self.db.read() as tx:
            plan = _plan(self.db, tx, self.allowed)
            if plan._changes is None:
                return True
            names = _core.indexes_to_prepare(tx, plan._changes, self.objects)
            changes = _core.changes_to_prepare(tx, plan._changes, self.objects)
            document = plan._document(tx) if changes else ""
        indexes = [step.index for step in plan if step.index is not None and step.index[0] in names]
        if changes and self.job is None:
            self.job = _core.record_schema_job(self.db._context(), document,
                                               "lossy" in self.allowed,
                                               len(indexes) + len(changes) + 1)
        return (all(self._build(index) for index in indexes)
                and all(self._write(change, alone) for change, alone in changes))

    def _build(self, index: planning.IndexKey) -> bool:
        with self._reports("index", index[0]) as reports:
            return self._step(_core.build_index(self.db._context(), index, False, self.batch,
                                                reports.take))

    def _write(self, change: tuple[Any, ...], alone: Any) -> bool:
        column = planning.place_of(change)
        self.changes[column] = alone
        with self._reports("column", column) as reports:
            return self._step(_core.prepare_change(self.db._context(), alone,
                                                   "lossy" in self.allowed, self.batch,
                                                   reports.take))

    def _step(self, done: bool) -> bool:
        if done and self.job is not None:
            _core.step_schema_job(self.job)
        return done

    def _reports(self, kind: str, name: str) -> Reports:
        report = self.report
        named = None if report is None else lambda told: report({kind: name} | told)
        return Reports(self.progress, named, "done", "total")

    def abandon(self) -> None:
        """What is refused is no job to go on with, and leaves nothing of its columns behind."""
        for change in self.changes.values():
            _core.abandon_change(self.db._context(), change)
        if self.job is not None:
            _core.leave_schema_job(self.job, True)
            self.job = None

    def leave(self) -> None:
        if self.job is not None:
            _core.leave_schema_job(self.job, False)


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

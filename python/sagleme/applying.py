"""Makes the schema of a database that of its classes."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import TYPE_CHECKING, Any

from . import _core, planning
from .bulk import Reports
from .errors import Conflict, SchemaError, WrongType

if TYPE_CHECKING:
    from .database import Database

_Report = Callable[[dict[str, Any]], "bool | None"]

# Schema changes of others that come between the builds and the plan.
_ATTEMPTS = 100


def labels(allow: Iterable[str]) -> set[str]:
    known = planning.LABELS[:3]
    if isinstance(allow, str) or not set(allow) <= set(known):
        raise WrongType(f"allow takes a set of {', '.join(known)}, not {allow!r}")
    return set(allow)


def apply(db: Database, allowed: set[str], objects: int | None, batch: int, progress: bool,
          report: _Report | None) -> planning.Plan:
    """With a number of objects, builds indexes over so many of them beside writers first."""
    for attempt in range(1, _ATTEMPTS + 1):
        if objects is not None and not _prepare(db, allowed, objects, batch, progress, report):
            return planning.Plan()
        try:
            return _make(db, allowed)
        except Conflict:
            if objects is None or attempt == _ATTEMPTS:
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


def _prepare(db: Database, allowed: set[str], objects: int, batch: int, progress: bool,
             report: _Report | None) -> bool:
    """Builds what the plan's transaction will adopt; whether it was built to the end."""
    with db.read() as tx:
        plan = _plan(db, tx, allowed)
        names = plan._changes and _core.indexes_to_prepare(tx, plan._changes, objects) or []
    for index in [step.index for step in plan if step.index is not None]:
        if index[0] not in names:
            continue
        with Reports(progress, _of_index(index[0], report), "done", "total") as reports:
            if not _core.build_index(db._context(), index, False, batch, reports.take):
                return False
    return True


def _of_index(name: str, report: _Report | None) -> _Report | None:
    if report is None:
        return None
    wanted = report
    return lambda told: wanted({"index": name} | told)


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

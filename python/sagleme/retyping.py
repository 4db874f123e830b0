"""Objects that become objects of another class."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import TYPE_CHECKING, Any, Literal, NamedTuple

from . import _core
from .bulk import Reports, columns_of
from .errors import SchemaError, WrongType
from .expressions import Condition
from .queries import Query

if TYPE_CHECKING:
    from .database import Database, Transaction

References = Literal["refuse", "null", "keep"]

_REFERENCES = ("refuse", "null", "keep")
_LOSSES = "allow_losses=True gives up values that the class has no column for"
_SETTLED = 'references="null" empties references that may not lead there, "keep" leaves them'
_MOST_IN_BATCH = 2**63 - 1
_LISTED = 20


class LostColumn(NamedTuple):
    """A column that the new class lacks, and how many objects have a value in it."""

    table: str
    column: str
    values: int


class Referrer(NamedTuple):
    """A reference to an object that its column would not allow to be of the new class."""

    object: int
    table: str
    column: str
    target: int


class RetypePlan(NamedTuple):
    """What `retype` would do: how many objects change, what they lose, what is in the way."""

    objects: int
    lost: list[LostColumn]
    referrers: list[Referrer]

    def __repr__(self) -> str:
        lines = [f"{self.objects} objects to change", *map(_lost, self.lost),
                 *map(_referrer, self.referrers[:_LISTED])]
        if len(self.referrers) > _LISTED:
            lines.append(f"and {len(self.referrers) - _LISTED} more references")
        return "\n".join(lines)


def _lost(lost: LostColumn) -> str:
    return f"column {lost.column} of {lost.table} is lost, with {lost.values} values"


def _referrer(each: Referrer) -> str:
    return (f"object {each.object} refers to object {each.target} by {each.column} of "
            f"{each.table}")


def _code(references: str) -> int:
    if references not in _REFERENCES:
        raise WrongType(f"references is {', '.join(map(repr, _REFERENCES))}, not {references!r}")
    return _REFERENCES.index(references)


def one(tx: Transaction, object: Any, cls: Any, by_name: bool, references: str, allow_losses: bool,
        values: dict[str, Any]) -> Any:
    try:
        return _core.retype_object(tx, object, cls, values, by_name, _code(references), allow_losses)
    except SchemaError as error:
        if error.hint not in ("", SchemaError.default_hint) and not error.status:
            error.hint = f"{_LOSSES}; {_SETTLED}"
        raise


def planned(db: Database, cls: Any, to: Any, where: Condition | Sequence[Condition] | None,
            only: bool, by_name: bool) -> tuple[Any, RetypePlan]:
    """The identities of the objects, and the plan."""
    alone = where is not None and not isinstance(where, (list, tuple))
    conditions: Any = [where] if alone else where or []
    with db.read() as tx:
        ids = columns_of(Query(tx, cls, only).where(*conditions).select("id")).words(0)
        count, lost, referrers = _core.plan_retype(tx, ids, to, by_name)
    return ids, RetypePlan(count, [LostColumn(*each) for each in lost],
                           [Referrer(*each) for each in referrers])


def many(db: Database, cls: Any, to: Any, where: Condition | Sequence[Condition] | None, only: bool,
         by_name: bool, references: str, allow_losses: bool, batch: int, progress: bool,
         report: Callable[[dict[str, Any]], bool | None] | None) -> int:
    code = _code(references)
    ids, plan = planned(db, cls, to, where, only, by_name)
    if plan.lost and not allow_losses:
        raise SchemaError("nothing was changed; values would be lost:\n"
                          + "\n".join(map(_lost, plan.lost)), hint=_LOSSES)
    if plan.referrers and references == "refuse":
        shown = repr(plan._replace(lost=[])).split("\n", 1)[1]
        raise SchemaError(f"nothing was changed; references may not lead to {to.__name__}:\n{shown}",
                          hint=_SETTLED)
    with Reports(progress, report, "done", "total") as reports:
        return _core.retype(db._context(), ids, to._table_name, by_name, code, allow_losses,
                            min(batch, _MOST_IN_BATCH), reports.take)

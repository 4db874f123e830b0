"""Bulk transfer of values to and from NumPy, pandas and Arrow."""

from __future__ import annotations

import itertools
from collections.abc import Callable, Iterable, Sized
from typing import Any

from . import _core, declarations
from .errors import WrongType

_INTEGERS = {declarations.LONG: "int64", declarations.ULONG: "uint64", declarations.KEY: "uint64",
             declarations.REFERENCE: "uint64"}
_REALS = {declarations.FLOAT: "float32", declarations.DOUBLE: "float64"}


def columns_of(rows: Any) -> Any:
    """The columns of a selection, collected by the extension."""
    access = rows._access()
    if not access.ordered:
        raise WrongType("columns come in the order of an index; sort the frame instead of the query")
    scan = rows._scan(access, rows._outputs, rows._limit, rows._offset)
    return _core.collect(scan, rows.names)


def _numpy_column(numpy: Any, columns: Any, position: int, kind: int) -> Any:
    if kind in (declarations.STRING, declarations.BINARY, declarations.DECIMAL):
        array = numpy.empty(len(columns), dtype=object)
        array[:] = columns.list(position)
        return array
    words = columns.words(position)
    if kind in _REALS:
        array = numpy.frombuffer(words, dtype="float64")
        array = array.astype(_REALS[kind], copy=False)
    elif kind == declarations.BOOL:
        array = numpy.frombuffer(words, dtype="uint64").astype(bool)
    elif kind == declarations.DATETIME:
        array = numpy.frombuffer(words, dtype="datetime64[us]")
    else:
        array = numpy.frombuffer(words, dtype=_INTEGERS[kind])
    if columns.nulls(position) == 0:
        return array
    valid = numpy.frombuffer(columns.valid(position), dtype="uint8")
    return numpy.ma.masked_array(array, valid == 0)


def to_numpy(rows: Any) -> dict[str, Any]:
    import numpy

    columns = columns_of(rows)
    return {name: _numpy_column(numpy, columns, position, kind)
            for position, (name, kind) in enumerate(columns.names)}


def to_pandas(rows: Any) -> Any:
    import numpy
    import pandas

    ordered = rows._access().ordered
    columns = columns_of(rows if ordered else rows._copy(_orders=[], _limit=None, _offset=0))
    frame = pandas.DataFrame(
        {name: _pandas_column(pandas, numpy, columns, position, kind)
         for position, (name, kind) in enumerate(columns.names)}, copy=False)
    return frame if ordered else _sorted_frame(rows, frame)


def _sorted_frame(rows: Any, frame: Any) -> Any:
    """Sorts in Python what no index sorts."""
    import pandas

    return pandas.DataFrame(list(rows), columns=frame.columns).astype(frame.dtypes.to_dict())


def _pandas_column(pandas: Any, numpy: Any, columns: Any, position: int, kind: int) -> Any:
    array = _numpy_column(numpy, columns, position, kind)
    if kind == declarations.DATETIME:
        plain = numpy.ma.getdata(array).copy()
        plain[numpy.ma.getmaskarray(array)] = numpy.datetime64("NaT")
        return pandas.to_datetime(plain, utc=True)
    if not isinstance(array, numpy.ma.MaskedArray):
        return array
    data, mask = numpy.ma.getdata(array), numpy.ma.getmaskarray(array)
    if kind in _INTEGERS:
        return pandas.arrays.IntegerArray(data.copy(), mask)
    if kind == declarations.BOOL:
        return pandas.arrays.BooleanArray(data, mask)
    return numpy.where(mask, numpy.nan, data)


# ---- the other way


def insert_many(tx: Any, cls: Any, rows: Any, progress: bool) -> int:
    """Creates objects from rows, a frame, or any Arrow exporter."""
    if hasattr(rows, "__arrow_c_stream__"):
        with _Bar(progress, None) as bar:
            return int(_core.insert_arrow(tx, cls, rows.__arrow_c_stream__(), bar.add))
    if hasattr(rows, "dtypes") and hasattr(rows, "columns"):
        return _insert_frame(tx, cls, rows, progress)
    return _insert_rows(tx, cls, rows, progress)


def _columns_named(cls: Any, names: Iterable[str]) -> list[Any]:
    found = []
    for name in names:
        column = cls._columns.get(name)
        if column is None:
            raise WrongType(f"{cls.__name__} has no column {name!r}")
        found.append(column)
    return found


def _insert_frame(tx: Any, cls: Any, frame: Any, progress: bool) -> int:
    columns = _columns_named(cls, map(str, frame.columns))
    lists = [_values_of(tx, column, frame[name])
             for column, name in zip(columns, frame.columns)]
    rows = zip(*lists)
    return int(_core.insert_rows(tx, cls, columns, _watched(rows, progress, len(frame))))


def _values_of(tx: Any, column: Any, series: Any) -> list[Any]:
    """A column of a frame as values for the extension; missing values become None."""
    missing = series.isna().to_numpy()
    if column._kind == declarations.DATETIME:
        values = [each.to_pydatetime(warn=False) for each in series.dt.floor("us")]
    else:
        values = series.tolist()
    convert: Callable[[Any], Any] | None = None
    if column._kind == declarations.REFERENCE:
        convert = tx._get
    elif column._kind in _INTEGERS and series.dtype.kind == "f":
        convert = _whole
    elif column._kind == declarations.BOOL and series.dtype.kind == "b":
        convert = bool
    if not missing.any() and convert is None:
        return list(values)
    keep = convert or (lambda value: value)
    return [None if gone else keep(value) for value, gone in zip(values, missing)]


def _whole(value: float) -> Any:
    """pandas stores whole numbers as floats if some are missing."""
    return int(value) if value == int(value) else value


def _insert_rows(tx: Any, cls: Any, rows: Iterable[Any], progress: bool) -> int:
    total = len(rows) if isinstance(rows, Sized) else None
    iterator = iter(rows)
    first = next(iterator, None)
    if first is None:
        return 0
    if isinstance(first, dict):
        columns = _columns_named(cls, first)
    else:
        columns = list(cls._columns.values())
    every = itertools.chain([first], iterator)
    return int(_core.insert_rows(tx, cls, columns, _watched(every, progress, total)))


def _tqdm() -> Any:
    try:
        import tqdm
    except ImportError:
        return None
    return tqdm.tqdm


def _watched(rows: Iterable[Any], progress: bool, total: int | None) -> Iterable[Any]:
    bar = _tqdm() if progress else None
    return rows if bar is None else bar(rows, total=total, unit=" objects")


class Meter:
    """A progress bar of work that says how far it is, if one is wanted and tqdm is installed."""

    def __init__(self, wanted: bool, unit: str) -> None:
        make = _tqdm() if wanted else None
        self._bar: Any = None if make is None else make(unit=unit)
        self.show: Callable[[int, int], None] | None = None if self._bar is None else self._show

    def _show(self, done: int, total: int) -> None:
        self._bar.total = total or None
        self._bar.update(done - self._bar.n)

    def __enter__(self) -> Meter:
        return self

    def __exit__(self, *exception: Any) -> None:
        if self._bar is not None:
            self._bar.close()


class Reports:
    """Passes what long work reports on: to a function, to a progress bar, or both."""

    def __init__(self, progress: bool, report: Callable[[dict[str, Any]], bool | None] | None,
                 done: str, total: str) -> None:
        self._meter, self._report, self._done, self._total = Meter(progress, ""), report, done, total

    def take(self, told: dict[str, Any]) -> bool | None:
        if self._meter.show is not None:
            self._meter.show(told[self._done], told[self._total])
        return None if self._report is None else self._report(told)

    def __enter__(self) -> Reports:
        return self

    def __exit__(self, *exception: Any) -> None:
        self._meter.__exit__()


class _Bar:
    """A progress bar, if one is wanted and tqdm is installed."""

    def __init__(self, wanted: bool, total: int | None) -> None:
        make = _tqdm() if wanted else None
        self._bar = None if make is None else make(total=total, unit=" objects")
        self.add: Callable[[int], Any] | None = None if self._bar is None else self._bar.update

    def __enter__(self) -> _Bar:
        return self

    def __exit__(self, *exception: Any) -> None:
        if self._bar is not None:
            self._bar.close()

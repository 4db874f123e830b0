"""Tables for notebooks."""

from __future__ import annotations

import decimal
import html
from collections.abc import Iterable
from typing import Any


# Notebooks put everything to the right, as numbers stand, and break captions to the table's width.
_TEXT = ' style="text-align: left"'
_CAPTION = ' style="text-align: left; white-space: nowrap"'


def table_of(title: str, head: Iterable[str], rows: Iterable[Iterable[Any]]) -> str:
    """An HTML table, every text of it escaped, for light and dark pages alike.

    >>> print(table_of("a<b", ["x"], [[1]]).partition("</caption>")[2])
    <tr><th>x</th></tr><tr><td>1</td></tr></table>
    >>> "a&lt;b</caption>" in table_of("a<b", ["x"], [["text"]])
    True
    """
    names, body = list(head), [list(row) for row in rows]
    styles = ["" if _holds_numbers(row[at] for row in body) else _TEXT for at in range(len(names))]

    def line(tag: str, values: Iterable[Any]) -> str:
        cells = (f"<{tag}{style}>{html.escape(_text(value))}</{tag}>"
                 for style, value in zip(styles, values))
        return f"<tr>{''.join(cells)}</tr>"

    lines = "".join([line("th", names), *(line("td", row) for row in body)])
    return f"<table><caption{_CAPTION}>{html.escape(title)}</caption>{lines}</table>"


def _holds_numbers(column: Iterable[Any]) -> bool:
    return all(value is None or isinstance(value, (int, float, decimal.Decimal))
               for value in column)


def _text(value: Any) -> str:
    text = value if isinstance(value, str) else repr(value)
    return text if len(text) <= 200 else text[:197] + "..."

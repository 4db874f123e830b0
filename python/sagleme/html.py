"""Tables for notebooks."""

from __future__ import annotations

import html
from collections.abc import Iterable
from typing import Any


def table_of(title: str, head: Iterable[str], rows: Iterable[Iterable[Any]]) -> str:
    """An HTML table, every text of it escaped.

    >>> table_of("a<b", ["x"], [[1]])
    '<table><caption>a&lt;b</caption><tr><th>x</th></tr><tr><td>1</td></tr></table>'
    """
    def cells(tag: str, values: Iterable[Any]) -> str:
        return "".join(f"<{tag}>{html.escape(_text(value))}</{tag}>" for value in values)

    body = "".join(f"<tr>{cells('td', row)}</tr>" for row in rows)
    return f"<table><caption>{html.escape(title)}</caption><tr>{cells('th', head)}</tr>{body}</table>"


def _text(value: Any) -> str:
    text = value if isinstance(value, str) else repr(value)
    return text if len(text) <= 200 else text[:197] + "..."

"""Teaches mypy the classes that are tables: ``plugins = sagleme.mypy_plugin``.

In objects a column has the type of its annotation; of the class, ``Item.year`` is a column that
compares and sorts. A back reference is a query of the class that it names.
"""

from __future__ import annotations

from collections.abc import Callable

from mypy.nodes import TypeInfo, Var
from mypy.plugin import AnalyzeTypeContext, AttributeContext, Plugin
from mypy.types import Instance, Type, get_proper_type

_TABLE = "sagleme.models.Table"
_COLUMN = "sagleme.models.Column"
_QUERY = "sagleme.queries.Query"
_BACK = "sagleme.models.Back"


class SaglemePlugin(Plugin):
    def get_type_analyze_hook(self, fullname: str) -> Callable[[AnalyzeTypeContext], Type] | None:
        return _back_reference if fullname in (_BACK, "sagleme.Back") else None

    def get_class_attribute_hook(
            self, fullname: str) -> Callable[[AttributeContext], Type] | None:
        owner, _, name = fullname.rpartition(".")
        found = self.lookup_fully_qualified(owner)
        if found is None or not isinstance(found.node, TypeInfo):
            return None
        info = found.node
        if not any(base.fullname == _TABLE for base in info.mro) or not _is_column(info, name):
            return None
        column = self.lookup_fully_qualified(_COLUMN)
        if column is None or not isinstance(column.node, TypeInfo):
            return None
        instance = Instance(column.node, [])
        return lambda context: instance


def _is_column(info: TypeInfo, name: str) -> bool:
    """An annotated attribute, of the class or a base, that is no ClassVar and no back reference."""
    symbol = info.get(name)
    if symbol is None or not isinstance(symbol.node, Var) or symbol.node.is_classvar:
        return False
    type_ = get_proper_type(symbol.node.type)
    is_query = isinstance(type_, Instance) and type_.type.fullname == _QUERY
    declared = symbol.node.info
    from_package = declared.fullname.startswith("sagleme.")
    return not is_query and not from_package


def _back_reference(context: AnalyzeTypeContext) -> Type:
    arguments = context.type.args
    if len(arguments) != 2:
        context.api.fail('a back reference names a class and its reference: '
                         'sg.Back["Item", "lender"]', context.context)
        return context.api.named_type("builtins.object", [])
    return context.api.named_type(_QUERY, [context.api.analyze_type(arguments[0])])


def plugin(version: str) -> type[Plugin]:
    return SaglemePlugin

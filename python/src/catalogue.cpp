// The catalogue for Python: tables as plain values, and the changes of the schema.

#include "catalogue.h"

#include <sagleme/annotations.hpp>

#include "types.h"

namespace binding {
namespace {

void Append(PyObject* list, PyObject* item) {
  Ref const owned(Need(item));
  if (PyList_Append(list, item) != 0) throw PythonError{};
}

// The rule of a reference; empty for none.
std::u16string RuleOf(sagleme::Transaction& kernel, sagleme::Table const& table,
                      sagleme::Column const& column) {
  if (column.type != sagleme::Type::kReference || kernel.rules() == nullptr) return u"";
  sagleme::OnDelete const rule = sagleme::OnDeleteOf(kernel, table, column);
  if (rule == sagleme::OnDelete::kKeep) return u"";
  return sagleme::ToUtf16(sagleme::OnDeleteName(rule));
}

// What annotations say of tables and columns; nothing is looked up in a database without any.
struct Annotated {
  sagleme::Transaction& kernel;
  bool any;

  PyObject* Comment(sagleme::Table const& table) const {
    return any ? FromUtf8(sagleme::CommentOf(kernel, table)) : FromUtf8("");
  }
  PyObject* Comment(sagleme::Table const& table, sagleme::Column const& column) const {
    return any ? FromUtf8(sagleme::CommentOf(kernel, table, column)) : FromUtf8("");
  }
  PyObject* Comment(sagleme::Index const& index) const {
    return any ? FromUtf8(sagleme::CommentOf(kernel, index)) : FromUtf8("");
  }
  PyObject* Default(sagleme::Table const& table, sagleme::Column const& column) const {
    return FromValue(any ? sagleme::DefaultOf(kernel, table, column) : sagleme::Value());
  }
  PyObject* Abstract(sagleme::Table const& table) const {
    return PyBool_FromLong(any && sagleme::IsAbstract(kernel, table) ? 1 : 0);
  }
  static PyObject* FromUtf8(std::string const& text) {
    return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
  }
};

PyObject* ColumnEntry(Annotated const& annotated, sagleme::Table const& table,
                      sagleme::Column const& column) {
  return Py_BuildValue("{sNsisNsNsisNsNsNsNsK}", "name", FromUnits(column.name), "type",
                       static_cast<int>(column.type), "nullable", PyBool_FromLong(column.nullable),
                       "inherited", PyBool_FromLong(column.inherited), "ordinal",
                       static_cast<int>(column.ordinal), "target", FromUnits(column.target),
                       "on_delete", FromUnits(RuleOf(annotated.kernel, table, column)), "comment",
                       annotated.Comment(table, column), "default",
                       annotated.Default(table, column), "id", column.id.value);
}

PyObject* IndexEntry(Annotated const& annotated, sagleme::Index const& index) {
  Ref columns(Need(PyList_New(0)));
  for (auto const& column : index.columns) {
    Append(columns.get(),
           Py_BuildValue("(NN)", FromUnits(column.name), PyBool_FromLong(column.ascending)));
  }
  return Py_BuildValue("{sNsNsKsKsNsN}", "name", FromUnits(index.name), "unique",
                       PyBool_FromLong(index.unique), "handle", index.handle, "id", index.id.value,
                       "columns", columns.release(), "comment", annotated.Comment(index));
}

PyObject* TableEntry(Annotated const& annotated, sagleme::Table const& table) {
  Ref columns(Need(PyList_New(0)));
  for (auto const& column : table.columns)
    Append(columns.get(), ColumnEntry(annotated, table, column));
  Ref indexes(Need(PyList_New(0)));
  for (auto const& index : table.indexes) Append(indexes.get(), IndexEntry(annotated, index));
  return Py_BuildValue("{sNsNsNsisKsNsNsNsN}", "name", FromUnits(table.name), "base",
                       FromUnits(table.base), "setspec", FromUnits(table.setspec), "layout",
                       static_cast<int>(table.layout), "id", table.id().value, "columns",
                       columns.release(), "indexes", indexes.release(), "comment",
                       annotated.Comment(table), "abstract", annotated.Abstract(table));
}

std::vector<sagleme::ColumnSpec> ColumnSpecs(PyObject* columns) {
  std::vector<sagleme::ColumnSpec> specs;
  Ref const list(Need(PySequence_Fast(columns, "columns are a list")));
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    PyObject* name = nullptr;
    PyObject* target = nullptr;
    int type = 0;
    int nullable = 0;
    if (!PyArg_ParseTuple(PySequence_Fast_GET_ITEM(list.get(), i), "UipU", &name, &type, &nullable,
                          &target)) {
      throw PythonError{};
    }
    specs.push_back(
        {ToUnits(name), static_cast<sagleme::Type>(type), nullable != 0, ToUnits(target)});
  }
  return specs;
}

}  // namespace

sagleme::Transaction& KernelOf(PyObject* transaction) {
  if (!PyObject_TypeCheck(transaction, &g_transaction_type)) {
    Raise("WrongType", "a transaction is needed");
  }
  NeedOpen(As<Transaction>(transaction));
  return *As<Transaction>(transaction)->kernel;
}

std::vector<sagleme::IndexColumnSpec> IndexColumns(PyObject* columns) {
  std::vector<sagleme::IndexColumnSpec> specs;
  Ref const list(Need(PySequence_Fast(columns, "columns are a list")));
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    PyObject* column = nullptr;
    int ascending = 0;
    if (!PyArg_ParseTuple(PySequence_Fast_GET_ITEM(list.get(), i), "Up", &column, &ascending)) {
      throw PythonError{};
    }
    specs.push_back({ToUnits(column), ascending != 0});
  }
  return specs;
}

PyObject* Catalogue(PyObject*, PyObject* transaction) {
  return Guard([&] {
    Ref list(Need(PyList_New(0)));
    sagleme::Transaction& kernel = KernelOf(transaction);
    Annotated const annotated{kernel, !sagleme::Annotations(kernel).empty()};
    for (auto const& table : kernel.Tables()) Append(list.get(), TableEntry(annotated, *table));
    return list.release();
  });
}

PyObject* AddColumns(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* table = nullptr;
  PyObject* columns = nullptr;
  if (!PyArg_ParseTuple(args, "OUO", &transaction, &table, &columns)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    auto const specs = ColumnSpecs(columns);
    sagleme::AddColumns(kernel, ToUnits(table), specs);
    Py_RETURN_NONE;
  });
}

PyObject* SetOnDelete(PyObject*, PyObject* args) {
  return WithTexts(args, "OUUU", [](auto& kernel, auto& table, auto& column, auto& rule) {
    auto const known = sagleme::ParseOnDelete(sagleme::ToUtf8(rule));
    if (!known) throw sagleme::Error(LSCOREDB_INVALID_ARGUMENT, "There is no such rule.");
    sagleme::SetOnDelete(kernel, *kernel.table(table), column, *known);
  });
}

PyObject* RenameColumn(PyObject*, PyObject* args) {
  return WithTexts(args, "OUUU", [](auto& kernel, auto& table, auto& column, auto& name) {
    sagleme::RenameColumn(kernel, table, column, name);
  });
}

PyObject* RenameTable(PyObject*, PyObject* args) {
  return WithTexts(args, "OUU", [](auto& kernel, auto& table, auto& name, auto&) {
    sagleme::RenameTable(kernel, table, name);
  });
}

PyObject* DropTable(PyObject*, PyObject* args) {
  return WithTexts(args, "OU", [](auto& kernel, auto& table, auto&, auto&) {
    sagleme::DropTable(kernel, table, {.children = true, .force = true});
  });
}

}  // namespace binding

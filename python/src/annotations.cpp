// Comments, defaults and abstract tables, which db.apply() sets.

#include <sagleme/annotations.hpp>

#include "catalogue.h"
#include "types.h"

namespace binding {
namespace {

template <typename Number>
Number Checked(Number number) {
  if (PyErr_Occurred()) throw PythonError{};
  return number;
}

struct ToPython {
  PyObject* operator()(sagleme::Null) const { return Py_NewRef(Py_None); }
  PyObject* operator()(sagleme::ObjectId) const { return Py_NewRef(Py_None); }
  PyObject* operator()(bool value) const { return PyBool_FromLong(value ? 1 : 0); }
  PyObject* operator()(std::int64_t value) const { return PyLong_FromLongLong(value); }
  PyObject* operator()(std::uint64_t value) const { return PyLong_FromUnsignedLongLong(value); }
  PyObject* operator()(sagleme::Decimal value) const {
    return PyLong_FromLongLong(value.millionths);
  }
  PyObject* operator()(float value) const { return PyFloat_FromDouble(value); }
  PyObject* operator()(double value) const { return PyFloat_FromDouble(value); }
  PyObject* operator()(std::u16string const& value) const { return FromUnits(value); }
  PyObject* operator()(sagleme::Bytes const& value) const {
    return PyBytes_FromStringAndSize(reinterpret_cast<char const*>(value.data()),
                                     static_cast<Py_ssize_t>(value.size()));
  }
};

}  // namespace

sagleme::Value ValueFrom(PyObject* value, sagleme::Type type) {
  if (value == Py_None) return {};
  switch (type) {
    case sagleme::Type::kString:
      return ToUnits(value);
    case sagleme::Type::kBinary: {
      auto const* const bytes = reinterpret_cast<std::uint8_t const*>(PyBytes_AsString(value));
      if (bytes == nullptr) throw PythonError{};
      return sagleme::Bytes(bytes, bytes + PyBytes_GET_SIZE(value));
    }
    case sagleme::Type::kLong:
      return std::int64_t{Checked(PyLong_AsLongLong(value))};
    case sagleme::Type::kULong:
    case sagleme::Type::kKey:
      return std::uint64_t{Checked(PyLong_AsUnsignedLongLong(value))};
    case sagleme::Type::kDecimal:
      return sagleme::Decimal{Checked(PyLong_AsLongLong(value))};
    case sagleme::Type::kFloat:
      return static_cast<float>(Checked(PyFloat_AsDouble(value)));
    case sagleme::Type::kDouble:
      return Checked(PyFloat_AsDouble(value));
    case sagleme::Type::kBool:
      return Checked(PyObject_IsTrue(value)) == 1;
    case sagleme::Type::kReference:
      break;
  }
  Raise("WrongType", "a reference has no default");
}

PyObject* FromValue(sagleme::Value const& value) {
  return std::visit(ToPython{}, static_cast<sagleme::Value::variant const&>(value));
}

PyObject* SetComment(PyObject*, PyObject* args) {
  return WithTexts(args, "OUUU", [](auto& kernel, auto& table, auto& column, auto& text) {
    sagleme::TablePtr const found = kernel.table(table);
    if (column.empty()) {
      sagleme::SetComment(kernel, *found, sagleme::ToUtf8(text));
    } else {
      sagleme::SetComment(kernel, *found, column, sagleme::ToUtf8(text));
    }
  });
}

PyObject* SetIndexComment(PyObject*, PyObject* args) {
  return WithTexts(args, "OUU", [](auto& kernel, auto& index, auto& text, auto&) {
    auto const found = kernel.FindIndex(index);
    if (!found) throw sagleme::Error(SAGLEME_INDEX_NOT_FOUND, "There is no such index.");
    sagleme::SetComment(kernel, *found, sagleme::ToUtf8(text));
  });
}

PyObject* SetDefault(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* table = nullptr;
  PyObject* column = nullptr;
  PyObject* value = nullptr;
  if (!PyArg_ParseTuple(args, "OUUO", &transaction, &table, &column, &value)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    sagleme::TablePtr const found = kernel.table(ToUnits(table));
    std::u16string const name = ToUnits(column);
    sagleme::Column const* const at = found->FindColumn(name);
    if (at == nullptr) Raise("SchemaError", "there is no column " + TextOf(column));
    sagleme::SetDefault(kernel, *found, name, ValueFrom(value, at->type));
    Py_RETURN_NONE;
  });
}

PyObject* SetAbstract(PyObject*, PyObject* args) {
  PyObject* transaction = nullptr;
  PyObject* table = nullptr;
  int abstract = 0;
  if (!PyArg_ParseTuple(args, "OUp", &transaction, &table, &abstract)) return nullptr;
  return Guard([&]() -> PyObject* {
    sagleme::Transaction& kernel = KernelOf(transaction);
    std::u16string const name = ToUnits(table);
    Away(As<Transaction>(transaction),
         [&] { sagleme::SetAbstract(kernel, *kernel.table(name), abstract != 0); });
    Py_RETURN_NONE;
  });
}

}  // namespace binding

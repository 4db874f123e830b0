// Exceptions of the package, defined in sagleme.errors, and their texts.

#include "types.h"

namespace binding {
namespace {

// Both come from sagleme.errors when they are first needed: that module is plain Python.
PyObject* Errors() {
  static PyObject* module = nullptr;
  if (module == nullptr) module = PyImport_ImportModule("sagleme.errors");
  return module;
}

constexpr Py_ssize_t kLongestRepr = 60;

// Names of files may be no UTF-8.
PyObject* MessageOf(std::string const& text) {
  auto const size = static_cast<Py_ssize_t>(text.size());
  PyObject* const message = PyUnicode_DecodeUTF8(text.data(), size, "surrogatepass");
  if (message != nullptr || PyErr_ExceptionMatches(PyExc_UnicodeDecodeError) == 0) return message;
  PyErr_Clear();
  return PyUnicode_DecodeUTF8(text.data(), size, "backslashreplace");
}

// The family of exceptions for a failure that has no status.
char const* FamilyOf(sagleme::Failure::Kind kind) {
  switch (kind) {
    case sagleme::Failure::Kind::kBadData:
    case sagleme::Failure::Kind::kBadInput:
      return "BadValue";
    case sagleme::Failure::Kind::kCannotOpen:
      return "OpenError";
    case sagleme::Failure::Kind::kRefused:
      break;
  }
  return "SchemaError";
}

}  // namespace

void SetStatusError(std::uint32_t status, std::string const& text) {
  PyObject* const errors = Errors();
  if (errors == nullptr) return;
  Ref const message(MessageOf(text));
  if (!message) return;
  Ref const error(PyObject_CallMethod(errors, "from_status", "IO", status, message.get()));
  if (error) PyErr_SetObject(Plain(Py_TYPE(error.get())), error.get());
}

void SetError(char const* family, std::string const& text) {
  PyObject* const errors = Errors();
  if (errors == nullptr) return;
  Ref const type(PyObject_GetAttrString(errors, family));
  if (!type) return;
  Ref const message(MessageOf(text));
  if (message) PyErr_SetObject(type.get(), message.get());
}

void SetFailure(sagleme::Failure const& failure) {
  PyObject* const errors = Errors();
  if (errors == nullptr) return;
  Ref const type(PyObject_GetAttrString(errors, FamilyOf(failure.kind())));
  Ref const text(MessageOf(failure.what()));
  Ref const hint(MessageOf(failure.advice()));
  if (!type || !text || !hint) return;
  Ref const error(PyObject_CallFunction(type.get(), "OiO", text.get(), 0, hint.get()));
  if (error) PyErr_SetObject(type.get(), error.get());
}

std::string TextOf(PyObject* text) {
  Ref const bytes(PyUnicode_AsEncodedString(text, "utf-8", "surrogatepass"));
  if (!bytes) throw PythonError{};
  return {PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get()))};
}

std::string ReprOf(PyObject* object) {
  Ref repr(PyObject_Repr(object));
  if (!repr) {
    PyErr_Clear();
    return std::string("a ") + Py_TYPE(object)->tp_name;
  }
  if (PyUnicode_GET_LENGTH(repr.get()) <= kLongestRepr) return TextOf(repr.get());
  Ref const beginning(Need(PyUnicode_Substring(repr.get(), 0, kLongestRepr - 3)));
  return TextOf(beginning.get()) + "...";
}

PyObject* FromUnits(std::u16string_view text) {
  char16_t all = 0;
  bool surrogates = false;
  for (char16_t const unit : text) {
    all |= unit;
    surrogates |= (unit & 0xF800) == 0xD800;
  }
  auto const size = static_cast<Py_ssize_t>(text.size());
  if (all < 0x100) {
    PyObject* const made = PyUnicode_New(size, all < 0x80 ? 0x7F : 0xFF);
    if (made == nullptr) return nullptr;
    Py_UCS1* const out = PyUnicode_1BYTE_DATA(made);
    for (Py_ssize_t i = 0; i < size; ++i) out[i] = static_cast<Py_UCS1>(text[i]);
    return made;
  }
  if (!surrogates) return PyUnicode_FromKindAndData(PyUnicode_2BYTE_KIND, text.data(), size);
  int order = -1;
  return PyUnicode_DecodeUTF16(reinterpret_cast<char const*>(text.data()), 2 * size,
                               "surrogatepass", &order);
}

std::u16string ToUnits(PyObject* text) {
  if (PyUnicode_READY(text) != 0) throw PythonError{};
  auto const size = static_cast<std::size_t>(PyUnicode_GET_LENGTH(text));
  std::u16string units;
  units.reserve(size);
  int const kind = PyUnicode_KIND(text);
  void const* const data = PyUnicode_DATA(text);
  for (std::size_t i = 0; i < size; ++i) {
    Py_UCS4 const point = PyUnicode_READ(kind, data, static_cast<Py_ssize_t>(i));
    sagleme::detail::AppendUtf16(units, point);
  }
  return units;
}

}  // namespace binding

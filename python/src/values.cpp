// Values of columns between the kernel and Python.

#include <Python.h>
#include <datetime.h>
#include <lscoredb/bulk.h>

#include <array>
#include <cmath>
#include <cstring>

#include "types.h"

namespace binding {
namespace {

constexpr std::int64_t kMicrosecondsADay = 86'400'000'000;

// Words for messages, by kind.
constexpr std::array<char const*, 12> kTakes = {"",
                                                "str",
                                                "bytes",
                                                "int",
                                                "int from 0 to 2**64 - 1",
                                                "decimal.Decimal",
                                                "float",
                                                "float",
                                                "",
                                                "int from 0 to 2**64 - 1",
                                                "bool",
                                                "datetime.datetime"};

void ImportDatetime() {
  if (PyDateTimeAPI == nullptr) PyDateTime_IMPORT;
  if (PyDateTimeAPI == nullptr) throw PythonError{};
}

// 1970-01-01 in UTC.
PyObject* Epoch() {
  static PyObject* epoch = nullptr;
  ImportDatetime();
  if (epoch == nullptr) {
    epoch = PyDateTimeAPI->DateTime_FromDateAndTime(1970, 1, 1, 0, 0, 0, 0, PyDateTime_TimeZone_UTC,
                                                    PyDateTimeAPI->DateTimeType);
  }
  return Need(epoch);
}

PyObject* DecimalType() {
  static PyObject* type = nullptr;
  if (type == nullptr) {
    Ref const module(Need(PyImport_ImportModule("decimal")));
    type = PyObject_GetAttrString(module.get(), "Decimal");
  }
  return Need(type);
}

PyObject* FromMillionths(std::int64_t millionths) {
  Ref const whole(Need(PyObject_CallFunction(DecimalType(), "L", millionths)));
  return PyObject_CallMethod(whole.get(), "scaleb", "i", -6);
}

PyObject* FromMicroseconds(std::int64_t microseconds) {
  PyObject* const epoch = Epoch();
  std::int64_t const days = microseconds / kMicrosecondsADay;
  std::int64_t const rest = microseconds % kMicrosecondsADay;
  if (std::abs(days) > 4'000'000) {
    Raise("BadValue", "the stored " + std::to_string(microseconds) +
                          " microseconds since 1970 are no year from 1 to 9999");
  }
  Ref const delta(Need(PyDelta_FromDSU(static_cast<int>(days), static_cast<int>(rest / 1'000'000),
                                       static_cast<int>(rest % 1'000'000))));
  return PyNumber_Add(epoch, delta.get());
}

template <typename T, typename Make>
PyObject* ReadFixed(Cell const& at, Make&& make) {
  T value{};
  auto const status = sagleme::detail::Get({at.context, at.oid, at.addr, at.ordinal}, value);
  if (status == LORV_STATUS_NULL) Py_RETURN_NONE;
  sagleme::detail::CheckKernel(status);
  return make(value);
}

PyObject* ReadBinary(Cell const& at) {
  LORV_BINARY* record = nullptr;
  auto const status = lorv_context_get_binary(at.context, at.oid, at.addr, at.ordinal, &record);
  if (status == LORV_STATUS_NULL) Py_RETURN_NONE;
  sagleme::detail::CheckKernel(status);
  return PyBytes_FromStringAndSize(reinterpret_cast<char const*>(record->bytes), record->length);
}

PyObject* ReadReference(Transaction* transaction, Cell const& at) {
  LORV_REFERENCE found{};
  auto const status = lorv_context_get_reference(at.context, at.oid, at.addr, at.ordinal, &found);
  if (status == LORV_STATUS_NULL) Py_RETURN_NONE;
  sagleme::detail::CheckKernel(status);
  if (found.oid == 0 || found.layout == 0) Py_RETURN_NONE;
  return ObjectFor(transaction, found.oid, db_util::Fold(found).addr);
}

// ---- writing

std::string Where(BoundColumn const& column) {
  return TextOf(column.field->owner) + "." + TextOf(column.field->name);
}

[[noreturn]] void RaiseWrongType(BoundColumn const& column, PyObject* value) {
  std::string takes = kTakes[static_cast<std::size_t>(column.kind)];
  if (column.kind == Kind::kReference && column.target != nullptr) takes = NameOf(column.target);
  Raise("WrongType", Where(column) + " takes " + takes + ", not " + Py_TYPE(value)->tp_name + " " +
                         ReprOf(value));
}

[[noreturn]] void RaiseOutOfRange(BoundColumn const& column, PyObject* value, char const* range) {
  PyErr_Clear();
  Raise("BadValue", Where(column) + " takes " + range + ", not " + ReprOf(value));
}

// A whole number of Python's or of another library's; truth values are none.
Ref WholeOf(BoundColumn const& column, PyObject* value) {
  if (PyBool_Check(value) || !PyIndex_Check(value)) RaiseWrongType(column, value);
  return Ref(Need(PyNumber_Index(value)));
}

std::int64_t ToLong(BoundColumn const& column, PyObject* value) {
  Ref const whole = WholeOf(column, value);
  long long const number = PyLong_AsLongLong(whole.get());
  if (number == -1 && PyErr_Occurred()) {
    RaiseOutOfRange(column, value, "int from -2**63 to 2**63 - 1");
  }
  return number;
}

std::uint64_t ToULong(BoundColumn const& column, PyObject* value) {
  Ref const whole = WholeOf(column, value);
  unsigned long long const number = PyLong_AsUnsignedLongLong(whole.get());
  if (PyErr_Occurred()) RaiseOutOfRange(column, value, "int from 0 to 2**64 - 1");
  return number;
}

double ToDouble(BoundColumn const& column, PyObject* value) {
  if (PyFloat_Check(value)) return PyFloat_AS_DOUBLE(value);
  if (!PyLong_Check(value) || PyBool_Check(value)) {
    if (PyBool_Check(value) || !PyNumber_Check(value) || PyUnicode_Check(value)) {
      RaiseWrongType(column, value);
    }
  }
  double const number = PyFloat_AsDouble(value);
  if (number == -1.0 && PyErr_Occurred()) RaiseOutOfRange(column, value, "float");
  return number;
}

float ToFloat(BoundColumn const& column, PyObject* value) {
  double const number = ToDouble(column, value);
  auto const narrow = static_cast<float>(number);
  if (std::isinf(narrow) && !std::isinf(number)) {
    RaiseOutOfRange(column, value, "a number of 32 bits");
  }
  return narrow;
}

std::int64_t ToMillionths(BoundColumn const& column, PyObject* value) {
  bool const whole = PyLong_Check(value) && !PyBool_Check(value);
  if (!whole && PyObject_IsInstance(value, DecimalType()) != 1) RaiseWrongType(column, value);
  Ref const decimal(Need(PyObject_CallOneArg(DecimalType(), value)));
  Ref const scaled(PyObject_CallMethod(decimal.get(), "scaleb", "i", 6));
  Ref const number(scaled ? PyNumber_Long(scaled.get()) : nullptr);
  Ref const same(number ? PyObject_RichCompare(number.get(), scaled.get(), Py_EQ) : nullptr);
  long long const millionths = number ? PyLong_AsLongLong(number.get()) : -1;
  if (PyErr_Occurred() || same.get() != Py_True) {
    RaiseOutOfRange(column, value, "a decimal of at most 6 places and 9223372036854.775807");
  }
  return millionths;
}

std::int64_t ToMicroseconds(BoundColumn const& column, PyObject* value) {
  PyObject* const epoch = Epoch();
  if (!PyDateTime_Check(value)) RaiseWrongType(column, value);
  Ref const delta(PyNumber_Subtract(value, epoch));
  if (!delta) {
    RaiseOutOfRange(column, value,
                    "a datetime with a time zone, such as datetime.now(timezone.utc)");
  }
  return PyDateTime_DELTA_GET_DAYS(delta.get()) * kMicrosecondsADay +
         PyDateTime_DELTA_GET_SECONDS(delta.get()) * std::int64_t{1'000'000} +
         PyDateTime_DELTA_GET_MICROSECONDS(delta.get());
}

// A short text goes by way of the stack.
class Units {
 public:
  Units(BoundColumn const& column, PyObject* text) {
    if (!PyUnicode_Check(text)) RaiseWrongType(column, text);
    if (PyUnicode_READY(text) != 0) throw PythonError{};
    Py_ssize_t const size = PyUnicode_GET_LENGTH(text);
    bool clean = true;
    if (PyUnicode_KIND(text) == PyUnicode_1BYTE_KIND && size < static_cast<Py_ssize_t>(kRoom)) {
      Py_UCS1 const* const data = PyUnicode_1BYTE_DATA(text);
      for (Py_ssize_t i = 0; i < size; ++i) {
        room_[static_cast<std::size_t>(i)] = data[i];
        clean &= data[i] != 0;
      }
      room_[static_cast<std::size_t>(size)] = 0;
    } else {
      long_ = ToUnits(text);
      clean = long_.find(u'\0') == std::u16string::npos;
      units_ = long_.c_str();
    }
    if (!clean) RaiseOutOfRange(column, text, "a text without U+0000");
  }
  Units(Units const&) = delete;
  Units& operator=(Units const&) = delete;

  char16_t const* get() const { return units_; }

 private:
  static constexpr std::size_t kRoom = 256;
  std::array<char16_t, kRoom> room_;
  std::u16string long_;
  char16_t const* units_ = room_.data();
};

struct BufferView {
  explicit BufferView(PyObject* value) {
    if (PyObject_GetBuffer(value, &view, PyBUF_SIMPLE) != 0) throw PythonError{};
  }
  ~BufferView() { PyBuffer_Release(&view); }
  Py_buffer view{};
};

std::uint32_t PutBinary(Cell const& at, BoundColumn const& column, PyObject* value) {
  if (!PyObject_CheckBuffer(value)) RaiseWrongType(column, value);
  BufferView const buffer(value);
  void const* const data = buffer.view.len == 0 ? "" : buffer.view.buf;
  return lorv_context_put_binary(at.context, at.oid, at.addr, at.ordinal, data,
                                 static_cast<std::uint64_t>(buffer.view.len));
}

Object* Target(Transaction* transaction, BoundColumn const& column, PyObject* value) {
  if (!IsObject(value) ||
      (column.target != nullptr && PyObject_TypeCheck(value, column.target) == 0)) {
    RaiseWrongType(column, value);
  }
  auto* const target = As<Object>(value);
  NeedLive(target);
  if (target->transaction != transaction) {
    Raise("WrongTransaction", Where(column) + " takes an object of its own transaction; " +
                                  ReprOf(value) + " belongs to another one");
  }
  return target;
}

std::uint32_t PutReference(Transaction* transaction, Cell const& at, BoundColumn const& column,
                           PyObject* value) {
  Object const* const target = Target(transaction, column, value);
  if (PutByRules(transaction, at, {target->oid})) return 0;
  return lorv_context_put_reference(at.context, at.oid, at.addr, at.ordinal, target->oid,
                                    target->addr);
}

std::uint32_t Put(Transaction* transaction, Cell const& at, BoundColumn const& column,
                  PyObject* value) {
  std::uint64_t const context = at.context;
  switch (column.kind) {
    case Kind::kString:
      return lorv_context_put_string(context, at.oid, at.addr, at.ordinal,
                                     Units(column, value).get());
    case Kind::kBinary:
      return PutBinary(at, column, value);
    case Kind::kLong:
      return lorv_context_put_long(context, at.oid, at.addr, at.ordinal, ToLong(column, value));
    case Kind::kULong:
    case Kind::kKey:
      return lorv_context_put_ulong(context, at.oid, at.addr, at.ordinal, ToULong(column, value));
    case Kind::kDecimal:
      return lorv_context_put_decimal(context, at.oid, at.addr, at.ordinal,
                                      ToMillionths(column, value));
    case Kind::kFloat:
      return lorv_context_put_float(context, at.oid, at.addr, at.ordinal, ToFloat(column, value));
    case Kind::kDouble:
      return lorv_context_put_double(context, at.oid, at.addr, at.ordinal, ToDouble(column, value));
    case Kind::kReference:
      return PutReference(transaction, at, column, value);
    case Kind::kBool:
      if (!PyBool_Check(value)) RaiseWrongType(column, value);
      return lorv_context_put_ulong(context, at.oid, at.addr, at.ordinal, value == Py_True ? 1 : 0);
    case Kind::kDatetime:
      return lorv_context_put_long(context, at.oid, at.addr, at.ordinal,
                                   ToMicroseconds(column, value));
  }
  return LSCOREDB_WRONG_TYPE;
}

// ---- data

void SetSigned(Datum& out, std::int64_t value) {
  out.tag = Datum::Tag::kSigned;
  out.whole = value;
}
void SetUnsigned(Datum& out, std::uint64_t value) {
  out.tag = Datum::Tag::kUnsigned;
  out.whole = static_cast<std::int64_t>(value);
}
void SetReal(Datum& out, double value) {
  out.tag = Datum::Tag::kReal;
  out.real = value;
}

// What is deleted meanwhile, or hangs on a reference that leads nowhere, has no value.
bool HasValue(std::uint32_t status) {
  if (status == LORV_STATUS_NULL || status == LORV_STATUS_NO_OBJECT ||
      status == LORV_STATUS_UNREACHABLE) {
    return false;
  }
  sagleme::detail::CheckKernel(status);
  return true;
}

template <typename T, typename Set>
Datum DatumOf(Cell const& at, Set&& set) {
  T value{};
  Datum out;
  if (HasValue(sagleme::detail::Get({at.context, at.oid, at.addr, at.ordinal}, value))) {
    set(out, value);
  }
  return out;
}

Datum BytesOf(Cell const& at) {
  LORV_BINARY* record = nullptr;
  Datum out;
  if (!HasValue(lorv_context_get_binary(at.context, at.oid, at.addr, at.ordinal, &record))) {
    return out;
  }
  out.tag = Datum::Tag::kBytes;
  out.bytes = {reinterpret_cast<char const*>(record->bytes), record->length};
  return out;
}

Datum ToWhole(Transaction* transaction, BoundColumn const& column, PyObject* value) {
  Datum made;
  if (column.kind == Kind::kBool) {
    if (!PyBool_Check(value)) RaiseWrongType(column, value);
    SetUnsigned(made, value == Py_True ? 1 : 0);
  } else if (column.kind == Kind::kReference) {
    SetUnsigned(made, Target(transaction, column, value)->oid);
  } else if (column.kind == Kind::kULong || column.kind == Kind::kKey) {
    SetUnsigned(made, ToULong(column, value));
  } else if (column.kind == Kind::kDecimal) {
    SetSigned(made, ToMillionths(column, value));
  } else if (column.kind == Kind::kDatetime) {
    SetSigned(made, ToMicroseconds(column, value));
  } else {
    SetSigned(made, ToLong(column, value));
  }
  return made;
}

}  // namespace

PyObject* ReadValue(Transaction* transaction, Cell const& at, Kind kind) {
  switch (kind) {
    case Kind::kString:
      return ReadFixed<std::u16string_view>(at, FromUnits);
    case Kind::kBinary:
      return ReadBinary(at);
    case Kind::kLong:
      return ReadFixed<std::int64_t>(at, PyLong_FromLongLong);
    case Kind::kULong:
    case Kind::kKey:
      return ReadFixed<std::uint64_t>(at, PyLong_FromUnsignedLongLong);
    case Kind::kDecimal:
      return ReadFixed<sagleme::Decimal>(
          at, [](sagleme::Decimal value) { return FromMillionths(value.millionths); });
    case Kind::kFloat:
      return ReadFixed<float>(
          at, [](float value) { return PyFloat_FromDouble(static_cast<double>(value)); });
    case Kind::kDouble:
      return ReadFixed<double>(at, PyFloat_FromDouble);
    case Kind::kReference:
      return ReadReference(transaction, at);
    case Kind::kBool:
      return ReadFixed<bool>(at, [](bool value) { return PyBool_FromLong(value); });
    case Kind::kDatetime:
      return ReadFixed<std::int64_t>(at, FromMicroseconds);
  }
  Raise("WrongType", "a column of an unknown type");
}

Constant ToConstant(Transaction* transaction, BoundColumn const& column, PyObject* value) {
  Constant made;
  if (value == Py_None) return made;
  switch (column.kind) {
    case Kind::kString:
      made.datum.tag = Datum::Tag::kText;
      made.text = Units(column, value).get();
      break;
    case Kind::kBinary: {
      if (!PyObject_CheckBuffer(value)) RaiseWrongType(column, value);
      BufferView const buffer(value);
      made.datum.tag = Datum::Tag::kBytes;
      made.bytes.assign(static_cast<char const*>(buffer.view.buf),
                        static_cast<std::size_t>(buffer.view.len));
      break;
    }
    case Kind::kFloat:
    case Kind::kDouble:
      made.datum.tag = Datum::Tag::kReal;
      made.datum.real = ToDouble(column, value);
      break;
    default:
      made.datum = ToWhole(transaction, column, value);
  }
  return made;
}

Datum ReadDatum(Cell const& at, Kind kind) {
  switch (kind) {
    case Kind::kString:
      return DatumOf<std::u16string_view>(at, [](auto& out, auto value) {
        out.tag = Datum::Tag::kText;
        out.text = value;
      });
    case Kind::kBinary:
      return BytesOf(at);
    case Kind::kFloat:
      return DatumOf<float>(at, SetReal);
    case Kind::kDouble:
      return DatumOf<double>(at, SetReal);
    case Kind::kLong:
    case Kind::kDatetime:
      return DatumOf<std::int64_t>(at, SetSigned);
    case Kind::kDecimal:
      return DatumOf<sagleme::Decimal>(
          at, [](Datum& out, sagleme::Decimal value) { SetSigned(out, value.millionths); });
    case Kind::kReference:
      return DatumOf<sagleme::ObjectId>(
          at, [](Datum& out, sagleme::ObjectId id) { SetUnsigned(out, id.value); });
    case Kind::kULong:
    case Kind::kKey:
    case Kind::kBool:
      return DatumOf<std::uint64_t>(at, SetUnsigned);
  }
  return {};
}

PyObject* FromBytes(std::string_view bytes, Kind kind) {
  if (kind == Kind::kBinary) {
    return PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
  }
  return FromUnits({reinterpret_cast<char16_t const*>(bytes.data()), bytes.size() / 2});
}

void FreeBytes(std::uint64_t context, std::uint64_t size) {
  constexpr std::uint64_t kMuch = std::uint64_t{1} << 20;
  if (size < kMuch) return;
  void const* none = nullptr;
  std::uint64_t offset = 0;
  static_cast<void>(lscoredb_read_values(context, 0, nullptr, 0, 0, &none, &offset, nullptr));
}

PyObject* FromDatum(Datum const& datum, Kind kind) {
  if (datum.tag == Datum::Tag::kNull) Py_RETURN_NONE;
  switch (kind) {
    case Kind::kString:
      return FromUnits(datum.text);
    case Kind::kBinary:
      return PyBytes_FromStringAndSize(datum.bytes.data(),
                                       static_cast<Py_ssize_t>(datum.bytes.size()));
    case Kind::kLong:
      return PyLong_FromLongLong(datum.whole);
    case Kind::kDatetime:
      return FromMicroseconds(datum.whole);
    case Kind::kDecimal:
      return FromMillionths(datum.whole);
    case Kind::kBool:
      return PyBool_FromLong(datum.whole != 0);
    case Kind::kFloat:
    case Kind::kDouble:
      return PyFloat_FromDouble(datum.real);
    case Kind::kULong:
    case Kind::kKey:
    case Kind::kReference:
      break;
  }
  return PyLong_FromUnsignedLongLong(static_cast<std::uint64_t>(datum.whole));
}

namespace {

template <typename T>
int Sign(T const& a, T const& b) {
  return a < b ? -1 : b < a ? 1 : 0;
}

}  // namespace

int CompareData(Datum const& a, Datum const& b) {
  switch (a.tag) {
    case Datum::Tag::kSigned:
      return Sign(a.whole, b.whole);
    case Datum::Tag::kUnsigned:
      return Sign(static_cast<std::uint64_t>(a.whole), static_cast<std::uint64_t>(b.whole));
    case Datum::Tag::kReal:
      return Sign(a.real, b.real);
    case Datum::Tag::kText:
      return Sign(a.text, b.text);
    case Datum::Tag::kBytes:
      return Sign(a.bytes, b.bytes);
    case Datum::Tag::kNull:
      break;
  }
  return 0;
}

void WriteValue(Transaction* transaction, Cell const& at, BoundColumn const& column,
                PyObject* value) {
  if (value == Py_None) {
    if (!column.field->nullable) {
      Raise("WrongType", Where(column) + " cannot be None: its annotation has no None");
    }
    if (column.kind == Kind::kReference && PutByRules(transaction, at, {})) return;
    sagleme::detail::CheckKernel(lorv_context_put_default(at.context, at.oid, at.addr, at.ordinal));
    return;
  }
  auto const status = Put(transaction, at, column, value);
  if (status == 0) return;
  SetStatusError(status,
                 Where(column) + " = " + ReprOf(value) + ": " + lscoredb_status_text(status));
  throw PythonError{};
}

}  // namespace binding

// Many objects at once, of Python's rows and of Arrow's columns.

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include "arrow_abi.h"
#include "columns.h"

namespace binding {
namespace {

struct Target {
  BoundColumn const* column;
  Constant value;  // of a fallback
};

BoundColumn const& ColumnFor(Binding const& binding, PyObject* field) {
  if (!IsField(field)) Raise("WrongType", "a column is needed, not " + ReprOf(field));
  return binding.columns.at(static_cast<std::size_t>(As<Field>(field)->slot));
}

std::vector<BoundColumn const*> GivenColumns(Binding const& binding, PyObject* fields) {
  Ref const list(Need(PySequence_Fast(fields, "columns are a list")));
  std::vector<BoundColumn const*> columns;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    columns.push_back(&ColumnFor(binding, PySequence_Fast_GET_ITEM(list.get(), i)));
  }
  return columns;
}

// What is written into columns that are not given.
std::vector<Target> Fallbacks(Transaction* transaction, Binding const& binding,
                              std::vector<BoundColumn const*> const& given) {
  std::vector<Target> found;
  for (BoundColumn const& column : binding.columns) {
    bool const is_given =
        std::any_of(given.begin(), given.end(), [&](auto* each) { return each == &column; });
    if (is_given || column.fallback == nullptr) continue;
    found.push_back({&column, ToConstant(transaction, column, column.fallback)});
  }
  return found;
}

// REQUIRES: a text is ended by a zero unit.
std::uint32_t PutDatum(Cell const& at, Kind kind, Datum const& value) {
  std::uint64_t const context = at.context;
  auto const bits = static_cast<std::uint64_t>(value.whole);
  if (value.tag == Datum::Tag::kNull) {
    return lorv_context_put_default(context, at.oid, at.addr, at.ordinal);
  }
  switch (kind) {
    case Kind::kString:
      return lorv_context_put_string(context, at.oid, at.addr, at.ordinal, value.text.data());
    case Kind::kBinary:
      return lorv_context_put_binary(context, at.oid, at.addr, at.ordinal,
                                     value.bytes.empty() ? "" : value.bytes.data(),
                                     value.bytes.size());
    case Kind::kLong:
    case Kind::kDatetime:
      return lorv_context_put_long(context, at.oid, at.addr, at.ordinal, value.whole);
    case Kind::kDecimal:
      return lorv_context_put_decimal(context, at.oid, at.addr, at.ordinal, value.whole);
    case Kind::kFloat:
      return lorv_context_put_float(context, at.oid, at.addr, at.ordinal,
                                    static_cast<float>(value.real));
    case Kind::kDouble:
      return lorv_context_put_double(context, at.oid, at.addr, at.ordinal, value.real);
    case Kind::kReference:
      return lorv_context_put_reference(context, at.oid, at.addr, at.ordinal, bits, 0);
    case Kind::kULong:
    case Kind::kKey:
    case Kind::kBool:
      return lorv_context_put_ulong(context, at.oid, at.addr, at.ordinal, bits);
  }
  return LSCOREDB_WRONG_TYPE;
}

std::uint64_t InsertWithFallbacks(Transaction* transaction, Binding const& binding,
                                  std::vector<Target> const& fallbacks) {
  std::uint64_t const oid = InsertRow(transaction, binding);
  for (Target const& each : fallbacks) {
    Cell const at{transaction->context_id, oid, binding.layout, each.column->ordinal};
    sagleme::detail::CheckKernel(PutDatum(at, each.column->kind, each.value.Get()));
  }
  return oid;
}

// ---- rows of Python

void WriteRow(Transaction* transaction, Binding const& binding, std::uint64_t oid,
              std::vector<BoundColumn const*> const& columns, PyObject* row) {
  std::uint64_t const context = transaction->context_id;
  if (PyDict_Check(row)) {
    if (static_cast<std::size_t>(PyDict_GET_SIZE(row)) != columns.size()) {
      Raise("WrongType", "all rows have the columns of the first one; not so " + ReprOf(row));
    }
    for (BoundColumn const* const column : columns) {
      PyObject* const value = PyDict_GetItemWithError(row, column->field->name);
      if (value == nullptr && PyErr_Occurred()) throw PythonError{};
      if (value == nullptr) Raise("WrongType", "a row lacks " + TextOf(column->field->name));
      WriteValue(transaction, {context, oid, binding.layout, column->ordinal}, *column, value);
    }
    return;
  }
  Ref const values(Need(PySequence_Fast(row, "a row is a tuple, a list or a dictionary")));
  auto const count = static_cast<std::size_t>(PySequence_Fast_GET_SIZE(values.get()));
  if (count != columns.size()) {
    Raise("WrongType", "a row has " + std::to_string(count) + " values for " +
                           std::to_string(columns.size()) + " columns: " + ReprOf(row));
  }
  for (std::size_t i = 0; i < count; ++i) {
    PyObject* const value = PySequence_Fast_GET_ITEM(values.get(), static_cast<Py_ssize_t>(i));
    WriteValue(transaction, {context, oid, binding.layout, columns[i]->ordinal}, *columns[i],
               value);
  }
}

// ---- columns of Arrow

// One column of an Arrow array, as data of a kind.
class ArrowColumn {
 public:
  ArrowColumn(ArrowSchema const& schema, BoundColumn const& column)
      : schema_(&schema), column_(&column) {
    NeedKnownFormat();
  }

  void Use(ArrowArray const& array) {
    array_ = &array;
    if (schema_->dictionary != nullptr) {
      values_ = array.dictionary;
    } else {
      values_ = array_;
    }
  }

  // The text lies in `room`, ended by a zero unit. Fails for a null where there can be none.
  Datum Read(std::int64_t row, std::u16string& room) const {
    if (IsNull(*array_, row)) return Null(row);
    std::int64_t at = row;
    if (schema_->dictionary != nullptr) {
      at = static_cast<std::int64_t>(Whole(*array_, schema_->format[0], row));
      if (IsNull(*values_, at)) return Null(row);
    }
    return ReadValue(at, row, room);
  }

  BoundColumn const& column() const { return *column_; }

 private:
  std::string_view Format() const {
    return schema_->dictionary != nullptr ? schema_->dictionary->format : schema_->format;
  }
  std::string Name() const {
    // No Python here: the name of the column comes with the data.
    return std::string("column ") + (schema_->name == nullptr ? "" : schema_->name);
  }
  [[noreturn]] void Refuse(std::int64_t row, std::string const& why) const {
    throw sagleme::Error(LSCOREDB_INVALID_ARGUMENT,
                         Name() + ", row " + std::to_string(row) + ": " + why);
  }

  static bool IsNull(ArrowArray const& array, std::int64_t row) {
    auto const* const bits = static_cast<std::uint8_t const*>(array.buffers[0]);
    if (array.n_buffers == 0 || bits == nullptr) return false;
    std::int64_t const at = row + array.offset;
    return (bits[at / 8] >> at % 8 & 1) == 0;
  }

  Datum Null(std::int64_t row) const {
    if (!column_->field->nullable) Refuse(row, "null, where the column takes none");
    return {};
  }

  template <typename T>
  static T At(ArrowArray const& array, std::int64_t row) {
    return static_cast<T const*>(array.buffers[1])[row + array.offset];
  }

  // The bits of a whole number, its sign carried on.
  static std::uint64_t Whole(ArrowArray const& array, char format, std::int64_t row) {
    switch (format) {
      case 'c':
        return static_cast<std::uint64_t>(At<std::int8_t>(array, row));
      case 'C':
        return At<std::uint8_t>(array, row);
      case 's':
        return static_cast<std::uint64_t>(At<std::int16_t>(array, row));
      case 'S':
        return At<std::uint16_t>(array, row);
      case 'i':
        return static_cast<std::uint64_t>(At<std::int32_t>(array, row));
      case 'I':
        return At<std::uint32_t>(array, row);
      default:
        return At<std::uint64_t>(array, row);
    }
  }

  static bool IsWhole(std::string_view format) {
    return format.size() == 1 && std::string_view("cCsSiIlL").find(format[0]) != format.npos;
  }
  static bool IsDecimal(std::string_view format) { return format.starts_with("d:"); }
  static bool IsTime(std::string_view format) { return format.starts_with("ts"); }

  bool Fits(std::string_view format) const {
    switch (column_->kind) {
      case Kind::kString:
        return format == "u" || format == "U";
      case Kind::kBinary:
        return format == "z" || format == "Z";
      case Kind::kFloat:
      case Kind::kDouble:
        return format == "f" || format == "g" || IsWhole(format);
      case Kind::kBool:
        return format == "b";
      case Kind::kDecimal:
        return IsDecimal(format) || IsWhole(format);
      case Kind::kDatetime:
        return IsTime(format) && format.size() >= 4;
      default:
        return IsWhole(format);
    }
  }

  void NeedKnownFormat() {
    std::string_view const format = Format();
    if (schema_->dictionary != nullptr && !IsWhole(schema_->format)) {
      throw sagleme::Error(LSCOREDB_WRONG_TYPE, Name() + ": a dictionary needs whole numbers");
    }
    if (!Fits(format) && format != "n") {
      throw sagleme::Error(LSCOREDB_WRONG_TYPE, Name() + ": Arrow's type '" + std::string(format) +
                                                    "' does not go into the column");
    }
    if (!IsDecimal(format)) return;
    // d:precision,scale and perhaps ,bits
    std::size_t const comma = format.find(',');
    std::string_view const rest = comma == format.npos ? "" : format.substr(comma + 1);
    auto const read = std::from_chars(rest.data(), rest.data() + rest.size(), scale_);
    bool const wide = read.ptr != rest.data() + rest.size();
    if (read.ec != std::errc{} || wide || scale_ < 0 || scale_ > 18) {
      throw sagleme::Error(LSCOREDB_WRONG_TYPE,
                           Name() + ": a decimal of 128 bits with 0 to 18 places is needed");
    }
  }

  Datum ReadValue(std::int64_t at, std::int64_t row, std::u16string& room) const {
    std::string_view const format = Format();
    Datum out;
    if (format == "n") return Null(row);
    switch (column_->kind) {
      case Kind::kString:
        room = Text(Bytes(at), row);
        out.tag = Datum::Tag::kText;
        out.text = room;
        return out;
      case Kind::kBinary:
        out.tag = Datum::Tag::kBytes;
        out.bytes = Bytes(at);
        return out;
      case Kind::kFloat:
      case Kind::kDouble:
        out.tag = Datum::Tag::kReal;
        out.real = Real(at);
        return out;
      default:
        out.tag = Datum::Tag::kSigned;
        out.whole = WholeFor(at, row);
        return out;
    }
  }

  std::string_view Bytes(std::int64_t at) const {
    auto const* const data = static_cast<char const*>(values_->buffers[2]);
    char const format = Format()[0];
    std::int64_t begin = 0;
    std::int64_t end = 0;
    if (format == 'u' || format == 'z') {
      auto const* const offsets = static_cast<std::int32_t const*>(values_->buffers[1]);
      begin = offsets[at + values_->offset];
      end = offsets[at + values_->offset + 1];
    } else {
      auto const* const offsets = static_cast<std::int64_t const*>(values_->buffers[1]);
      begin = offsets[at + values_->offset];
      end = offsets[at + values_->offset + 1];
    }
    if (begin == end) return {};
    return {data + begin, static_cast<std::size_t>(end - begin)};
  }

  std::u16string Text(std::string_view bytes, std::int64_t row) const {
    try {
      std::u16string text = sagleme::ToUtf16(bytes);
      if (text.find(u'\0') != text.npos) Refuse(row, "a text with U+0000");
      return text;
    } catch (sagleme::BadUtf8 const& error) {
      Refuse(row, error.what());
    }
  }

  double Real(std::int64_t at) const {
    char const format = Format()[0];
    if (format == 'f') return static_cast<double>(At<float>(*values_, at));
    if (format == 'g') return At<double>(*values_, at);
    std::uint64_t const bits = Whole(*values_, format, at);
    return format == 'L' ? static_cast<double>(bits)
                         : static_cast<double>(static_cast<std::int64_t>(bits));
  }

  std::int64_t WholeFor(std::int64_t at, std::int64_t row) const {
    std::string_view const format = Format();
    if (format == "b") {
      auto const* const bits = static_cast<std::uint8_t const*>(values_->buffers[1]);
      std::int64_t const bit = at + values_->offset;
      return bits[bit / 8] >> bit % 8 & 1;
    }
    if (IsDecimal(format)) return Millionths(at, row);
    auto const value =
        static_cast<std::int64_t>(Whole(*values_, IsTime(format) ? 'l' : format[0], at));
    if (IsTime(format)) return Microseconds(value, row);
    if (column_->kind == Kind::kDecimal) return Scaled(value, 1'000'000, row);
    bool const stays_signed = column_->kind == Kind::kLong;
    if (value < 0 && stays_signed == (format == "L")) {
      Refuse(row, stays_signed ? "above 2**63 - 1" : "a negative number");
    }
    return value;
  }

  std::int64_t Scaled(std::int64_t value, std::int64_t factor, std::int64_t row) const {
    std::int64_t result = 0;
    if (__builtin_mul_overflow(value, factor, &result)) Refuse(row, "a number too large");
    return result;
  }

  std::int64_t Divided(std::int64_t value, std::int64_t by, std::int64_t row) const {
    if (value % by != 0) Refuse(row, "more places than the column has");
    return value / by;
  }

  std::int64_t Microseconds(std::int64_t value, std::int64_t row) const {
    switch (Format()[2]) {
      case 's':
        return Scaled(value, 1'000'000, row);
      case 'm':
        return Scaled(value, 1000, row);
      case 'n':
        return Divided(value, 1000, row);
      default:
        return value;
    }
  }

  std::int64_t Millionths(std::int64_t at, std::int64_t row) const {
    auto const* const pairs = static_cast<std::uint64_t const*>(values_->buffers[1]);
    std::uint64_t const low = pairs[2 * (at + values_->offset)];
    std::uint64_t const high = pairs[2 * (at + values_->offset) + 1];
    auto const value = static_cast<std::int64_t>(low);
    if (high != (value < 0 ? ~std::uint64_t{0} : 0)) Refuse(row, "a number too large");
    std::int64_t factor = 1;
    for (int i = scale_; i < 6; ++i) factor *= 10;
    std::int64_t divisor = 1;
    for (int i = 6; i < scale_; ++i) divisor *= 10;
    return Scaled(Divided(value, divisor, row), factor, row);
  }

  ArrowSchema const* schema_;
  BoundColumn const* column_;
  ArrowArray const* array_ = nullptr;
  ArrowArray const* values_ = nullptr;
  int scale_ = 0;
};

template <typename Record>
struct Released {
  ~Released() {
    if (record.release != nullptr) record.release(&record);
  }
  Record record{};
};

void NeedStream(ArrowArrayStream* stream, int status) {
  if (status == 0) return;
  char const* const text = stream->get_last_error(stream);
  Raise("BadValue", std::string("the Arrow stream failed: ") + (text == nullptr ? "" : text));
}

std::vector<ArrowColumn> ArrowColumns(Binding const& binding, ArrowSchema const& schema) {
  std::vector<ArrowColumn> columns;
  if (std::string_view(schema.format) != "+s") {
    Raise("WrongType", "an Arrow stream of records is needed");
  }
  for (std::int64_t i = 0; i < schema.n_children; ++i) {
    ArrowSchema const& child = *schema.children[i];
    Ref const name(Need(PyUnicode_FromString(child.name)));
    PyObject* const field = _PyType_Lookup(binding.type, name.get());
    if (field == nullptr || !IsField(field)) {
      Raise("WrongType", std::string(NameOf(binding.type)) + " has no column " + child.name);
    }
    columns.emplace_back(child, ColumnFor(binding, field));
  }
  return columns;
}

// References are given by identity and have to lead to objects of their target.
void NeedReference(Transaction const* transaction, sagleme::Table const& table,
                   BoundColumn const& column, Datum const& value, std::int64_t row) {
  if (column.kind != Kind::kReference || value.tag == Datum::Tag::kNull) return;
  try {
    sagleme::RequireTarget(*transaction->kernel, table, table.columns[column.ordinal],
                           {static_cast<std::uint64_t>(value.whole)});
  } catch (sagleme::Error const& error) {
    throw sagleme::Error(LSCOREDB_INVALID_ARGUMENT,
                         "row " + std::to_string(row) + ": " + error.what());
  }
}

void InsertArray(Transaction* transaction, Binding const& binding, ArrowArray const& array,
                 std::vector<ArrowColumn>& columns, std::vector<Target> const& fallbacks) {
  std::u16string room;
  sagleme::TablePtr const table = transaction->kernel->BySetspec(binding.setspec);
  for (std::size_t i = 0; i < columns.size(); ++i) columns[i].Use(*array.children[i]);
  for (std::int64_t row = 0; row < array.length; ++row) {
    std::uint64_t const oid = InsertWithFallbacks(transaction, binding, fallbacks);
    for (ArrowColumn const& each : columns) {
      BoundColumn const& column = each.column();
      Datum const value = each.Read(row + array.offset, room);
      NeedReference(transaction, *table, column, value, row);
      Cell const at{transaction->context_id, oid, binding.layout, column.ordinal};
      bool const refers = column.kind == Kind::kReference && value.tag != Datum::Tag::kNull;
      if (refers && PutByRules(transaction, at, {static_cast<std::uint64_t>(value.whole)})) {
        continue;
      }
      sagleme::detail::CheckKernel(PutDatum(at, column.kind, value));
    }
    EnterIndexes(transaction, binding, oid);
  }
}

void ReportProgress(PyObject* progress, std::int64_t rows) {
  if (progress == Py_None) return;
  Ref const done(PyObject_CallFunction(progress, "L", static_cast<long long>(rows)));
  if (!done) throw PythonError{};
}

}  // namespace

PyObject* InsertArrow(PyObject*, PyObject* args) {
  PyObject* transaction_object = nullptr;
  PyObject* type = nullptr;
  PyObject* capsule = nullptr;
  PyObject* progress = nullptr;
  if (!PyArg_ParseTuple(args, "O!OOO", &g_transaction_type, &transaction_object, &type, &capsule,
                        &progress)) {
    return nullptr;
  }
  return Guard([&] {
    auto* const transaction = As<Transaction>(transaction_object);
    NeedView(transaction);
    Binding const& binding = *BindingOf(transaction, type);
    auto* const stream =
        static_cast<ArrowArrayStream*>(PyCapsule_GetPointer(capsule, "arrow_array_stream"));
    if (stream == nullptr) throw PythonError{};
    Released<ArrowSchema> schema;
    NeedStream(stream, stream->get_schema(stream, &schema.record));
    std::vector<ArrowColumn> columns = ArrowColumns(binding, schema.record);
    std::vector<BoundColumn const*> given;
    for (ArrowColumn const& each : columns) given.push_back(&each.column());
    std::vector<Target> const fallbacks = Fallbacks(transaction, binding, given);
    std::int64_t count = 0;
    for (;;) {
      Released<ArrowArray> array;
      NeedStream(stream, stream->get_next(stream, &array.record));
      if (array.record.release == nullptr) break;
      ++transaction->stamp;
      Away(transaction,
           [&] { InsertArray(transaction, binding, array.record, columns, fallbacks); });
      count += array.record.length;
      ReportProgress(progress, array.record.length);
    }
    return PyLong_FromLongLong(count);
  });
}

PyObject* InsertRows(PyObject*, PyObject* args) {
  PyObject* transaction_object = nullptr;
  PyObject* type = nullptr;
  PyObject* fields = nullptr;
  PyObject* rows = nullptr;
  if (!PyArg_ParseTuple(args, "O!OOO", &g_transaction_type, &transaction_object, &type, &fields,
                        &rows)) {
    return nullptr;
  }
  return Guard([&] {
    auto* const transaction = As<Transaction>(transaction_object);
    NeedView(transaction);
    Binding const& binding = *BindingOf(transaction, type);
    auto const columns = GivenColumns(binding, fields);
    auto const fallbacks = Fallbacks(transaction, binding, columns);
    Ref const iterator(Need(PyObject_GetIter(rows)));
    std::size_t count = 0;
    while (Ref row = Ref(PyIter_Next(iterator.get()))) {
      NeedOpen(transaction);  // the iterator is anybody's code
      ++transaction->stamp;
      std::uint64_t const oid = InsertWithFallbacks(transaction, binding, fallbacks);
      try {
        WriteRow(transaction, binding, oid, columns, row.get());
        EnterIndexes(transaction, binding, oid);
      } catch (...) {
        static_cast<void>(lorv_context_delete(transaction->context_id, oid, binding.layout));
        throw;
      }
      ++count;
    }
    if (PyErr_Occurred()) throw PythonError{};
    return PyLong_FromSize_t(count);
  });
}

}  // namespace binding

#include "columns.h"

#include <lscoredb/bulk.h>

#include <bit>

namespace binding {

namespace {

void AddFixed(ColumnData& column, Datum const& value) {
  column.words.push_back(value.tag == Datum::Tag::kReal ? std::bit_cast<std::uint64_t>(value.real)
                                                        : static_cast<std::uint64_t>(value.whole));
}

void AddVariable(ColumnData& column, Datum const& value) {
  if (column.kind == Kind::kBinary) {
    column.bytes.append(value.bytes);
  } else {
    char16_t all = 0;
    for (char16_t const unit : value.text) all |= unit;
    if (all < 0x80) {
      for (char16_t const unit : value.text) column.bytes.push_back(static_cast<char>(unit));
    } else {
      column.well_formed &= sagleme::IsWellFormed(value.text);
      column.bytes.append(sagleme::ToUtf8(value.text));
    }
  }
  column.offsets.push_back(static_cast<std::int64_t>(column.bytes.size()));
}

}  // namespace

void ColumnData::Add(Datum const& value) {
  bool const null = value.tag == Datum::Tag::kNull;
  valid.push_back(null ? 0 : 1);
  nulls += null ? 1 : 0;
  if (variable()) {
    AddVariable(*this, value);
  } else {
    AddFixed(*this, value);
  }
}

void ColumnData::AddWord(std::uint64_t bits, bool null) {
  valid.push_back(null ? 0 : 1);
  nulls += null ? 1 : 0;
  bool const narrow = kind == Kind::kFloat && !null;
  auto const single = static_cast<std::uint32_t>(bits);
  words.push_back(
      narrow ? std::bit_cast<std::uint64_t>(static_cast<double>(std::bit_cast<float>(single)))
             : bits);
}

namespace {

// ---- memory handed to NumPy

struct Buffer {
  PyObject_HEAD PyObject* owner;
  void* data;
  Py_ssize_t size;
};

int GetBuffer(PyObject* object, Py_buffer* view, int flags) {
  auto const* const self = As<Buffer>(object);
  return PyBuffer_FillInfo(view, object, self->data, self->size, 0, flags);
}

PyBufferProcs g_buffer_procs = {GetBuffer, nullptr};

void BufferDealloc(PyObject* object) {
  Py_XDECREF(As<Buffer>(object)->owner);
  Py_TYPE(object)->tp_free(object);
}

template <typename T>
PyObject* BufferOver(PyObject* owner, std::vector<T>& data) {
  auto* const made = As<Buffer>(g_buffer_type.tp_alloc(&g_buffer_type, 0));
  if (made == nullptr) return nullptr;
  made->owner = Py_NewRef(owner);
  made->data = data.data();
  made->size = static_cast<Py_ssize_t>(data.size() * sizeof(T));
  return Plain(made);
}

ColumnData* ColumnAt(PyObject* object, PyObject* position) {
  auto& data = *As<Columns>(object)->data;
  Py_ssize_t const at = PyLong_AsSsize_t(position);
  if (at < 0 || static_cast<std::size_t>(at) >= data.size()) {
    if (!PyErr_Occurred()) PyErr_SetString(PyExc_IndexError, "no such column");
    return nullptr;
  }
  return &data[static_cast<std::size_t>(at)];
}

// The words of a column of a fixed type: integers, or doubles.
PyObject* Words(PyObject* object, PyObject* position) {
  ColumnData* const column = ColumnAt(object, position);
  return column == nullptr ? nullptr : BufferOver(object, column->words);
}

PyObject* Valid(PyObject* object, PyObject* position) {
  ColumnData* const column = ColumnAt(object, position);
  return column == nullptr ? nullptr : BufferOver(object, column->valid);
}

PyObject* Nulls(PyObject* object, PyObject* position) {
  ColumnData const* const column = ColumnAt(object, position);
  return column == nullptr ? nullptr : PyLong_FromLongLong(column->nulls);
}

PyObject* ValueAt(ColumnData const& column, std::size_t row) {
  if (column.valid[row] == 0) Py_RETURN_NONE;
  if (!column.variable()) {
    Datum datum;
    datum.tag = Datum::Tag::kSigned;
    datum.whole = static_cast<std::int64_t>(column.words[row]);
    datum.real = std::bit_cast<double>(column.words[row]);
    return FromDatum(datum, column.kind);
  }
  char const* const begin = column.bytes.data() + column.offsets[row];
  auto const size = static_cast<Py_ssize_t>(column.offsets[row + 1] - column.offsets[row]);
  if (column.kind == Kind::kBinary) return PyBytes_FromStringAndSize(begin, size);
  return PyUnicode_DecodeUTF8(begin, size, "surrogatepass");
}

// A column as a list of Python values.
PyObject* ListOf(PyObject* object, PyObject* position) {
  ColumnData const* const column = ColumnAt(object, position);
  if (column == nullptr) return nullptr;
  return Guard([&] {
    Ref list(Need(PyList_New(static_cast<Py_ssize_t>(column->valid.size()))));
    for (std::size_t row = 0; row < column->valid.size(); ++row) {
      PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(row), Need(ValueAt(*column, row)));
    }
    return list.release();
  });
}

PyObject* Names(PyObject* object, void*) {
  auto const& data = *As<Columns>(object)->data;
  Ref list(PyList_New(0));
  for (ColumnData const& column : data) {
    Ref const entry(Py_BuildValue("(si)", column.name.c_str(), static_cast<int>(column.kind)));
    if (!list || !entry || PyList_Append(list.get(), entry.get()) != 0) return nullptr;
  }
  return list.release();
}

Py_ssize_t Length(PyObject* object) { return static_cast<Py_ssize_t>(As<Columns>(object)->length); }

void ColumnsDealloc(PyObject* object) {
  delete As<Columns>(object)->data;
  Py_TYPE(object)->tp_free(object);
}

PyMethodDef g_methods[] = {
    {"words", Words, METH_O, nullptr},
    {"valid", Valid, METH_O, nullptr},
    {"nulls", Nulls, METH_O, nullptr},
    {"list", ListOf, METH_O, "A column as a list of Python values."},
    {"__arrow_c_stream__", ExportStream, METH_VARARGS, "The columns for Arrow."},
    {"__arrow_c_schema__", ExportSchema, METH_NOARGS, "Their types for Arrow."},
    {nullptr, nullptr, 0, nullptr}};

PyGetSetDef g_members[] = {{"names", Names, nullptr, "Names and kinds.", nullptr},
                           {nullptr, nullptr, nullptr, nullptr, nullptr}};

PySequenceMethods g_sequence = {Length,  nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr, nullptr, nullptr};

PyTypeObject MakeColumnsType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Columns";
  type.tp_basicsize = sizeof(Columns);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
  type.tp_dealloc = ColumnsDealloc;
  type.tp_methods = g_methods;
  type.tp_getset = g_members;
  type.tp_as_sequence = &g_sequence;
  return type;
}

PyTypeObject MakeBufferType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Buffer";
  type.tp_basicsize = sizeof(Buffer);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
  type.tp_dealloc = BufferDealloc;
  type.tp_as_buffer = &g_buffer_procs;
  return type;
}

constexpr std::size_t kRowsTogether = 1024;

// Rows of a scan, and what one column of them has.
struct RowsTogether {
  std::vector<Row> rows;
  std::vector<std::uint64_t> oids;
  std::vector<std::uint64_t> words = std::vector<std::uint64_t>(kRowsTogether);
  std::vector<std::uint8_t> states = std::vector<std::uint8_t>(kRowsTogether);

  void Read(std::uint64_t context, Path const& path, ColumnData& column) {
    if (!path.reads_together()) {
      for (Row const row : rows) column.Add(path.Read(context, row));
      return;
    }
    path.ReadTogether(context, oids, words.data(), states.data());
    for (std::size_t i = 0; i < oids.size(); ++i) {
      column.AddWord(words[i], states[i] != LSCOREDB_HAS_VALUE);
    }
  }
};

void Fill(ScanBody& body, std::vector<ColumnData>& data, std::int64_t& length) {
  std::uint64_t const context = body.transaction->context_id;
  RowsTogether together;
  Row row{};
  while (!body.at_end && body.left > 0) {
    sagleme::ReadScope const scope(context);
    together.rows.clear();
    together.oids.clear();
    while (together.rows.size() < kRowsTogether && body.Step(&row)) {
      together.rows.push_back(row);
      together.oids.push_back(row.oid);
    }
    length += static_cast<std::int64_t>(together.rows.size());
    for (std::size_t at = 0; at < data.size(); ++at) {
      together.Read(context, body.outputs[at], data[at]);
    }
  }
}

std::vector<ColumnData> EmptyColumns(ScanBody const& body, PyObject* names) {
  Ref const list(Need(PySequence_Fast(names, "names are a list")));
  std::vector<ColumnData> data(body.outputs.size());
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i].name = TextOf(PySequence_Fast_GET_ITEM(list.get(), static_cast<Py_ssize_t>(i)));
    data[i].kind = body.outputs[i].kind();
    if (data[i].variable()) data[i].offsets.push_back(0);
  }
  return data;
}

}  // namespace

PyTypeObject g_columns_type = MakeColumnsType();
PyTypeObject g_buffer_type = MakeBufferType();

PyObject* Collect(PyObject*, PyObject* args) {
  PyObject* scan = nullptr;
  PyObject* names = nullptr;
  if (!PyArg_ParseTuple(args, "O!O", &g_scan_type, &scan, &names)) return nullptr;
  return Guard([&] {
    ScanBody& body = BodyOf(scan);
    auto data = std::make_unique<std::vector<ColumnData>>(EmptyColumns(body, names));
    std::int64_t length = 0;
    Away(body.transaction, [&] { Fill(body, *data, length); });
    body.Stop();
    auto* const made = As<Columns>(Need(g_columns_type.tp_alloc(&g_columns_type, 0)));
    made->data = data.release();
    made->length = length;
    return Plain(made);
  });
}

}  // namespace binding

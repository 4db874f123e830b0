// Columns for Arrow consumers: numbers, texts and binaries in place, the rest copied to Arrow's
// form.

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <deque>

#include "arrow_abi.h"
#include "columns.h"

namespace binding {
namespace {

char const* FormatOf(Kind kind) {
  switch (kind) {
    case Kind::kString:
      return "U";
    case Kind::kBinary:
      return "Z";
    case Kind::kLong:
      return "l";
    case Kind::kULong:
    case Kind::kKey:
    case Kind::kReference:
      return "L";
    case Kind::kDecimal:
      return "d:19,6";
    case Kind::kFloat:
    case Kind::kDouble:
      return "g";
    case Kind::kBool:
      return "b";
    case Kind::kDatetime:
      return "tsu:UTC";
  }
  return "n";
}

// Owns what a schema points to.
struct SchemaOwner {
  std::vector<ArrowSchema> children;
  std::vector<ArrowSchema*> pointers;
  std::deque<std::string> names;
};

void ReleaseChild(ArrowSchema* schema) { schema->release = nullptr; }

void ReleaseSchema(ArrowSchema* schema) {
  delete static_cast<SchemaOwner*>(schema->private_data);
  schema->release = nullptr;
}

void FillSchema(std::vector<ColumnData> const& columns, ArrowSchema* out) {
  auto owner = std::make_unique<SchemaOwner>();
  owner->children.resize(columns.size());
  for (std::size_t i = 0; i < columns.size(); ++i) {
    owner->names.push_back(columns[i].name);
    owner->children[i] = {FormatOf(columns[i].kind),
                          owner->names.back().c_str(),
                          nullptr,
                          kArrowNullable,
                          0,
                          nullptr,
                          nullptr,
                          ReleaseChild,
                          nullptr};
    owner->pointers.push_back(&owner->children[i]);
  }
  auto const count = static_cast<std::int64_t>(columns.size());
  *out = {"+s", "", nullptr, 0, count, owner->pointers.data(), nullptr, ReleaseSchema, owner.get()};
  static_cast<void>(owner.release());
}

// Owns what an array points to, and keeps the Python object whose memory it shows.
struct ArrayOwner {
  PyObject* keeper = nullptr;
  std::vector<ArrowArray> children;
  std::vector<ArrowArray*> pointers;
  std::deque<std::array<void const*, 3>> buffers;
  std::deque<std::vector<std::uint8_t>> made;
};

void ReleaseChildArray(ArrowArray* array) { array->release = nullptr; }

// A consumer may release on any thread.
void GiveBack(PyObject* keeper) {
  PyGILState_STATE const state = PyGILState_Ensure();
  Py_DECREF(keeper);
  PyGILState_Release(state);
}

void ReleaseArray(ArrowArray* array) {
  auto* const owner = static_cast<ArrayOwner*>(array->private_data);
  GiveBack(owner->keeper);
  delete owner;
  array->release = nullptr;
}

std::vector<std::uint8_t> Packed(std::vector<std::uint8_t> const& flags) {
  std::vector<std::uint8_t> bits((flags.size() + 7) / 8);
  for (std::size_t i = 0; i < flags.size(); ++i) {
    if (flags[i] != 0) bits[i / 8] = static_cast<std::uint8_t>(bits[i / 8] | 1u << i % 8);
  }
  return bits;
}

std::vector<std::uint8_t> PackedWords(std::vector<std::uint64_t> const& words) {
  return Packed(std::vector<std::uint8_t>(words.begin(), words.end()));
}

// Whole numbers of 128 bits.
std::vector<std::uint8_t> Widened(std::vector<std::uint64_t> const& words) {
  std::vector<std::uint8_t> wide(16 * words.size());
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::uint64_t const pair[2] = {words[i], words[i] >> 63 != 0 ? ~std::uint64_t{0} : 0};
    std::memcpy(wide.data() + 16 * i, pair, sizeof pair);
  }
  return wide;
}

void const* Keep(ArrayOwner& owner, std::vector<std::uint8_t> bytes) {
  return owner.made.emplace_back(std::move(bytes)).data();
}

void const* ValuesOf(ArrayOwner& owner, ColumnData const& column) {
  if (column.kind == Kind::kBool) return Keep(owner, PackedWords(column.words));
  if (column.kind == Kind::kDecimal) return Keep(owner, Widened(column.words));
  return column.words.data();
}

ArrowArray ChildOf(ArrayOwner& owner, ColumnData const& column) {
  auto& buffers = owner.buffers.emplace_back();
  buffers[0] = column.nulls == 0 ? nullptr : Keep(owner, Packed(column.valid));
  if (column.variable()) {
    buffers[1] = column.offsets.data();
    buffers[2] = column.bytes.data();
  } else {
    buffers[1] = ValuesOf(owner, column);
  }
  auto const length = static_cast<std::int64_t>(column.valid.size());
  return {length,         column.nulls, 0,       column.variable() ? 3 : 2, 0,
          buffers.data(), nullptr,      nullptr, ReleaseChildArray,         nullptr};
}

void FillArray(PyObject* keeper, ArrowArray* out) {
  auto const* const columns = As<Columns>(keeper);
  auto owner = std::make_unique<ArrayOwner>();
  owner->children.reserve(columns->data->size());
  for (ColumnData const& column : *columns->data) {
    owner->children.push_back(ChildOf(*owner, column));
    owner->pointers.push_back(&owner->children.back());
  }
  owner->keeper = Py_NewRef(keeper);
  auto& none = owner->buffers.emplace_back();
  auto const count = static_cast<std::int64_t>(owner->children.size());
  *out = {columns->length, 0,          0, 1, count, none.data(), owner->pointers.data(), nullptr,
          ReleaseArray,    owner.get()};
  static_cast<void>(owner.release());
}

// ---- the stream: one array

struct StreamOwner {
  PyObject* keeper;
  bool delivered;
};

template <typename Work>
int Locked(Work&& work) {
  PyGILState_STATE const state = PyGILState_Ensure();
  int status = 0;
  try {
    work();
  } catch (std::bad_alloc const&) {
    status = ENOMEM;
  }
  PyGILState_Release(state);
  return status;
}

int GetSchema(ArrowArrayStream* stream, ArrowSchema* out) {
  auto const* const owner = static_cast<StreamOwner*>(stream->private_data);
  return Locked([&] { FillSchema(*As<Columns>(owner->keeper)->data, out); });
}

int GetNext(ArrowArrayStream* stream, ArrowArray* out) {
  auto* const owner = static_cast<StreamOwner*>(stream->private_data);
  if (std::exchange(owner->delivered, true)) {
    *out = {};  // the end
    return 0;
  }
  return Locked([&] { FillArray(owner->keeper, out); });
}

char const* LastError(ArrowArrayStream*) { return nullptr; }

void ReleaseStream(ArrowArrayStream* stream) {
  auto* const owner = static_cast<StreamOwner*>(stream->private_data);
  GiveBack(owner->keeper);
  delete owner;
  stream->release = nullptr;
}

constexpr char kStreamCapsule[] = "arrow_array_stream";
constexpr char kSchemaCapsule[] = "arrow_schema";

// A stream that nobody took out of the capsule is released with it.
template <typename Record>
void DropCapsule(PyObject* capsule) {
  auto* const record =
      static_cast<Record*>(PyCapsule_GetPointer(capsule, PyCapsule_GetName(capsule)));
  if (record->release != nullptr) record->release(record);
  delete record;
}

void NeedWellFormed(std::vector<ColumnData> const& columns) {
  for (ColumnData const& column : columns) {
    if (column.well_formed) continue;
    Raise("BadValue", "column " + column.name +
                          " holds a text with a lone surrogate, which Arrow's UTF-8 cannot hold");
  }
}

}  // namespace

PyObject* ExportStream(PyObject* columns, PyObject*) {
  return Guard([&] {
    NeedWellFormed(*As<Columns>(columns)->data);
    auto stream = std::make_unique<ArrowArrayStream>();
    auto owner = std::make_unique<StreamOwner>(StreamOwner{columns, false});
    *stream = {GetSchema, GetNext, LastError, ReleaseStream, owner.get()};
    PyObject* const capsule =
        Need(PyCapsule_New(stream.get(), kStreamCapsule, DropCapsule<ArrowArrayStream>));
    Py_INCREF(columns);
    static_cast<void>(owner.release());
    static_cast<void>(stream.release());
    return capsule;
  });
}

PyObject* ExportSchema(PyObject* columns, PyObject*) {
  return Guard([&] {
    auto schema = std::make_unique<ArrowSchema>();
    FillSchema(*As<Columns>(columns)->data, schema.get());
    PyObject* const capsule =
        Need(PyCapsule_New(schema.get(), kSchemaCapsule, DropCapsule<ArrowSchema>));
    static_cast<void>(schema.release());
    return capsule;
  });
}

}  // namespace binding

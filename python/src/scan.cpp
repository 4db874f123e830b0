#include "scan.h"

#include <lscoredb/bulk.h>

#include <algorithm>
#include <optional>

#include "tuples.h"

namespace binding {

namespace {

constexpr std::size_t kLargestBatch = 1024;
constexpr std::size_t kFirstPage = 2;  // rows that are read ahead
constexpr std::size_t kLargestPage = 256;

// ---- keys

// Writes a key into room that doubles until it fits.
template <typename Write>
std::vector<std::uint64_t> KeyWords(Write&& write) {
  constexpr std::uint32_t kKeyTooLong = SAGLEME_NAME_TOO_LONG;
  for (std::size_t count = 32;; count *= 2) {
    std::vector<std::uint64_t> words(count);
    try {
      metalayer::Key key(
          db_util::KeyBuf(reinterpret_cast<unsigned char*>(words.data()), 8 * count));
      write(key);
      key.UpdateHeader();
      return words;
    } catch (db_util::db_exception const& failure) {
      if (failure.code() != kKeyTooLong) throw;
    }
  }
}

void WriteField(metalayer::Key& key, Constant const& value, bool upper) {
  switch (value.datum.tag) {
    case Datum::Tag::kNull:
      key.Null();
      return;
    case Datum::Tag::kSigned:
      key.Long(value.datum.whole);
      return;
    case Datum::Tag::kUnsigned:
      key.ULong(static_cast<std::uint64_t>(value.datum.whole));
      return;
    case Datum::Tag::kReal:
      key.Double(value.datum.real);
      return;
    case Datum::Tag::kText:
      static_cast<void>(upper ? key.TextUpperBound(value.text.c_str())
                              : key.Text(value.text.c_str()));
      return;
    case Datum::Tag::kBytes:
      break;
  }
  Raise("WrongType", "binaries are not in indexes");
}

// [(class, field, value)], the last text an upper bound of all that begin so, when asked for.
std::vector<std::uint64_t> BoundOf(Transaction* transaction, PyObject* fields, bool upper) {
  std::vector<Constant> values;
  Ref const list(Need(PySequence_Fast(fields, "a bound is a list")));
  Py_ssize_t const count = PySequence_Fast_GET_SIZE(list.get());
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyObject* type = nullptr;
    PyObject* field = nullptr;
    PyObject* value = nullptr;
    if (!PyArg_ParseTuple(PySequence_Fast_GET_ITEM(list.get(), i), "OO!O", &type, &g_field_type,
                          &field, &value)) {
      throw PythonError{};
    }
    Binding const& binding = *BindingOf(transaction, type);
    auto const& column = binding.columns.at(static_cast<std::size_t>(As<Field>(field)->slot));
    values.push_back(ToConstant(transaction, column, value));
  }
  return KeyWords([&](metalayer::Key& key) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      WriteField(key, values[i], upper && i + 1 == values.size());
    }
  });
}

// (index, reverse, first, last, prefix)
Source IndexSource(Transaction* transaction, PyObject* form) {
  unsigned long long index = 0;
  int reverse = 0;
  int prefix = 0;
  PyObject* first = nullptr;
  PyObject* last = nullptr;
  if (!PyArg_ParseTuple(form, "KpOOp", &index, &reverse, &first, &last, &prefix)) {
    throw PythonError{};
  }
  return {index, reverse != 0, BoundOf(transaction, first, false),
          BoundOf(transaction, last, prefix != 0)};
}

Source SetSource(Transaction const& transaction, Binding const& binding, bool only) {
  char16_t const* const set = binding.setspec.c_str();
  return {sagleme::detail::IndexBySetspec(transaction.context_id), false,
          KeyWords([&](metalayer::Key& key) {
            static_cast<void>(only ? key.Text(set) : key.SetspecLowerBound(set));
          }),
          KeyWords([&](metalayer::Key& key) {
            static_cast<void>(only ? key.Text(set) : key.SetspecUpperBound(set));
          })};
}

std::vector<Path> PathsOf(Transaction* transaction, PyObject* forms) {
  std::vector<Path> paths;
  Ref const list(Need(PySequence_Fast(forms, "paths are a list")));
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    paths.emplace_back(transaction, PySequence_Fast_GET_ITEM(list.get(), i));
  }
  return paths;
}

}  // namespace

// ---- stepping

void ScanBody::OpenSource(Source const& source) {
  auto const& begin = source.reverse ? source.last : source.first;
  auto const& end = source.reverse ? source.first : source.last;
  sagleme::detail::CheckKernel(
      lorv_context_create_iterator(transaction->context_id, source.index,
                                   source.reverse ? LORV_ITERATOR_REVERSE : LORV_ITERATOR_FORWARD,
                                   begin.data(), end.data(), &iterator));
  page.clear();
  page_size = page_at = 0;
}

// After a write or a rollback a row that was read ahead may be gone, or under another layout, and
// the scan may have ended. Returns whether the row is there.
bool ScanBody::LookAgain(Row* row) {
  std::uint32_t none = 0;
  sagleme::detail::CheckKernel(lscoredb_iterator_next_many(iterator, 0, 0, nullptr, &none));
  auto const status = lorv_context_lookup(transaction->context_id, row->oid, &row->addr);
  bool const gone = status == LORV_STATUS_NO_OBJECT || status == LORV_STATUS_UNREACHABLE;
  if (!gone) sagleme::detail::CheckKernel(status);
  return !gone;
}

// Pages grow, so that a look-up reads no row too many.
bool ScanBody::NextInPage(Row* out) {
  for (;;) {
    if (page_at == page_size) {
      bool const was_last = page_size < page.size();
      if (was_last) return false;
      page.resize(std::clamp<std::size_t>(4 * page.size(), kFirstPage, kLargestPage));
      page_size = page_at = 0;
      sagleme::detail::CheckKernel(lscoredb_iterator_next_many(
          iterator, LSCOREDB_FETCH_ROWS, static_cast<std::uint32_t>(page.size()), page.data(),
          &page_size));
      page_stamp = transaction->stamp;
      if (page_size == 0) return false;
    }
    LORV_REFERENCE const& found = page[page_at++];
    *out = {found.oid, db_util::Fold(found).addr};
    if (page_stamp == transaction->stamp || LookAgain(out)) return true;
  }
}

bool ScanBody::NextInSources(Row* out) {
  for (;;) {
    if (iterator == 0) {
      if (next_source == sources.size()) return false;
      OpenSource(sources[next_source++]);
    }
    if (NextInPage(out)) return true;
    lorv_iterator_free(std::exchange(iterator, 0));
  }
}

bool ScanBody::AcceptsBySetspec(Row row) const {
  LORV_STRING* record = nullptr;
  auto const status = lorv_context_get_setspec(transaction->context_id, row.oid, row.addr, &record);
  if (status != 0) return false;
  std::u16string_view const found(record->units, record->length);
  if (only) return found == root->setspec;
  return found.starts_with(root->setspec) &&
         transaction->kernel->live_layouts().Holds(transaction->context_id, row.oid,
                                                   metalayer::LayoutOf({row.oid, row.addr}));
}

bool ScanBody::Accepts(Row row) {
  if (anything) return true;
  std::uint16_t const layout = metalayer::LayoutOf({row.oid, row.addr});
  if (layout >= accepted.size()) accepted.resize(layout + 64u);
  std::uint8_t& known = accepted[layout];
  if (known == 0) known = AcceptsBySetspec(row) ? 1 : 2;
  return known == 1;
}

bool ScanBody::Step(Row* out) {
  while (!at_end && left > 0) {
    if (!NextInSources(out)) {
      at_end = true;
      return false;
    }
    if (!Accepts(*out)) continue;
    if (condition != nullptr && !condition->Holds(transaction->context_id, *out)) continue;
    if (skip > 0) {
      --skip;
      continue;
    }
    --left;
    return true;
  }
  return false;
}

void ScanBody::Stop() {
  std::uint64_t const open = std::exchange(iterator, 0);
  if (open == 0 || transaction->kernel == nullptr) return;
  if (transaction->state == State::kBusy) {
    transaction->orphans->push_back(open);
  } else if (transaction->state == State::kOpen) {
    lorv_iterator_free(open);
  }
}

ScanBody& BodyOf(PyObject* scan) {
  ScanBody& body = *As<Scan>(scan)->body;
  NeedOpen(body.transaction);
  return body;
}

namespace {

// Fetches the next batch; it is empty at the end.
void Fetch(ScanBody& body) {
  body.batch.clear();
  body.position = 0;
  body.made = Ref();
  std::uint64_t const context = body.transaction->context_id;
  Away(body.transaction, [&] {
    sagleme::ReadScope const scope(context);
    Row row{};
    while (body.batch.size() < body.batch_size && body.Step(&row)) body.batch.push_back(row);
    for (Path const& path : body.prefetch) {
      for (Row const each : body.batch) path.Touch(context, each);
    }
  });
  body.stamp = body.transaction->stamp;
  body.batch_size = std::min(4 * body.batch_size, kLargestBatch);
}

// Whether nothing was written since the batch was fetched.
bool IsFresh(ScanBody const& body) { return body.stamp == body.transaction->stamp; }

// Whether an object of the batch is still there. Brings its address up to date.
bool StillThere(ScanBody const& body, Row* row) {
  if (IsFresh(body)) return true;
  return lorv_context_lookup(body.transaction->context_id, row->oid, &row->addr) == LORV_STATUS_OK;
}

PyObject* TupleAt(ScanBody const& body, std::size_t at, Row const& row) {
  if (IsFresh(body)) {
    return Py_NewRef(PyList_GET_ITEM(body.made.get(), static_cast<Py_ssize_t>(at)));
  }
  Ref const anew(MakeTuples(body.transaction, {&row, 1}, body.outputs));
  return Py_NewRef(PyList_GET_ITEM(anew.get(), 0));
}

PyObject* Next(PyObject* object) {
  return Guard([&]() -> PyObject* {
    ScanBody& body = BodyOf(object);
    for (;;) {
      if (body.position == body.batch.size()) {
        if (body.at_end || body.left == 0) {
          body.Stop();
          return nullptr;
        }
        Fetch(body);
        if (body.batch.empty()) continue;
        if (body.tuples) body.made = Ref(MakeTuples(body.transaction, body.batch, body.outputs));
      }
      std::size_t const at = body.position++;
      Row row = body.batch[at];
      if (!StillThere(body, &row)) continue;
      if (body.tuples) return TupleAt(body, at, row);
      return ObjectFor(body.transaction, row.oid, row.addr);
    }
  });
}

PyObject* Count(PyObject* object, PyObject*) {
  return Guard([&] {
    ScanBody& body = BodyOf(object);
    std::uint64_t count = 0;
    Away(body.transaction, [&] {
      Row row{};
      while (!body.at_end && body.left > 0) {
        sagleme::ReadScope const scope(body.transaction->context_id);
        for (std::size_t i = 0; i < kLargestBatch && body.Step(&row); ++i) ++count;
      }
    });
    body.Stop();
    return PyLong_FromUnsignedLongLong(count);
  });
}

// ---- aggregates

__extension__ using Wide = __int128;

enum class Aggregation { kCount, kSum, kLeast, kGreatest };

struct Aggregate {
  Aggregation what = Aggregation::kCount;
  Path path;
  std::uint64_t count = 0;
  Wide whole = 0;
  long double real = 0;
  std::optional<Constant> best;

  void Add(std::uint64_t context, Row row);
  PyObject* Result() const;

 private:
  void Keep(Datum const& found);
};

void Aggregate::Keep(Datum const& found) {
  if (best.has_value()) {
    int const order = CompareData(found, best->Get());
    if (what == Aggregation::kLeast ? order >= 0 : order <= 0) return;
  }
  best = Constant{found, std::u16string(found.text), std::string(found.bytes)};
}

void Aggregate::Add(std::uint64_t context, Row row) {
  Datum const found = path.Read(context, row);
  if (found.tag == Datum::Tag::kNull) return;
  ++count;
  if (what == Aggregation::kSum) {
    bool const is_unsigned = found.tag == Datum::Tag::kUnsigned;
    whole += is_unsigned ? static_cast<Wide>(static_cast<std::uint64_t>(found.whole))
                         : static_cast<Wide>(found.whole);
    real += static_cast<long double>(found.real);
  } else if (what != Aggregation::kCount) {
    Keep(found);
  }
}

// A sum of whole numbers as Python's, whatever its size; of decimals in millionths.
PyObject* WholeNumber(Wide value) {
  auto const high = static_cast<long long>(value >> 64);
  auto const low = static_cast<unsigned long long>(value);
  Ref const upper(Need(PyLong_FromLongLong(high)));
  Ref const bits(Need(PyLong_FromLong(64)));
  Ref const shifted(Need(PyNumber_Lshift(upper.get(), bits.get())));
  Ref const lower(Need(PyLong_FromUnsignedLongLong(low)));
  return PyNumber_Add(shifted.get(), lower.get());
}

PyObject* Aggregate::Result() const {
  if (what == Aggregation::kCount) return PyLong_FromUnsignedLongLong(count);
  if (what == Aggregation::kSum) {
    bool const is_real = path.kind() == Kind::kFloat || path.kind() == Kind::kDouble;
    return is_real ? PyFloat_FromDouble(static_cast<double>(real)) : WholeNumber(whole);
  }
  if (!best.has_value()) Py_RETURN_NONE;
  return FromDatum(best->Get(), path.kind());
}

Aggregate AggregateOf(Transaction* transaction, PyObject* form) {
  char const* name = nullptr;
  PyObject* steps = nullptr;
  if (!PyArg_ParseTuple(form, "sO", &name, &steps)) throw PythonError{};
  std::string_view const word(name);
  Aggregation const what = word == "sum"   ? Aggregation::kSum
                           : word == "min" ? Aggregation::kLeast
                           : word == "max" ? Aggregation::kGreatest
                                           : Aggregation::kCount;
  return {what, Path(transaction, steps), 0, 0, 0, std::nullopt};
}

// aggregate([(what, path)]) -> [results]
PyObject* AggregateAll(PyObject* object, PyObject* forms) {
  return Guard([&] {
    ScanBody& body = BodyOf(object);
    std::vector<Aggregate> wanted;
    Ref const list(Need(PySequence_Fast(forms, "aggregates are a list")));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
      wanted.push_back(AggregateOf(body.transaction, PySequence_Fast_GET_ITEM(list.get(), i)));
    }
    std::uint64_t const context = body.transaction->context_id;
    Away(body.transaction, [&] {
      Row row{};
      while (!body.at_end && body.left > 0) {
        sagleme::ReadScope const scope(context);
        for (std::size_t i = 0; i < kLargestBatch && body.Step(&row); ++i) {
          for (Aggregate& each : wanted) each.Add(context, row);
        }
      }
    });
    body.Stop();
    Ref results(Need(PyList_New(0)));
    for (Aggregate const& each : wanted) {
      Ref const result(Need(each.Result()));
      if (PyList_Append(results.get(), result.get()) != 0) throw PythonError{};
    }
    return results.release();
  });
}

// ---- the type

void ScanDealloc(PyObject* object) {
  auto* const self = As<Scan>(object);
  if (self->body != nullptr) self->body->Stop();
  delete self->body;
  Py_TYPE(object)->tp_free(object);
}

PyMethodDef g_methods[] = {{"count", Count, METH_NOARGS, nullptr},
                           {"aggregate", AggregateAll, METH_O, nullptr},
                           {nullptr, nullptr, 0, nullptr}};

PyTypeObject MakeType() {
  PyTypeObject type = {PyVarObject_HEAD_INIT(nullptr, 0)};
  type.tp_name = "sagleme._core.Scan";
  type.tp_basicsize = sizeof(Scan);
  type.tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
  type.tp_dealloc = ScanDealloc;
  type.tp_iter = PyObject_SelfIter;
  type.tp_iternext = Next;
  type.tp_methods = g_methods;
  return type;
}

struct ScanArguments {
  PyObject* transaction = nullptr;
  PyObject* type = nullptr;
  int only = 0;
  PyObject* sources = nullptr;
  PyObject* condition = nullptr;
  PyObject* outputs = nullptr;
  PyObject* limit = nullptr;
  unsigned long long offset = 0;
  PyObject* prefetch = nullptr;
};

std::unique_ptr<ScanBody> BodyFor(ScanArguments const& given) {
  auto body = std::make_unique<ScanBody>();
  auto* const transaction = As<Transaction>(given.transaction);
  body->transaction_reference = Ref::Share(given.transaction);
  body->transaction = transaction;
  body->root = BindingOf(transaction, given.type);
  body->only = given.only != 0;
  if (given.sources == Py_None) {
    body->sources.push_back(SetSource(*transaction, *body->root, body->only));
    body->anything = body->only;
  } else {
    Ref const list(Need(PySequence_Fast(given.sources, "sources are a list")));
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
      body->sources.push_back(IndexSource(transaction, PySequence_Fast_GET_ITEM(list.get(), i)));
    }
  }
  body->condition = MakeCondition(transaction, given.condition);
  body->tuples = given.outputs != Py_None;
  if (body->tuples) body->outputs = PathsOf(transaction, given.outputs);
  body->prefetch = PathsOf(transaction, given.prefetch);
  if (given.limit != Py_None) body->left = PyLong_AsUnsignedLongLong(given.limit);
  if (PyErr_Occurred()) throw PythonError{};
  body->skip = given.offset;
  return body;
}

}  // namespace

PyTypeObject g_scan_type = MakeType();

PyObject* NewScan(PyObject*, PyObject* args) {
  ScanArguments given;
  if (!PyArg_ParseTuple(args, "O!OpOOOOKO", &g_transaction_type, &given.transaction, &given.type,
                        &given.only, &given.sources, &given.condition, &given.outputs, &given.limit,
                        &given.offset, &given.prefetch)) {
    return nullptr;
  }
  return Guard([&] {
    NeedView(As<Transaction>(given.transaction));
    std::unique_ptr<ScanBody> body = BodyFor(given);
    PyObject* const made = Need(g_scan_type.tp_alloc(&g_scan_type, 0));
    As<Scan>(made)->body = body.release();
    return made;
  });
}

}  // namespace binding

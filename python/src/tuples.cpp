#include "tuples.h"

#include <lscoredb/bulk.h>

#include <algorithm>
#include <array>
#include <bit>

namespace binding {
namespace {

// So many rows, and the tuples that are being filled, stay in the processor's cache.
constexpr std::size_t kTogether = 256;

// The value of a word that lscoredb_read_words gave.
PyObject* FromWord(std::uint64_t word, Kind kind) {
  if (kind == Kind::kLong) return PyLong_FromLongLong(static_cast<std::int64_t>(word));
  Datum datum;
  datum.tag = Datum::Tag::kSigned;
  datum.whole = static_cast<std::int64_t>(word);
  datum.real = kind == Kind::kFloat
                   ? static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(word)))
                   : std::bit_cast<double>(word);
  return FromDatum(datum, kind);
}

// Up to kTogether rows, of which one column after the other is read.
class Rows {
 public:
  Rows(Transaction* transaction, std::span<Row const> rows, PyObject* const* tuples)
      : transaction_(transaction), rows_(rows), tuples_(tuples) {
    for (std::size_t i = 0; i < rows.size(); ++i) oids_[i] = rows[i].oid;
  }

  void Fill(Path const& path, Py_ssize_t position) {
    if (path.reads_together() && path.kind() != Kind::kReference) {
      path.ReadTogether(transaction_->context_id, oids(), words_.data(), states_.data());
      FillWith(path, position, [&](std::size_t i) { return FromWord(words_[i], path.kind()); });
    } else if (path.reads_bytes_together()) {
      auto const* const data = static_cast<char const*>(path.ReadBytesTogether(
          transaction_->context_id, oids(), offsets_.data(), states_.data()));
      FillWith(path, position, [&](std::size_t i) {
        return FromBytes({data + offsets_[i], offsets_[i + 1] - offsets_[i]}, path.kind());
      });
      FreeBytes(transaction_->context_id, offsets_[rows_.size()]);
    } else {
      sagleme::ReadScope const scope(transaction_->context_id);
      for (std::size_t i = 0; i < rows_.size(); ++i) {
        PyTuple_SET_ITEM(tuples_[i], position, Need(path.ReadPython(transaction_, rows_[i])));
      }
    }
  }

 private:
  std::span<std::uint64_t const> oids() const { return {oids_.data(), rows_.size()}; }

  // A row that is gone is read by itself, which says so.
  template <typename Make>
  void FillWith(Path const& path, Py_ssize_t position, Make&& make) {
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      PyObject* value = nullptr;
      if (states_[i] == LSCOREDB_HAS_VALUE) {
        value = make(i);
      } else if (states_[i] == LSCOREDB_IS_NULL) {
        value = Py_NewRef(Py_None);
      } else {
        value = path.ReadPython(transaction_, rows_[i]);
      }
      PyTuple_SET_ITEM(tuples_[i], position, Need(value));
    }
  }

  Transaction* transaction_;
  std::span<Row const> rows_;
  PyObject* const* tuples_;
  std::array<std::uint64_t, kTogether> oids_;
  std::array<std::uint64_t, kTogether> words_;
  std::array<std::uint64_t, kTogether + 1> offsets_;
  std::array<std::uint8_t, kTogether> states_;
};

}  // namespace

// The tuples are in the list from the start, so that they go with it if a value cannot be made.
PyObject* MakeTuples(Transaction* transaction, std::span<Row const> rows,
                     std::vector<Path> const& outputs) {
  Ref list(Need(PyList_New(static_cast<Py_ssize_t>(rows.size()))));
  std::array<PyObject*, kTogether> tuples;
  for (std::size_t from = 0; from < rows.size(); from += kTogether) {
    std::span<Row const> const some = rows.subspan(from, std::min(kTogether, rows.size() - from));
    for (std::size_t i = 0; i < some.size(); ++i) {
      tuples[i] = Need(PyTuple_New(static_cast<Py_ssize_t>(outputs.size())));
      PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(from + i), tuples[i]);
    }
    Rows together(transaction, some, tuples.data());
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      together.Fill(outputs[i], static_cast<Py_ssize_t>(i));
    }
  }
  return list.release();
}

}  // namespace binding

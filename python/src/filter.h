#ifndef SAGLEME_PYTHON_FILTER_H
#define SAGLEME_PYTHON_FILTER_H

// Conditions on objects, evaluated without Python objects and without the interpreter's lock.
//
// Logic has two values. Null equals null alone; it is neither below nor above anything.

#include <memory>
#include <span>

#include "types.h"

namespace binding {

struct Row {
  std::uint64_t oid;
  std::uint64_t addr;
};

// A column of an object, or of what its references lead to: ((class, field), ...). An empty path is
// the object's own identity.
class Path {
 public:
  Path(Transaction* transaction, PyObject* steps);

  // Null where a reference on the way is.
  Datum Read(std::uint64_t context, Row row) const;
  // Whether many rows can be read at once: the column is their own and of fixed size.
  bool reads_together() const {
    return hops_.empty() && last_.field != nullptr && !TakesKernelMemory(kind_);
  }
  // The bits of the objects' values and their states, as lscoredb_read_words gives them.
  // REQUIRES: reads_together().
  void ReadTogether(std::uint64_t context, std::span<std::uint64_t const> oids,
                    std::uint64_t* words, std::uint8_t* states) const;
  // The same for columns of texts and binaries: lscoredb_read_values and what it returns in `data`.
  bool reads_bytes_together() const {
    return hops_.empty() && last_.field != nullptr && TakesKernelMemory(kind_);
  }
  void const* ReadBytesTogether(std::uint64_t context, std::span<std::uint64_t const> oids,
                                std::uint64_t* offsets, std::uint8_t* states) const;
  // The value as Python has it; references become objects.
  PyObject* ReadPython(Transaction* transaction, Row row) const;
  // Follows the whole path, so that its rows are cached for later.
  void Touch(std::uint64_t context, Row row) const;

  Kind kind() const { return kind_; }
  bool is_identity() const { return hops_.empty() && last_.field == nullptr; }
  BoundColumn const& column() const { return last_; }

 private:
  struct Hop {
    std::uint16_t layout;
    std::uint16_t ordinal;
  };

  // The row that holds the last column; oid 0 when there is none.
  Row Follow(std::uint64_t context, Row row) const;

  std::vector<Hop> hops_;
  std::uint16_t layout_ = 0;
  BoundColumn last_;  // the view keeps what it points to
  Kind kind_ = Kind::kKey;
};

class Condition {
 public:
  virtual ~Condition() = default;
  virtual bool Holds(std::uint64_t context, Row row) const = 0;
};

// Nested tuples: ("and" | "or", [...]), ("not", c), ("cmp", path, operator, value),
// ("in", path, [values]), ("prefix" | "contains", path, text). Operators are < <= == != > >=.
// Null for None.
std::unique_ptr<Condition> MakeCondition(Transaction* transaction, PyObject* form);

}  // namespace binding

#endif

#include "filter.h"

#include <lscoredb/bulk.h>

#include <algorithm>
#include <string_view>

namespace binding {

namespace {

std::uint64_t At(std::uint64_t addr, std::uint16_t layout) {
  return (addr & ~std::uint64_t{0xFFFF}) | layout;
}

}  // namespace

Path::Path(Transaction* transaction, PyObject* steps) {
  if (!PyTuple_Check(steps)) throw std::invalid_argument("a path is a tuple");
  Py_ssize_t const count = PyTuple_GET_SIZE(steps);
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyObject* type = nullptr;
    PyObject* field = nullptr;
    if (!PyArg_ParseTuple(PyTuple_GET_ITEM(steps, i), "OO!", &type, &g_field_type, &field)) {
      throw PythonError{};
    }
    Binding const& binding = *BindingOf(transaction, type);
    last_ = binding.columns.at(static_cast<std::size_t>(As<Field>(field)->slot));
    layout_ = binding.layout;
    kind_ = last_.kind;
    if (i + 1 < count) hops_.push_back({layout_, last_.ordinal});
  }
}

Row Path::Follow(std::uint64_t context, Row row) const {
  for (Hop const& hop : hops_) {
    LORV_REFERENCE found{};
    auto const status =
        lorv_context_get_reference(context, row.oid, At(row.addr, hop.layout), hop.ordinal, &found);
    bool const leads_on = status == 0 && found.oid != 0 && found.layout != 0;
    if (!leads_on) return {0, 0};
    row = {found.oid, db_util::Fold(found).addr};
  }
  return row;
}

Datum Path::Read(std::uint64_t context, Row row) const {
  Datum out;
  if (is_identity()) {
    out.tag = Datum::Tag::kUnsigned;
    out.whole = static_cast<std::int64_t>(row.oid);
    return out;
  }
  Row const at = Follow(context, row);
  if (at.oid == 0) return out;
  return ReadDatum({context, at.oid, At(at.addr, layout_), last_.ordinal}, kind_);
}

void Path::ReadTogether(std::uint64_t context, std::span<std::uint64_t const> oids,
                        std::uint64_t* words, std::uint8_t* states) const {
  sagleme::detail::CheckKernel(lscoredb_read_words(context, static_cast<std::uint32_t>(oids.size()),
                                                   oids.data(), layout_, last_.ordinal, words,
                                                   states));
}

void const* Path::ReadBytesTogether(std::uint64_t context, std::span<std::uint64_t const> oids,
                                    std::uint64_t* offsets, std::uint8_t* states) const {
  void const* data = nullptr;
  sagleme::detail::CheckKernel(
      lscoredb_read_values(context, static_cast<std::uint32_t>(oids.size()), oids.data(), layout_,
                           last_.ordinal, &data, offsets, states));
  return data;
}

PyObject* Path::ReadPython(Transaction* transaction, Row row) const {
  if (is_identity()) return PyLong_FromUnsignedLongLong(row.oid);
  std::uint64_t const context = transaction->context_id;
  Row const at = hops_.empty() ? row : Follow(context, row);
  if (at.oid == 0) Py_RETURN_NONE;
  return ReadValue(transaction, {context, at.oid, At(at.addr, layout_), last_.ordinal}, kind_);
}

void Path::Touch(std::uint64_t context, Row row) const {
  Row const at = Follow(context, row);
  if (at.oid == 0 || kind_ != Kind::kReference) return;
  LORV_REFERENCE found{};
  static_cast<void>(
      lorv_context_get_reference(context, at.oid, At(at.addr, layout_), last_.ordinal, &found));
}

namespace {

using Conditions = std::vector<std::unique_ptr<Condition>>;

class All final : public Condition {
 public:
  explicit All(Conditions parts) : parts_(std::move(parts)) {}
  bool Holds(std::uint64_t context, Row row) const override {
    return std::all_of(parts_.begin(), parts_.end(),
                       [&](auto const& part) { return part->Holds(context, row); });
  }

 private:
  Conditions parts_;
};

class Any final : public Condition {
 public:
  explicit Any(Conditions parts) : parts_(std::move(parts)) {}
  bool Holds(std::uint64_t context, Row row) const override {
    return std::any_of(parts_.begin(), parts_.end(),
                       [&](auto const& part) { return part->Holds(context, row); });
  }

 private:
  Conditions parts_;
};

class Not final : public Condition {
 public:
  explicit Not(std::unique_ptr<Condition> part) : part_(std::move(part)) {}
  bool Holds(std::uint64_t context, Row row) const override { return !part_->Holds(context, row); }

 private:
  std::unique_ptr<Condition> part_;
};

enum class Operator { kLess, kAtMost, kEqual, kUnequal, kGreater, kAtLeast };

Operator OperatorNamed(std::string_view name) {
  if (name == "<") return Operator::kLess;
  if (name == "<=") return Operator::kAtMost;
  if (name == "==") return Operator::kEqual;
  if (name == "!=") return Operator::kUnequal;
  if (name == ">") return Operator::kGreater;
  if (name == ">=") return Operator::kAtLeast;
  throw std::invalid_argument("unknown operator");
}

bool Satisfies(int order, Operator wanted) {
  switch (wanted) {
    case Operator::kLess:
      return order < 0;
    case Operator::kAtMost:
      return order <= 0;
    case Operator::kEqual:
      return order == 0;
    case Operator::kUnequal:
      return order != 0;
    case Operator::kGreater:
      return order > 0;
    case Operator::kAtLeast:
      return order >= 0;
  }
  return false;
}

class Comparison final : public Condition {
 public:
  Comparison(Path path, Operator wanted, Constant value)
      : path_(std::move(path)), operator_(wanted), value_(std::move(value)) {}
  bool Holds(std::uint64_t context, Row row) const override {
    Datum const found = path_.Read(context, row);
    bool const null = found.tag == Datum::Tag::kNull;
    bool const wants_null = value_.datum.tag == Datum::Tag::kNull;
    if (null || wants_null) {
      if (operator_ == Operator::kEqual) return null == wants_null;
      return operator_ == Operator::kUnequal && null != wants_null;
    }
    if (found.real != found.real) return operator_ == Operator::kUnequal;
    return Satisfies(CompareData(found, value_.Get()), operator_);
  }

 private:
  Path path_;
  Operator operator_;
  Constant value_;
};

class OneOf final : public Condition {
 public:
  OneOf(Path path, std::vector<Constant> values)
      : path_(std::move(path)), values_(std::move(values)) {
    auto const end = std::remove_if(values_.begin(), values_.end(), IsNull);
    with_null_ = end != values_.end();
    values_.erase(end, values_.end());
    std::sort(values_.begin(), values_.end(), [](Constant const& a, Constant const& b) {
      return CompareData(a.Get(), b.Get()) < 0;
    });
  }
  bool Holds(std::uint64_t context, Row row) const override {
    Datum const found = path_.Read(context, row);
    if (found.tag == Datum::Tag::kNull) return with_null_;
    auto const at = std::lower_bound(
        values_.begin(), values_.end(), found,
        [](Constant const& a, Datum const& b) { return CompareData(a.Get(), b) < 0; });
    return at != values_.end() && CompareData(at->Get(), found) == 0;
  }

 private:
  static bool IsNull(Constant const& value) { return value.datum.tag == Datum::Tag::kNull; }

  Path path_;
  std::vector<Constant> values_;  // sorted
  bool with_null_ = false;
};

class TextPart final : public Condition {
 public:
  TextPart(Path path, std::u16string part, bool at_start)
      : path_(std::move(path)), part_(std::move(part)), at_start_(at_start) {}
  bool Holds(std::uint64_t context, Row row) const override {
    Datum const found = path_.Read(context, row);
    if (found.tag != Datum::Tag::kText) return false;
    if (at_start_) return found.text.starts_with(part_);
    return found.text.find(part_) != std::u16string_view::npos;
  }

 private:
  Path path_;
  std::u16string part_;
  bool at_start_;
};

BoundColumn const& ColumnOf(Path const& path) { return path.column(); }

Constant ConstantOf(Transaction* transaction, Path const& path, PyObject* value) {
  if (!path.is_identity()) return ToConstant(transaction, ColumnOf(path), value);
  Constant made;
  made.datum.tag = Datum::Tag::kUnsigned;
  made.datum.whole = static_cast<std::int64_t>(PyLong_AsUnsignedLongLong(value));
  if (PyErr_Occurred()) throw PythonError{};
  return made;
}

Conditions MakeAll(Transaction* transaction, PyObject* forms) {
  Ref const list(Need(PySequence_Fast(forms, "conditions are a list")));
  Conditions made;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    made.push_back(MakeCondition(transaction, PySequence_Fast_GET_ITEM(list.get(), i)));
  }
  return made;
}

std::unique_ptr<Condition> MakeOneOf(Transaction* transaction, Path path, PyObject* values) {
  Ref const list(Need(PySequence_Fast(values, "values are a list")));
  std::vector<Constant> constants;
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list.get()); ++i) {
    constants.push_back(ConstantOf(transaction, path, PySequence_Fast_GET_ITEM(list.get(), i)));
  }
  return std::make_unique<OneOf>(std::move(path), std::move(constants));
}

}  // namespace

std::unique_ptr<Condition> MakeCondition(Transaction* transaction, PyObject* form) {
  if (form == Py_None) return nullptr;
  char const* word = nullptr;
  PyObject* first = nullptr;
  PyObject* second = nullptr;
  PyObject* third = nullptr;
  if (!PyArg_ParseTuple(form, "sO|OO", &word, &first, &second, &third)) throw PythonError{};
  std::string_view const name(word);
  if (name == "and") return std::make_unique<All>(MakeAll(transaction, first));
  if (name == "or") return std::make_unique<Any>(MakeAll(transaction, first));
  if (name == "not") return std::make_unique<Not>(MakeCondition(transaction, first));
  Path path(transaction, first);
  if (name == "in") return MakeOneOf(transaction, std::move(path), Need(second));
  if (name == "cmp") {
    Constant value = ConstantOf(transaction, path, Need(third));
    Operator const wanted = OperatorNamed(TextOf(Need(second)));
    return std::make_unique<Comparison>(std::move(path), wanted, std::move(value));
  }
  Constant text = ConstantOf(transaction, path, Need(second));
  return std::make_unique<TextPart>(std::move(path), std::move(text.text), name == "prefix");
}

}  // namespace binding

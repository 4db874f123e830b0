#ifndef SAGLEME_HOST_RANGE_HPP
#define SAGLEME_HOST_RANGE_HPP

// Ranges of objects for range-for loops: a table, a subtree, part of an index.
//
// A range is scanned once, by one loop, in index order. Both bounds are inclusive. Objects of
// dropped tables, which exist until vacuum removes them, are left out.

#include <cstddef>
#include <iterator>
#include <memory>
#include <sagleme/host/object.hpp>
#include <span>
#include <vector>

namespace sagleme {

enum class Direction : std::uint32_t {
  kForward = LORV_ITERATOR_FORWARD,
  kReverse = LORV_ITERATOR_REVERSE,
};

// An index key. If it has fewer columns than the index, it bounds all keys that begin with it.
class IndexKey {
 public:
  // Values for the first columns of the index. LSCOREDB_WRONG_TYPE if they do not fit.
  IndexKey(Index const& index, std::span<Value const> values, bool prefix = false);

  void const* data() const { return words_.data(); }

 private:
  IndexKey() = default;
  template <typename Write>
  static IndexKey Written(Write&& write);
  friend class Range;

  std::vector<std::uint64_t> words_;
};

class Range {
 public:
  // All objects of exactly this table.
  static Range Only(Transaction& transaction, Table const& table);
  // All objects of the table and of its descendants, ordered by table.
  static Range Subtree(Transaction& transaction, Table const& table);
  // The same, including the objects of dropped descendants.
  static Range WithDropped(Transaction& transaction, Table const& table);
  // The objects of an index between two keys. With kReverse the bounds are still given in index
  // order.
  static Range Between(Transaction& transaction, Index const& index, IndexKey first, IndexKey last,
                       Direction direction = Direction::kForward);
  // The objects of an index with the given values in its first columns; all of them if no values
  // are given.
  static Range Matching(Transaction& transaction, Index const& index,
                        std::vector<Value> const& values,
                        Direction direction = Direction::kForward);
  // The objects whose text in the index's first column begins with the prefix. REQUIRES: an
  // ascending column of type string.
  static Range StartingWith(Transaction& transaction, Index const& index,
                            TextView const& beginning);

  Range(Range&& other) noexcept
      : transaction_(other.transaction_),
        first_(std::move(other.first_)),
        last_(std::move(other.last_)),
        iterator_(std::exchange(other.iterator_, 0)),
        all_(other.all_) {}
  Range& operator=(Range&&) = delete;
  ~Range() {
    if (iterator_ != 0) lorv_iterator_free(iterator_);
  }

  // Returns nothing at the end.
  std::optional<Object> Next();

  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Object;
    using difference_type = std::ptrdiff_t;
    using pointer = Object*;
    using reference = Object&;

    iterator() = default;
    explicit iterator(Range* range) : range_(range), current_(range->Next()) {}
    Object& operator*() { return *current_; }
    Object* operator->() { return &*current_; }
    iterator& operator++() {
      current_ = range_->Next();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return !current_.has_value(); }

   private:
    Range* range_ = nullptr;
    std::optional<Object> current_;
  };
  iterator begin() { return iterator(this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  Range(Transaction& transaction, std::uint64_t index, IndexKey first, IndexKey last,
        Direction direction);
  static std::uint64_t IndexBySetspec(Transaction& transaction, Table const& table);
  friend class ObjectPages;  // <sagleme/bulk.hpp>

  Transaction* transaction_;
  IndexKey first_;
  IndexKey last_;
  std::uint64_t iterator_ = 0;
  bool all_ = false;  // objects of dropped tables too
};

// ---- bodies -------------------------------------------------------------------------------------

namespace detail {

struct KeyField {
  metalayer::Key& key;

  void operator()(Null) const { key.Null(); }
  void operator()(bool value) const { key.ULong(value ? 1 : 0); }
  void operator()(std::int64_t value) const { key.Long(value); }
  void operator()(std::uint64_t value) const { key.ULong(value); }
  void operator()(Decimal value) const { key.Long(value.millionths); }
  void operator()(float value) const { key.Double(static_cast<double>(value)); }
  void operator()(double value) const { key.Double(value); }
  void operator()(std::u16string const& value) const { key.Text(value.c_str()); }
  void operator()(Bytes const&) const { CheckKernel(LSCOREDB_WRONG_TYPE); }
  void operator()(ObjectId value) const { key.ULong(value.value); }
};

inline constexpr std::uint32_t kKeyTooLong = SAGLEME_NAME_TOO_LONG;

// The index of all objects by set specifier, in the context's database.
inline std::uint64_t IndexBySetspec(std::uint64_t context) {
  return Inside(context, [] {
    return metalayer::MotherOfAllLayouts::index_id_MotherOfAllLayouts_SetspecIndex();
  });
}

}  // namespace detail

// Doubles the buffer until the key fits.
template <typename Write>
IndexKey IndexKey::Written(Write&& write) {
  IndexKey made;
  for (std::size_t words = 128;; words *= 2) {
    made.words_.resize(words);
    try {
      metalayer::Key key(
          db_util::KeyBuf(reinterpret_cast<unsigned char*>(made.words_.data()), 8 * words));
      write(key);
      key.UpdateHeader();
      return made;
    } catch (db_util::db_exception const& failure) {
      if (failure.code() != detail::kKeyTooLong) detail::CheckKernel(failure.code());
    }
  }
}

inline IndexKey::IndexKey(Index const& index, std::span<Value const> values, bool prefix) {
  if (values.size() > index.columns.size()) detail::CheckKernel(LSCOREDB_INVALID_ARGUMENT);
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (!detail::Fits(values[i], index.columns[i].type)) detail::CheckKernel(LSCOREDB_WRONG_TYPE);
  }
  *this = Written([&](metalayer::Key& key) {
    for (std::size_t i = 0; i < values.size(); ++i) {
      auto const* const text = std::get_if<std::u16string>(&values[i]);
      if (prefix && i + 1 == values.size() && text != nullptr) {
        key.TextUpperBound(text->c_str());
      } else {
        std::visit(detail::KeyField{key}, values[i]);
      }
    }
  });
}

inline Range::Range(Transaction& transaction, std::uint64_t index, IndexKey first, IndexKey last,
                    Direction direction)
    : transaction_(&transaction), first_(std::move(first)), last_(std::move(last)) {
  bool const reverse = direction == Direction::kReverse;
  detail::CheckKernel(lorv_context_create_iterator(
      transaction.context(), index, static_cast<std::uint32_t>(direction),
      (reverse ? last_ : first_).data(), (reverse ? first_ : last_).data(), &iterator_));
}

inline std::optional<Object> Range::Next() {
  for (;;) {
    LORV_REFERENCE record{};
    detail::CheckKernel(lorv_iterator_next(iterator_, &record));
    if (record.oid == 0) return std::nullopt;
    if (all_ ||
        transaction_->live_layouts().Holds(transaction_->context(), record.oid, record.layout)) {
      return Object(*transaction_, db_util::Fold(record));
    }
  }
}

inline std::uint64_t Range::IndexBySetspec(Transaction& transaction, Table const& table) {
  detail::RequireOwn(transaction, table);
  return detail::IndexBySetspec(transaction.context());
}

inline Range Range::Only(Transaction& transaction, Table const& table) {
  auto const write = [&](metalayer::Key& key) { key.Text(table.setspec.c_str()); };
  Range range(transaction, IndexBySetspec(transaction, table), IndexKey::Written(write),
              IndexKey::Written(write), Direction::kForward);
  range.all_ = true;  // the caller says whose objects
  return range;
}

inline Range Range::Subtree(Transaction& transaction, Table const& table) {
  return {
      transaction, IndexBySetspec(transaction, table),
      IndexKey::Written([&](metalayer::Key& key) { key.SetspecLowerBound(table.setspec.c_str()); }),
      IndexKey::Written([&](metalayer::Key& key) { key.SetspecUpperBound(table.setspec.c_str()); }),
      Direction::kForward};
}

inline Range Range::WithDropped(Transaction& transaction, Table const& table) {
  Range range = Subtree(transaction, table);
  range.all_ = true;
  return range;
}

inline Range Range::Between(Transaction& transaction, Index const& index, IndexKey first,
                            IndexKey last, Direction direction) {
  detail::RequireOwn(transaction, index);
  return {transaction, index.handle, std::move(first), std::move(last), direction};
}

inline Range Range::Matching(Transaction& transaction, Index const& index,
                             std::vector<Value> const& values, Direction direction) {
  return Between(transaction, index, IndexKey(index, values), IndexKey(index, values), direction);
}

inline Range Range::StartingWith(Transaction& transaction, Index const& index,
                                 TextView const& beginning) {
  std::vector<Value> const bound{beginning.view()};
  return Between(transaction, index, IndexKey(index, bound), IndexKey(index, bound, true));
}

}  // namespace sagleme

#endif

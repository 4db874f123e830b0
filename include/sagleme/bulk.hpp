#ifndef SAGLEME_BULK_HPP
#define SAGLEME_BULK_HPP

// Many objects at a time: the objects of a range by pages, and one column of many objects, each in
// one call. It takes a fraction of the time that asking for each takes, and on a server one round
// trip instead of one for each object. Pages of 50 to 1,000 objects serve best.
//
//   sagleme::ObjectPages pages(sagleme::Range::Subtree(transaction, *item));
//   sagleme::ManyValues<std::int64_t> sizes(*item, "Size");
//   for (auto page = pages.Next(500); !page.empty(); page = pages.Next(500)) {
//     sizes.Read(transaction, page);
//     for (std::size_t i = 0; i < page.size(); ++i) sum += sizes[i].value_or(0);
//   }
//
// All functions throw Error. <lscoredb/bulk.h> has the kernel's calls.

#include <lscoredb/bulk.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <sagleme/host.hpp>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

namespace sagleme {

// Whether rows come along with a page: worth it if its objects are read one by one. ManyValues
// fetches what it reads.
enum class PageRows : std::uint32_t { kLater = 0, kFetched = LSCOREDB_FETCH_ROWS };

// The objects of a range, which it takes over, in the range's order. Valid until the transaction
// ends.
class ObjectPages {
 public:
  explicit ObjectPages(Range range, PageRows rows = PageRows::kLater)
      : range_(std::move(range)), rows_(rows) {}

  // The next objects, `most` of them at most and at least one; none at the end. They are valid
  // until the next call. Objects that are deleted after the call are among them.
  // LSCOREDB_INVALID_ARGUMENT: `most` is 0. After a failure there is no next page.
  std::span<ObjectId const> Next(std::uint32_t most);
  // An object of the page.
  Object object(std::size_t i) const {
    return Object(*range_.transaction_, db_util::Fold(records_[i]));
  }

 private:
  void Read(std::uint32_t most);
  void LeaveOutDropped();

  Range range_;
  PageRows rows_;
  bool over_ = false;
  std::vector<LORV_REFERENCE> records_;
  std::vector<ObjectId> ids_;
};

// Announces that the objects will be read soon, one by one or in several columns: what a server
// has of them comes in one round trip. Identities that lead to no object are ignored.
inline void FetchObjects(Transaction& transaction, std::span<ObjectId const> objects);

enum class ValueState : std::uint8_t {
  kValue = LSCOREDB_HAS_VALUE,
  kNull = LSCOREDB_IS_NULL,
  kGone = LSCOREDB_IS_GONE,  // there is no such object, or it was deleted
};

namespace detail {

template <>
struct TypeOf<std::span<std::uint8_t const>> {
  static bool Fits(Type type) { return type == Type::kBinary; }
};

// The values of a column as the kernel gives them: words, or bytes with where each begins.
class ManyRawValues {
 public:
  ManyRawValues(Table const& table, Column const& column)
      : database_(table.database), layout_(table.layout), column_(column.ordinal) {}

  void ReadWords(Transaction& transaction, std::span<ObjectId const> objects);
  void ReadBytes(Transaction& transaction, std::span<ObjectId const> objects);

  std::size_t size() const { return states_.size(); }
  ValueState state(std::size_t i) const { return static_cast<ValueState>(states_[i]); }
  std::uint64_t word(std::size_t i) const { return words_[i]; }
  std::span<std::uint8_t const> bytes(std::size_t i) const {
    return std::span(bytes_).subspan(words_[i], words_[i + 1] - words_[i]);
  }

 private:
  void Begin(Transaction const& transaction, std::span<ObjectId const> objects);
  void End(std::uint32_t status);

  std::uint64_t database_;
  std::uint16_t layout_;
  std::uint16_t column_;
  std::vector<std::uint8_t> states_;
  std::vector<std::uint64_t> words_;  // of bytes: where each value begins, and the last one ends
  std::vector<std::uint8_t> bytes_;
};

}  // namespace detail

// One column of many objects of a table and of its descendants. T is bool, int64_t, uint64_t,
// Decimal, float, double, ObjectId, std::u16string_view or, of a binary column,
// std::span<std::uint8_t const>, and fits the column's type: LSCOREDB_WRONG_TYPE otherwise. Valid
// as long as the table's shape, in its database alone: LORV_STATUS_FOREIGN_DATABASE elsewhere.
template <typename T>
class ManyValues {
 public:
  ManyValues(Table const& table, TextView const& name) : ManyValues(table, table.GetColumn(name)) {}
  // REQUIRES: the column is of the table.
  ManyValues(Table const& table, Column const& column) : values_(table, column) {
    if (!detail::TypeOf<T>::Fits(column.type)) detail::CheckKernel(LSCOREDB_WRONG_TYPE);
  }

  // Reads the column of these objects, in any order, in the place of what was read before. After a
  // failure it holds nothing.
  void Read(Transaction& transaction, std::span<ObjectId const> objects) {
    if constexpr (kOfBytes) {
      values_.ReadBytes(transaction, objects);
    } else {
      values_.ReadWords(transaction, objects);
    }
  }

  // As many as objects were given.
  std::size_t size() const { return values_.size(); }
  ValueState state(std::size_t i) const { return values_.state(i); }
  // Nothing for null, and for an object that is gone. Texts and bytes are held here, and valid
  // until the next Read. REQUIRES: i < size().
  std::optional<T> operator[](std::size_t i) const {
    if (state(i) != ValueState::kValue) return std::nullopt;
    return Value(i);
  }

 private:
  static constexpr bool kIsText = std::is_same_v<T, std::u16string_view>;
  static constexpr bool kOfBytes = kIsText || std::is_same_v<T, std::span<std::uint8_t const>>;

  T Value(std::size_t i) const {
    if constexpr (kIsText) {
      std::span<std::uint8_t const> const bytes = values_.bytes(i);
      return {reinterpret_cast<char16_t const*>(bytes.data()), bytes.size() / sizeof(char16_t)};
    } else if constexpr (kOfBytes) {
      return values_.bytes(i);
    } else if constexpr (std::is_same_v<T, bool>) {
      return values_.word(i) != 0;
    } else if constexpr (std::is_same_v<T, float>) {
      return std::bit_cast<float>(static_cast<std::uint32_t>(values_.word(i)));
    } else {
      return std::bit_cast<T>(values_.word(i));
    }
  }

  detail::ManyRawValues values_;
};

// ---- bodies -------------------------------------------------------------------------------------

namespace detail {

inline std::uint32_t CountOf(std::span<ObjectId const> objects) {
  if (objects.size() > std::numeric_limits<std::uint32_t>::max()) {
    CheckKernel(LSCOREDB_INVALID_ARGUMENT);
  }
  return static_cast<std::uint32_t>(objects.size());
}

inline std::uint64_t const* NumbersOf(std::span<ObjectId const> objects) {
  static_assert(sizeof(ObjectId) == sizeof(std::uint64_t) && std::is_standard_layout_v<ObjectId>);
  return reinterpret_cast<std::uint64_t const*>(objects.data());
}

inline void ManyRawValues::Begin(Transaction const& transaction,
                                 std::span<ObjectId const> objects) {
  states_.clear();
  if (transaction.database() != database_ && database_ != 0) ThrowForeign("The column");
  words_.resize(std::size_t{CountOf(objects)} + 1);
  states_.resize(objects.size());
}

inline void ManyRawValues::End(std::uint32_t status) {
  if (status != 0) states_.clear();
  CheckKernel(status);
}

inline void ManyRawValues::ReadWords(Transaction& transaction, std::span<ObjectId const> objects) {
  Begin(transaction, objects);
  End(lscoredb_read_words(transaction.context(), CountOf(objects), NumbersOf(objects), layout_,
                          column_, words_.data(), states_.data()));
}

// The kernel's buffer is lent until its next call for any column; so the bytes are taken from it.
inline void ManyRawValues::ReadBytes(Transaction& transaction, std::span<ObjectId const> objects) {
  Begin(transaction, objects);
  void const* data = nullptr;
  End(lscoredb_read_values(transaction.context(), CountOf(objects), NumbersOf(objects), layout_,
                           column_, &data, words_.data(), states_.data()));
  auto const* const bytes = static_cast<std::uint8_t const*>(data);
  bytes_.assign(bytes, bytes + words_.back());
}

}  // namespace detail

inline std::span<ObjectId const> ObjectPages::Next(std::uint32_t most) {
  if (most == 0) detail::CheckKernel(LSCOREDB_INVALID_ARGUMENT);
  do {
    Read(most);
    if (!range_.all_) LeaveOutDropped();
  } while (records_.empty() && !over_);
  ids_.clear();
  for (LORV_REFERENCE const& record : records_) ids_.push_back({record.oid});
  return ids_;
}

inline void ObjectPages::Read(std::uint32_t most) {
  records_.clear();
  if (over_) return;
  over_ = true;  // unless this call says otherwise
  records_.resize(most);
  std::uint32_t count = 0;
  auto const status = lscoredb_iterator_next_many(
      range_.iterator_, static_cast<std::uint32_t>(rows_), most, records_.data(), &count);
  records_.resize(status == 0 ? count : 0);
  detail::CheckKernel(status);
  over_ = count < most;
}

inline void ObjectPages::LeaveOutDropped() {
  Transaction& transaction = *range_.transaction_;
  std::erase_if(records_, [&](LORV_REFERENCE const& record) {
    return !transaction.live_layouts().Holds(transaction.context(), record.oid, record.layout);
  });
}

inline void FetchObjects(Transaction& transaction, std::span<ObjectId const> objects) {
  detail::CheckKernel(
      lscoredb_fetch(transaction.context(), detail::CountOf(objects), detail::NumbersOf(objects)));
}

}  // namespace sagleme

#endif

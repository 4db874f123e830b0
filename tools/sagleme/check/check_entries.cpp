#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "check/check.h"

namespace tool {
namespace {

// The values of an index's columns in one object.
using Key = std::vector<sagleme::Value>;

class EntryCheck {
 public:
  EntryCheck(sagleme::Transaction& transaction, sagleme::Table const& table,
             sagleme::Index const& index, Report const& report)
      : transaction_(transaction), table_(table), index_(index), report_(report) {
    for (sagleme::IndexedColumn const& column : index.columns) {
      sagleme::Column const* const found = table.FindColumn(column.name);
      if (found != nullptr) columns_.push_back(found);
    }
  }

  void Run() {
    std::vector<std::uint64_t> entries = WalkIndex();
    std::vector<std::uint64_t> objects;
    for (sagleme::Object const& object : sagleme::Range::Subtree(transaction_, table_)) {
      objects.push_back(object.id().value);
    }
    std::sort(entries.begin(), entries.end());
    std::sort(objects.begin(), objects.end());
    TellMissing(objects, entries, "index {} does not hold it");
    TellMissing(entries, objects, "index {} holds it, and it is not of the index's tables");
    auto const twice = std::adjacent_find(entries.begin(), entries.end());
    if (twice != entries.end()) Tell(*twice, "index {} holds it twice");
  }

 private:
  void Tell(std::uint64_t object, fmt::format_string<std::string> text) const {
    report_({"entries", sagleme::ToUtf8(table_.name), object,
             fmt::format(text, sagleme::ToUtf8(index_.name))});
  }

  void TellMissing(std::vector<std::uint64_t> const& wanted,
                   std::vector<std::uint64_t> const& there,
                   fmt::format_string<std::string> text) const {
    std::vector<std::uint64_t> missing;
    std::set_difference(wanted.begin(), wanted.end(), there.begin(), there.end(),
                        std::back_inserter(missing));
    for (std::uint64_t const object : missing) Tell(object, text);
  }

  std::vector<std::uint64_t> WalkIndex() {
    std::vector<std::uint64_t> entries;
    Key before;
    for (sagleme::Object const& object : sagleme::Range::Matching(transaction_, index_, {})) {
      sagleme::ReadScope const scope(transaction_.context());
      entries.push_back(object.id().value);
      Key key = KeyOf(object);
      if (!before.empty()) Compare(before, key, object);
      before = std::move(key);
    }
    return entries;
  }

  Key KeyOf(sagleme::Object const& object) const {
    Key key;
    for (sagleme::Column const* const column : columns_) {
      bool const set = column->name == u"__setspecifier";
      key.push_back(set ? sagleme::Value(object.setspec()) : object.Get(table_, *column));
    }
    return key;
  }

  // Values of one column have one type, but for null, which is below all and first in the variant.
  // An integer or a truth value that was never written reads as zero.
  int CompareKeys(Key const& before, Key const& after) const {
    for (std::size_t i = 0; i < before.size(); ++i) {
      if (before[i] == after[i] || BothNan(before[i], after[i])) continue;
      bool const less = before[i].index() != after[i].index() ? before[i].index() < after[i].index()
                                                              : LessValue(before[i], after[i]);
      return less == index_.columns[i].ascending ? -1 : 1;
    }
    return 0;
  }

  template <typename T>
  static bool Below(T const& a, T const& b) {
    if constexpr (std::is_floating_point_v<T>) {
      if (std::isnan(a) || std::isnan(b)) return !std::isnan(a);  // above all numbers
    }
    return a < b;
  }

  static bool BothNan(sagleme::Value const& a, sagleme::Value const& b) {
    auto const nan = [](sagleme::Value const& value) { return value != value; };
    return nan(a) && nan(b);
  }

  static bool LessValue(sagleme::Value const& a, sagleme::Value const& b) {
    return std::visit(
        [&b]<typename T>(T const& value) {
          if constexpr (std::is_same_v<T, sagleme::Null>) {
            return false;
          } else {
            return Below(value, std::get<T>(b));
          }
        },
        a);
  }

  void Compare(Key const& before, Key const& after, sagleme::Object const& object) const {
    int const order = CompareKeys(before, after);
    if (order > 0) Tell(object.id().value, "index {} holds it out of order");
    bool const null = std::any_of(after.begin(), after.end(),
                                  [](auto const& value) { return sagleme::IsNull(value); });
    if (order == 0 && index_.unique && !null) {
      Tell(object.id().value, "index {} is unique and holds its key twice");
    }
  }

  sagleme::Transaction& transaction_;
  sagleme::Table const& table_;
  sagleme::Index const& index_;
  Report const& report_;
  std::vector<sagleme::Column const*> columns_;
};

}  // namespace

void CheckEntries(sagleme::Transaction& transaction, Report const& report) {
  for (sagleme::TablePtr const& table : transaction.Tables(true)) {
    for (sagleme::Index const& index : table->indexes) {
      try {
        EntryCheck(transaction, *table, index, report).Run();
      } catch (sagleme::Error const& error) {
        report({"entries", sagleme::ToUtf8(table->name), 0,
                fmt::format("index {}: {}", sagleme::ToUtf8(index.name), error.what())});
      }
    }
  }
}

}  // namespace tool

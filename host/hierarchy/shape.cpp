#include "hierarchy/shape.h"

#include <fmt/format.h>

#include <algorithm>
#include <sagleme/failure.hpp>
#include <set>

#include "hierarchy/column_tokens.h"

namespace sagleme {
namespace {

class Shaper {
 public:
  Shaper(Transaction& transaction, TablePtr const& base, bool merge)
      : transaction_(transaction), base_(base), merge_(merge) {}

  std::vector<Shape> Make(TablePtr const& table) {
    std::vector<ShapeColumn> inherited;
    for (Column const& column : base_->columns) {
      inherited.push_back({column, PresentByToken(*table, column), true});
    }
    Add(table, std::move(inherited));
    Refuse();
    return std::move(shapes_);
  }

 private:
  std::optional<std::size_t> PresentByToken(Table const& table, Column const& column) const {
    std::uint64_t const token = TokenOf(transaction_, *base_, column);
    for (Column const& own : table.columns) {
      if (TokenOf(transaction_, table, own) == token) return own.ordinal;
    }
    return std::nullopt;
  }

  void Add(TablePtr const& table, std::vector<ShapeColumn> inherited) {
    Shape shape{table, base_, std::move(inherited), {}, {}};
    std::set<std::size_t> taken;
    for (ShapeColumn const& column : shape.columns) {
      if (column.present) taken.insert(*column.present);
    }
    for (ShapeColumn& column : shape.columns) {
      if (!column.present) Merge(shape, column, taken);
    }
    for (Column const& column : table->columns) {
      if (taken.contains(column.ordinal)) continue;
      if (column.inherited) shape.kept.push_back(column.name);
      shape.columns.push_back({column, column.ordinal, false});
    }
    CheckCount(shape);
    std::vector<ShapeColumn> below = shape.columns;
    for (ShapeColumn& column : below) column.inherited = true;
    shapes_.push_back(std::move(shape));
    for (TablePtr const& child : transaction_.Children(*table)) Add(child, below);
  }

  void Merge(Shape& shape, ShapeColumn& column, std::set<std::size_t>& taken) {
    Column const* const own = shape.table->FindColumn(column.column.name);
    if (own == nullptr || taken.contains(own->ordinal)) return;
    if (!merge_ || !SameKind(*own, column.column) || own->nullable != column.column.nullable) {
      conflicts_.push_back(
          fmt::format("{} has a column {} already", ToUtf8(shape.table->name), ToUtf8(own->name)));
      return;
    }
    column.present = own->ordinal;
    taken.insert(own->ordinal);
    shape.merged.push_back(own->name);
  }

  void CheckCount(Shape const& shape) {
    constexpr std::size_t kMost = metalayer::kMaxColumns;
    if (shape.columns.size() <= kMost) return;
    conflicts_.push_back(fmt::format("{} would have {} columns, and a table has at most {}",
                                     ToUtf8(shape.table->name), shape.columns.size(), kMost));
  }

  void Refuse() const {
    if (conflicts_.empty()) return;
    throw Failure(Failure::Kind::kRefused,
                  fmt::format("the table cannot derive from {}: {}", ToUtf8(base_->name),
                              fmt::join(conflicts_, "; ")),
                  "Rename or drop these columns first.");
  }

  Transaction& transaction_;
  TablePtr const& base_;
  bool merge_;
  std::vector<Shape> shapes_;
  std::vector<std::string> conflicts_;
};

}  // namespace

std::size_t Shape::OrdinalOf(std::u16string const& name) const {
  auto const found = std::find_if(columns.begin(), columns.end(), [&](ShapeColumn const& each) {
    return each.column.name == name;
  });
  return static_cast<std::size_t>(found - columns.begin());
}

std::vector<Shape> ShapesUnder(Transaction& transaction, TablePtr const& table,
                               TablePtr const& base, bool merge) {
  return Shaper(transaction, base, merge).Make(table);
}

}  // namespace sagleme

#include "columns/subtree.h"

#include <algorithm>
#include <set>
#include <utility>

namespace sagleme::columns {
namespace {

using metalayer::RawColumn;
using metalayer::ReferenceRawColumn;

// Above all ordinals of columns: rows wait there while others take their places.
constexpr short kParking = 0x1000;

LS_OBJ_REF RowOf(std::uint64_t id) {
  LS_OBJ_REF row{id, 0};
  metalayer::Check(lorv_context_lookup(*metalayer::TlsMetalayerContext::Current(), id, &row.addr));
  return row;
}

// The name that the kernel's token of a column stands for.
std::uint64_t TokenOfRow(std::uint64_t row) {
  return metalayer::assure_token(ToUtf16(std::to_string(row)).c_str());
}

std::uint64_t TokenAt(std::uint16_t layout, std::uint16_t ordinal) {
  LORVI_COLUMN_INFO info{};
  metalayer::Check(lorvi_context_get_column_info(*metalayer::TlsMetalayerContext::Current(), layout,
                                                 ordinal, &info));
  return info.token;
}

OwnColumn Declared(Column const& column) {
  OwnColumn own;
  own.name = own.was = column.name;
  own.row = column.id.value;
  own.data_type = detail::CatalogueRef(RowOf(own.row), RawColumn::kDataType);
  own.type = column.type;
  own.nullable = column.nullable;
  own.target = column.target;
  return own;
}

void OpenProperties(db_util::db_iter_with_keys& properties, LS_OBJ_REF const& column) {
  metalayer::Key(properties.first_key).Ref(column);
  metalayer::Key(properties.last_key).Ref(column);
  properties.open(metalayer::MappedProperty::index_id_MappedPropertyByColumn(),
                  metalayer::kForward);
}

// Writes only what differs, so that rows that stay are not part of the transaction.
void PutDifferent(LS_OBJ_REF const& row, OwnColumn const& column) {
  if (metalayer::GetText(row, RawColumn::kName) != column.name) {
    metalayer::PutText(row, RawColumn::kName, column.name.c_str());
  }
  if (detail::CatalogueRef(row, RawColumn::kDataType).oid != column.data_type.oid) {
    metalayer::PutRef(row, RawColumn::kDataType, column.data_type);
    if (column.type == Type::kReference) {
      metalayer::PutText(row, ReferenceRawColumn::kDataTypeName, column.target.c_str());
    }
  }
  if (metalayer::GetBool(row, RawColumn::kNullable) != column.nullable) {
    metalayer::PutBool(row, RawColumn::kNullable, column.nullable);
  }
}

}  // namespace

Subtree::Subtree(Transaction& transaction, TablePtr const& top) : transaction_(transaction) {
  for (Column const& column : top->columns) outside_ += column.inherited ? 1 : 0;
  Read(top, 0);
}

void Subtree::Read(TablePtr const& table, std::size_t base) {
  std::size_t const at = nodes_.size();
  nodes_.push_back({table, base, {}});
  detail::Inside(transaction_.context(), [&] {
    for (Column const& column : table->columns) {
      if (column.inherited) continue;
      nodes_[at].own.push_back(Declared(column));
      tokens_[column.id.value] = TokenAt(table->layout, column.ordinal);
    }
  });
  for (TablePtr const& child : transaction_.Children(*table, true)) Read(child, at);
}

Node& Subtree::At(std::u16string const& table) {
  return *std::find_if(nodes_.begin(), nodes_.end(),
                       [&](Node const& node) { return node.before->name == table; });
}

bool Subtree::IsBelow(std::size_t node, std::u16string const& table) const {
  while (nodes_[node].before->name != table) {
    if (node == 0) return false;
    node = nodes_[node].base;
  }
  return true;
}

OwnColumn Subtree::Take(Node& node, std::u16string const& column) {
  auto const at = std::find_if(node.own.begin(), node.own.end(),
                               [&](OwnColumn const& own) { return own.name == column; });
  OwnColumn taken = std::move(*at);
  node.own.erase(at);
  return taken;
}

// From the top down, without those from outside of the subtree.
std::vector<OwnColumn const*> Subtree::Inherited(std::size_t node) const {
  if (node == 0) return {};
  std::size_t const base = nodes_[node].base;
  std::vector<OwnColumn const*> columns = Inherited(base);
  for (OwnColumn const& column : nodes_[base].own) columns.push_back(&column);
  return columns;
}

void Subtree::RequireValid() const {
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    std::string const table = ToUtf8(nodes_[i].before->name);
    std::set<std::u16string> names;
    for (std::size_t k = 0; k < outside_; ++k) names.insert(nodes_[0].before->columns[k].name);
    std::vector<OwnColumn const*> columns = Inherited(i);
    for (OwnColumn const& own : nodes_[i].own) columns.push_back(&own);
    for (OwnColumn const* const column : columns) {
      if (names.insert(column->name).second) continue;
      throw Error(SAGLEME_COLUMN_NAME_TAKEN,
                  "Table " + table + " already has a column " + ToUtf8(column->name) + ".");
    }
    if (names.size() <= metalayer::kMaxColumns) continue;
    throw Error(SAGLEME_BAD_ARGUMENT,
                "Table " + table + " would have " + std::to_string(names.size()) +
                    " columns, and " + std::to_string(metalayer::kMaxColumns) + " is the limit.");
  }
}

// ---- rows ------------------------------------------------------------------------------------

// The table's own row of the name, unless the column comes to an ancestor with just that row.
std::uint64_t Subtree::RowFor(Node const& node, OwnColumn const& column, bool inherited) const {
  if (!inherited) return column.row;
  Column const* const found = node.before->FindColumn(column.was);
  return found == nullptr || found->id.value == column.row ? 0 : found->id.value;
}

std::vector<std::vector<Subtree::Place>> Subtree::Arrange() const {
  std::vector<std::vector<Place>> all;
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    std::vector<Place>& places = all.emplace_back();
    for (std::size_t k = 0; k < outside_; ++k) {
      places.push_back({nullptr, nodes_[i].before->columns[k].id.value, true, true});
    }
    for (OwnColumn const* const column : Inherited(i)) {
      places.push_back({column, RowFor(nodes_[i], *column, true), true, false});
    }
    for (OwnColumn const& column : nodes_[i].own) {
      places.push_back({&column, RowFor(nodes_[i], column, false), false, false});
    }
  }
  return all;
}

void Subtree::CaptureReferrersOf(std::size_t node, Column const& column) {
  LS_OBJ_REF const row = RowOf(column.id.value);
  db_util::db_iter_with_keys properties;
  OpenProperties(properties, row);
  while (properties.next()) {
    referrers_.push_back({properties.current, true, node, column.name});
  }
  for (Index const& index : nodes_[node].before->indexes) {
    db_util::db_iter_with_keys parts;
    metalayer::Key(parts.first_key).Ref(RowOf(index.id.value));
    metalayer::Key(parts.last_key).Ref(RowOf(index.id.value));
    parts.open(metalayer::IndexedColumn::index_id_IndexedColumnPK(), metalayer::kForward);
    while (parts.next()) {
      if (detail::CatalogueRef(parts.current, metalayer::IndexedColumn::kColumn).oid != row.oid) {
        continue;
      }
      referrers_.push_back({parts.current, false, node, column.name});
    }
  }
}

// Of the rows that do not stay in their table.
void Subtree::CaptureReferrers(std::vector<std::vector<Place>> const& places) {
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    std::set<std::uint64_t> staying;
    for (Place const& place : places[i]) staying.insert(place.row);
    for (Column const& column : nodes_[i].before->columns) {
      if (!staying.contains(column.id.value)) CaptureReferrersOf(i, column);
    }
  }
}

// Rows that change their number or their table leave the way first: both are unique together.
void Subtree::Park(std::vector<std::vector<Place>> const& places) {
  for (std::vector<Place> const& of_table : places) {
    for (std::size_t ordinal = 0; ordinal < of_table.size(); ++ordinal) {
      if (of_table[ordinal].outside || of_table[ordinal].row == 0) continue;
      LS_OBJ_REF const row = RowOf(of_table[ordinal].row);
      if (metalayer::GetLong(row, RawColumn::kColumnIndex) == static_cast<long>(ordinal)) continue;
      metalayer::PutLong(row, RawColumn::kColumnIndex, kParking + parked_++);
    }
  }
}

void Subtree::RemoveRows(std::vector<std::vector<Place>> const& places) const {
  std::set<std::uint64_t> kept;
  for (std::vector<Place> const& of_table : places) {
    for (Place const& place : of_table) kept.insert(place.row);
  }
  for (Node const& node : nodes_) {
    for (Column const& column : node.before->columns) {
      if (!kept.contains(column.id.value)) metalayer::DeleteRow(RowOf(column.id.value));
    }
  }
}

LS_OBJ_REF Subtree::Insert(std::size_t node, Place const& place, short ordinal) const {
  OwnColumn const& column = *place.column;
  LS_OBJ_REF const table = nodes_[node].before->row;
  if (column.type != Type::kReference) {
    return RawColumn::Insert(table, column.name.c_str(), column.data_type, place.inherited,
                             column.nullable, false, ordinal);
  }
  return ReferenceRawColumn::Insert(table, column.name.c_str(), column.data_type, place.inherited,
                                    column.nullable, false, ordinal, column.target.c_str());
}

void Subtree::Settle(std::size_t node, std::vector<Place>& places) {
  for (std::size_t i = 0; i < places.size(); ++i) {
    Place& place = places[i];
    if (place.outside) continue;
    auto const ordinal = static_cast<short>(i);
    if (place.row == 0) {
      LS_OBJ_REF const inserted = Insert(node, place, ordinal);
      place.row = inserted.oid;
      rows_[node][place.column->name] = inserted;
      continue;
    }
    LS_OBJ_REF const row = RowOf(place.row);
    PutDifferent(row, *place.column);
    if (metalayer::GetBool(row, RawColumn::kInherited) != place.inherited) {
      metalayer::PutBool(row, RawColumn::kInherited, place.inherited);
    }
    if (metalayer::GetLong(row, RawColumn::kColumnIndex) != ordinal) {
      metalayer::PutLong(row, RawColumn::kColumnIndex, ordinal);
    }
    rows_[node][place.column->name] = row;
  }
}

void Subtree::RepointReferrers() const {
  for (Referrer const& referrer : referrers_) {
    auto const row = rows_[referrer.node].find(referrer.name);
    bool const lost = row == rows_[referrer.node].end();
    if (lost && referrer.of_property) metalayer::DeleteRow(referrer.row);
    if (lost) continue;
    metalayer::PutRef(referrer.row,
                      referrer.of_property ? unsigned{metalayer::MappedProperty::kColumn}
                                           : unsigned{metalayer::IndexedColumn::kColumn},
                      row->second);
  }
}

// A property of a column that its table inherited, and now declares, has no property above it.
void Subtree::DeclareProperties() const {
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    for (OwnColumn const& own : nodes_[i].own) {
      Column const* const before = nodes_[i].before->FindColumn(own.name);
      if (before == nullptr || !before->inherited) continue;
      LS_OBJ_REF const row = rows_[i].at(own.name);
      db_util::db_iter_with_keys properties;
      OpenProperties(properties, row);
      while (properties.next()) {
        metalayer::PutBool(properties.current, metalayer::MappedProperty::kInherited, false);
      }
    }
  }
}

// A row that comes from another table changes that before any other row takes its name there.
void Subtree::WriteRows() {
  std::vector<std::vector<Place>> places = Arrange();
  CaptureReferrers(places);
  Park(places);
  RemoveRows(places);
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    for (Place const& place : places[i]) {
      if (place.row == 0 || place.outside) continue;
      LS_OBJ_REF const row = RowOf(place.row);
      if (detail::CatalogueRef(row, RawColumn::kTable).oid == nodes_[i].before->row.oid) continue;
      metalayer::PutRef(row, RawColumn::kTable, nodes_[i].before->row);
    }
  }
  rows_.resize(nodes_.size());
  for (std::size_t i = 0; i < nodes_.size(); ++i) Settle(i, places[i]);
  RepointReferrers();
  DeclareProperties();
}

// ---- layouts ---------------------------------------------------------------------------------

std::uint64_t Subtree::TokenBefore(std::size_t node, std::u16string const& column) const {
  Column const* const found = nodes_[node].before->FindColumn(column);
  if (found == nullptr) return 0;
  return detail::Inside(transaction_.context(),
                        [&] { return TokenAt(nodes_[node].before->layout, found->ordinal); });
}

// From the rows: the table cannot be read yet where an index lost a column.
std::uint64_t Subtree::TokenAfter(std::size_t node, std::u16string const& column) const {
  auto const row = rows_[node].find(column);
  if (row == rows_[node].end()) return 0;
  return detail::Inside(transaction_.context(), [&] {
    return TokenAt(
        static_cast<std::uint16_t>(
            metalayer::GetULong(nodes_[node].before->row, metalayer::RawView::kLayoutHandle)),
        static_cast<std::uint16_t>(metalayer::GetLong(row->second, RawColumn::kColumnIndex)));
  });
}

// A column that was declared before keeps its token; others get that of their row.
std::vector<LORVI_COLUMN_DEFINITION> Subtree::KernelColumns(std::size_t node) const {
  std::vector<LORVI_COLUMN_DEFINITION> columns;
  for (OwnColumn const& own : nodes_[node].own) {
    std::uint64_t const row = rows_[node].at(own.name).oid;
    auto const known = tokens_.find(row);
    LORVI_COLUMN_DEFINITION column{};
    column.token = known == tokens_.end() ? TokenOfRow(row) : known->second;
    column.type = metalayer::LogicalTypeToKernelType(static_cast<unsigned char>(own.type));
    column.is_nullable = own.nullable ? 1 : 0;
    columns.push_back(column);
  }
  columns.push_back({});
  return columns;
}

bool Subtree::SameLayout(std::size_t node,
                         std::vector<LORVI_COLUMN_DEFINITION> const& columns) const {
  std::size_t at = 0;
  for (Column const& column : nodes_[node].before->columns) {
    if (column.inherited) continue;
    LORVI_COLUMN_DEFINITION const& now = columns[at++];
    auto const type = metalayer::LogicalTypeToKernelType(static_cast<unsigned char>(column.type));
    bool const same = now.type == type && (now.is_nullable != 0) == column.nullable &&
                      now.token == TokenAt(nodes_[node].before->layout, column.ordinal);
    if (!same) return false;
  }
  return columns[at].type == 0;
}

void Subtree::WriteLayouts() {
  std::vector<bool> made(nodes_.size(), false);
  for (std::size_t i = 0; i < nodes_.size(); ++i) {
    std::vector<LORVI_COLUMN_DEFINITION> const columns = KernelColumns(i);
    bool const over_new_base = i != 0 && made[nodes_[i].base];
    if (!over_new_base && SameLayout(i, columns)) continue;
    metalayer::RawView view(nodes_[i].before->row);
    metalayer::ddl::RecreateTable(view, metalayer::span<LORVI_COLUMN_DEFINITION const>(columns));
    metalayer::RegisterMove(view);
    made[i] = true;
  }
}

void Subtree::Write() {
  detail::Inside(transaction_.context(), [&] {
    WriteRows();
    WriteLayouts();
  });
  transaction_.Forget();
}

}  // namespace sagleme::columns

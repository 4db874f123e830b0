#include "model/model.h"

#include <lscoredb/lscoredb.h>
#include <sagleme/statuses.h>

#include <algorithm>

namespace sagleme_model {

namespace {

// What the bootstrap leaves behind: nine children of the root, type ids up to 25.
constexpr std::uint64_t kSystemRoots = 9;
constexpr std::uint64_t kLastSystemTypeId = 25;

Column RootColumn(Uid row, Text const& name, std::uint8_t type) {
  Column column;
  column.row = row;
  column.declared = row;
  column.name = name;
  column.type = type;
  return column;
}

}  // namespace

bool MustBeNullable(std::uint8_t type) {
  return type == kString || type == kBinary || type == kReference;
}

bool IsNull(Value const& value) { return std::holds_alternative<std::monostate>(value); }

Value ZeroOf(std::uint8_t type) {
  switch (type) {
    case kLong:
    case kDecimal:
      return std::int64_t{0};
    case kFloat:
      return 0.0f;
    case kDouble:
      return 0.0;
    default:
      return std::uint64_t{0};
  }
}

Column const* Table::FindColumn(Text const& column) const {
  auto const found = std::find_if(columns.begin(), columns.end(),
                                  [&](Column const& each) { return each.name == column; });
  return found == columns.end() ? nullptr : &*found;
}

std::size_t Table::OrdinalOf(Uid declared) const {
  auto const found = std::find_if(columns.begin(), columns.end(),
                                  [&](Column const& each) { return each.declared == declared; });
  return static_cast<std::size_t>(found - columns.begin());
}

Value Object::ValueOf(Uid declared) const {
  auto const found = values.find(declared);
  return found == values.end() ? Value() : found->second;
}

Model::Model() {
  Table root;
  root.row = kRoot;
  root.name = kRootName;
  root.type_id = 1;
  root.columns = {RootColumn(NextRow(), u"__id", kULong),
                  RootColumn(NextRow(), u"__setspecifier", kString),
                  RootColumn(NextRow(), u"__type_id", kULong)};
  tables[kRoot] = root;
  setspecs[u""] = {kRoot, kSystemRoots};
  type_ids[kLastSystemTypeId] = 0;
}

// ---- questions --------------------------------------------------------------------------------

Table const* Model::FindTable(Text const& name) const {
  for (auto const& [row, table] : tables) {
    if (table.name == name) return &table;
  }
  return nullptr;
}

Index const* Model::FindIndex(Text const& name) const {
  for (auto const& [row, index] : indexes) {
    if (index.name == name) return &index;
  }
  return nullptr;
}

std::vector<Uid> Model::ChildrenOf(Uid parent) const {
  std::vector<Uid> children;
  for (auto const& [row, table] : tables) {
    if (table.base == parent) children.push_back(row);
  }
  return children;
}

std::vector<Uid> Model::SubtreeOf(Uid table) const {
  std::vector<Uid> subtree = {table};
  for (std::size_t i = 0; i < subtree.size(); ++i) {
    for (Uid const child : ChildrenOf(subtree[i])) subtree.push_back(child);
  }
  return subtree;
}

bool Model::IsUnder(Uid table, Uid ancestor) const {
  std::vector<Uid> const subtree = SubtreeOf(ancestor);
  return std::find(subtree.begin(), subtree.end(), table) != subtree.end();
}

std::vector<std::pair<Uid, Column const*>> Model::ReferenceColumns() const {
  std::vector<std::pair<Uid, Column const*>> found;
  for (auto const& [row, table] : tables) {
    for (Column const& column : table.columns) {
      if (column.type == kReference) found.emplace_back(row, &column);
    }
  }
  std::sort(found.begin(), found.end(),
            [](auto const& a, auto const& b) { return a.second->row < b.second->row; });
  return found;
}

std::vector<std::pair<Uid, Column const*>> Model::ReferenceColumnsTo(Uid target) const {
  auto found = ReferenceColumns();
  std::erase_if(found, [target](auto const& each) { return each.second->target != target; });
  return found;
}

std::vector<Object const*> Model::ObjectsUnder(Text const& setspec) const {
  std::vector<Object const*> found;
  for (auto const& [row, object] : objects) {
    if (object.setspec.starts_with(setspec)) found.push_back(&object);
  }
  return found;
}

std::vector<Value> Model::KeyOf(Index const& index, Object const& object) const {
  std::vector<Value> key;
  for (IndexColumn const& part : index.columns) {
    Table const& owner = table(index.table);
    Column const& column = owner.columns[owner.OrdinalOf(part.declared)];
    Value value = object.ValueOf(part.declared);
    if (IsNull(value) && !column.nullable) value = ZeroOf(column.type);
    key.push_back(value);
  }
  return key;
}

// A key with a null in it collides with nothing.
bool Model::KeyIsFree(Index const& index, Object const& object) const {
  std::vector<Value> const key = KeyOf(index, object);
  if (std::any_of(key.begin(), key.end(), IsNull)) return true;
  for (Object const* other : ObjectsUnder(index.setspec)) {
    if (other->row != object.row && KeyOf(index, *other) == key) return false;
  }
  return true;
}

bool Model::KeysAreFree(Object const& object) const {
  return std::all_of(indexes.begin(), indexes.end(), [&](auto const& each) {
    Index const& index = each.second;
    return !index.unique || !object.setspec.starts_with(index.setspec) || KeyIsFree(index, object);
  });
}

bool Model::HasDeferredOwnColumn(Uid row, Uid except_declared) const {
  auto const& columns = table(row).columns;
  return std::any_of(columns.begin(), columns.end(), [&](Column const& column) {
    return column.deferred() && !column.inherited() && column.declared != except_declared;
  });
}

// ---- changes ----------------------------------------------------------------------------------

void Model::TakeTableOut(Uid row) {
  Write();
  dropped_now_.insert(row);
  tables.erase(row);
}

void Model::ForgetColumn(Uid declared) {
  for (auto& [row, object] : objects) object.values.erase(declared);
}

void Model::RequestMove(Table const& moved) {
  Write();
  Request& request = requests[moved.setspec];
  if (request.kind == 0) request.kind = 1;
  request.layout_name = moved.layout_name;
  request.columns = moved.columns.size();
}

void Model::RequestDelete(Table const& dropped) {
  Write();
  requests[dropped.setspec] = {2, dropped.layout_name, dropped.columns.size()};
}

// A row that this transaction deleted cannot be reached; one deleted earlier is not there.
void Model::CheckType(Column const& column) const {
  constexpr std::uint32_t kTypeUnreachable = SAGLEME_TYPE_IS_GONE;
  constexpr std::uint32_t kNoSuchRow = LORV_STATUS_NO_OBJECT;
  if (column.type != kReference || column.target == 0 || tables.contains(column.target)) return;
  throw Failure{dropped_now_.contains(column.target) ? kTypeUnreachable : kNoSuchRow, u""};
}

}  // namespace sagleme_model

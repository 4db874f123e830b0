// Tables taken out of the model, singly, in sets and with all that is under them.

#include <algorithm>
#include <set>

#include "model/expect.h"

namespace sagleme_model {

namespace {

constexpr std::uint32_t kReferenced = SAGLEME_TABLE_REFERENCED;
constexpr std::uint32_t kHasChildren = SAGLEME_TABLE_HAS_DESCENDANTS;
constexpr std::uint32_t kNotEmpty = SAGLEME_TABLE_NOT_EMPTY;
constexpr std::uint32_t kRowUnreachable = LORV_STATUS_UNREACHABLE;

void CheckNoChildren(Model const& model, Table const& table) {
  std::vector<Uid> const children = model.ChildrenOf(table.row);
  if (children.empty()) return;
  Text const tail = children.size() == 2  ? u" and another"
                    : children.size() > 2 ? u" and others"
                                          : u"";
  throw Failure{kHasChildren, u"Table " + table.name + u" still has child " +
                                  model.table(children[0]).name + tail + u"."};
}

// The first column that refers to the table decides, when `inside` does not hold its owner.
void CheckReferences(Model const& model, Table const& table, std::set<Uid> const& inside) {
  auto const referring = model.ReferenceColumnsTo(table.row);
  if (referring.empty() || inside.contains(referring[0].first)) return;
  throw Failure{kReferenced, u"Table " + table.name + u" is still referenced at least by column " +
                                 referring[0].second->name + u" from table " +
                                 model.table(referring[0].first).name + u"."};
}

void RemoveIndexesOf(Model& model, Uid table) {
  std::vector<Uid> doomed;
  for (auto const& [row, index] : model.indexes) {
    if (index.table == table) doomed.push_back(row);
  }
  for (Uid const row : doomed) RemoveIndex(model, row);
}

void DropOne(Model& model, Uid row, bool drop_children, bool force) {
  if (!model.tables.contains(row)) throw Failure{kRowUnreachable, u""};
  if (!force) {
    CheckReferences(model, model.table(row), {});
    CheckNoClass(model, model.table(row));
  }
  if (drop_children) {
    for (Uid const child : model.ChildrenOf(row)) DropOne(model, child, true, force);
  }
  RemoveIndexesOf(model, row);
  ++model.generation;
  model.RequestDelete(model.table(row));
  model.TakeTableOut(row);
}

void CheckCascade(Model const& model, Uid row) {
  Table const& table = model.table(row);
  std::vector<Text> indexes;
  for (auto const& [index_row, index] : model.indexes) {
    if (index.table == row) indexes.push_back(index.name);
  }
  if (!indexes.empty()) {
    throw Failure{kNotEmpty, u"Table " + table.name + u" still has index " + indexes[0] +
                                 (indexes.size() > 1 ? u" and more." : u".")};
  }
  if (!model.ObjectsUnder(table.setspec).empty()) {
    throw Failure{kNotEmpty, u"Table " + table.name + u" still contains data."};
  }
  for (Uid const child : model.ChildrenOf(row)) CheckCascade(model, child);
}

}  // namespace

void Apply(Model& model, DropTable const& operation) {
  CheckArgument(operation.table, u"full_table_name");
  Table const& table = ExistingTable(model, operation.table);
  if (!operation.drop_children) CheckNoChildren(model, table);
  DropOne(model, table.row, operation.drop_children, operation.force);
}

void Apply(Model& model, DropTables const& operation) {
  std::set<Uid> tables;
  for (Text const& name : operation.tables) {
    CheckArgument(name, u"full_table_name");
    tables.insert(ExistingTable(model, name).row);
  }
  if (!operation.force) {
    for (Uid const row : tables) CheckReferences(model, model.table(row), tables);
  }
  for (Uid const row : tables) {
    if (!model.tables.contains(row)) throw Failure{kRowUnreachable, u""};
    if (!operation.force) CheckNoClass(model, model.table(row));
    if (!operation.drop_children) CheckNoChildren(model, model.table(row));
    DropOne(model, row, operation.drop_children, true);
  }
}

void Apply(Model& model, DropTableCascade const& operation) {
  CheckArgument(operation.table, u"full_table_name");
  Uid const top = ExistingTable(model, operation.table).row;
  CheckCascade(model, top);
  for (Uid const row : model.SubtreeOf(top)) model.TakeTableOut(row);
  ++model.generation;
}

}  // namespace sagleme_model

#include <array>
#include <limits>
#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "catalogue/utils.h"
#include "frame/kernel_host.h"

namespace metalayer::ddl {

namespace {

constexpr unsigned long kDeleteRequest = 2;

struct ObjRefSetComparator {
  bool operator()(LS_OBJ_REF const& a, LS_OBJ_REF const& b) const {
    return a.oid != b.oid ? a.oid < b.oid : a.addr < b.addr;
  }
};

using TableSet = std::set<LS_OBJ_REF, ObjRefSetComparator>;

// ---- obstacles ------------------------------------------------------------------------------

void CheckNoChildren(RawView const& table) {
  constexpr int kEnough = 3;  // the text distinguishes one, two and more
  LS_OBJ_REF first = db_util::null_obj_ref;
  int count = 0;
  EnumChildren(table, [&](RawView const& child) {
    if (count == 0) first = child;
    if (count < kEnough) ++count;
  });
  if (count == 0) return;
  exceptions::ThrowTableHasChildren(FullNameOf(table), FullNameOf(first), count);
}

// A column of the table itself counts too.
LS_OBJ_REF GetColumnReferencigTable(RawView const& table) {
  return FirstByRef(ReferenceRawColumn::index_id_ReferenceRawColumnByDataType(), table);
}

LS_OBJ_REF TableOfColumn(LS_OBJ_REF const& column) {
  return db_record(column).get_ref(RawColumn::kTable);
}

[[noreturn]] void ThrowReferencedByColumn(RawView const& table, LS_OBJ_REF const& column) {
  LS_OBJ_REF const referring = TableOfColumn(column);
  std::u16string const referring_name =
      referring.oid == 0 ? std::u16string() : FullNameOf(referring);
  exceptions::ThrowTableIsReferenced(FullNameOf(table), GetText(column, RawColumn::kName),
                                     referring_name);
}

void CheckNotReferenced(RawView const& table) {
  LS_OBJ_REF const column = GetColumnReferencigTable(table);
  if (column.oid != 0) ThrowReferencedByColumn(table, column);
}

// Looks at the first referring column of each table, and at no more.
void CheckReferencesStayInside(TableSet const& tables) {
  for (LS_OBJ_REF const& table : tables) {
    LS_OBJ_REF const column = GetColumnReferencigTable(RawView(table));
    if (column.oid == 0) continue;
    if (!tables.contains(TableOfColumn(column))) ThrowReferencedByColumn(RawView(table), column);
  }
}

// ---- taking a table out of the catalogue ----------------------------------------------------

// Handles of the table exist, here and in other processes, and none is notified: the kernel refuses
// their objects, if it can.
void CloseSet(std::u16string const& setspec, uint32_t flags) {
  if (lscoredb_close_set == nullptr) return;
  Check(lscoredb_close_set(TlsContextHandle::context(), setspec.c_str(), flags));
}

// An earlier request to move is moot: the same row now requests deletion.
void RequestDelete(RawView const& table, std::u16string const& setspec) {
  unsigned short const layout = LayoutHandleOf(table);
  LS_OBJ_REF const request = VacuumRequestOf(setspec);
  if (request.oid == 0) {
    Vacuum::Insert(setspec.c_str(), layout, kDeleteRequest);
    return;
  }
  PutULong(request, Vacuum::kRequestKind, kDeleteRequest);
  PutULong(request, Vacuum::kExpectedLayout, layout);
}

void RegisterDelete(RawView const& table) {
  std::u16string const setspec = SetspecTextOf(table);
  RequestDelete(table, setspec);
  CloseSet(setspec, 0);
}

// The rows of set specifier and type id stay: the remaining objects still carry them.
void DropRvAndRcMeta(RawView const& table) {
  db_util::db_iter_with_keys columns;
  Key(columns.first_key).Ref(table).Null();
  Key(columns.last_key).Ref(table).Long(std::numeric_limits<long>::max());
  columns.open(RawColumn::index_id_RawColumnPK(), kForward);
  while (columns.next()) DeleteRow(columns.current);
  columns.free_resources();
  DeleteRow(table);
}

void DropIndexesOf(RawView const& table) {
  EnumByRef(Index::index_id_IndexByTable(), table,
            [](LS_OBJ_REF const& index) { DropIndex(Index(index)); });
}

// Descendants go first, each with its own checks.
void DropTable2(RawView const& table, bool drop_children, bool force) {
  if (!force) {
    CheckNotReferenced(table);
    CheckTableIsNotUsedByLevel1(table);
  }
  if (drop_children) {
    EnumChildren(table, [force](RawView const& child) { DropTable2(child, true, force); });
  }
  DropIndexesOf(table);
  AdvanceSchemaGeneration();
  RegisterDelete(table);
  DropRvAndRcMeta(table);
}

// The references were checked as a whole, so each table is dropped by force.
void DropMutuallyReferencingTables(TableSet const& tables, bool drop_children, bool force) {
  if (!force) CheckReferencesStayInside(tables);
  for (LS_OBJ_REF const& row : tables) {
    RawView const table(row);
    if (!force) CheckTableIsNotUsedByLevel1(table);
    if (!drop_children) CheckNoChildren(table);
    DropTable2(table, drop_children, true);
  }
}

// ---- cascade --------------------------------------------------------------------------------

void AssertNoIndex(RawView const& table) {
  db_util::db_iter_with_keys indexes;
  OpenByRef(indexes, Index::index_id_IndexByTable(), table);
  if (!indexes.next()) return;
  LS_OBJ_REF const first = indexes.current;
  bool const more = indexes.next();
  exceptions::ThrowTableHasIndex(FullNameOf(table), GetText(first, Index::kName), more);
}

using Setspecs = std::vector<std::u16string>;

// The range of a table's set specifier holds the objects of its descendants as well.
void AssertNoObject(RawView const& table, Setspecs& empty) {
  db_util::db_iter_with_keys objects;
  std::u16string setspec = SetspecTextOf(table);
  RangeGlobalSetspecIndex(setspec.c_str(), &objects);
  if (objects.current.oid != 0) exceptions::ThrowTableContainsData(FullNameOf(table));
  empty.push_back(std::move(setspec));
}

void AssertDropCascadeIsValid(RawView const& table, Setspecs& empty) {
  AssertNoIndex(table);
  AssertNoObject(table, empty);
  EnumChildren(table, [&empty](RawView const& child) { AssertDropCascadeIsValid(child, empty); });
}

using ChildBatch = std::array<LS_OBJ_REF, 16>;

// A batch that is not full ends with a null reference.
ChildBatch LoadChildren(RawView const& parent) {
  ChildBatch batch;
  batch.fill(db_util::null_obj_ref);
  db_util::db_iter_with_keys children;
  OpenByRef(children, RawView::index_id_RawViewIdxInherits(), parent);
  for (LS_OBJ_REF& child : batch) {
    if (!children.next()) break;
    child = children.current;
  }
  return batch;
}

// No scan over children stays open while they go, and their number takes no memory: those that went
// are gone from the index, and the next batch holds the rest.
void DropRvAndRcMetaCascade(RawView const& table) {
  bool full = true;
  while (full) {
    ChildBatch const batch = LoadChildren(table);
    full = batch.back().oid != 0;
    for (LS_OBJ_REF const& child : batch) {
      if (child.oid == 0) break;
      DropRvAndRcMetaCascade(RawView(child));
    }
  }
  DropRvAndRcMeta(table);
}

RawView ExistingTableArg(char16_t const* name) {
  exceptions::CheckNonEmptyStringArg(name, u"full_table_name");
  return ExistingTable(name);
}

}  // namespace

void DropTable(char16_t const* name, bool drop_children, bool force) {
  RawView const table = ExistingTableArg(name);
  if (!drop_children) CheckNoChildren(table);
  DropTable2(table, drop_children, force);
}

void DropTableCascade(char16_t const* name) {
  RawView const table = ExistingTableArg(name);
  Setspecs empty;
  AssertDropCascadeIsValid(table, empty);
  DropRvAndRcMetaCascade(table);
  for (std::u16string const& setspec : empty) CloseSet(setspec, kCloseEmpty);
  AdvanceSchemaGeneration();
}

void DropMutuallyReferencingTables(char16_t const** names, bool drop_children, bool force) {
  TableSet tables;
  for (; *names != nullptr; ++names) tables.insert(ExistingTableArg(*names));
  DropMutuallyReferencingTables(tables, drop_children, force);
}

void DropMutuallyReferencingTables(std::vector<DottedName> const& names, bool drop_children,
                                   bool force) {
  TableSet tables;
  for (DottedName const& name : names) tables.insert(DottedName2RawView(name));
  DropMutuallyReferencingTables(tables, drop_children, force);
}

}  // namespace metalayer::ddl

#include <sagleme/ucs2.h>

#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <set>
#include <utility>
#include <vector>

#include "catalogue/utils.h"

namespace metalayer {

namespace {

constexpr unsigned long kMoveRequest = 1;

}  // namespace

// A request that is pending keeps its kind, so that several changes leave one request that aims at
// the newest layout.
void RegisterMove(RawView const& view) {
  std::u16string const setspec = ddl::SetspecTextOf(view);
  unsigned short const layout = ddl::LayoutHandleOf(view);
  LS_OBJ_REF const request = ddl::VacuumRequestOf(setspec);
  if (request.oid != 0) return PutULong(request, Vacuum::kExpectedLayout, layout);
  Vacuum::Insert(setspec.c_str(), layout, kMoveRequest);
}

}  // namespace metalayer

namespace metalayer::ddl {

namespace {

using Definitions = span<LORV_COLUMN_DEFINITION_NAMES const>;

// Two records stay free: one for the terminator, one that the kernel records of new columns never
// fill.
constexpr int kMaxReloadedColumns = kMaxColumns - 2;

// The ordinals of the new columns, the same in every table of the subtree.
struct AddColumnsAt {
  int index;  // -1: nothing to shift
  int count;
};

int CountOf(Definitions const& definitions) {
  return definitions.empty() ? 0 : static_cast<int>(definitions.size()) - 1;
}

// ---- conflicting names ----------------------------------------------------------------------

struct Ucs2Less {
  bool operator()(char16_t const* a, char16_t const* b) const { return ucs2_cmp(a, b) < 0; }
};

// All conflicts of one table, so that one failure reports them all.
struct Conflicts {
  std::vector<std::pair<std::u16string, bool>> existing;
  std::vector<std::pair<std::u16string, std::u16string>> descendants;
  std::vector<std::u16string> added;

  bool empty() const { return existing.empty() && descendants.empty() && added.empty(); }
};

void GatherTaken(RawView const& table, char16_t const* name, bool is_descendant,
                 Conflicts& conflicts) {
  Member const member = Member::ByMemberPK(table, name);
  if (member.is_null()) return;
  if (is_descendant) {
    conflicts.descendants.emplace_back(name, FullNameOf(table));
  } else {
    conflicts.existing.emplace_back(name, GetBool(member, Member::kInherited));
  }
}

void GatherRepeated(Definitions const& definitions, Conflicts& conflicts) {
  std::set<char16_t const*, Ucs2Less> names;
  for (LORV_COLUMN_DEFINITION_NAMES const& definition : definitions.first(definitions.size() - 1)) {
    if (!names.insert(definition.name).second) conflicts.added.emplace_back(definition.name);
  }
}

void ReportColumnsConflicts(RawView const& table, Definitions const& definitions,
                            bool is_descendant) {
  Conflicts conflicts;
  for (LORV_COLUMN_DEFINITION_NAMES const& definition : definitions.first(definitions.size() - 1)) {
    GatherTaken(table, definition.name, is_descendant, conflicts);
  }
  GatherRepeated(definitions, conflicts);
  if (conflicts.empty()) return;
  exceptions::ThrowColumnNameNotUnique(
      FullNameOf(table), std::u16string(), std::move(conflicts.existing),
      std::move(conflicts.descendants), std::move(conflicts.added));
}

// ---- one table ------------------------------------------------------------------------------

// The table's own columns, from ordinal `first` on. Returns their number.
int LoadColumnDefs(RawView const& table, int first, KernelRecords& records) {
  int count = 0;
  EnumColumns(table, first, -1, [&](RawColumn const& column) {
    if (count == kMaxReloadedColumns) Throw(kTooManyKernelRecords);
    records.items[count++] = KernelRecordOf(table, column);
  });
  records.items[count].type = 0;
  return count;
}

void CheckColumnLimit(RawView const& table, int total) {
  if (total > static_cast<int>(kMaxColumns)) exceptions::ThrowTooManyColumns(FullNameOf(table));
}

// A target table may still be missing: it can be created afterwards.
void FixMeta(RawView const& table, Definitions const& definitions, bool inherited,
             AddColumnsAt const& at) {
  if (inherited && at.index != -1) ShiftColumns(table, at.index, at.count);
  MetaPopul8r populator(false);
  for (int i = 0; i < at.count; ++i) {
    populator.PopulateColumnMeta(table, definitions[static_cast<std::size_t>(i)], at.index + i,
                                 inherited);
  }
}

// ---- the subtree ----------------------------------------------------------------------------

void FixChildren(RawView const& parent, Definitions const& definitions, int inherited_count,
                 AddColumnsAt const& at);

// The kernel gets the child's own columns alone: the new ones come with its parent's new layout.
// `inherited_count` is what the parent had before this change.
void AddChildColumns(RawView child, Definitions const& definitions, int inherited_count,
                     AddColumnsAt const& at) {
  ReportColumnsConflicts(child, definitions, true);
  KernelRecords records;
  int const total = inherited_count + LoadColumnDefs(child, inherited_count, records);
  CheckColumnLimit(child, total + at.count);
  FixMeta(child, definitions, true, at);
  RecreateTable(child, records.all());
  RegisterMove(child);
  FixChildren(child, definitions, total, at);
}

void FixChildren(RawView const& parent, Definitions const& definitions, int inherited_count,
                 AddColumnsAt const& at) {
  EnumChildren(parent, [&](RawView const& child) {
    AddChildColumns(child, definitions, inherited_count, at);
  });
}

// Appends the new columns to the table's own ones.
void AppendNewColumns(RawView const& table, Definitions const& definitions, int index, int own,
                      KernelRecords& records) {
  span<LORVI_COLUMN_DEFINITION> const room = records.items;
  ToLorviColDefs(table, definitions, index, room.subspan(static_cast<std::size_t>(own)));
}

unsigned short AddColumns(RawView table, Definitions const& definitions) {
  int const count = CountOf(definitions);
  if (count == 0) exceptions::ThrowNoColumnDefinitions();
  int const inherited_count = GetColumnsCount(ParentOf(table));
  ReportColumnsConflicts(table, definitions, false);
  KernelRecords records;
  int const own = LoadColumnDefs(table, inherited_count, records);
  AddColumnsAt const at{inherited_count + own, count};
  CheckColumnLimit(table, at.index + at.count);
  FixMeta(table, definitions, false, at);
  AppendNewColumns(table, definitions, at.index, own, records);
  unsigned short const layout = RecreateTable(table, records.all());
  RegisterMove(table);
  FixChildren(table, definitions, at.index, at);
  AdvanceSchemaGeneration();
  return layout;
}

}  // namespace

unsigned short AddColumns(char16_t const* full_name, Definitions const& columns) {
  return AddColumns(ExistingTable(full_name), columns);
}

unsigned short AddColumns(DottedName const& name, Definitions const& columns) {
  return AddColumns(DottedName2RawView(name), columns);
}

}  // namespace metalayer::ddl

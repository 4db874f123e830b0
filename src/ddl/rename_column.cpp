#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <utility>

#include "catalogue/utils.h"

namespace metalayer::ddl {

namespace {

enum ConflictKind { kInAncestor = 1, kInTable = 2, kInDescendants = 3 };

// Once a conflict is certain, the search for more of them costs no more than this many tables.
constexpr int kMaxTablesAfterConflict = 1000;

// Writes the new name to the inherited rows of a subtree, and gathers the descendants that declare
// a column of that name. All rows are written, whatever is found: a failure ends the operation
// anyway.
class DescendantRenamer {
 public:
  DescendantRenamer(RawView const& table, short ordinal, char16_t const* new_name)
      : table_(table), ordinal_(ordinal), new_name_(new_name) {}

  void RenameBelow(RawView const& parent) {
    EnumChildren(parent, [this](RawView const& child) { RenameIn(child); });
  }

  void ReportConflicts() {
    conflicts_.exact = true;
    if (!conflicts_.columns.empty()) ThrowConflicts();
  }

 private:
  void RenameIn(RawView const& child) {
    RawColumn const column = RawColumn::ByRawColumnPK(child, ordinal_);
    CountVisit();
    GatherConflict(child);
    PutText(column, RawColumn::kName, new_name_);
    RenameBelow(child);
  }

  void CountVisit() {
    if (conflicts_.columns.empty()) return;
    if (visited_ > kMaxTablesAfterConflict) ThrowConflicts();
    ++visited_;
  }

  void GatherConflict(RawView const& child) {
    Member const member = Member::ByMemberPK(child, new_name_);
    if (member.is_null() || GetBool(member, Member::kInherited)) return;
    conflicts_.columns.push_back(member);
    conflicts_.kind = kInDescendants;
  }

  [[noreturn]] void ThrowConflicts() {
    exceptions::ThrowNewColumnNameIsConflicting(FullNameOf(table_), new_name_,
                                                std::move(conflicts_));
  }

  RawView table_;
  short ordinal_;
  char16_t const* new_name_;
  exceptions::NewColumnNameConflictsList conflicts_;
  int visited_ = 0;  // tables since the first conflict
};

// The row of the ancestor that declares an inherited column.
RawColumn DeclaringColumn(LS_OBJ_REF const& inherited) {
  short const ordinal = ColumnIndexOf(inherited);
  RawView table(db_record(inherited).get_ref(Member::kTable));
  for (;;) {
    table = ParentOf(table);
    RawColumn const column = RawColumn::ByRawColumnPK(table, ordinal);
    if (!GetBool(column, RawColumn::kInherited)) return column;
  }
}

[[noreturn]] void ThrowConflictInTable(RawView const& table, Member const& member,
                                       char16_t const* new_name) {
  bool const inherited = GetBool(member, Member::kInherited);
  exceptions::NewColumnNameConflictsList conflicts;
  conflicts.kind = inherited ? kInAncestor : kInTable;
  conflicts.columns.push_back(inherited ? DeclaringColumn(member) : RawColumn(member));
  conflicts.exact = true;
  exceptions::ThrowNewColumnNameIsConflicting(FullNameOf(table), new_name, std::move(conflicts));
}

// The new name is checked first: a column cannot be renamed to its own name.
void AlterTableRenameColumn(RawView const& table, char16_t const* old_name,
                            char16_t const* new_name) {
  Member const taken = Member::ByMemberPK(table, new_name);
  if (!taken.is_null()) ThrowConflictInTable(table, taken, new_name);
  RawColumn const column = GetNonInheritedColumn(table, old_name);
  PutText(column, RawColumn::kName, new_name);
  DescendantRenamer renamer(table, ColumnIndexOf(column), new_name);
  renamer.RenameBelow(table);
  renamer.ReportConflicts();
  AdvanceSchemaGeneration();
}

}  // namespace

void RenameColumn(char16_t const* table, char16_t const* old_name, char16_t const* new_name) {
  exceptions::CheckNonEmptyStringArg(table, u"full_table_name");
  exceptions::CheckNonEmptyStringArg(old_name, u"column_name");
  exceptions::CheckNonEmptyStringArg(new_name, u"column_new_name");
  AlterTableRenameColumn(ExistingTable(table), old_name, new_name);
}

void RenameColumn(DottedName const& table, char16_t const* old_name, char16_t const* new_name) {
  AlterTableRenameColumn(DottedName2RawView(table), old_name, new_name);
}

}  // namespace metalayer::ddl

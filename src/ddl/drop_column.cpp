#include <sagleme/metalayer/errors.hpp>
#include <sagleme/metalayer/schema.hpp>

#include "catalogue/utils.h"

namespace metalayer::ddl {

namespace {

// Rows that hold a column of one table: their number and the first of them.
struct Uses {
  int count = 0;
  LS_OBJ_REF first = db_util::null_obj_ref;

  void Add(LS_OBJ_REF const& row) {
    if (count++ == 0) first = row;
  }
};

bool IsColumnOfIndex(LS_OBJ_REF const& index, RawColumn const& column) {
  alignas(8) unsigned char key[db_util::db_iter_with_keys::kKeySize];
  Key(key).Ref(index).Ref(column);
  return LookupByKey(IndexedColumn::index_id_IndexedColumnPK(), key).oid != 0;
}

RawColumn ExistingColumnAt(RawView const& table, short ordinal) {
  RawColumn const column = RawColumn::ByRawColumnPK(table, ordinal);
  if (column.is_null()) FatalError();
  return column;
}

// Mappings of the column in the current table.
struct ColumnIsReferenced {
  Uses mapped;

  void Check(RawView const& table, short ordinal) {
    EnumByRef(MappedProperty::index_id_MappedPropertyByColumn(), ExistingColumnAt(table, ordinal),
              [this](LS_OBJ_REF const& property) { mapped.Add(property); });
  }
};

// Uses of the column in the current table. A use in a descendant is found when the change gets
// there.
struct ColumnUsageTracker {
  Uses indexes;
  ColumnIsReferenced referenced;

  bool is_used(RawView const& table, short ordinal) {
    RawColumn const column = ExistingColumnAt(table, ordinal);
    EnumByRef(Index::index_id_IndexByTable(), table, [&](LS_OBJ_REF const& index) {
      if (IsColumnOfIndex(index, column)) indexes.Add(index);
    });
    referenced.Check(table, ordinal);
    return indexes.count != 0 || referenced.mapped.count != 0;
  }
};

// Drops one column from the table that declares it and from all descendants, where it stands at the
// same ordinal, top down.
class ColumnDropper {
 public:
  ColumnDropper(RawView const& declaring, short ordinal)
      : declaring_(declaring), ordinal_(ordinal) {}

  // `first`: the ordinal of the table's first own column. Returns the table's new layout.
  unsigned short DropColumn(RawView table, int first) {
    CheckTableIsNotUsedByLevel1(table);
    CheckColumnIsUnused(table);
    RawColumn const column = ExistingColumnAt(table, ordinal_);
    int const old_count = LoadColumnDefsSkipColumn(table, first);
    unsigned short const layout = RecreateTable(table, records_.all());
    DeleteRow(column);
    if (ordinal_ != -1) ShiftColumns(table, ordinal_, -1);
    RegisterMove(table);
    EnumChildren(table, [&](RawView const& child) { DropColumn(child, old_count); });
    AdvanceSchemaGeneration();
    return layout;
  }

 private:
  void CheckColumnIsUnused(RawView const& table) const {
    ColumnUsageTracker tracker;
    if (!tracker.is_used(table, ordinal_)) return;
    std::u16string column = GetText(ExistingColumnAt(table, ordinal_), RawColumn::kName);
    Uses const& indexes = tracker.indexes;
    if (indexes.count != 0) {
      exceptions::ThrowIndexExistsOnColumn(FullNameOf(declaring_), std::move(column),
                                           GetText(indexes.first, Index::kName), FullNameOf(table),
                                           indexes.count);
    }
    Uses const& mapped = tracker.referenced.mapped;
    exceptions::ThrowColumnIsMapped(FullNameOf(declaring_), std::move(column),
                                    GetText(mapped.first, MappedProperty::kName), FullNameOf(table),
                                    mapped.count);
  }

  // Returns the ordinal behind the table's last column. In a descendant the dropped column lies
  // below `first`: it goes away with the parent's layout, and nothing is passed over.
  int LoadColumnDefsSkipColumn(RawView const& table, int first) {
    int ordinal = first;
    std::size_t count = 0;
    EnumColumns(table, first, -1, [&](RawColumn const& column) {
      if (ordinal++ == ordinal_) return;
      if (count == kMaxColumns - 1) Throw(kTooManyKernelRecords);
      records_.items[count++] = KernelRecordOf(table, column);
    });
    records_.items[count].type = 0;
    return ordinal;
  }

  RawView declaring_;
  short ordinal_;
  KernelRecords records_;  // used anew for each table
};

unsigned short AlterTableDropColumn(RawView const& table, char16_t const* column_name) {
  short const ordinal = ColumnIndexOf(GetNonInheritedColumn(table, column_name));
  int const first = GetColumnsCount(ParentOf(table));
  return ColumnDropper(table, ordinal).DropColumn(table, first);
}

}  // namespace

unsigned short DropColumn(char16_t const* table, char16_t const* column) {
  exceptions::CheckNonEmptyStringArg(table, u"full_table_name");
  exceptions::CheckNonEmptyStringArg(column, u"column_name");
  return AlterTableDropColumn(ExistingTable(table), column);
}

unsigned short DropColumn(DottedName const& table, char16_t const* column) {
  exceptions::CheckNonEmptyStringArg(column, u"column_name");
  return AlterTableDropColumn(DottedName2RawView(table), column);
}

}  // namespace metalayer::ddl

// The catalogue rows of the system tables. Each step looks whether its rows exist, so that a
// repeated run writes nothing.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/metaschema.hpp>
#include <sagleme/metalayer/names.hpp>

namespace metalayer {

namespace {

constexpr unsigned int kUniqueFlag = 1;

LS_OBJ_REF BaseView(TABLE_INFO const& table) {
  return table.base == nullptr ? db_util::null_obj_ref : table.base->raw_view;
}

// The table's row, found or written.
void AssureRawView(TABLE_INFO& table) {
  RawView const known = RawView::ByRawViewPK(table.layout);
  if (known.is_null()) {
    if (table.base != nullptr && table.base->raw_view.oid == 0) FatalError();
    table.raw_view = PopulateRawView(table.full_name, table.layout, BaseView(table), false);
  } else if (table.raw_view.oid == 0) {
    table.raw_view = known;
  } else if (table.raw_view.oid != known.oid) {
    FatalError();
  }
}

// Makes the table the owner of its set specifier.
void TieSetspec(TABLE_INFO const& table) {
  SetSpecifier const set = SetSpecifier::ByTypeId_postV2_3(table.setspec.c_str());
  if (set.is_null()) FatalError();
  LS_OBJ_REF const owner = set.get_ref(SetSpecifier::kType);
  if (owner.oid == table.raw_view.oid) return;
  if (owner.oid != 0 && owner.oid != set.oid) FatalError();
  PutRef(set, SetSpecifier::kType, table.raw_view);
}

void InsertIndexedColumn(LS_OBJ_REF const& index, LS_OBJ_REF const& table, char16_t const* column,
                         unsigned long position) {
  Member const member = Member::ByMemberPK(table, column);
  if (member.is_null()) FatalError();
  if (IndexedColumn::Insert(index, member, position, true).oid == 0) FatalError();
}

}  // namespace

void TABLE_INFO::populate_raw_view() {
  AssureRawView(*this);
  TieSetspec(*this);
}

void TABLE_INFO::populate_raw_columns(MetaPopul8r& populator) {
  int const first = populator.CopyParentColumns(raw_view, BaseView(*this));
  if (!RawColumn::ByRawColumnPK(raw_view, static_cast<short>(first)).is_null()) return;
  for (int i = 0; i < nr_columns; ++i) {
    populator.PopulateColumnMeta(raw_view, columns[static_cast<std::size_t>(i)], first + i, false);
  }
}

void TABLE_INFO::populate_indices() {
  for (unsigned short i = 0; i < nr_indexes; ++i) indexes[i].populate(raw_view);
}

void TABLE_INFO::populate_metadata(MetaPopul8r& populator) {
  populate_raw_columns(populator);
  populate_indices();
}

void INDEX_INFO::populate(LS_OBJ_REF table_ref) const {
  if (!Index::ByIndexPK(name).is_null()) return;
  LS_OBJ_REF const row = Index::Insert(name, table_ref, flags & kUniqueFlag, index_id);
  if (row.oid == 0) FatalError();
  for (unsigned short i = 0; i < nr_columns; ++i) {
    InsertIndexedColumn(row, table_ref, column_infos[i]->name, i);
  }
}

}  // namespace metalayer

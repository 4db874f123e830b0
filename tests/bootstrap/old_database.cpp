#include "bootstrap/old_database.h"

#include <gtest/gtest.h>

#include <vector>

namespace sagleme_test {

using namespace metalayer;

Configuration VersionRow() { return Configuration::ByConfigurationParameter(u"MetaschemaVersion"); }

void SetVersion(long version) { PutLong(VersionRow(), Configuration::kValue, version); }

unsigned long KernelIndex(char16_t const* name) {
  LORVI_INDEX_INFO info{};
  Check(get_index_info_by_token(assure_token(name), &info));
  return info.index_id;
}

void DropKernelIndex(char16_t const* name) {
  Check(lorvi_context_drop_index(TlsContextHandle::context(), KernelIndex(name)));
}

void DeleteIndexRows(char16_t const* name) {
  Index const row = Index::ByIndexPK(name);
  ASSERT_FALSE(row.is_null());
  ddl::DropIndexedColumns(row);
  DeleteRow(row);
}

unsigned long CreateKernelIndex(char16_t const* name, char16_t const* setspec,
                                char16_t const* column, uint8_t type, uint32_t flags) {
  LORVI_COLUMN_DEFINITION const columns[] = {{type, 0, assure_token(column)}, {}};
  unsigned long id = 0;
  Check(lorvi_context_create_index(TlsContextHandle::context(), assure_token(name), setspec,
                                   columns, 0, flags, &id));
  return id;
}

unsigned long MakeSpecifierIndexUnique() {
  DropKernelIndex(u"TypeId");
  unsigned long const id = CreateKernelIndex(u"TypeId", u"a~", u"TypeId", LORV_TYPE_STRING, 1);
  Index const row = Index::ByIndexPK(u"TypeId");
  PutULong(row, Index::kIndexHandle, id);
  PutULong(row, Index::kUnique, 1);
  return id;
}

RawView TableRow(char16_t const* full_name) { return RawView::ByRawViewPK2fullname(full_name); }

int DeleteObjects(std::u16string const& setspec) {
  int count = 0;
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(setspec.c_str(), &objects);
  for (; objects.current.oid != 0; objects.next(), ++count) DeleteRow(objects.current);
  return count;
}

}  // namespace sagleme_test

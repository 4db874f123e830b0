// Indexes of older databases that are not what the definition says: the unique one over the texts
// of set specifiers becomes one that is not, and one that was replaced under a new name goes.

#include <sagleme/metalayer/catalogue.hpp>
#include <sagleme/metalayer/ddl.hpp>
#include <sagleme/metalayer/schema.hpp>
#include <utility>

#include "bootstrap/system_tables.h"

namespace metalayer {

namespace {

constexpr char16_t const* kOldPrimitiveTypeIndex = u"DbPrimitiveTypePK";

// More than one index of the name means that the old one exists beside the new one.
bool HasOldSpecifierIndex() {
  LORVI_INDEX_INFO infos[2] = {};
  uint32_t count = 2;
  unsigned int const status = lorvi_context_get_index_infos_by_token(
      TlsContextHandle::context(), assure_token(kSpecifierIndex), &count, infos);
  if (status == LORV_STATUS_NO_INDEX) return false;
  if (status != 0) Throw(status);
  return count > 1 || (count == 1 && infos[0].flags == LORV_INDEX_UNIQUE);
}

// Dropping an index advances the schema's generation, whose row a fresh process has not found yet.
class GenerationScope {
 public:
  GenerationScope() : saved_(SchemaGeneration()) {
    db_util::db_iter_with_keys objects;
    RangeGlobalSetspecIndex(UserSchemaGeneration::setspec().c_str(), &objects);
    SchemaGeneration() = objects.current;
  }
  GenerationScope(GenerationScope const&) = delete;
  GenerationScope& operator=(GenerationScope const&) = delete;
  ~GenerationScope() { SchemaGeneration() = saved_; }

 private:
  LS_OBJ_REF const saved_;
};

}  // namespace

void SystemTables::RepairOldIndexes() {
  if (HasOldSpecifierIndex()) DropOldSpecifierIndex();
  Yield();
  DropOldPrimitiveTypeIndexes();
  std::u16string setspec = set_specifier_.setspec;
  DeclaredIndex(set_specifier_, kSpecifierIndex).create_metatable_index(&setspec);
  Yield();
  RecordSpecifierIndex();
  Yield();
}

void SystemTables::DropOldSpecifierIndex() {
  GenerationScope const generation;
  INDEX_INFO& index = DeclaredIndex(set_specifier_, kSpecifierIndex);
  Index row = Index::ByIndexPK(kSpecifierIndex);
  std::u16string setspec = set_specifier_.setspec;
  if (!row.is_null()) ddl::DropIndex(std::move(row));
  // A row written in this run has no number of an index, so the index still exists.
  if (HasOldSpecifierIndex() && index.load_metatable_index(&setspec)) {
    Check(lorvi_context_drop_index(TlsContextHandle::context(), index.index_id));
  }
  index.index_id = 0;  // of an index that is gone
}

void SystemTables::DropOldPrimitiveTypeIndexes() {
  LORVI_INDEX_INFO info{};
  while (get_index_info_by_token(assure_token(kOldPrimitiveTypeIndex), &info) == 0) {
    Check(lorvi_context_drop_index(TlsContextHandle::context(), info.index_id));
    Yield();
  }
}

// The index's row may have been written before the index was.
void SystemTables::RecordSpecifierIndex() {
  INDEX_INFO& index = DeclaredIndex(set_specifier_, kSpecifierIndex);
  index.verify();
  if (set_specifier_.raw_view.oid == 0) FatalError();
  index.populate(set_specifier_.raw_view);
  Index const row = Index::ByIndexPK(kSpecifierIndex);
  if (row.is_null()) FatalError();
  unsigned long const handle = GetULong(row, Index::kIndexHandle);
  if (handle == index.index_id) {
    if (GetULong(row, Index::kUnique) != 0) FatalError();
    return;
  }
  if (handle != 0) FatalError();
  PutULong(row, Index::kIndexHandle, index.index_id);
  PutULong(row, Index::kUnique, 0);
}

}  // namespace metalayer

#include "c_api.h"
#include "index_arguments.h"
#include "watched_work.h"

namespace lscore {
namespace {

LORVI_INDEX_INFO InfoOf(IndexDefinition const& index) {
  LORVI_INDEX_INFO info{};
  info.index_id = Raw(index.id);
  info.token = Raw(index.token);
  info.attribute_count = static_cast<std::uint16_t>(index.columns.size());
  info.flags = static_cast<std::uint16_t>(index.flags);
  return info;
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lorvi_context_create_index(uint64_t context, uint64_t token, char16_t const* setspec,
                                    LORVI_COLUMN_DEFINITION const* columns, uint16_t sort_mask,
                                    uint32_t flags, uint64_t* out_index_id) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr || columns == nullptr || out_index_id == nullptr) {
      return LSCOREDB_NULL_ARGUMENT;
    }
    auto index = DefinitionOf(setspec, columns, sort_mask, flags);
    index->token = Token{token};
    WatchedCall const call;
    *out_index_id = Raw(transaction.CreateIndex(std::move(index)));
    return LORV_STATUS_OK;
  });
}

uint32_t lorvi_context_drop_index(uint64_t context, uint64_t index_id) {
  return WithWriting(
      context, [&](Transaction& transaction) { return transaction.DropIndex(IndexId{index_id}); });
}

uint32_t lorvi_context_get_index_infos_by_token(uint64_t context, uint64_t token, uint32_t* count,
                                                LORVI_INDEX_INFO* out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (count == nullptr) return LSCOREDB_NULL_ARGUMENT;
    std::vector<IndexDefinition const*> const found = transaction.IndexesOf(Token{token});
    if (out == nullptr && *count != 0 && !found.empty()) return LSCOREDB_NULL_ARGUMENT;
    for (std::size_t i = 0; i < found.size() && i < *count; ++i) out[i] = InfoOf(*found[i]);
    *count = static_cast<uint32_t>(found.size());
    return LORV_STATUS_OK;
  });
}

uint32_t lorvi_context_get_index_setspec(uint64_t context, uint64_t index_id,
                                         char16_t const** out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    IndexDefinition const* const index = transaction.FindIndex(IndexId{index_id});
    if (index == nullptr) return LORV_STATUS_NO_INDEX;
    *out = index->setspec.c_str();
    return LORV_STATUS_OK;
  });
}

uint32_t lorv_context_create_iterator(uint64_t context, uint64_t index_id, uint32_t flags,
                                      void const* first_key, void const* last_key,
                                      uint64_t* out_iterator) {
  return Guarded([&]() -> Status {
    Context* const found = Contexts().Find(context);
    if (found == nullptr) return LSCOREDB_UNKNOWN_CONTEXT;
    if (!found->transaction().open()) return LSCOREDB_NO_TRANSACTION;
    if (first_key == nullptr || last_key == nullptr || out_iterator == nullptr) {
      return LSCOREDB_NULL_ARGUMENT;
    }
    bool const reverse = flags == LORV_ITERATOR_REVERSE;
    if (!reverse && flags != LORV_ITERATOR_FORWARD) return LSCOREDB_INVALID_ARGUMENT;
    return found->CreateIterator(IndexId{index_id}, reverse, first_key, last_key, out_iterator);
  });
}

uint32_t lorv_iterator_next(uint64_t iterator, LORV_REFERENCE* out) {
  return Guarded([&]() -> Status {
    OpenIterator* const open = Iterators().Find(iterator);
    if (open == nullptr) return LSCOREDB_UNKNOWN_ITERATOR;
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    EntryObject ready;
    if (open->iterator.NextReady(&ready)) {
      *out = {Raw(ready.object), 0, Raw(ready.layout)};
      return LORV_STATUS_OK;
    }
    ObjectId object{};
    LayoutNumber layout{};
    Status const status = open->iterator.Next(&object, &layout);
    if (status != LORV_STATUS_OK) return status;
    if (object == kNoObject) {
      out->oid = 0;
    } else {
      *out = {Raw(object), 0, Raw(layout)};
    }
    return LORV_STATUS_OK;
  });
}

uint32_t lorv_iterator_free(uint64_t iterator) {
  return Guarded([&]() -> Status {
    OpenIterator* const open = Iterators().Find(iterator);
    if (open == nullptr) return LSCOREDB_UNKNOWN_ITERATOR;
    open->context->FreeIterator(*open);
    return LORV_STATUS_OK;
  });
}

#include <lscoredb/bulk.h>

#include <algorithm>
#include <array>
#include <span>

#include "c_api.h"

namespace lscore {
namespace {

// Objects of an iterator on their way to the caller.
constexpr std::size_t kPiece = 256;

Status NextMany(Iterator& iterator, bool fetch, std::span<LORV_REFERENCE> out,
                std::uint32_t* count) {
  std::array<EntryObject, kPiece> piece;
  std::size_t filled = 0;
  std::size_t got = 0;
  do {
    std::size_t const room = std::min(kPiece, out.size() - filled);
    Status const status = iterator.NextMany(std::span(piece).first(room), fetch, &got);
    if (status != LORV_STATUS_OK) return status;
    for (std::size_t i = 0; i < got; ++i) {
      out[filled++] = {Raw(piece[i].object), 0, Raw(piece[i].layout)};
    }
  } while (got == kPiece && filled < out.size());
  *count = static_cast<std::uint32_t>(filled);
  return LORV_STATUS_OK;
}

Status Skip(Iterator& iterator, std::uint32_t most, std::uint32_t* count) {
  std::size_t skipped = 0;
  Status const status = iterator.Skip(most, &skipped);
  if (status == LORV_STATUS_OK) *count = static_cast<std::uint32_t>(skipped);
  return status;
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lscoredb_iterator_next_many(uint64_t iterator, uint32_t flags, uint32_t capacity,
                                     LORV_REFERENCE* out, uint32_t* count) {
  return Guarded([&]() -> Status {
    OpenIterator* const open = Iterators().Find(iterator);
    if (open == nullptr) return LSCOREDB_UNKNOWN_ITERATOR;
    bool const counts = flags == LSCOREDB_COUNT_ONLY;
    bool const missing = out == nullptr && capacity != 0 && !counts;
    if (missing || count == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (counts) return Skip(open->iterator, capacity, count);
    if ((flags & ~LSCOREDB_FETCH_ROWS) != 0) return LSCOREDB_INVALID_ARGUMENT;
    return NextMany(open->iterator, (flags & LSCOREDB_FETCH_ROWS) != 0, {out, capacity}, count);
  });
}

uint32_t lscoredb_fetch(uint64_t context, uint32_t count, uint64_t const* oids) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (oids == nullptr && count != 0) return LSCOREDB_NULL_ARGUMENT;
    transaction.Fetch({oids, count});
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_read_words(uint64_t context, uint32_t count, uint64_t const* oids,
                             uint16_t layout, uint32_t column, uint64_t* values, uint8_t* states) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    bool const missing = oids == nullptr || values == nullptr || states == nullptr;
    if (missing && count != 0) return LSCOREDB_NULL_ARGUMENT;
    return transaction.many_values().Words({oids, count}, LayoutNumber{layout}, column, values,
                                           states);
  });
}

uint32_t lscoredb_read_values(uint64_t context, uint32_t count, uint64_t const* oids,
                              uint16_t layout, uint32_t column, void const** data,
                              uint64_t* offsets, uint8_t* states) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    bool const missing = count != 0 && (oids == nullptr || states == nullptr);
    if (missing || data == nullptr || offsets == nullptr) return LSCOREDB_NULL_ARGUMENT;
    ManyValues& values = transaction.many_values();
    Status const status =
        values.Bytes({oids, count}, LayoutNumber{layout}, column, offsets, states);
    if (status == LORV_STATUS_OK) *data = values.buffer();
    return status;
  });
}

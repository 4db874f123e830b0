#include <lscoredb/move.h>

#include <bit>
#include <limits>
#include <span>
#include <vector>

#include "c_api.h"
#include "watched_work.h"

namespace lscore {
namespace {

constexpr TypeSet kUnsigned = TypeBit(LORV_TYPE_ULONG) | TypeBit(LORV_TYPE_KEY);
constexpr TypeSet kAnyType = ~TypeSet{0};
constexpr std::size_t kMaxLength = std::numeric_limits<std::uint32_t>::max();  // units or bytes

Status WriteColumn(std::uint64_t context, std::uint64_t oid, std::uint64_t addr,
                   std::uint32_t column, TypeSet types, NewValue const& value) noexcept {
  return WithWriting(context, [&](Transaction& transaction) {
    return transaction.Write(ObjectId{oid}, LayoutOf(addr), column, types, value);
  });
}

NewValue Fixed(std::uint64_t bits) {
  NewValue value;
  value.kind = NewValue::Kind::kFixed;
  value.bits = bits;
  return value;
}

Status InsertInto(std::uint64_t context, std::uint16_t table_id, std::uint64_t* out_oid) noexcept {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (out_oid == nullptr) return LSCOREDB_NULL_ARGUMENT;
    *out_oid = Raw(transaction.Insert(LayoutNumber{table_id}));
    return LORV_STATUS_OK;
  });
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lorv_context_put_ulong(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                uint64_t value) {
  return WriteColumn(context, oid, addr, column, kUnsigned, Fixed(value));
}

uint32_t lorv_context_put_long(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                               int64_t value) {
  return WriteColumn(context, oid, addr, column, TypeBit(LORV_TYPE_LONG),
                     Fixed(static_cast<uint64_t>(value)));
}

uint32_t lorv_context_put_decimal(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                  int64_t millionths) {
  return WriteColumn(context, oid, addr, column, TypeBit(LORV_TYPE_DECIMAL),
                     Fixed(static_cast<uint64_t>(millionths)));
}

uint32_t lorv_context_put_float(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                float value) {
  return WriteColumn(context, oid, addr, column, TypeBit(LORV_TYPE_FLOAT),
                     Fixed(std::bit_cast<uint32_t>(value)));
}

uint32_t lorv_context_put_double(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 double value) {
  return WriteColumn(context, oid, addr, column, TypeBit(LORV_TYPE_DOUBLE),
                     Fixed(std::bit_cast<uint64_t>(value)));
}

uint32_t lorv_context_put_string(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 char16_t const* text) {
  NewValue value;
  if (text != nullptr) {
    value.kind = NewValue::Kind::kText;
    value.text = text;
  }
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (value.text.size() > kMaxLength) return LSCOREDB_TOO_LARGE;
    return transaction.Write(ObjectId{oid}, LayoutOf(addr), column, TypeBit(LORV_TYPE_STRING),
                             value);
  });
}

uint32_t lorv_context_put_binary(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 void const* data, uint64_t size) {
  NewValue value;
  if (data != nullptr) {
    value.kind = NewValue::Kind::kBinary;
    value.bytes = {static_cast<char const*>(data), size};
  }
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (data == nullptr && size != 0) return LSCOREDB_NULL_ARGUMENT;
    if (size > kMaxLength) return LSCOREDB_TOO_LARGE;
    return transaction.Write(ObjectId{oid}, LayoutOf(addr), column, TypeBit(LORV_TYPE_BINARY),
                             value);
  });
}

uint32_t lorv_context_put_reference(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                    uint64_t target_oid, uint64_t) {
  return WriteColumn(context, oid, addr, column, TypeBit(LORV_TYPE_REFERENCE),
                     target_oid == 0 ? NewValue{} : Fixed(target_oid));
}

uint32_t lorv_context_put_default(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column) {
  return WriteColumn(context, oid, addr, column, kAnyType, NewValue{});
}

uint32_t lorv_context_put_setspec(uint64_t context, uint64_t oid, uint64_t,
                                  char16_t const* setspec) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr) return LSCOREDB_NULL_ARGUMENT;
    std::u16string_view const text(setspec);
    if (text.size() > kMaxLength) return LSCOREDB_TOO_LARGE;
    return transaction.WriteSetspec(ObjectId{oid}, text);
  });
}

uint32_t lscoredb_move_to_set(uint64_t context, uint64_t oid, uint16_t layout,
                              char16_t const* setspec, lscoredb_column_copy const* copies,
                              uint32_t count) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr || (copies == nullptr && count != 0)) return LSCOREDB_NULL_ARGUMENT;
    std::u16string_view const text(setspec);
    if (text.size() > kMaxLength) return LSCOREDB_TOO_LARGE;
    WatchedWork().Advance();
    std::vector<ColumnCopy> pairs;
    for (lscoredb_column_copy const& copy : std::span(copies, count)) {
      pairs.push_back({Token{copy.from}, Token{copy.to}});
    }
    return transaction.MoveToSet(ObjectId{oid}, LayoutNumber{layout}, text, pairs);
  });
}

uint32_t lscoredb_move_prepared(uint64_t context, char16_t const* setspec, char16_t const* to,
                                lscoredb_column_copy const* copies, uint32_t count) {
  return WithWriting(context, [&](Transaction& transaction) -> Status {
    if (setspec == nullptr || to == nullptr) return LSCOREDB_NULL_ARGUMENT;
    if (copies == nullptr && count != 0) return LSCOREDB_NULL_ARGUMENT;
    MovedPrepared moved{setspec, to, {}};
    if (moved.from.size() > kMaxLength || moved.to.size() > kMaxLength) return LSCOREDB_TOO_LARGE;
    for (lscoredb_column_copy const& copy : std::span(copies, count)) {
      moved.tokens.emplace(Token{copy.from}, Token{copy.to});
    }
    transaction.MovePrepared(std::move(moved));
    return LORV_STATUS_OK;
  });
}

uint32_t lorv_context_insert_system(uint64_t context, uint16_t table_id, uint64_t* out_oid) {
  return InsertInto(context, table_id, out_oid);
}

uint32_t lorv_context_insert(uint64_t context, uint16_t table_id, uint64_t* out_oid) {
  return InsertInto(context, table_id, out_oid);
}

uint32_t lorvi_context_insert_with_id(uint64_t context, uint16_t table_id, uint64_t oid) {
  return WithWriting(context, [&](Transaction& transaction) {
    return transaction.InsertWithId(LayoutNumber{table_id}, ObjectId{oid});
  });
}

uint32_t lorv_context_delete(uint64_t context, uint64_t oid, uint64_t) {
  return WithWriting(context,
                     [&](Transaction& transaction) { return transaction.Delete(ObjectId{oid}); });
}

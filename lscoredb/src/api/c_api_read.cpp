#include <bit>
#include <type_traits>

#include "c_api.h"

namespace lscore {
namespace {

constexpr TypeSet kUnsigned = TypeBit(LORV_TYPE_ULONG) | TypeBit(LORV_TYPE_KEY);

template <typename Out>
using BitsOf = std::conditional_t<sizeof(Out) == 4, std::uint32_t, std::uint64_t>;

// Reads a fixed column, whose bits are those of an Out, perhaps with more above them.
template <typename Out>
Status ReadFixed(std::uint64_t context, std::uint64_t oid, std::uint64_t addr, std::uint32_t column,
                 TypeSet types, Out* out) noexcept {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    std::uint64_t bits = 0;
    Status const status =
        transaction.ReadFixed(ObjectId{oid}, LayoutOf(addr), column, types, &bits);
    if (status == LORV_STATUS_OK) *out = std::bit_cast<Out>(static_cast<BitsOf<Out>>(bits));
    return status;
  });
}

// Reads a column and hands its cell to `deliver`, which writes the output.
template <typename Out, typename Deliver>
Status ReadColumn(std::uint64_t context, std::uint64_t oid, std::uint64_t addr,
                  std::uint32_t column, TypeSet types, Out* out, Deliver&& deliver) noexcept {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    Cell cell;
    Status const status = transaction.Read(ObjectId{oid}, LayoutOf(addr), column, types, &cell);
    if (status == LORV_STATUS_OK) deliver(transaction, cell);
    return status;
  });
}

// Texts of columns can be as long as memory; a set specifier goes the same way.
LORV_STRING* HandOut(Transaction& transaction, Cell const& cell) {
  return transaction.result_buffers().Text(cell.text());
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lorv_context_get_ulong(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                uint64_t* out) {
  return ReadFixed(context, oid, addr, column, kUnsigned, out);
}

uint32_t lorv_context_get_long(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                               int64_t* out) {
  return ReadFixed(context, oid, addr, column, TypeBit(LORV_TYPE_LONG), out);
}

uint32_t lorv_context_get_decimal(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                  int64_t* out) {
  return ReadFixed(context, oid, addr, column, TypeBit(LORV_TYPE_DECIMAL), out);
}

uint32_t lorv_context_get_float(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                float* out) {
  return ReadFixed(context, oid, addr, column, TypeBit(LORV_TYPE_FLOAT), out);
}

uint32_t lorv_context_get_double(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 double* out) {
  return ReadFixed(context, oid, addr, column, TypeBit(LORV_TYPE_DOUBLE), out);
}

uint32_t lorv_context_get_string(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 LORV_STRING** out) {
  return ReadColumn(
      context, oid, addr, column, TypeBit(LORV_TYPE_STRING), out,
      [out](Transaction& transaction, Cell const& cell) { *out = HandOut(transaction, cell); });
}

uint32_t lorv_context_get_binary(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 LORV_BINARY** out) {
  return ReadColumn(context, oid, addr, column, TypeBit(LORV_TYPE_BINARY), out,
                    [out](Transaction& transaction, Cell const& cell) {
                      *out = transaction.result_buffers().Binary(cell.bytes());
                    });
}

uint32_t lorv_context_get_reference(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                    LORV_REFERENCE* out) {
  return ReadColumn(context, oid, addr, column, TypeBit(LORV_TYPE_REFERENCE), out,
                    [out](Transaction& transaction, Cell const& cell) {
                      LayoutNumber layout = kNoLayout;  // stays for an object that does not exist
                      static_cast<void>(transaction.Lookup(ObjectId{cell.bits}, &layout));
                      *out = {cell.bits, 0, Raw(layout)};
                    });
}

uint32_t lorvi_context_get_refid(uint64_t context, uint64_t oid, uint64_t addr, uint32_t column,
                                 uint64_t* out) {
  return ReadFixed(context, oid, addr, column, TypeBit(LORV_TYPE_REFERENCE), out);
}

uint32_t lorv_context_get_setspec(uint64_t context, uint64_t oid, uint64_t, LORV_STRING** out) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out == nullptr) return LSCOREDB_NULL_ARGUMENT;
    Cell cell;
    Status const status = transaction.Setspec(ObjectId{oid}, &cell);
    if (status == LORV_STATUS_OK) *out = HandOut(transaction, cell);
    return status;
  });
}

uint32_t lorv_context_lookup(uint64_t context, uint64_t oid, uint64_t* out_addr) {
  return WithTransaction(context, [&](Transaction& transaction) -> Status {
    if (out_addr == nullptr) return LSCOREDB_NULL_ARGUMENT;
    LayoutNumber layout = kNoLayout;
    Status const status = transaction.Lookup(ObjectId{oid}, &layout);
    if (status == LORV_STATUS_OK) *out_addr = Raw(layout);
    return status;
  });
}

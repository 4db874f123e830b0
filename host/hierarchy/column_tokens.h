#ifndef SAGLEME_HOST_HIERARCHY_COLUMN_TOKENS_H
#define SAGLEME_HOST_HIERARCHY_COLUMN_TOKENS_H

// The tokens by which the kernel knows columns: two tables have the same token for a column that
// both inherit from one ancestor.

#include <lscoredb/move.h>

#include <sagleme/host.hpp>
#include <string>
#include <utility>
#include <vector>

namespace sagleme {

inline std::uint64_t TokenOf(Transaction const& transaction, Table const& table,
                             Column const& column) {
  LORVI_COLUMN_INFO info{};
  detail::CheckKernel(
      lorvi_context_get_column_info(transaction.context(), table.layout, column.ordinal, &info));
  return info.token;
}

// Whether values of one column can stand in the other.
inline bool SameKind(Column const& a, Column const& b) {
  return a.type == b.type && a.target_id == b.target_id && a.target == b.target;
}

// A table and a set that an object moves to.
struct Destination {
  std::uint16_t layout = 0;
  std::u16string setspec;
  std::vector<lscoredb_column_copy> copies;

  std::uint32_t Take(Transaction const& transaction, ObjectId object) const {
    return lscoredb_move_to_set(transaction.context(), object.value, layout, setspec.c_str(),
                                copies.data(), static_cast<std::uint32_t>(copies.size()));
  }
};

}  // namespace sagleme

#endif

#ifndef SAGLEME_HOST_TEXT_FETCH_H
#define SAGLEME_HOST_TEXT_FETCH_H

// Objects that will be read or changed one after the other: from a server they come together.

#include <lscoredb/bulk.h>

#include <sagleme/host.hpp>
#include <span>
#include <vector>

namespace sagleme::detail {

inline void FetchObjects(Transaction const& transaction, std::span<ObjectId const> ids) {
  std::vector<std::uint64_t> numbers;
  numbers.reserve(ids.size());
  for (ObjectId const id : ids) numbers.push_back(id.value);
  CheckKernel(lscoredb_fetch(transaction.context(), static_cast<std::uint32_t>(numbers.size()),
                             numbers.data()));
}

}  // namespace sagleme::detail

#endif

#ifndef SAGLEME_HOST_SCHEMA_REFUSED_BUILD_H
#define SAGLEME_HOST_SCHEMA_REFUSED_BUILD_H

// Why a unique index could not be built over the existing objects.

#include <optional>
#include <sagleme/schema_plan.hpp>
#include <string>

namespace sagleme {

struct RefusedBuild {
  std::string key;  // as messages have it
  ObjectId first;   // the lower one of two objects that have it
  ObjectId second;
};

// For the index that the kernel refused last in the transaction. Nothing if it refused none because
// of a key.
std::optional<RefusedBuild> FindRefusedBuild(Transaction& transaction,
                                             change::CreateIndex const& refused);

}  // namespace sagleme

#endif

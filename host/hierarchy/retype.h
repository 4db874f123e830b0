#ifndef SAGLEME_HOST_HIERARCHY_RETYPE_H
#define SAGLEME_HOST_HIERARCHY_RETYPE_H

#include <sagleme/hierarchy.hpp>

#include "hierarchy/known_referrers.h"

namespace sagleme {

// Retype in one of the transactions of a job, which has written nothing yet.
std::uint64_t RetypeInJob(Transaction& transaction, std::span<ObjectId const> objects,
                          Table const& to, RetypeOptions const& options, KnownReferrers& known);

}  // namespace sagleme

#endif

#ifndef SAGLEME_HOST_ANNOTATIONS_DELETION_H
#define SAGLEME_HOST_ANNOTATIONS_DELETION_H

// References that go without their object being deleted.

#include <functional>
#include <sagleme/annotations.hpp>
#include <span>
#include <vector>

#include "annotations/rules.h"

namespace sagleme::detail {

// What an object of `table` refers to in those columns with the rule last that `goes` holds for.
std::vector<ObjectId> CountedTargets(Rules const& rules, Object const& object, Table const& table,
                                     std::function<bool(Column const&)> const& goes);

// Deletes those of the targets that no reference with that rule leads to any more.
void ReleaseTargets(Transaction& transaction, std::span<ObjectId const> targets);

}  // namespace sagleme::detail

#endif

#ifndef SAGLEME_HOST_HIERARCHY_REFERRERS_H
#define SAGLEME_HOST_HIERARCHY_REFERRERS_H

// References whose targets are about to leave the tables that their columns allow.

#include <functional>
#include <sagleme/hierarchy.hpp>
#include <vector>

namespace sagleme {

struct ReferrerQuery {
  // Whether objects that leave may be of this target now, and are not afterwards.
  std::function<bool(Table const& target)> loses;
  // Whether an object leaves.
  std::function<bool(ObjectId object)> leaves;
  // The objects that leave, if they are few enough to be looked up one by one in an index.
  std::vector<ObjectId> few;
};

// Reads indexes for few objects, else every object of the referring tables.
std::vector<Referrer> FindReferrers(Transaction& transaction, ReferrerQuery const& query);

// Does what the option says. `what` begins the text of the refusal: "object 5 cannot become ...".
void SettleReferrers(Transaction& transaction, std::vector<Referrer> const& referrers,
                     Referring referring, std::string const& what);

}  // namespace sagleme

#endif

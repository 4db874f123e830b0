#ifndef SAGLEME_HOST_HIERARCHY_REFERRERS_H
#define SAGLEME_HOST_HIERARCHY_REFERRERS_H

// References whose targets are about to leave the tables that their columns allow.

#include <functional>
#include <optional>
#include <sagleme/hierarchy.hpp>
#include <vector>

namespace sagleme {

class KnownReferrers;

struct ReferrerQuery {
  // Whether objects that leave may be of this target now, and are not afterwards.
  std::function<bool(Table const& target)> loses;
  // Whether an object leaves.
  std::function<bool(ObjectId object)> leaves;
  // The objects that leave, if they are known one by one.
  std::vector<ObjectId> objects;
  // What a job knows of references that no index has; null: nothing.
  KnownReferrers* known = nullptr;
};

// Looks known objects up in an index that begins with the column. Without one it reads every object
// of the referring table.
std::vector<Referrer> FindReferrers(Transaction& transaction, ReferrerQuery const& query);

// Where an object's reference leads, if it does.
std::optional<ObjectId> TargetOf(Object const& object, Table const& table, Column const& column);
// Appends the object if its reference leads to one that leaves.
void AddIfItLeaves(Object const& object, Table const& table, Column const& column,
                   ReferrerQuery const& query, std::vector<Referrer>& found);

// Does what the option says. `what` begins the text of the refusal: "object 5 cannot become ...".
void SettleReferrers(Transaction& transaction, std::vector<Referrer> const& referrers,
                     Referring referring, std::string const& what);

}  // namespace sagleme

#endif

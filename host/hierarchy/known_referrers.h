#ifndef SAGLEME_HOST_HIERARCHY_KNOWN_REFERRERS_H
#define SAGLEME_HOST_HIERARCHY_KNOWN_REFERRERS_H

// The references to the objects of a job, from tables without an index on them.
//
// Each of the job's transactions asks for those to a few of the objects. A table is read for all of
// them at once, and again only when somebody has changed an object of it since.

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "hierarchy/referrers.h"

namespace sagleme {

class KnownReferrers {
 public:
  // All that the transactions ask for.
  explicit KnownReferrers(std::span<ObjectId const> objects);

  // Appends the references by a column to objects that leave. REQUIRES: the transaction has not
  // changed an object of the table.
  void Find(Transaction& transaction, Table const& table, Column const& column,
            ReferrerQuery const& query, std::vector<Referrer>& found);

 private:
  struct Reference {
    std::uint64_t target = 0;
    std::uint64_t object = 0;

    friend auto operator<=>(Reference const&, Reference const&) = default;
  };
  struct Known {
    std::u16string setspec;     // of the table that was read
    std::uint64_t changed = 0;  // the last change of it by then
    bool whole = false;         // not too many to be kept
    std::vector<Reference> references;
  };

  void Read(Transaction& transaction, Table const& table, Column const& column,
            ReferrerQuery const& query, Known& known, std::vector<Referrer>& found) const;

  std::vector<std::uint64_t> objects_;
  std::map<std::uint64_t, Known> columns_;  // by identity
};

}  // namespace sagleme

#endif

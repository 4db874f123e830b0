#ifndef SAGLEME_HOST_DUPLICATES_HPP
#define SAGLEME_HOST_DUPLICATES_HPP

// What a person needs to know about a key that a unique index refused.

#include <sagleme/export.h>

#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

// A value that an object is about to get.
struct NewValue {
  Column const* column = nullptr;
  Value value;
};

// "duplicate key "ada@x" in unique index PersonByEmail (object 131073)": the key, the index and the
// object that holds the key. Nothing when no unique index of the table holds another object for
// what `object` would be with the new values. REQUIRES: the columns are those of `table`, which is
// the object's.
SAGLEME_HOST_API std::string DescribeDuplicate(Transaction& transaction, Object const& object,
                                               Table const& table,
                                               std::vector<NewValue> const& values);

// Commits the transaction, which belongs to the context. If only the commit can refuse a key, since
// another transaction took it meanwhile or a scan was open when it was written, the Error with
// LSCOREDB_DUPLICATE_KEY describes it in the same way.
SAGLEME_HOST_API void Commit(Transaction& transaction, Context const& context);

}  // namespace sagleme

#endif

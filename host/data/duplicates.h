#ifndef SAGLEME_TOOL_DATA_DUPLICATES_H
#define SAGLEME_TOOL_DATA_DUPLICATES_H

// What a person needs to know about a key that a unique index refused.

#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace tool {

// A value that an object is about to get.
struct NewValue {
  sagleme::Column const* column = nullptr;
  sagleme::Value value;
};

// "duplicate key "ada@x" in unique index PersonByEmail (object 131073)": the key, the index and the
// object that holds the key. Nothing when no unique index of the table holds another object for
// what `object` would be with the new values. REQUIRES: the columns are those of `table`, which is
// the object's.
std::string DescribeDuplicate(sagleme::Transaction& transaction, sagleme::Object const& object,
                              sagleme::Table const& table, std::vector<NewValue> const& values);

}  // namespace tool

#endif

#ifndef SAGLEME_HOST_COLUMNS_REWRITE_H
#define SAGLEME_HOST_COLUMNS_REWRITE_H

// The edited columns of a subtree made real: rows, layouts, values and indexes.

#include <string>
#include <vector>

#include "columns/convert.h"
#include "columns/subtree.h"

namespace sagleme::columns {

struct Rewrite {
  std::u16string column;
  // Of the column in its new place.
  Wanted wanted;
  // Tables that the column went down to.
  std::vector<std::u16string> tables;
  // Values may have to be written although their stored form stays.
  bool values = false;
};

// Writes the subtree. Where the column's stored form is another one than before, it also writes the
// converted value of each object. Advances the schema generation.
void Apply(Transaction& transaction, Subtree& subtree, Rewrite const& rewrite);

}  // namespace sagleme::columns

#endif

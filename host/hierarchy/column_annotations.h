#ifndef SAGLEME_HOST_HIERARCHY_COLUMN_ANNOTATIONS_H
#define SAGLEME_HOST_HIERARCHY_COLUMN_ANNOTATIONS_H

// Annotations of columns belong to the table that declares them, which another base changes.

#include <sagleme/annotations.hpp>
#include <string>
#include <vector>

#include "hierarchy/shape.h"

namespace sagleme {

class ColumnAnnotations {
 public:
  // Takes those of columns that tables will declare themselves, and removes those of columns that
  // become the new base's.
  ColumnAnnotations(Transaction& transaction, std::vector<Shape> const& shapes);

  // Gives them to the same columns again, which the tables declare by now.
  void Restore() const;

 private:
  struct Entry {
    std::u16string table;
    std::u16string column;
    std::string comment;
    Value standard;
    OnDelete on_delete = OnDelete::kKeep;
  };

  void Take(Table const& table, Column const& column);
  void Remove(Table const& table, Column const& column) const;

  Transaction& transaction_;
  std::vector<Entry> entries_;
};

}  // namespace sagleme

#endif

#ifndef SAGLEME_HOST_COLUMNS_INDEXES_H
#define SAGLEME_HOST_COLUMNS_INDEXES_H

// The indexes that one column of a subtree is part of, while the column changes.

#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "columns/subtree.h"

namespace sagleme::columns {

class IndexesOnColumn {
 public:
  // REQUIRES: the subtree was edited and not yet written.
  // `nullable`: whether the column will be.
  IndexesOnColumn(Transaction& transaction, Subtree const& subtree, std::u16string column,
                  bool nullable);

  // REQUIRES: the subtree was written, and no value yet. Drops the kernel's indexes that read the
  // column by a token that it no longer has in their table, or that treat null otherwise, and the
  // columns of those that lost it.
  // Tables can be read only after it.
  void Detach();
  // REQUIRES: the values are written. Builds those indexes anew; one whose table lost the column
  // goes to the first of `tables` below that table, with equal ones for the others.
  void Attach(std::vector<std::u16string> const& tables);

 private:
  struct Held {
    Index index;
    std::size_t node = 0;
    std::uint64_t token = 0;
    bool nullable = false;
  };

  bool IsLost(Held const& held) const;
  bool IsStale(Held const& held) const;
  void Rebuild(Index const& index, std::u16string const& table) const;
  void Relocate(Held const& held, std::vector<std::u16string> const& tables) const;
  void MoveRows(Index const& index, Table const& table) const;
  [[noreturn]] void RefuseDuplicate(Index const& index) const;

  Transaction& transaction_;
  Subtree const& subtree_;
  std::u16string column_;
  bool nullable_;
  std::vector<Held> held_;
};

}  // namespace sagleme::columns

#endif

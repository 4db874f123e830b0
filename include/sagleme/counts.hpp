#ifndef SAGLEME_COUNTS_HPP
#define SAGLEME_COUNTS_HPP

// Counts of objects by table.

#include <sagleme/export.h>

#include <cstdint>
#include <map>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

class SAGLEME_HOST_API ObjectCounts {
 public:
  // Reads the kernel's counters of each layout. Reads objects one by one only under superseded
  // layouts.
  explicit ObjectCounts(Transaction& transaction);

  std::uint64_t Own(Table const& table) const;
  // Of the table and its descendants.
  std::uint64_t Subtree(Table const& table) const;
  // All objects, including the catalogue.
  std::uint64_t total() const { return total_; }

 private:
  std::map<std::u16string, std::uint64_t> by_setspec_;
  std::uint64_t total_ = 0;
};

// The layouts of the kernel with their objects, in ascending order of number.
SAGLEME_HOST_API std::vector<lscoredb_layout_statistics> LayoutStatistics(Transaction& transaction);

// The columns that users see, which excludes the system's, in order. Pointers into the table.
SAGLEME_HOST_API std::vector<Column const*> UserColumns(Table const& table);

}  // namespace sagleme

#endif

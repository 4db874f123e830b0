#ifndef SAGLEME_COUNTS_HPP
#define SAGLEME_COUNTS_HPP

// Objects counted by table.

#include <sagleme/export.h>

#include <cstdint>
#include <map>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

class SAGLEME_HOST_API ObjectCounts {
 public:
  // Reads the kernel's counters by layout; only where objects lie under superseded layouts are they
  // looked at one by one.
  explicit ObjectCounts(Transaction& transaction);

  std::uint64_t Own(Table const& table) const;
  // Of the table and of its descendants.
  std::uint64_t Subtree(Table const& table) const;
  // Everything, catalogue included.
  std::uint64_t total() const { return total_; }

 private:
  std::map<std::u16string, std::uint64_t> by_setspec_;
  std::uint64_t total_ = 0;
};

// The layouts of the kernel with their objects, in ascending order of number.
SAGLEME_HOST_API std::vector<lscoredb_layout_statistics> LayoutStatistics(Transaction& transaction);

// The columns that users see: those that are not the system's, in order. They are the table's.
SAGLEME_HOST_API std::vector<Column const*> UserColumns(Table const& table);

}  // namespace sagleme

#endif

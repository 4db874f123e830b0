#ifndef SAGLEME_TOOL_COMMANDS_COUNTS_H
#define SAGLEME_TOOL_COMMANDS_COUNTS_H

// Objects counted by table.

#include <cstdint>
#include <map>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace tool {

class ObjectCounts {
 public:
  // Reads the kernel's counters by layout; only where objects lie under superseded layouts are they
  // looked at one by one.
  explicit ObjectCounts(sagleme::Transaction& transaction);

  std::uint64_t Own(sagleme::Table const& table) const;
  // Of the table and of its descendants.
  std::uint64_t Subtree(sagleme::Table const& table) const;
  // Everything, catalogue included.
  std::uint64_t total() const { return total_; }

 private:
  std::map<std::u16string, std::uint64_t> by_setspec_;
  std::uint64_t total_ = 0;
};

// The layouts of the kernel with their objects, in rising order of number.
std::vector<lscoredb_layout_statistics> LayoutStatistics(sagleme::Transaction& transaction);

}  // namespace tool

#endif

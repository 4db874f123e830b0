#include "commands/excerpt.h"

#include <algorithm>
#include <map>
#include <vector>

namespace tool {
namespace {

// How far each table that is wanted is below the top. Bases come before what derives from them.
std::map<std::string, std::uint64_t> Levels(sagleme::SchemaDoc const& schema,
                                            std::string const& top) {
  std::map<std::string, std::uint64_t> levels;
  for (sagleme::TableDoc const& table : schema.tables) {
    auto const base = levels.find(table.base);
    if (base != levels.end()) {
      levels[table.name] = base->second + 1;
    } else if (top.empty() ? table.base.empty() : table.name == top) {
      levels[table.name] = 0;
    }
  }
  return levels;
}

}  // namespace

sagleme::SchemaDoc Excerpt(sagleme::SchemaDoc const& schema, ExcerptLimits const& limits) {
  auto const levels = Levels(schema, limits.top);
  std::vector<std::uint64_t> rising;
  for (auto const& [name, level] : levels) rising.push_back(level);
  std::sort(rising.begin(), rising.end());
  // Tables of the last level that fits in part are taken until the picture is full.
  std::uint64_t const last = rising.size() <= limits.tables ? UINT64_MAX : rising[limits.tables];
  auto const above = std::count_if(rising.begin(), rising.end(),
                                   [&](std::uint64_t level) { return level < last; });
  std::uint64_t room = limits.tables - std::min<std::uint64_t>(limits.tables, above);
  sagleme::SchemaDoc part = schema;
  std::erase_if(part.tables, [&](sagleme::TableDoc const& table) {
    auto const found = levels.find(table.name);
    if (found == levels.end() || found->second > limits.depth || found->second > last) return true;
    if (found->second < last) return false;
    if (room == 0) return true;
    --room;
    return false;
  });
  return part;
}

}  // namespace tool

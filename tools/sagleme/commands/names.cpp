#include "commands/names.h"

#include <fmt/format.h>

#include "cli/failure.h"

namespace tool {
namespace {

bool EndsWithSegments(std::u16string_view full, std::u16string_view wanted) {
  if (!full.ends_with(wanted)) return false;
  return full.size() == wanted.size() || full[full.size() - wanted.size() - 1] == u'.';
}

// A list of at most kMostShown names, one a line.
std::string NameLines(std::vector<std::string> const& names) {
  constexpr std::size_t kMostShown = 12;
  std::string lines;
  for (std::size_t i = 0; i < names.size() && i < kMostShown; ++i) {
    lines += (i == 0 ? "" : "\n  ") + names[i];
  }
  if (names.size() > kMostShown) lines += fmt::format("\n  and {} more", names.size() - kMostShown);
  return lines;
}

}  // namespace

std::u16string Typed(std::string const& text) {
  try {
    return sagleme::ToUtf16(text);
  } catch (sagleme::BadUtf8 const& error) {
    throw Failure(Exit::kUsage, fmt::format("an argument is not UTF-8: {}", error.what()));
  }
}

sagleme::TablePtr TableNamed(sagleme::Transaction& transaction, std::string const& name) {
  std::u16string const wanted = Typed(name);
  if (sagleme::TablePtr found = transaction.Find(wanted)) return found;
  std::vector<sagleme::TablePtr> candidates;
  std::vector<std::string> names;
  for (sagleme::TablePtr const& table : transaction.Tables(true)) {
    if (wanted.empty() || !EndsWithSegments(table->name, wanted)) continue;
    candidates.push_back(table);
    names.push_back(sagleme::ToUtf8(table->name));
  }
  if (candidates.size() == 1) return candidates.front();
  if (candidates.empty()) {
    throw Failure(Exit::kRefused, fmt::format("there is no table {}", name),
                  "sagleme tables lists those that there are.");
  }
  throw Failure(Exit::kRefused, fmt::format("the name {} is ambiguous, it may be", name),
                NameLines(names));
}

sagleme::Column const& ColumnNamed(sagleme::Table const& table, std::string const& name) {
  if (sagleme::Column const* const found = table.FindColumn(Typed(name))) return *found;
  std::vector<std::string> names;
  for (sagleme::Column const& column : table.columns) {
    if (!column.system()) names.push_back(sagleme::ToUtf8(column.name));
  }
  throw Failure(
      Exit::kRefused, fmt::format("table {} has no column {}", sagleme::ToUtf8(table.name), name),
      names.empty() ? "It has no columns." : fmt::format("It has: {}", fmt::join(names, ", ")));
}

sagleme::Index IndexNamed(sagleme::Transaction& transaction, std::string const& name) {
  if (auto found = transaction.FindIndex(Typed(name))) return *found;
  throw Failure(Exit::kRefused, fmt::format("there is no index {}", name),
                "sagleme describe lists the indexes of a table.");
}

}  // namespace tool

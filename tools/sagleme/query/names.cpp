#include "query/names.h"

#include <fmt/format.h>

#include <charconv>

#include "base/failure.h"
#include "base/near.h"

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

[[noreturn]] void RefuseTable(std::vector<sagleme::TablePtr> const& tables,
                              std::string const& name) {
  bool const full = name.find('.') != std::string::npos;
  std::vector<std::string> names;
  for (sagleme::TablePtr const& table : tables) {
    names.push_back(sagleme::ToUtf8(full ? std::u16string_view(table->name) : table->short_name()));
  }
  std::string const near = DidYouMean(name, names);
  throw Failure(Exit::kRefused, fmt::format("there is no table {}", name),
                near.empty() ? "sagleme tables lists those that there are." : near);
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
  auto const tables = transaction.Tables();
  for (sagleme::TablePtr const& table : tables) {
    if (wanted.empty() || !EndsWithSegments(table->name, wanted)) continue;
    candidates.push_back(table);
    names.push_back(sagleme::ToUtf8(table->name));
  }
  if (candidates.size() == 1) return candidates.front();
  if (candidates.empty()) RefuseTable(tables, name);
  throw Failure(Exit::kRefused, fmt::format("the name {} is ambiguous; it may be", name),
                NameLines(names));
}

sagleme::TablePtr UserTableNamed(sagleme::Transaction& transaction, std::string const& name) {
  sagleme::TablePtr table = TableNamed(transaction, name);
  if (!table->system) return table;
  throw Failure(Exit::kRefused, fmt::format("{} is a table of the catalogue itself", name),
                "The catalogue is changed by changing the schema: see sagleme help apply.");
}

sagleme::Column const& ColumnNamed(sagleme::Table const& table, std::string const& name) {
  if (sagleme::Column const* const found = table.FindColumn(Typed(name))) return *found;
  std::vector<std::string> names;
  for (sagleme::Column const& column : table.columns) {
    if (!column.system()) names.push_back(sagleme::ToUtf8(column.name));
  }
  std::string advice = DidYouMean(name, names);
  if (advice.empty()) {
    advice = names.empty() ? "It has no columns."
                           : fmt::format("Its columns are {}.", fmt::join(names, ", "));
  }
  throw Failure(Exit::kRefused,
                fmt::format("table {} has no column {}", sagleme::ToUtf8(table.name), name),
                advice);
}

sagleme::Index IndexNamed(sagleme::Transaction& transaction, std::string const& name) {
  if (auto found = transaction.FindIndex(Typed(name))) return *found;
  std::vector<std::string> names;
  for (sagleme::TablePtr const& table : transaction.Tables()) {
    for (sagleme::Index const& index : table->indexes) {
      names.push_back(sagleme::ToUtf8(index.name));
    }
  }
  std::string const near = DidYouMean(name, names);
  throw Failure(Exit::kRefused, fmt::format("there is no index {}", name),
                near.empty() ? "sagleme describe lists the indexes of a table." : near);
}

sagleme::Object ObjectNamed(sagleme::Transaction& transaction, std::string const& text) {
  sagleme::ObjectId const id = ParseObjectId(text);
  if (auto const object = sagleme::Object::Find(transaction, id)) return *object;
  throw Failure(Exit::kProblem, fmt::format("there is no object {}", text));
}

sagleme::ObjectId ParseObjectId(std::string const& text) {
  sagleme::ObjectId id;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), id.value);
  if (error == std::errc::result_out_of_range) {
    throw Failure(Exit::kUsage, fmt::format("{} is too large for the id of an object", text));
  }
  if (error == std::errc() && end == text.data() + text.size() && id.value != 0) return id;
  throw Failure(Exit::kUsage, fmt::format("\"{}\" is not the id of an object", text),
                "An id is a whole number above 0; scan and find show it for every object.");
}

}  // namespace tool

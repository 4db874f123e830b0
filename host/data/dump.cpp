#include "data/dump.h"

#include <fmt/format.h>

#include <sagleme/counts.hpp>
#include <sagleme/schema_document.hpp>
#include <vector>

#include "commands/objects.h"
#include "output/progress.h"
#include "text/json_value.h"

namespace tool {
namespace {

// The document on one line: line ends inside texts are escapes, so all others are layout.
std::string OneLine(std::string json) {
  std::string line;
  for (std::size_t i = 0; i < json.size(); ++i) {
    if (json[i] != '\n') {
      line += json[i];
    } else {
      while (i + 1 < json.size() && json[i + 1] == ' ') ++i;
    }
  }
  return line + "\n";
}

std::string ObjectLine(std::size_t place, sagleme::Object const& object,
                       sagleme::Table const& table) {
  std::string line = "{\"t\": " + std::to_string(place) +
                     ", \"id\": " + std::to_string(object.id().value) + ", \"v\": [";
  bool first = true;
  for (sagleme::Column const* const column : sagleme::UserColumns(table)) {
    line += (first ? "" : ", ") + sagleme::ValueJson(object.Get(table, *column));
    first = false;
  }
  return line + "]}\n";
}

std::string EndLine(std::uint64_t count, std::vector<std::uint64_t> const& by_table) {
  return fmt::format("{{\"end\": {{\"objects\": {}, \"tables\": [{}]}}}}\n", count,
                     fmt::join(by_table, ", "));
}

std::uint64_t CountAll(sagleme::Transaction& transaction, sagleme::SchemaDoc const& schema) {
  sagleme::ObjectCounts const counts(transaction);
  std::uint64_t total = 0;
  for (sagleme::TableDoc const& table : schema.tables)
    total += counts.Own(*transaction.table(table.name));
  return total;
}

}  // namespace

std::uint64_t Dump(sagleme::Transaction& transaction, Output const& to, Output const& report) {
  sagleme::SchemaDoc const schema = sagleme::ReadSchema(transaction, false);
  to.Print(OneLine(sagleme::SchemaJson(schema)));
  Progress progress(report, "objects", CountAll(transaction, schema));
  std::uint64_t count = 0;
  std::vector<std::uint64_t> by_table(schema.tables.size());
  for (std::size_t i = 0; i < schema.tables.size(); ++i) {
    sagleme::TablePtr const table = transaction.table(schema.tables[i].name);
    for (sagleme::Object const& object : sagleme::Range::Only(transaction, *table)) {
      sagleme::ReadScope const scope(transaction.context());
      to.Print(ObjectLine(i, object, *table));
      ++count;
      ++by_table[i];
      progress.Update(count, count);
    }
  }
  to.Print(EndLine(count, by_table));
  progress.Finish(count);
  return count;
}

}  // namespace tool

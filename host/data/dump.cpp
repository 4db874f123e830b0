#include <fmt/format.h>

#include <sagleme/counts.hpp>
#include <sagleme/host/dump.hpp>
#include <sagleme/schema_document.hpp>
#include <sagleme/value_text.hpp>
#include <vector>

namespace sagleme {
namespace {

// The document on one line: line ends inside texts are escaped, so all others are formatting.
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

std::string ObjectLine(std::size_t position, Object const& object, Table const& table) {
  std::string line = "{\"t\": " + std::to_string(position) +
                     ", \"id\": " + std::to_string(object.id().value) + ", \"v\": [";
  bool first = true;
  for (Column const* const column : UserColumns(table)) {
    line += (first ? "" : ", ") + ValueJson(object.Get(table, *column));
    first = false;
  }
  return line + "]}\n";
}

std::string EndLine(std::uint64_t count, std::vector<std::uint64_t> const& by_table) {
  return fmt::format("{{\"end\": {{\"objects\": {}, \"tables\": [{}]}}}}\n", count,
                     fmt::join(by_table, ", "));
}

std::uint64_t CountAll(Transaction& transaction, SchemaDoc const& schema) {
  ObjectCounts const counts(transaction);
  std::uint64_t total = 0;
  for (TableDoc const& table : schema.tables) total += counts.Own(*transaction.table(table.name));
  return total;
}

}  // namespace

std::uint64_t Dump(Transaction& transaction, TextSink const& to, TransferReport const& report) {
  SchemaDoc const schema = ReadSchema(transaction, false);
  to(OneLine(SchemaJson(schema)));
  std::uint64_t const total = report ? CountAll(transaction, schema) : 0;
  std::uint64_t count = 0;
  std::vector<std::uint64_t> by_table(schema.tables.size());
  for (std::size_t i = 0; i < schema.tables.size(); ++i) {
    TablePtr const table = transaction.table(schema.tables[i].name);
    for (Object const& object : Range::Only(transaction, *table)) {
      ReadScope const scope(transaction.context());
      to(ObjectLine(i, object, *table));
      ++count;
      ++by_table[i];
      if (report) report({count, count, total});
    }
  }
  to(EndLine(count, by_table));
  return count;
}

}  // namespace sagleme

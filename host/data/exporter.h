#ifndef SAGLEME_TOOL_DATA_EXPORTER_H
#define SAGLEME_TOOL_DATA_EXPORTER_H

// Objects as lines of a file that import takes back.

#include <sagleme/host.hpp>
#include <string>

namespace tool {

enum class FileForm { kCsv, kJsonLines };

// The heading line of a CSV file: id, with `table_column` the table, and the columns of the table.
std::string CsvHeading(sagleme::Table const& table, bool table_column);
// One line with its end. Columns that only a descendant has are left out in CSV.
std::string CsvLine(sagleme::Object const& object, sagleme::Table const& table, bool table_column);
// One line with its end, nulls left out.
std::string JsonLine(sagleme::Object const& object, sagleme::Table const& table, bool table_column);

}  // namespace tool

#endif

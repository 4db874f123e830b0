#ifndef SAGLEME_HOST_EXPORT_HPP
#define SAGLEME_HOST_EXPORT_HPP

// Objects as lines of a file that import takes back.

#include <sagleme/export.h>

#include <sagleme/host.hpp>
#include <string>

namespace sagleme {

enum class FileForm { kCsv, kJsonLines };

// The heading line of a CSV file: id, with `table_column` the table, and the columns of the table.
SAGLEME_HOST_API std::string CsvHeading(Table const& table, bool table_column);
// One line with its end. Columns that only a descendant has are left out in CSV.
SAGLEME_HOST_API std::string CsvLine(Object const& object, Table const& table, bool table_column);
// One line with its end, nulls left out.
SAGLEME_HOST_API std::string JsonLine(Object const& object, Table const& table, bool table_column);

}  // namespace sagleme

#endif

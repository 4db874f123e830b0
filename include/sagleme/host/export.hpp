#ifndef SAGLEME_HOST_EXPORT_HPP
#define SAGLEME_HOST_EXPORT_HPP

// Writes the objects of a table as a file that import takes back.
//
// A CSV file has the columns of the table and of all tables derived from it; where an object's own
// table has no such column the value is null. JSON Lines have the columns of each object's own
// table, nulls left out. Both begin with the object's id and, where derived tables are in it, its
// table (<sagleme/host/own_columns.hpp>).

#include <sagleme/export.h>

#include <cstdint>
#include <sagleme/host.hpp>
#include <sagleme/host/rows.hpp>
#include <sagleme/host/transfer.hpp>

namespace sagleme {

struct ExportOptions {
  FileForm form = FileForm::kCsv;
  bool only = false;      // leaves out the objects of derived tables
  TransferReport report;  // `done` counts objects
};

struct ExportResult {
  std::uint64_t objects = 0;
  std::uint64_t left_out = 0;  // objects of derived tables
};

// Writes the objects as the transaction sees them, one after the other: memory does not grow with
// their number. Error when something cannot be read.
SAGLEME_HOST_API ExportResult Export(Transaction& transaction, Table const& table,
                                     TextSink const& to, ExportOptions const& options);

}  // namespace sagleme

#endif

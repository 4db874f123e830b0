#ifndef SAGLEME_HOST_EXPORT_HPP
#define SAGLEME_HOST_EXPORT_HPP

// Writes the objects of a table to a file that import can read.
//
// A CSV file has the columns of the table and of all tables derived from it; if an object's own
// table lacks a column, the value is null. JSON Lines have the columns of each object's own table,
// without nulls. Both begin with the object's id and, if derived tables are included, its
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

// Writes the objects as the transaction sees them, one after the other; memory does not grow with
// their number. Throws Error if something cannot be read.
SAGLEME_HOST_API ExportResult Export(Transaction& transaction, Table const& table,
                                     TextSink const& to, ExportOptions const& options);

}  // namespace sagleme

#endif

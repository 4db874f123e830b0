#ifndef SAGLEME_HOST_IMPORT_HPP
#define SAGLEME_HOST_IMPORT_HPP

// Creates objects from the rows of a file.
//
//   std::ifstream file("customers.csv", std::ios::binary);
//   auto const rows = sagleme::OpenRows(file, {sagleme::FileForm::kCsv});
//   sagleme::ImportResult result;
//   sagleme::Import(context, u"Shop.Customer", *rows, {}, result);
//
// A row names columns of the table, and two more (<sagleme/host/own_columns.hpp>): the object's id,
// which is ignored unless identities are kept, and the object's table, which is the given one or
// derived from it. A reference is an object's id, or column=value, which is looked up in a unique
// index over that column of the target. Every reference must lead to an object of its target table;
// if identities are kept, that object may come in a later row.
//
// The batch bounds the memory, whatever the file holds; references to later rows are kept until
// those rows come.

#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <sagleme/host/rows.hpp>
#include <sagleme/host/transfer.hpp>
#include <sagleme/jobs.hpp>
#include <string>

namespace sagleme {

struct ImportOptions {
  bool keep_ids = false;
  // The number of rows at the beginning that were imported before.
  std::uint64_t skip = 0;
  // Rows per transaction; large rows make smaller batches. 0: all rows in one transaction, whose
  // memory grows with the file.
  std::uint64_t batch = 20000;
  // Receives rows that cannot be imported, which are then skipped. Empty: the first one ends the
  // import.
  std::function<void(RowSource const&, BadRow const&)> reject;
  // `done` counts the bytes of the file.
  TransferReport report;
  std::chrono::milliseconds pause{0};   // between transactions
  JobControl const* control = nullptr;  // may end the import from another thread
  // Called after each commit; false ends the import there.
  std::function<bool(JobProgress const&)> after_batch;
};

struct ImportResult {
  // Rows whose objects are committed, including skipped and rejected ones: another import of the
  // same file continues with this number as `skip`.
  std::uint64_t rows = 0;
  std::uint64_t objects = 0;
  std::uint64_t rejected = 0;
  // Of `rows`, those that an earlier import of the file had committed, as its job says.
  std::uint64_t before = 0;
};

// Imports the rows in batches, each in its own transaction; the context must have none open.
// `result` is updated by each commit, so it also says where a failed import stopped: the unfinished
// batch leaves nothing. Throws BadRow for a bad row or heading, Error for all else.
SAGLEME_HOST_API void Import(Context const& context, std::u16string const& table, RowSource& rows,
                             ImportOptions const& options, ImportResult& result);

// The same for a file, as a job (<sagleme/jobs.hpp>): each batch's commit also records how many
// rows are in. If an import of the file into the table was cut off, this one goes on behind the
// last row that was committed, unless `skip` says where to; so does ResumeJob. `rows` reads the
// file. Returns false if the control or `after_batch` ended the import. Failure of kRefused: the
// file has changed since. LSCOREDB_IN_USE: another import of it is running. A pipe, and a file
// whose identities are kept, are imported without a job, which would take an identity itself.
struct FileImport {
  std::u16string table;  // full name
  std::string path;
  RowFormat format;
};
SAGLEME_HOST_API bool ImportFile(Context const& context, FileImport const& file, RowSource& rows,
                                 ImportOptions const& options, ImportResult& result);
// Opens the file itself. Throws as OpenRows too, and Failure of kCannotOpen.
SAGLEME_HOST_API bool ImportFile(Context const& context, FileImport const& file,
                                 ImportOptions const& options, ImportResult& result);

// The same inside the given transaction, which the caller commits, or rolls back after a failure.
// `batch` is ignored, and `result` is meaningless after a failure.
SAGLEME_HOST_API void Import(Transaction& transaction, std::u16string const& table, RowSource& rows,
                             ImportOptions const& options, ImportResult& result);

}  // namespace sagleme

#endif

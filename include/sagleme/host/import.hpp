#ifndef SAGLEME_HOST_IMPORT_HPP
#define SAGLEME_HOST_IMPORT_HPP

// Makes objects of the rows of a file.
//
//   std::ifstream file("customers.csv", std::ios::binary);
//   auto const rows = sagleme::OpenRows(file, {sagleme::FileForm::kCsv});
//   sagleme::ImportResult result;
//   sagleme::Import(context, u"Shop.Customer", *rows, {}, result);
//
// A row names columns of the table, and two more (<sagleme/host/own_columns.hpp>): the object's id,
// which is passed over unless identities are to be kept, and the table, the one given or derived
// from it, to make the object in. A reference is an object's id, or column=value, which is looked
// up in a unique index over that column of the target. Every reference has to lead to an object of
// its target table; where identities are kept it may be one of a later row.
//
// Memory is bounded by the batch, whatever the file holds; references to later rows are noted until
// those come.

#include <sagleme/export.h>

#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <sagleme/host/rows.hpp>
#include <sagleme/host/transfer.hpp>
#include <string>

namespace sagleme {

struct ImportOptions {
  bool keep_ids = false;
  // This many rows at the beginning were imported before.
  std::uint64_t skip = 0;
  // Rows in a transaction, at least 1; rows of much data make smaller batches. 0: all in one, whose
  // memory grows with the file.
  std::uint64_t batch = 50000;
  // Is given rows that cannot be imported, which are then passed over. Empty: the first one ends
  // the import.
  std::function<void(RowSource const&, BadRow const&)> reject;
  // `done` counts the bytes of the file.
  TransferReport report;
};

struct ImportResult {
  // Rows whose objects are committed, those that were skipped or rejected included: with that as
  // `skip` another import of the same file goes on.
  std::uint64_t rows = 0;
  std::uint64_t objects = 0;
  std::uint64_t rejected = 0;
};

// Imports the rows in batches, each in a transaction of its own; the context must have none open.
// `result` follows each commit, so that it also tells where a failed import stopped: the batch at
// hand leaves nothing. BadRow for a row or a heading that cannot be taken, Error for all else.
SAGLEME_HOST_API void Import(Context const& context, std::u16string const& table, RowSource& rows,
                             ImportOptions const& options, ImportResult& result);

// The same inside the transaction given, which the caller commits, or rolls back after a failure.
// `batch` does not matter, and `result` tells of a failed import nothing.
SAGLEME_HOST_API void Import(Transaction& transaction, std::u16string const& table, RowSource& rows,
                             ImportOptions const& options, ImportResult& result);

}  // namespace sagleme

#endif

#include <sagleme/host/duplicates.hpp>
#include <sagleme/host/import.hpp>

#include "data/import_rows.h"
#include "data/importer.h"

namespace sagleme {
namespace {

// Bytes of the file that a batch may read: many for its rows, few for the memory.
constexpr std::uint64_t kBatchBytes = std::uint64_t{16} << 20;

class ImportRun {
 public:
  ImportRun(std::u16string const& table, RowSource& rows, ImportOptions const& options,
            ImportResult& result)
      : table_(table), rows_(rows), options_(options), result_(result), now_(result) {}

  void Skip() {
    while (now_.rows < options_.skip && Read()) ++now_.rows;
  }
  // Up to that many rows; false when there are no more. `result` does not follow.
  bool Run(Transaction& transaction, std::uint64_t most) {
    Importer importer(transaction, transaction.table(table_), rows_, options_.keep_ids, later_);
    std::uint64_t const begin = rows_.bytes();
    auto const full = [&](std::uint64_t rows) {
      return most != 0 && (rows == most || rows_.bytes() - begin >= kBatchBytes);
    };
    for (std::uint64_t i = 0; !full(i); ++i) {
      if (!AddOne(importer)) return End(transaction);
    }
    later_.Resolve(transaction);
    return true;
  }
  void Keep() { result_ = now_; }
  std::uint64_t rows() const { return now_.rows; }

 private:
  bool Read() {
    try {
      return rows_.Next();
    } catch (BadRow const&) {  // it was rejected the last time
      return true;
    }
  }
  bool AddOne(Importer& importer) {
    try {
      if (!rows_.Next()) return false;
      importer.Add();
      ++now_.objects;
    } catch (BadRow const& bad) {
      if (!options_.reject) throw;
      options_.reject(rows_, bad);
      ++now_.rejected;
    }
    ++now_.rows;
    if (options_.report) options_.report({now_.objects, rows_.bytes(), 0});
    return true;
  }
  bool End(Transaction& transaction) {
    later_.Resolve(transaction);
    later_.Require();
    return false;
  }

  std::u16string const& table_;
  RowSource& rows_;
  ImportOptions const& options_;
  ImportResult& result_;
  ImportResult now_;
  LaterReferences later_;
};

}  // namespace

// Each commit records the rows that are in, or that the job is done.
bool ImportRows(Context const& context, std::u16string const& table, RowSource& rows,
                ImportOptions const& options, ImportResult& result, jobs::Run& run) {
  ImportRun work(table, rows, options, result);
  work.Skip();
  for (bool more = true; more;) {
    {
      Transaction transaction(context);
      more = work.Run(transaction, options.batch);
      run.Save(transaction, rows.bytes(), work.rows());
      if (!more) run.FinishIn(transaction);
      Commit(transaction, context);
    }
    work.Keep();
    if (options.after_batch && !options.after_batch(run.progress()) && more) return false;
    if (more && !run.GoesOn(options.pause)) return false;
  }
  return true;
}

void Import(Context const& context, std::u16string const& table, RowSource& rows,
            ImportOptions const& options, ImportResult& result) {
  jobs::Run run(context, {}, options.control);
  ImportRows(context, table, rows, options, result, run);
}

void Import(Transaction& transaction, std::u16string const& table, RowSource& rows,
            ImportOptions const& options, ImportResult& result) {
  ImportRun work(table, rows, options, result);
  work.Skip();
  work.Run(transaction, 0);
  work.Keep();
}

}  // namespace sagleme

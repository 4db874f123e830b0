#ifndef LSCOREDB_SRC_TRANSACTION_H
#define LSCOREDB_SRC_TRANSACTION_H

// A context's transaction: a snapshot of the store and a write set on top of it. A facade: it owns
// the parts that do the work, begins and ends them, and passes each call to one of them.
//
// One object serves a context's transactions one after another, one thread at a time. What it
// returns stays valid until the transaction, or the innermost read scope, ends. Expected outcomes
// are returned as statuses, everything else is thrown; a call that fails changes nothing. A write
// that stops half-way (out of memory) dooms the transaction: its commit returns the same status.

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "database.h"
#include "index_maintainer.h"
#include "many_values.h"
#include "result_buffers.h"
#include "row_reader.h"
#include "row_writer.h"
#include "savepoints.h"
#include "scans.h"
#include "schema_editor.h"
#include "schema_view.h"
#include "transaction_state.h"

namespace lscore {

class Transaction {
 public:
  explicit Transaction(std::shared_ptr<Database> database);
  ~Transaction();
  Transaction(Transaction const&) = delete;
  Transaction& operator=(Transaction const&) = delete;

  // ---- begin and end
  bool open() const { return state_.snapshot != nullptr; }
  bool read_only() const { return read_only_; }
  // REQUIRES: read_only.
  Status refusal_of_writes() const { return refusal_; }
  void Begin(bool read_only);
  Status Commit();
  // Commit syncs, all commits before this one too, whatever the durability of the database.
  void RequireSync() { sync_ = true; }
  // The key that the last commit, or the last creation of an index in this transaction, refused
  // with LSCOREDB_DUPLICATE_KEY. Empty when neither did; Begin clears it.
  std::optional<RefusedKey> const& refused_key() const { return state_.refused; }
  // Whether the last commit took place, if it returned LSCOREDB_COMMIT_UNKNOWN and no transaction
  // has begun since; otherwise LSCOREDB_NO_TRANSACTION.
  Status AskOutcome(bool* committed) const;
  void Rollback() noexcept { End(); }
  // Commit fails when another transaction has changed the object since the snapshot.
  Status Require(ObjectId id);
  void RequireSet(std::u16string_view setspec) { state_.changes.RequireSet(setspec); }
  CommitId LastSetChange(std::u16string_view setspec) const {
    return lscore::LastSetChange(*state_.snapshot, setspec);
  }

  ResultBuffers& result_buffers() { return result_buffers_; }
  void BeginScope();
  // Returns whether a scope was open.
  bool EndScope();

  // ---- savepoints (savepoints.h)
  std::uint64_t SetSavepoint() { return savepoints_.Set(); }
  Status RollbackTo(std::uint64_t savepoint) { return savepoints_.RollbackTo(savepoint); }
  Status Release(std::uint64_t savepoint) { return savepoints_.Release(savepoint); }

  // ---- reading rows (row_reader.h)
  Status Read(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types, Cell* out) {
    return reader_.Read(id, as, column, types, out);
  }
  [[gnu::always_inline]] Status ReadFixed(ObjectId id, LayoutNumber as, std::uint32_t column,
                                          TypeSet types, std::uint64_t* out) {
    return reader_.ReadFixed(id, as, column, types, out);
  }
  Status Setspec(ObjectId id, Cell* out) { return reader_.Setspec(id, out); }
  Status Lookup(ObjectId id, LayoutNumber* out) { return reader_.Lookup(id, out); }
  void Fetch(std::span<std::uint64_t const> ids) { reader_.Fetch(ids); }
  ManyValues& many_values() { return many_values_; }

  // ---- writing rows (row_writer.h)
  ObjectId Insert(LayoutNumber number) { return writer_.Insert(number); }
  Status InsertWithId(LayoutNumber number, ObjectId id) { return writer_.InsertWithId(number, id); }
  Status Write(ObjectId id, LayoutNumber as, std::uint32_t column, TypeSet types,
               NewValue const& value) {
    return writer_.Write(id, as, column, types, value);
  }
  Status WriteSetspec(ObjectId id, std::u16string_view setspec) {
    return writer_.WriteSetspec(id, setspec);
  }
  Status Delete(ObjectId id) { return writer_.Delete(id); }
  Status Move(ObjectId id, LayoutNumber to) { return writer_.Move(id, to); }
  Status MoveToSet(ObjectId id, LayoutNumber to, std::u16string_view setspec,
                   std::span<ColumnCopy const> copies) {
    return writer_.MoveToSet(id, to, setspec, copies);
  }

  // ---- layouts and indexes (schema_view.h, schema_editor.h)
  Layout const* FindLayout(LayoutNumber number) const { return schema_.FindLayout(number); }
  std::vector<Layout const*> LayoutsOf(Token token) const { return schema_.LayoutsOf(token); }
  IndexDefinition const* FindIndex(IndexId id) { return schema_.FindIndex(id); }
  std::vector<IndexDefinition const*> IndexesOf(Token token) { return schema_.IndexesOf(token); }
  LayoutNumber CreateLayout(Token token, LayoutNumber base, std::vector<Column> const& columns) {
    return editor_.CreateLayout(token, base, columns);
  }
  std::vector<LayoutNumber> UsedLayouts() { return editor_.UsedLayouts(); }
  Status ReleaseLayout(LayoutNumber number) { return editor_.ReleaseLayout(number); }
  std::uint64_t CountObjects(LayoutNumber number) { return editor_.CountObjects(number); }
  void CloseSet(std::u16string_view setspec, bool empty) { editor_.CloseSet(setspec, empty); }
  IndexId CreateIndex(std::unique_ptr<IndexDefinition> index) {
    return editor_.CreateIndex(std::move(index));
  }
  Status DropIndex(IndexId id) { return editor_.DropIndex(id); }
  void MovePrepared(MovedPrepared moved) { state_.changes.MovePrepared(std::move(moved)); }

  // ---- scans (scans.h)
  // REQUIRES: the iterator is not open; it is closed before this object is destroyed.
  Status OpenIterator(Iterator& iterator, IndexId id, ScanRange const& range);
  void CloseIterator(Iterator& iterator) { scans_.Close(iterator); }

 private:
  void End() noexcept;

  // Each part uses only those above it.
  TransactionState state_;
  bool read_only_ = false;
  bool sync_ = false;
  CommitInDoubt in_doubt_;  // the last commit, if its outcome is unknown
  Status refusal_ = LSCOREDB_WRITE_REFUSED;
  ResultBuffers result_buffers_;
  Scans scans_;
  SchemaView schema_{state_};
  RowReader reader_{state_, schema_};
  ManyValues many_values_{reader_};
  IndexMaintainer indexes_{state_, schema_, reader_, scans_};
  RowWriter writer_{state_, schema_, reader_, indexes_};
  SchemaEditor editor_{state_, schema_, reader_};
  Savepoints savepoints_{state_, reader_, scans_, result_buffers_};
};

}  // namespace lscore

#endif

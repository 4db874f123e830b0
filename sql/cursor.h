#ifndef SAGLEME_SQL_CURSOR_H
#define SAGLEME_SQL_CURSOR_H

// One pass over a table by a plan.
//
// Rows are named by id and read column by column when SQLite asks. A commit or rollback during a
// pass ends the kernel's scan: the remaining ids are saved before, and looked up one by one
// afterwards. A scan that began before a savepoint goes on after a rollback to it, also with rows
// that were deleted in between and are there again. It reads no row ahead behind the savepoint,
// since it would pass those.
//
// Where SQLite has asked for nothing of the first rows, not even the id, it may want to know only
// how many there are. The rows ahead are then counted by many, which costs a fraction of reading
// their ids. A pass that is asked for such a row after all scans its range anew up to the row, and
// counts no more. It does so before the transaction writes, so that it finds the same rows.

#include <deque>
#include <vector>

#include "api.h"
#include "keys.h"
#include "order.h"
#include "plan.h"
#include "row_page.h"
#include "skip.h"

namespace sagleme::sql {

class Attachment;
struct VirtualTable;

class Cursor : public sqlite3_vtab_cursor {
 public:
  explicit Cursor(VirtualTable& table);
  ~Cursor();
  Cursor(Cursor const&) = delete;
  Cursor& operator=(Cursor const&) = delete;

  void Filter(Plan const& plan, int count, sqlite3_value** values);
  void Next() {
    if (counted_ > 0) {
      --counted_;
    } else if (page_.Step()) {
      row_.oid = page_.oid();
    } else {
      Step();
    }
  }
  bool AtEnd() const { return row_.oid == 0 && !counting_; }
  std::uint64_t oid() {
    NoteAsked();
    skip_.NoteOtherRead();
    return row_.oid;
  }
  void Column(sqlite3_context* result, int column);
  // Before the transaction writes. A cursor that fails here fails at its next step, too.
  void PrepareForWrite() { NoteAsked(); }
  // Saves the remaining ids. Never fails: ids that could not be saved are an error of the next
  // step.
  void Drain() noexcept;
  // The newest savepoint when the kernel's scan began; a rollback to it, or further, ends the scan.
  std::uint64_t savepoint() const { return savepoint_; }

 private:
  void Step();
  void Reset();
  void CloseScan();
  void Prepare(Plan const& plan, int count, sqlite3_value** values);
  void PrepareIds(Plan const& plan, sqlite3_value* value);
  void PrepareIndex(Plan const& plan, int count, sqlite3_value** values);
  void PrepareSkip(Plan const& plan, std::vector<std::vector<Span>> const& lists);
  void SkipEqualRows();
  void OpenRange(KeyRange const& range);
  bool Scan(RowId& row);   // the next row of the ranges
  bool Fetch(RowId& row);  // the next row in the order that SQLite wants
  bool FetchRun(RowId& row);
  void NotePage();
  bool CountAhead();
  void NoteAsked() {
    may_count_ = false;
    if (counting_) Locate();
  }
  void Locate();
  void ScanTo(std::uint64_t position);
  bool Keep(RowId& row);  // whether an object that was found by its id is of this table
  bool ColumnOfPage(sqlite3_context* result, ShapeColumn const& column);
  RowId RowAt(std::uint64_t oid, std::uint64_t position) const;

  VirtualTable& table_;
  Attachment* attachment_ = nullptr;
  std::uint64_t context_ = 0;
  std::uint64_t layout_ = 0;
  RowId row_;
  std::uint64_t index_ = 0;
  std::size_t index_number_ = 0;  // in the shape
  std::uint64_t iterator_ = 0;
  std::uint64_t savepoint_ = 0;
  RowPage page_;  // of the iterator
  bool reverse_ = false;
  bool plain_ = false;            // rows come as the index has them
  bool may_count_ = false;        // nothing was asked of any row yet, nor written since Filter
  bool counting_ = false;         // the present row was only counted
  std::uint32_t counted_ = 0;     // rows ahead that were counted
  std::uint32_t count_size_ = 0;  // what the last call could count
  std::uint64_t counts_ = 0;      // rows of the iterator that were counted
  bool one_row_ = false;          // there is one at most
  bool check_set_ = false;        // the index holds objects of other tables too
  std::vector<KeyRange> ranges_;
  std::size_t range_ = 0;
  std::vector<std::uint64_t> ids_;  // in their stead
  std::size_t id_ = 0;
  bool by_id_ = false;
  std::vector<OrderColumn> order_;
  bool in_runs_ = false;
  bool all_one_run_ = false;
  EqualRowSkip skip_;
  std::vector<Span> points_;  // of the parts of the index in front of the column that it looks at
  std::deque<RowId> ready_;
  bool drained_ = false;
  bool lost_ = false;
};

}  // namespace sagleme::sql

#endif

#ifndef SAGLEME_SQL_ROW_PAGE_H
#define SAGLEME_SQL_ROW_PAGE_H

// Rows of a scan, read ahead of the one that SQLite is at, with the values of columns that it reads
// of most of them. Asking the kernel for many rows, and for one column of many, costs a fraction of
// asking for each.
//
// Pages grow from two rows, so that a look-up reads no row too many. What a page knows is as of the
// moment when it was read: after a write of the same transaction its rows may be gone, and its
// values are not used.

#include <lscoredb/bulk.h>

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace sagleme::sql {

class RowPage {
 public:
  // For a scan that begins. `most`: rows of a page. `writes`: a number that each write of the
  // transaction moves; null where no row is read.
  void Start(std::uint32_t most, std::uint64_t const* writes);

  // The next row of the iterator's range. False at its end. `ahead`: others may be read with it.
  bool Next(std::uint64_t iterator, bool ahead, LORV_REFERENCE& row) {
    if (at_ + 1 < count_) {
      ++at_;
    } else if (!Fill(iterator, ahead)) {
      return false;
    }
    row = rows_[at_];
    return true;
  }
  // Of a page that was read just now: whether all its rows are delivered as they are.
  void NotePlain(bool plain) { plain_ = plain; }
  bool IsNew() const { return at_ == 0; }
  std::span<LORV_REFERENCE const> rows() const { return {rows_.data(), count_}; }
  // The next row, if it is in a plain page that the transaction has not written since.
  bool Step() {
    if (at_ + 1 >= count_ || !plain_ || IsOld()) return false;
    ++at_;
    return true;
  }
  // The objects that pages have been read with.
  std::uint64_t read() const { return read_; }
  // Whether the scan is at the end of a page that is not one of its first few rows.
  bool IsUsedUp() const { return at_ + 1 == count_ && count_ >= kWorthwhile; }
  // Whether the transaction has written since the page was read.
  bool IsOld() const { return read_at_ != *writes_; }
  // The row that Next gave last; 0: none.
  std::uint64_t oid() const { return at_ < count_ ? rows_[at_].oid : 0; }

  struct Word {
    std::uint64_t bits = 0;
    bool null = false;
  };
  // The value of a column of fixed size of that row. False: it is not known here and the caller
  // reads it itself.
  bool Read(std::uint64_t context, std::uint16_t layout, std::uint16_t column, Word& word) {
    if (IsOld()) return false;
    Column* const found = Find(column);
    if (found == nullptr) return false;
    ++found->reads;
    if (!found->together) return false;
    bool const here = at_ >= found->from && at_ < found->behind;
    if (!here) Load(*found, context, layout);
    if (!found->together || found->states[at_] == LSCOREDB_IS_GONE) return false;
    word = {found->values[at_], found->states[at_] == LSCOREDB_IS_NULL};
    return true;
  }
  // The caller reads a value of that row itself.
  void NoteOwnRead() { own_reads_ = true; }

 private:
  struct Column {
    std::uint16_t number = 0;
    std::uint32_t reads = 0;   // of rows of this page
    bool together = false;     // of this page
    std::uint32_t from = 0;    // the first row whose value is known
    std::uint32_t behind = 0;  // the last one
    std::vector<std::uint64_t> values;
    std::vector<std::uint8_t> states;
  };

  static constexpr std::size_t kColumns = 8;
  static constexpr std::uint32_t kWorthwhile =
      8;  // rows for which one call is better than one each

  bool Fill(std::uint64_t iterator, bool ahead);
  Column* Find(std::uint16_t number) {
    for (std::size_t i = 0; i < column_count_; ++i) {
      if (columns_[i].number == number) return &columns_[i];
    }
    return Add(number);
  }
  Column* Add(std::uint16_t number);
  void Load(Column& column, std::uint64_t context, std::uint16_t layout);

  std::uint64_t const* writes_ = nullptr;
  std::uint64_t read_at_ = 0;
  std::uint64_t read_ = 0;
  std::uint32_t most_ = 0;
  std::uint32_t size_ = 0;   // what the last page had room for
  std::uint32_t count_ = 0;  // what it has
  std::uint32_t at_ = 0;
  bool own_reads_ = false;  // of rows of this page
  bool plain_ = false;
  std::vector<LORV_REFERENCE> rows_;
  std::array<Column, kColumns> columns_;
  std::size_t column_count_ = 0;
  std::vector<std::uint64_t> ids_;  // for one call: memory that is used again
};

}  // namespace sagleme::sql

#endif

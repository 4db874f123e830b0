#include "row_page.h"

#include <algorithm>
#include <sagleme/host.hpp>

namespace sagleme::sql {
namespace {

constexpr std::uint32_t kFirst = 2;
constexpr std::uint32_t kGrowth = 4;

}  // namespace

void RowPage::Start(std::uint32_t most, std::uint64_t const* writes) {
  most_ = most;
  writes_ = writes;
  plain_ = false;
  read_ = size_ = count_ = at_ = 0;
  own_reads_ = false;
  column_count_ = 0;
}

bool RowPage::Fill(std::uint64_t iterator, bool ahead) {
  bool const was_last = count_ < size_;
  std::uint32_t const before = count_;
  count_ = at_ = 0;
  if (was_last) return false;
  size_ = ahead ? std::min(std::max(kFirst, size_ * kGrowth), most_) : 1;
  rows_.resize(size_);
  // Values that are read together are fetched then.
  std::uint32_t const flags = own_reads_ ? LSCOREDB_FETCH_ROWS : 0;
  detail::CheckKernel(lscoredb_iterator_next_many(iterator, flags, size_, rows_.data(), &count_));
  own_reads_ = plain_ = false;
  read_at_ = *writes_;
  read_ += count_;
  for (std::size_t i = 0; i < column_count_; ++i) {
    Column& column = columns_[i];
    column.together = column.reads * 2 > before && count_ >= kWorthwhile;
    column.reads = column.from = column.behind = 0;
  }
  return count_ > 0;
}

// Null: there are enough.
RowPage::Column* RowPage::Add(std::uint16_t number) {
  if (column_count_ == kColumns) return nullptr;
  Column& column = columns_[column_count_++];
  column.number = number;
  column.reads = column.from = column.behind = 0;
  column.together = false;
  return &column;
}

// From the present row to the page's end. A failure is told by the caller's own read, if that row
// has it.
void RowPage::Load(Column& column, std::uint64_t context, std::uint16_t layout) {
  ids_.resize(count_);
  column.values.resize(count_);
  column.states.resize(count_);
  for (std::uint32_t i = at_; i < count_; ++i) ids_[i] = rows_[i].oid;
  auto const status =
      lscoredb_read_words(context, count_ - at_, ids_.data() + at_, layout, column.number,
                          column.values.data() + at_, column.states.data() + at_);
  column.together = status == LORV_STATUS_OK;
  column.from = at_;
  column.behind = count_;
}

}  // namespace sagleme::sql

#ifndef METASCHEMA_LAYOUT_TABLES_H
#define METASCHEMA_LAYOUT_TABLES_H

// What is known in one database of layouts, by number, and of tables, by type id. Threads read and
// fill the entries without a lock, through atomic words; memory comes in pieces, with the first
// entry of each.

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <sagleme/metalayer/schema.hpp>

#include "frame/database_state.h"

namespace metalayer {

// kLayouts entries, zero at first.
template <typename Entry>
class LazyEntries {
 public:
  // `exported`: storage that is there already, or null.
  explicit LazyEntries(Entry* exported) : exported_(exported) {}
  ~LazyEntries() {
    for (std::size_t i = 0; i < kPieces; ++i) {
      if (exported_ == nullptr) {
        delete[] pieces_[i].load();
      } else if (pieces_[i].load() != nullptr) {
        std::fill_n(exported_ + i * kPiece, kPiece, Entry{});
      }
    }
  }
  LazyEntries(LazyEntries const&) = delete;
  LazyEntries& operator=(LazyEntries const&) = delete;

  // Null for an entry that nobody asked to write.
  Entry* Find(std::size_t number) const {
    if (exported_ != nullptr) return exported_ + number;
    Entry* const piece = pieces_[number / kPiece].load(std::memory_order_acquire);
    return piece == nullptr ? nullptr : piece + number % kPiece;
  }

  Entry& At(std::size_t number) {
    std::atomic<Entry*>& slot = pieces_[number / kPiece];
    Entry* piece = slot.load(std::memory_order_acquire);
    if (piece == nullptr) piece = Make(slot, number / kPiece);
    return piece[number % kPiece];
  }

 private:
  static constexpr std::size_t kPiece = 256;
  static constexpr std::size_t kPieces = kLayouts / kPiece;

  Entry* Make(std::atomic<Entry*>& slot, std::size_t piece) {
    Entry* known = nullptr;
    if (exported_ != nullptr) {
      slot.store(exported_ + piece * kPiece, std::memory_order_release);
      return exported_ + piece * kPiece;
    }
    auto made = std::make_unique<Entry[]>(kPiece);
    return slot.compare_exchange_strong(known, made.get()) ? made.release() : known;
  }

  Entry* const exported_;
  std::array<std::atomic<Entry*>, kPieces> pieces_{};  // of exported ones, those that were written
};

struct LayoutTables : StatePart {
  static constexpr PartOf kPart = PartOf::kLayoutTables;

  explicit LayoutTables(DatabaseState const& state);
  ~LayoutTables() override;

  LazyEntries<LayoutEntry> layouts;
  LazyEntries<LS_OBJ_REF> raw_views;  // by type id
  LS_OBJ_REF* mom_rv;

 private:
  LS_OBJ_REF own_mom_rv_ = db_util::null_obj_ref;
};

// Those of the thread's context.
inline LayoutTables& CurrentLayouts() { return DatabaseState::Current().Get<LayoutTables>(); }

}  // namespace metalayer

#endif

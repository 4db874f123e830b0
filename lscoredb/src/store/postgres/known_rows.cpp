#include "known_rows.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace lscore {
namespace {

constexpr std::size_t kFewestSlots = 64;
constexpr std::size_t kNeighbours = 8;
constexpr std::uint64_t kSpread = 0x9E3779B97F4A7C15;

}  // namespace

// The row's slot, or the free one where it belongs. Eight neighbours by id lie side by side, since
// most scans find rows in about the order of their ids.
std::size_t KnownRows::SlotOf(std::uint64_t id) const {
  std::size_t const last = slots_.size() - 1;
  std::uint64_t const spread = (id / kNeighbours * kSpread) >> 32;
  std::size_t at = (spread * kNeighbours + id % kNeighbours) & last;
  while (slots_[at].state != State::kFree && slots_[at].id != id) at = (at + 1) & last;
  return at;
}

bool KnownRows::Find(std::uint64_t id, Row* row) const {
  if (slots_.empty()) return false;
  Slot const& slot = slots_[SlotOf(id)];
  if (slot.state == State::kFree) return false;
  *row = slot.state == State::kThere ? Row({slot.bytes, slot.size}) : std::nullopt;
  return true;
}

bool KnownRows::Contains(std::uint64_t id) const {
  return !slots_.empty() && slots_[SlotOf(id)].state != State::kFree;
}

void KnownRows::Note(std::uint64_t id, Row const& row) {
  Reserve(1);
  Slot& slot = slots_[SlotOf(id)];
  if (slot.state != State::kFree) return;
  ++used_;
  slot.id = id;
  slot.state = row.has_value() ? State::kThere : State::kMissing;
  if (!row.has_value()) return;
  slot.bytes = row->data();
  slot.size = static_cast<std::uint32_t>(row->size());
}

void KnownRows::Reserve(std::size_t more) {
  std::size_t const needed = 2 * (used_ + more);
  if (needed > slots_.size()) Resize(std::max(std::bit_ceil(needed), kFewestSlots));
}

void KnownRows::Resize(std::size_t slots) {
  std::vector<Slot> const before = std::exchange(slots_, std::vector<Slot>(slots));
  for (Slot const& each : before) {
    if (each.state != State::kFree) slots_[SlotOf(each.id)] = each;
  }
}

}  // namespace lscore

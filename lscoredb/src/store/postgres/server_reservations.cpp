#include "server_reservations.h"

#include <algorithm>

#include "status.h"

namespace lscore {
namespace {

// The most numbers that are reserved in advance; those that a process does not use are lost.
constexpr std::size_t kMostAtOnce = 32;
// The row that holds the catalogue's word; its number belongs to no layout.
constexpr std::uint64_t kWordNumber = Raw(kNoLayout);

}  // namespace

Connection& ServerReservations::Server() const {
  if (connection_ == nullptr || !connection_->usable()) {
    connection_.reset();
    connection_ = std::make_unique<Connection>(url_, waits_);
  }
  return *connection_;
}

void ServerReservations::LearnAll() {
  if (learned_) return;
  Result const numbers = Server().Run(statements_.read_reservations);
  for (std::size_t i = 0; i < numbers.size(); ++i) taken_.set(numbers.Number(i, 0));
  learned_ = true;
}

std::set<std::size_t> ServerReservations::Insert(std::vector<std::uint64_t> const& numbers) {
  Result const got = Server().Run(statements_.reserve, Parameters().ManyNumbers(numbers));
  for (std::uint64_t const number : numbers) taken_.set(number);
  std::set<std::size_t> free;
  for (std::size_t i = 0; i < got.size(); ++i) free.insert(got.Number(i, 0));
  return free;
}

bool ServerReservations::Reserve(LayoutNumber number) {
  std::lock_guard const lock(mutex_);
  LearnAll();
  if (own_.erase(Raw(number)) > 0) return true;
  return !taken_.test(Raw(number)) && !Insert({Raw(number)}).empty();
}

// Inserts candidates into the table, where another machine may have been first, until one is ours.
// The number of candidates doubles, so that many new layouts take few round trips.
LayoutNumber ServerReservations::ReserveFrom(std::size_t first) {
  std::lock_guard const lock(mutex_);
  LearnAll();
  for (;;) {
    if (auto const own = own_.lower_bound(first); own != own_.end()) {
      return LayoutNumber{static_cast<std::uint16_t>(own_.extract(own).value())};
    }
    std::vector<std::uint64_t> wanted;
    for (std::size_t n = first; n < kLayoutNumbers && wanted.size() < next_count_; ++n) {
      if (!taken_.test(n)) wanted.push_back(n);
    }
    if (wanted.empty()) return kNoLayout;
    own_.merge(Insert(wanted));
    next_count_ = std::min(2 * next_count_, kMostAtOnce);
  }
}

std::uint64_t ServerReservations::word() const {
  std::lock_guard const lock(mutex_);
  Result const word = Server().Run(statements_.read_word, Parameters().Number(kWordNumber));
  return word.size() == 1 ? word.Number(0, 0) : 0;
}

bool ServerReservations::ReplaceWord(std::uint64_t expected, std::uint64_t word) {
  std::lock_guard const lock(mutex_);
  Parameters const parameters = Parameters().Number(kWordNumber).Number(expected).Number(word);
  return Server().Run(statements_.replace_word, parameters).size() == 1;
}

}  // namespace lscore

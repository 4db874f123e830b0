#ifndef LSCOREDB_SRC_SERVER_RESERVATIONS_H
#define LSCOREDB_SRC_SERVER_RESERVATIONS_H

// Reservations of layout numbers in a table of the server, for all machines. They are never
// released, since nothing shows which process still caches a number.

#include <bitset>
#include <memory>
#include <mutex>
#include <set>

#include "connection.h"
#include "layout_reservations.h"
#include "statements.h"

namespace lscore {

class ServerReservations final : public LayoutReservations {
 public:
  ServerReservations(ServerUrl url, Statements statements, Waits waits)
      : url_(std::move(url)), statements_(std::move(statements)), waits_(std::move(waits)) {}

  bool alone() const override { return false; }
  void Share() override {}
  bool orphaned() const override { return false; }

  bool Reserve(LayoutNumber number) override;
  LayoutNumber ReserveFrom(std::size_t first) override;
  std::uint64_t word() const override;
  bool ReplaceWord(std::uint64_t expected, std::uint64_t word) override;

 private:
  // A usable connection, opened when it is first needed.
  Connection& Server() const;
  void LearnAll();
  // Reserves those of the numbers that are free and returns them. Marks all of them as taken.
  std::set<std::size_t> Insert(std::vector<std::uint64_t> const& numbers);

  ServerUrl const url_;
  Statements const statements_;
  Waits const waits_;
  std::mutex mutable mutex_;
  std::unique_ptr<Connection> mutable connection_;
  std::bitset<kLayoutNumbers> taken_;  // as far as this process knows
  bool learned_ = false;
  std::set<std::size_t> own_;  // reserved in advance and not allocated yet
  std::size_t next_count_ = 1;
};

}  // namespace lscore

#endif

#ifndef LSCOREDB_SRC_GROUP_COMMIT_POLICY_H
#define LSCOREDB_SRC_GROUP_COMMIT_POLICY_H

// Whether a committer waits for others before it starts a batch, and how long. A sync costs much
// the same for one commit as for eight, so those who share one each pay a part. Who was busy a
// moment ago tells who will come back: the members of the last batch and those who lined up behind
// it. They are waited for until a time after the end of that batch, so someone who comes alone, or
// later, waits for nobody. A wait that ended before all were there cost more than it brought and is
// not repeated at once: after each one in a row twice as many batches go without.
//
// Looks at no clock. Used under its owner's lock.

#include <chrono>
#include <cstddef>

namespace lscore {

class GroupCommitPolicy {
 public:
  using Duration = std::chrono::nanoseconds;

  // `longest`: nobody waits longer for company.
  explicit GroupCommitPolicy(Duration longest) : longest_(longest) {}

  // Waiting is worth a part of what a batch takes: who waits in vain then loses little, and a
  // committer that was just let go comes back within it.
  static constexpr int kPart = 3;
  // Where a batch takes less, waking a thread costs as much as the batch.
  static constexpr Duration kShortest = std::chrono::microseconds(30);
  // Nobody waits longer, however long a batch took: it may have waited for another process.
  static constexpr Duration kLongest = std::chrono::milliseconds(2);
  // The most batches that go without after waits that were too short.
  static constexpr unsigned kMostPauses = 64;

  struct Batch {
    std::size_t size = 1;    // of the batch that ended
    std::size_t behind = 0;  // lined up for the next one when it ended
    bool waited = false;     // for company before it started
    Duration took{0};        // from its start to its end
  };

  void Ended(Batch const& batch);

  // A batch with so many starts at once. 1: any.
  std::size_t wanted() const { return wanted_; }
  // How long after the end of the last batch others are waited for.
  Duration patience() const { return patience_; }

 private:
  bool Pauses(Batch const& batch);

  Duration longest_;
  std::size_t wanted_ = 1;
  Duration patience_{0};
  unsigned pauses_ = 0;       // batches still to go without
  unsigned next_pauses_ = 1;  // after the next wait that is too short
};

}  // namespace lscore

#endif

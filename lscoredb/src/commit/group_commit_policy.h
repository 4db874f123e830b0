#ifndef LSCOREDB_SRC_GROUP_COMMIT_POLICY_H
#define LSCOREDB_SRC_GROUP_COMMIT_POLICY_H

// Whether a committer waits for others before it starts a batch, and how long. A sync costs about
// the same for one commit as for eight, so sharing one is cheaper for all. The policy expects those
// who were busy a moment ago: the members of the last batch and those who queued behind it. It
// waits for as many until a time after the end of that batch, so a single or late committer waits
// for nobody. A wait that ended before all had arrived cost more than it gained: after each such
// wait in a row, twice as many batches start without waiting.
//
// Reads no clock. Used under its owner's lock.

#include <chrono>
#include <cstddef>

namespace lscore {

class GroupCommitPolicy {
 public:
  using Duration = std::chrono::nanoseconds;

  // `longest`: nobody waits longer for others.
  explicit GroupCommitPolicy(Duration longest) : longest_(longest) {}

  // The patience is this fraction of the time a batch takes: a wait in vain then costs little, and
  // a committer that was just released can be back within it.
  static constexpr int kPart = 3;
  // No wait with less patience: waking a thread costs as much then.
  static constexpr Duration kShortest = std::chrono::microseconds(30);
  // Nobody waits longer, however long a batch took: it may have waited for another process.
  static constexpr Duration kLongest = std::chrono::milliseconds(2);
  // The most batches that start without waiting after waits in vain.
  static constexpr unsigned kMostPauses = 64;

  struct Batch {
    std::size_t size = 1;    // of the batch that ended
    std::size_t behind = 0;  // queued for the next one when it ended
    bool waited = false;     // for others before it started
    Duration took{0};        // from its start to its end
  };

  void Ended(Batch const& batch);

  // A batch of this size starts at once. 1: any batch.
  std::size_t wanted() const { return wanted_; }
  // How long after the end of the last batch others are waited for.
  Duration patience() const { return patience_; }

 private:
  bool Pauses(Batch const& batch);

  Duration longest_;
  std::size_t wanted_ = 1;
  Duration patience_{0};
  unsigned pauses_ = 0;       // batches left to start without waiting
  unsigned next_pauses_ = 1;  // the number of those after the next wait in vain
};

}  // namespace lscore

#endif

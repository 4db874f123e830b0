#ifndef LSCOREDB_SRC_KEPT_ANSWERS_H
#define LSCOREDB_SRC_KEPT_ANSWERS_H

// What snapshots of the newest known state have read, for snapshots to come: while nobody commits,
// they need not ask for it again. Any thread.

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "ids.h"
#include "server_answers.h"

namespace lscore {

class KeptAnswers {
 public:
  // `most`: bytes that all databases of the process may keep; 0: nothing is kept.
  explicit KeptAnswers(std::uint64_t most) : most_(most) {}
  ~KeptAnswers();
  KeptAnswers(KeptAnswers const&) = delete;
  KeptAnswers& operator=(KeptAnswers const&) = delete;

  // The largest ones about the state, which are the caller's then. Null: there are none. Forgets
  // those about earlier states.
  std::unique_ptr<ServerAnswers> Take(CommitId state, bool numbered);
  // Drops answers that are about an earlier state, or for which there is no room.
  void Keep(CommitId state, std::unique_ptr<ServerAnswers> answers) noexcept;

 private:
  using All = std::vector<std::unique_ptr<ServerAnswers>>;

  // These require the mutex, and return what is to be freed without it.
  All EnterState(CommitId state);
  std::unique_ptr<ServerAnswers> Remove(All::iterator one);
  std::unique_ptr<ServerAnswers> Add(std::unique_ptr<ServerAnswers> answers);

  std::uint64_t const most_;
  std::mutex mutex_;
  CommitId state_{0};
  All kept_;  // about that state
};

}  // namespace lscore

#endif

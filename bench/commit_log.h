#ifndef SAGLEME_BENCH_COMMIT_LOG_H
#define SAGLEME_BENCH_COMMIT_LOG_H

// A prototype that answers what a commit log would bring: LMDB's rows and index entries, with
// commits grouped as sagleme groups them, and made durable either by LMDB itself or by a log.
//
// With a log, a group is one record, which is written and synced once; then LMDB takes the group
// without a sync. When the log is full LMDB is synced and the log begins again. After the end of a
// process, or from a copy that was made at a checkpoint, records that LMDB lacks are replayed. It
// is not a store to be used: after a loss of power LMDB's file may not be sound without its syncs,
// so that a real one would have to keep changes away from the file until a checkpoint.

#include <lmdb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "commit_queue.h"
#include "engine.h"

namespace bench {

class LogStore {
 public:
  enum class Durability { kLmdb, kLog, kNone };  // kNone: the log is written, and not synced

  LogStore(std::string directory, Durability durability);
  ~LogStore();
  LogStore(LogStore const&) = delete;
  LogStore& operator=(LogStore const&) = delete;

  // Any thread.
  void CommitOne(Number number);
  // Syncs LMDB, copies it, and begins the log again.
  void Checkpoint(std::string const& copy);
  // Since the last checkpoint.
  std::uint64_t log_bytes() const { return log_end_; }

  // Opens a copy of a checkpoint and brings it to where the log ends. Returns how many rows it has
  // then.
  static std::size_t Recover(std::string const& copy, std::string const& log_directory);

 private:
  using Tickets = lscore::CommitQueue::Tickets;

  void Lead(Tickets const& batch);
  void Append(std::uint64_t sequence, std::string const& payload);
  void BeginLog();

  std::string directory_;
  Durability durability_;
  lscore::CommitQueue line_;
  MDB_env* env_ = nullptr;
  MDB_dbi rows_ = 0;
  MDB_dbi index_ = 0;
  int log_ = -1;
  std::uint64_t log_end_ = 0;
};

std::unique_ptr<Committer> MakeLogCommitter(LogStore& store);

}  // namespace bench

#endif

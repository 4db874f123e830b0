#ifndef LSCOREDB_SRC_CHANGE_READER_H
#define LSCOREDB_SRC_CHANGE_READER_H

// What a host knows as a reader of changes: it takes the notes of commits apart.

#include <lscoredb/changes.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "change_source.h"
#include "context.h"
#include "notes.h"

namespace lscore {

class ChangeReader {
 public:
  // Reads what follows the change at `place` of `commit`.
  ChangeReader(Store& store, std::uint64_t commit, std::uint32_t place);

  // Null: there is none yet.
  lscoredb_change const* Next();
  bool Wait(int milliseconds);
  ChangeSource& source() { return *source_; }

 private:
  bool EnterTransaction();
  bool HasMore() const { return schema_pending_ || !note_.at_end(); }
  void Read();
  void ReadObject();

  std::uint64_t const after_;
  std::uint32_t const after_place_;
  std::unique_ptr<ChangeSource> source_;
  NotedCommit commit_;
  std::size_t next_note_ = 0;
  NoteReader note_;
  bool schema_pending_ = false;
  lscoredb_change change_{};
  std::u16string setspec_;
  std::u16string former_setspec_;
  std::vector<Token> tokens_;
};

}  // namespace lscore

struct lscoredb_changes {
  lscoredb_changes(lscoredb& its_owner, std::uint64_t commit, std::uint32_t place);
  ~lscoredb_changes();
  lscoredb_changes(lscoredb_changes const&) = delete;
  lscoredb_changes& operator=(lscoredb_changes const&) = delete;

  lscoredb& owner;
  lscore::ChangeReader reader;
};

#endif

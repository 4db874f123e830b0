#ifndef LSCOREDB_SRC_NOTED_BYTES_H
#define LSCOREDB_SRC_NOTED_BYTES_H

// The notes of a commit as a server keeps them. Numbers are little endian; frozen.
//
//   offset  size  content
//        0     4  CRC-32C of the commit's number (8), or 0 if it was not known yet, and of the rest
//        4        the notes, each after its size (4), without gaps
//
// Empty if the commit has none.

#include <string>
#include <string_view>
#include <vector>

#include "ids.h"

namespace lscore {

class NotedBytes {
 public:
  void Add(std::string_view note);
  // The bytes for the commit, valid as long as this. 0: its number is not known yet.
  std::string_view Finish(CommitId commit);

 private:
  std::string bytes_;
};

// The notes in `bytes`. Throws LSCOREDB_DAMAGED if these are not those of the commit.
std::vector<std::string_view> NotesIn(std::string_view bytes, CommitId commit);

}  // namespace lscore

#endif

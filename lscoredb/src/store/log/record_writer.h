#ifndef LSCOREDB_SRC_RECORD_WRITER_H
#define LSCOREDB_SRC_RECORD_WRITER_H

// Builds one record of the log in memory of an overlay, so that the overlay's entries point into
// the record. One thread.

#include <sys/uio.h>

#include <vector>

#include "log_format.h"
#include "overlay.h"

namespace lscore {

class RecordWriter {
 public:
  explicit RecordWriter(Overlay& overlay) : overlay_(overlay) {}

  // Adds a change. The result is valid as long as the overlay.
  KeyValue Add(logformat::Change const& change);

  // Begins a record that may stay without changes.
  void Begin();

  bool empty() const { return pieces_.empty(); }
  std::uint64_t size() const { return size_; }

  // Fills in the head's size and checksum, and returns the bytes of the record.
  // REQUIRES: the record is not empty, and nothing is added afterwards.
  std::vector<iovec>& Finish(logformat::Head& head, logformat::Identity const& identity);

 private:
  char* Take(std::size_t size);

  Overlay& overlay_;
  std::vector<iovec> pieces_;
  std::uint64_t size_ = 0;
};

}  // namespace lscore

#endif

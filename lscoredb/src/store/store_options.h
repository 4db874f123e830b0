#ifndef LSCOREDB_SRC_STORE_OPTIONS_H
#define LSCOREDB_SRC_STORE_OPTIONS_H

// How a store is opened.

#include <cstdint>

namespace lscore {

// kAutomatic: to write if that is possible, otherwise to read.
enum class Access : std::uint8_t { kAutomatic, kRead, kWrite };

// What an opener wants of a log (write-ahead; store/log). A directory that has one keeps it.
enum class LogWish : std::uint8_t {
  kAsItIs,         // no change
  kUnlessRefused,  // one, if that is possible, unless an earlier opener refused it
  kOne,            // one, if nobody else has the directory open
  kNone,           // none, and later openers with kUnlessRefused give it none either
};

// What a store has. kNone: kUnlessRefused may give it one.
enum class LogState : std::uint8_t { kNone, kRefused, kThere };

// Asked now and then by a thread that waits for a server. True ends the wait, by LSCOREDB_STOPPED.
using StopsWait = bool (*)() noexcept;

struct StoreOptions {
  Access access = Access::kAutomatic;
  bool sync = true;
  std::uint32_t max_readers = 1024;
  std::uint64_t max_file_size = std::uint64_t{64} << 30;
  bool verify = false;  // check everything before it is used
  std::uint64_t row_memory = std::uint64_t{256} << 20;
  LogWish log = LogWish::kAsItIs;
  std::uint64_t log_limit = std::uint64_t{16} << 20;  // bytes of it that cause a checkpoint

  // Opens the reservations of layout numbers too, before anything else of the store.
  bool reserve_layouts = false;

  StopsWait stops_wait = nullptr;  // null: nothing ends a wait but its time limit
};

}  // namespace lscore

#endif

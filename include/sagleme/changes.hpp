#ifndef SAGLEME_CHANGES_HPP
#define SAGLEME_CHANGES_HPP

// The feed of changes: what commits changed, in their order, for readers in any process.
// <lscoredb/changes.h> has the rules; here changes have the names of tables and columns.
//
//   sagleme::KeepChanges(database, {.bytes = 256 << 20});                 // once
//   sagleme::Changes changes(database, {sagleme::Kept(database).last});   // what comes from now on
//   for (;;) {
//     for (sagleme::DataChange const& change : changes) Handle(change);       // what there is
//     changes.Wait(std::chrono::seconds(10));
//   }
//
// A directory with a log and a database on a server keep changes: elsewhere,
// LSCOREDB_CHANGES_UNSUPPORTED.

#include <lscoredb/changes.h>
#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

namespace sagleme {

// 0: without that bound. With both 0 nothing is kept.
struct ChangeRetention {
  std::uint64_t bytes = 0;
  std::uint64_t seconds = 0;
};

struct KeptChanges {
  ChangeRetention retention;
  std::uint64_t first = 0;  // the oldest commit that can be read; last + 1 if there is none
  std::uint64_t last = 0;   // the newest one
};

// Keeps the changes of later commits, for good and in all processes.
SAGLEME_HOST_API void KeepChanges(Database const& database, ChangeRetention const& retention);
// Throws Error with LSCOREDB_NO_CHANGES if nothing is kept.
SAGLEME_HOST_API KeptChanges Kept(Database const& database);

// A change, or a whole commit, after which to go on.
struct ChangePosition {
  static constexpr std::uint32_t kWholeCommit = std::numeric_limits<std::uint32_t>::max();

  std::uint64_t commit = 0;
  std::uint32_t place = kWholeCommit;
};

enum class ChangeKind : std::uint8_t { kCreated = 1, kChanged, kDeleted, kMoved, kSchema };

struct DataChange {
  ChangePosition position;
  std::uint32_t transaction = 1;  // of those that were committed together
  bool last = false;              // of its transaction
  std::uint64_t time = 0;         // of the commit, in microseconds since 1970
  ChangeKind kind = ChangeKind::kSchema;
  // What follows is empty for kSchema. Names are those of the newest schema.
  ObjectId object;
  std::u16string table;         // full name; empty if the table was dropped since
  std::u16string former_table;  // of an object that moved to another table
  // Those whose value changed, by name; without those that were dropped since.
  std::vector<std::u16string> columns;
};

// Reads what follows a position. Changes of the catalogue are told as one kSchema at their first
// place in a transaction, which says to forget what was read of the schema. One thread at a time.
// Must be destroyed before its database is closed.
class SAGLEME_HOST_API Changes {
 public:
  Changes(Database const& database, ChangePosition const& after);
  ~Changes();
  Changes(Changes&&) noexcept;
  Changes& operator=(Changes&&) noexcept;

  // The next change; nothing if there is none yet. Throws Error with LSCOREDB_CHANGES_GONE if it is
  // not kept any more: read the database afresh, then follow it from Kept().last, taken before
  // that.
  std::optional<DataChange> Next();
  // Waits until there is something to read; false if the time is over or a signal arrived.
  bool Wait(std::chrono::milliseconds limit);
  // A file descriptor for event loops: readable when there may be something to read, and no longer
  // once Next gave nothing.
  int file() const;

  // What there is now.
  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = DataChange;
    using difference_type = std::ptrdiff_t;
    using pointer = DataChange const*;
    using reference = DataChange const&;

    iterator() = default;
    explicit iterator(Changes* changes) : changes_(changes), current_(changes->Next()) {}
    DataChange const& operator*() const { return *current_; }
    DataChange const* operator->() const { return &*current_; }
    iterator& operator++() {
      current_ = changes_->Next();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return !current_.has_value(); }

   private:
    Changes* changes_ = nullptr;
    std::optional<DataChange> current_;
  };
  iterator begin() { return iterator(this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  class Reader;
  std::unique_ptr<Reader> reader_;
};

}  // namespace sagleme

#endif

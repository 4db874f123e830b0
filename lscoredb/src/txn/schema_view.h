#ifndef LSCOREDB_SRC_SCHEMA_VIEW_H
#define LSCOREDB_SRC_SCHEMA_VIEW_H

// Layouts and indexes as a transaction sees them: those of its snapshot and those of its write set.
// What it returns is valid until the transaction ends. One thread at a time.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "closed_sets.h"
#include "transaction_state.h"

namespace lscore {

class SchemaView {
 public:
  explicit SchemaView(TransactionState& state) : state_(state) {}

  // Null: there is none.
  Layout const* FindLayout(LayoutNumber number) const;
  // Newest first.
  std::vector<Layout const*> LayoutsOf(Token token) const;

  // Null: there is none.
  IndexDefinition const* FindIndex(IndexId id);
  // A prepared index that is ready and has the definition that `like` asks for, whatever its token.
  // Null: there is none.
  IndexDefinition const* FindReady(IndexDefinition const& like);
  // Newest first.
  std::vector<IndexDefinition const*> IndexesOf(Token token);
  // The committed indexes over a set, including those that the transaction has dropped.
  // A transaction mostly inserts into one table after the other, so the last one is remembered.
  IndexList const& CommittedCovering(std::u16string const& setspec) {
    if (covering_ != nullptr && covered_ == setspec) return *covering_;
    covering_ = &catalogue().Covering(*state_.snapshot, setspec);
    covered_ = setspec;
    return *covering_;
  }
  // Whether a set takes no more objects (closed_sets.h).
  bool IsClosed(std::u16string_view setspec) {
    return state_.changes.IsClosed(setspec) || known_open_.IsClosed(*state_.snapshot, setspec);
  }
  // The commit that last created or dropped an index, as of the snapshot.
  CommitId version() { return catalogue().version(); }

  void End() noexcept {
    covering_ = nullptr;
    catalogue_.reset();
    known_open_.Forget();
  }

 private:
  IndexCatalogue& catalogue();

  TransactionState& state_;
  KnownOpenSet known_open_;
  std::shared_ptr<IndexCatalogue> catalogue_;  // fetched when it is first needed
  IndexList const* covering_ = nullptr;        // over covered_; of the catalogue
  std::u16string covered_;
};

}  // namespace lscore

#endif

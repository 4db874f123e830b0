#include "index_maintainer.h"

#include "text.h"

namespace lscore {
namespace {

constexpr unsigned kMostFarLookups = 16;  // in a transaction

}  // namespace

// The committed indexes over the row's set, without those that this transaction dropped, and the
// ones it created. The committed list is looked up once per set specifier and kept in the row.
template <typename Visit>
void IndexMaintainer::ForEachCovering(PendingRow& row, Visit&& visit) {
  if (!row.setspec.present || row.deleted) return;
  if (row.covering == nullptr) {
    Unpack(row.setspec.text(), text_);
    row.covering = &schema_.CommittedCovering(text_);
  }
  for (IndexDefinition const* const index : *row.covering) {
    if (!state_.changes.IsDropped(index->id)) visit(*index);
  }
  if (state_.changes.created_indexes().empty()) return;
  Unpack(row.setspec.text(), text_);
  for (auto const& index : state_.changes.created_indexes()) {
    if (index->Covers(text_)) visit(*index);
  }
}

IndexMaintainer::Affected& IndexMaintainer::AffectedBy(IndexDefinition const& index) {
  for (std::size_t i = 0; i < affected_count_; ++i) {
    if (affected_[i].index == &index) return affected_[i];
  }
  if (affected_count_ == affected_.size()) affected_.emplace_back();
  Affected& affected = affected_[affected_count_++];
  affected.index = &index;
  affected.had_old = false;
  affected.has_new = false;
  return affected;
}

void IndexMaintainer::CollectKeys(PendingRow& row, std::optional<Token> token, bool before) {
  ForEachCovering(row, [&](IndexDefinition const& index) {
    if (token.has_value() && !index.HasColumn(*token)) return;
    Affected& affected = AffectedBy(index);
    (before ? affected.had_old : affected.has_new) = true;
    KeyFacts const facts =
        encoder_.Encode(index, RefOf(row), before ? affected.old_key : affected.new_key);
    (before ? affected.old_facts : affected.new_facts) = facts;
  });
}

PendingIndex& IndexMaintainer::Pending(IndexDefinition const& index) {
  PendingIndex* const pending = state_.changes.FindIndex(index.id);
  return pending != nullptr ? *pending : state_.changes.AddIndex(index, true);
}

// While a scan is open a duplicate may be temporary, so the check is left to commit, which repeats
// it for every entry that is not known to be unique. Only keys that this change introduced are
// looked up: an unchanged key was checked when it was written. A transaction that writes many keys
// leaves the later ones to commit too if each would take a round trip, since commit takes one for
// all.
Status IndexMaintainer::CheckUnique(PendingRow const& row) {
  if (scans_.any()) return LORV_STATUS_OK;
  for (std::size_t i = 0; i < affected_count_; ++i) {
    Affected& affected = affected_[i];
    KeyFacts& facts = affected.new_facts;
    if (!affected.index->unique() || !affected.has_new) continue;
    if (facts.has_null || facts.has_unwritten) continue;
    if (affected.SameKey() && !affected.old_facts.has_unwritten) continue;
    PendingIndex& pending = Pending(*affected.index);
    PendingKey const key{affected.new_key, row.id};
    if (pending.FindOther(key, false) != kNoObject) return LSCOREDB_DUPLICATE_KEY;
    if (state_.snapshot->far() && ++state_.far_lookups > kMostFarLookups) continue;
    if (FindOtherBelow(*state_.snapshot, unique_cursor_, pending, key) != kNoObject) {
      return LSCOREDB_DUPLICATE_KEY;
    }
    facts.known_unique = true;
  }
  return LORV_STATUS_OK;
}

// Replaces the row's old entries by the new ones, under one sequence number. Open scans may still
// need the old state: `keep` makes the entries remember it. An entry with an equal key stays,
// unless the row moved: entries name its layout. The first entries of a new row go to an unsorted
// list (fresh_entries.h), since no entry of that row can be there yet; those with unwritten columns
// do not, since they are about to change.
void IndexMaintainer::ApplyKeys(PendingRow const& row, PendingRow const& before) {
  bool const keep = scans_.any();
  bool const moved = row.layout != before.layout;
  bool const first = row.inserted() && !before.setspec.present && !keep;
  ++state_.now;
  for (std::size_t i = 0; i < affected_count_; ++i) {
    Affected const& affected = affected_[i];
    PendingIndex& pending = Pending(*affected.index);
    if (affected.SameKey() && !moved) {
      pending.SetFacts({affected.new_key, row.id}, affected.new_facts);
      continue;
    }
    bool const same = affected.SameKey();
    if (affected.had_old && !same) pending.Remove({affected.old_key, row.id}, state_.now, keep);
    if (!affected.has_new) continue;
    PendingKey const key{affected.new_key, row.id};
    NewEntry const added{key, affected.new_facts, row.layout->number(), same};
    if (first && !added.facts.has_unwritten) {
      pending.AddFresh(added);
    } else {
      pending.Add(added, state_.now, keep);
    }
  }
}

// Checks first, with the row already changed, and restores it when a key is taken. Once entries are
// being changed a failure cannot be undone entry by entry, so it dooms the transaction.
Status IndexMaintainer::FinishChange(PendingRow& row, std::optional<Token> token,
                                     PendingRow const& before) {
  Status status = Guarded([&] {
    CollectKeys(row, token, false);
    return CheckUnique(row);
  });
  if (status != LORV_STATUS_OK) {
    row = before;
    return status;
  }
  row.changed = true;
  status = Guarded([&] {
    ApplyKeys(row, before);
    return LORV_STATUS_OK;
  });
  if (status != LORV_STATUS_OK) state_.doomed = status;
  reader_.NoteWritten(row);
  return status;
}

}  // namespace lscore

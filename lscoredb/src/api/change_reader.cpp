#include "change_reader.h"

#include <limits>

#include "status.h"

namespace lscore {
namespace {

static_assert(LSCOREDB_CHANGE_CREATED == Raw(NoteKind::kCreated) &&
              LSCOREDB_CHANGE_CHANGED == Raw(NoteKind::kChanged) &&
              LSCOREDB_CHANGE_DELETED == Raw(NoteKind::kDeleted) &&
              LSCOREDB_CHANGE_MOVED == Raw(NoteKind::kMoved));
static_assert(sizeof(Token) == sizeof(std::uint64_t));

constexpr std::uint32_t kWholeCommit = std::numeric_limits<std::uint32_t>::max();

// The commit whose successors the source is to give: the rest of a commit that was left in the
// middle is found by reading it again.
CommitId Before(std::uint64_t commit, std::uint32_t place) {
  bool const again = place != kWholeCommit && commit != 0;
  return CommitId{again ? commit - 1 : commit};
}

}  // namespace

ChangeReader::ChangeReader(Store& store, std::uint64_t commit, std::uint32_t place)
    : after_(commit), after_place_(place), source_(store.OpenChanges(Before(commit, place))) {
  if (place != kWholeCommit && commit > Raw(store.Kept().last)) Throw(LSCOREDB_INVALID_ARGUMENT);
  change_.size = sizeof change_;
}

// Enters the next transaction that changed something. Returns false if there is none yet.
bool ChangeReader::EnterTransaction() {
  if (next_note_ == commit_.notes.size()) {
    next_note_ = 0;
    commit_.notes.clear();
    if (!source_->Next(&commit_)) return false;
    change_.commit = Raw(commit_.commit);
    change_.time = commit_.time;
    change_.place = 0;
    change_.transaction = 0;
  }
  note_ = NoteReader(commit_.notes[next_note_++]);
  schema_pending_ = note_.schema_changed();
  ++change_.transaction;
  return true;
}

void ChangeReader::ReadObject() {
  ObjectNote const note = note_.Next(&tokens_);
  Unpack(note.setspec, setspec_);
  Unpack(note.former_setspec, former_setspec_);
  change_.kind = Raw(note.kind);
  change_.object = Raw(note.object);
  change_.layout = Raw(note.layout);
  change_.former_layout = Raw(note.former_layout);
  change_.setspec = setspec_.c_str();
  change_.former_setspec = former_setspec_.empty() ? nullptr : former_setspec_.c_str();
  change_.column_count = static_cast<std::uint32_t>(tokens_.size());
  change_.columns = reinterpret_cast<std::uint64_t const*>(tokens_.data());
}

void ChangeReader::Read() {
  if (schema_pending_) {
    schema_pending_ = false;
    lscoredb_change schema{};
    schema.size = sizeof schema;
    schema.commit = change_.commit;
    schema.place = change_.place;
    schema.transaction = change_.transaction;
    schema.time = change_.time;
    schema.kind = LSCOREDB_CHANGE_SCHEMA;
    change_ = schema;
  } else {
    ReadObject();
  }
  ++change_.place;
  change_.last = HasMore() ? 0 : 1;
}

lscoredb_change const* ChangeReader::Next() {
  for (;;) {
    while (!HasMore()) {
      if (!EnterTransaction()) return nullptr;
    }
    Read();
    if (change_.commit > after_ || change_.place > after_place_) return &change_;
  }
}

bool ChangeReader::Wait(int milliseconds) {
  return HasMore() || next_note_ < commit_.notes.size() || source_->Wait(milliseconds);
}

}  // namespace lscore

lscoredb_changes::lscoredb_changes(lscoredb& its_owner, std::uint64_t commit, std::uint32_t place)
    : owner(its_owner), reader(its_owner.database->store(), commit, place) {
  ++owner.contexts;
}

lscoredb_changes::~lscoredb_changes() { --owner.contexts; }

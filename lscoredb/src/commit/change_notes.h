#ifndef LSCOREDB_SRC_CHANGE_NOTES_H
#define LSCOREDB_SRC_CHANGE_NOTES_H

// Writes the note of a transaction (notes.h).

#include <span>
#include <string>

#include "pending.h"

namespace lscore {

// `rows`: those that the commit writes. Empty if the transaction changes no object and no layout,
// index or set.
std::string NoteOf(PendingChanges const& changes, std::span<PendingRow const* const> rows);

}  // namespace lscore

#endif

#ifndef LSCOREDB_SRC_NOTES_H
#define LSCOREDB_SRC_NOTES_H

// Notes: what a transaction changed, for readers of the feed of changes. A log keeps one beside the
// changes of each transaction while changes are kept (store.h). Numbers are little endian; frozen
// like all stored bytes.
//
//   offset  size  content
//        0     1  1: the transaction changed layouts, indexes or sets; 0: it did not
//        1        its objects, by identity, without gaps:
//
//   object  0     1  kind (NoteKind)
//           1     1  1: the set specifier is wide; 2: the former one is
//           2     2  layout, of a deleted object its last one
//           4     2  former layout; 0: it is the same, or there is none
//           6     2  count of columns
//           8     8  object id
//          16     4  size of the set specifier, packed; of a deleted object its last one
//          20     4  size of the former one, packed; 0 unless it differs
//          24        the two, then the tokens (8) of the columns that changed

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ids.h"
#include "text.h"

namespace lscore {

enum class NoteKind : std::uint8_t { kCreated = 1, kChanged = 2, kDeleted = 3, kMoved = 4 };

struct ObjectNote {
  NoteKind kind = NoteKind::kChanged;
  ObjectId object{};
  LayoutNumber layout{};
  LayoutNumber former_layout{};
  PackedText setspec;
  PackedText former_setspec;
};

void BeginNote(bool schema_changed, std::string& note);
void AppendObject(ObjectNote const& object, std::span<Token const> columns, std::string& note);

// Reads a note. Throws LSCOREDB_DAMAGED when the bytes are not one.
class NoteReader {
 public:
  // No note: there is nothing to read.
  NoteReader() = default;
  explicit NoteReader(std::string_view note);

  bool schema_changed() const { return schema_changed_; }
  bool at_end() const { return rest_.empty(); }
  // REQUIRES: not at the end. The texts are valid as long as the note.
  ObjectNote Next(std::vector<Token>* columns);

 private:
  bool schema_changed_ = false;
  std::string_view rest_;
};

}  // namespace lscore

#endif

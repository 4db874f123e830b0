#ifndef SAGLEME_METALAYER_NAMES_HPP
#define SAGLEME_METALAYER_NAMES_HPP

// Part of the binary interface for makers of bindings; see <sagleme/metalayer.hpp>.
//
// The forms of a table's name, and the search for a table by part of its name.
//
// A name is split into segments at its dots. A table with the full name App.Model.Customer is
// stored under four forms:
//
//   FullName                   App.Model.Customer, exactly as given
//   Name                       Customer
//   UniqueIdentifier           Lorvenstack.Raw.App.Model.Customer
//   UniqueIdentifierReversed   Customer.Model.App.Raw.Lorvenstack
//
// The reversed form begins with the most specific segment, so that a search by the last segments of
// a name is a range scan of one index: at most two exact probes and three candidates, however
// many tables there are.
//
// Everything here except PopulateRawView only reads, and works in the thread's context and
// transaction. Rows are valid until the transaction ends.

#include <list>
#include <sagleme/metalayer/catalogue.hpp>
#include <string>

namespace metalayer {

// The segments of a name in reading order.
struct SAGLEME_API DottedName {
  std::list<std::u16string> segments;

  // Splits at each dot: an empty text between dots or before the first one is a segment, one after
  // the last dot is not. REQUIRES: `text` is not null.
  static DottedName Split(char16_t const* text);
  // The segments joined by dots. No dot is added while the text is empty, so leading empty segments
  // vanish.
  std::u16string ToString() const;
};

// The three derived forms of a full name. The short name of an empty one is Raw.
SAGLEME_API void MakeTableNames(char16_t const* full_name, std::u16string* name,
                                std::u16string* unique_identifier,
                                std::u16string* unique_identifier_reversed);

// Writes the RawView row of a table, all name forms included, and returns it. `base` may be null.
SAGLEME_API RawView PopulateRawView(char16_t const* full_name, unsigned short layout,
                                    LS_OBJ_REF const& base, bool updatable);

// The stored table for a text that is a reversed identifier, a reversed full name, or the beginning
// of one, in this order of preference. Rows of views and classes are skipped. A beginning
// counts if it ends where a segment ends; if the first match does and the second does not, the
// first wins. Throws BadArg with SAGLEME_TABLE_NOT_FOUND for no match,
// AmbiguousIncompleteReverseUid (SAGLEME_AMBIGUOUS_NAME) for several, also when none of them ends
// at a segment.
SAGLEME_API RawView RawViewByIncompleteReverseUid(char16_t const* uid);

// The stored table for a name in reading order that may lack leading segments. Errors show the
// name as given, and full names: SAGLEME_TABLE_NOT_FOUND for no such table,
// SAGLEME_AMBIGUOUS_NAME for several.
SAGLEME_API RawView DottedName2RawView(DottedName name);
// The full name of that table.
SAGLEME_API std::u16string DottedName2FullName(DottedName name);

}  // namespace metalayer

#endif

#ifndef SAGLEME_METALAYER_NAMES_HPP
#define SAGLEME_METALAYER_NAMES_HPP

// The forms of a table's name, and the search for a table by less than its full name.

#include <sagleme/metalayer/catalogue.hpp>

#include <list>
#include <string>

namespace metalayer {

// The segments of a name in reading order.
struct SAGLEME_API DottedName {
  std::list<std::u16string> segments;

  // Splits at each dot: an empty text between dots or before the first one is a segment, one behind the
  // last dot is not.
  static DottedName Split(char16_t const* text);
  // The segments joined by dots; leading empty segments vanish.
  std::u16string ToString() const;
};

SAGLEME_API void MakeTableNames(char16_t const* full_name, std::u16string* name,
                                std::u16string* unique_identifier,
                                std::u16string* unique_identifier_reversed);
SAGLEME_API RawView PopulateRawView(char16_t const* full_name, unsigned short layout,
                                    LS_OBJ_REF const& base, bool updatable);
SAGLEME_API RawView RawViewByIncompleteReverseUid(char16_t const* uid);
SAGLEME_API RawView DottedName2RawView(DottedName name);
SAGLEME_API std::u16string DottedName2FullName(DottedName name);

}  // namespace metalayer

#endif

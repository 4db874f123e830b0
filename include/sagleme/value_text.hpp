#ifndef SAGLEME_VALUE_TEXT_HPP
#define SAGLEME_VALUE_TEXT_HPP

// Values as people and files write them.
//
//   string     as it is
//   binary     base64
//   long, ulong, key   decimal digits
//   decimal    digits with at most six after the point
//   float, double      the shortest digits that read back the same; inf, -inf, nan, and with its
//                      bits in hexadecimal digits any other NaN: nan(7ff8000000000001)
//   reference  the object's id
//   bool       true, false
//
// In JSON, numbers and truth values are bare; decimals, base64, nan and inf are strings; a text
// with a lone surrogate, which JSON readers refuse, is {"utf16": [units]}. Texts are UTF-8.

#include <sagleme/export.h>

#include <sagleme/host/value.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sagleme {

// The text is not a value of the wanted type; what() says why, without the location.
class SAGLEME_EXCEPTION BadValue : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Empty for null.
SAGLEME_HOST_API std::string ValueText(Value const& value);
SAGLEME_HOST_API std::string ValueJson(Value const& value);

// Throws BadValue. Null has no text here; the caller decides how to write it.
SAGLEME_HOST_API Value ParseValue(Type type, std::string_view text);

SAGLEME_HOST_API std::string DecimalText(Decimal value);
SAGLEME_HOST_API std::string Base64(Bytes const& bytes);
// Throws BadValue.
SAGLEME_HOST_API Bytes ParseBase64(std::string_view text);

// Makes control characters visible, so that stored text cannot control a terminal or break a line.
SAGLEME_HOST_API std::string Visible(std::string_view text);
// A JSON string with its quotes. `text` is UTF-8 that may hold lone surrogates, which become
// escapes.
SAGLEME_HOST_API std::string JsonString(std::string_view text);
// A text with lone surrogates as JSON: {"utf16": [units]}.
SAGLEME_HOST_API std::string UnitsJson(std::u16string_view text);
// A field of a CSV line, quoted where it must be.
SAGLEME_HOST_API std::string CsvText(std::string_view text);

}  // namespace sagleme

#endif

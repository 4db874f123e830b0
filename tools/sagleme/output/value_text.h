#ifndef SAGLEME_TOOL_OUTPUT_VALUE_TEXT_H
#define SAGLEME_TOOL_OUTPUT_VALUE_TEXT_H

// Values as people and files write them.
//
//   string     as it is
//   binary     base64
//   long, ulong, key   decimal digits
//   decimal    digits with at most six behind the point
//   float, double      the shortest digits that read back the same; nan, inf, -inf
//   reference  the object's id
//   bool       true, false
//
// In JSON numbers and truth values stand bare; decimals, base64, nan and inf are strings; a text
// with a lone surrogate, which JSON readers refuse, is {"utf16": [units]}.

#include <nlohmann/json_fwd.hpp>
#include <sagleme/host/value.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "output/cell.h"

namespace tool {

// A text that is no value of the type wanted; what() says why, without the place.
class BadValue : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Empty for null.
std::string ValueText(sagleme::Value const& value);
std::string ValueJson(sagleme::Value const& value);
Cell ValueCell(sagleme::Value const& value);

// Throw BadValue. The first does not know null: what stands for it is the caller's matter.
sagleme::Value ParseValue(sagleme::Type type, std::string_view text);
sagleme::Value ParseJsonValue(sagleme::Type type, nlohmann::json const& json);

std::string DecimalText(sagleme::Decimal value);
std::string Base64(sagleme::Bytes const& bytes);
sagleme::Bytes ParseBase64(std::string_view text);

}  // namespace tool

#endif

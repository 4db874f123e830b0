#ifndef SAGLEME_HOST_TEXT_JSON_VALUE_H
#define SAGLEME_HOST_TEXT_JSON_VALUE_H

#include <nlohmann/json_fwd.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {

// A value as ValueJson writes it. Throws BadValue.
Value ParseJsonValue(Type type, nlohmann::json const& json);

}  // namespace sagleme

#endif

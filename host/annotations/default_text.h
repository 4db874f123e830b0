#ifndef SAGLEME_HOST_ANNOTATIONS_DEFAULT_TEXT_H
#define SAGLEME_HOST_ANNOTATIONS_DEFAULT_TEXT_H

#include <sagleme/value_text.hpp>
#include <string>

namespace sagleme::annotations {

// The value of a type that a JSON text holds, written as ValueJson writes it or as JSON has it by
// itself, without space around it. Throws BadValue.
Value ParseJsonValue(Type type, std::string const& json);
// The same; null if it cannot be read. The type of a column may have changed since.
Value StoredDefault(Type type, std::string const& json);

}  // namespace sagleme::annotations

#endif

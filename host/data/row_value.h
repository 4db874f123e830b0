#ifndef SAGLEME_HOST_DATA_ROW_VALUE_H
#define SAGLEME_HOST_DATA_ROW_VALUE_H

#include <sagleme/host/rows.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {

// Converts a value of a file to a type. Throws BadValue.
Value ParseRowValue(Type type, RowValue const& value);

}  // namespace sagleme

#endif

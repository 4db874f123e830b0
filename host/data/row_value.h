#ifndef SAGLEME_HOST_DATA_ROW_VALUE_H
#define SAGLEME_HOST_DATA_ROW_VALUE_H

#include <sagleme/host/rows.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {

// A value as a file has it, as a value of a type. Throws BadValue.
Value ParseRowValue(Type type, RowValue const& value);

}  // namespace sagleme

#endif

#ifndef SAGLEME_TOOL_OUTPUT_VALUE_TEXT_H
#define SAGLEME_TOOL_OUTPUT_VALUE_TEXT_H

// Values of columns as cells of a list.

#include <sagleme/value_text.hpp>

#include "output/cell.h"

namespace tool {

using sagleme::BadValue;
using sagleme::ParseValue;
using sagleme::ValueText;

Cell ValueCell(sagleme::Value const& value);

}  // namespace tool

#endif

#ifndef SAGLEME_TOOL_COMMANDS_EXCERPT_H
#define SAGLEME_TOOL_COMMANDS_EXCERPT_H

// A part of a schema that fits on a picture.

#include <cstdint>
#include <sagleme/schema_document.hpp>
#include <string>

namespace tool {

struct ExcerptLimits {
  std::string top;                    // with its descendants; empty: everything
  std::uint64_t depth = UINT64_MAX;   // levels below the top, or below the tables without a base
  std::uint64_t tables = UINT64_MAX;  // the highest ones are kept
};

// Tables stand below their bases, as in the whole.
sagleme::SchemaDoc Excerpt(sagleme::SchemaDoc const& schema, ExcerptLimits const& limits);

}  // namespace tool

#endif

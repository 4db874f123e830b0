#ifndef SAGLEME_SQL_KEYS_H
#define SAGLEME_SQL_KEYS_H

// Ranges of an index as the bytes that the kernel takes.

#include <cstdint>
#include <functional>
#include <sagleme/metalayer/keys.hpp>
#include <span>
#include <vector>

#include "schema.h"
#include "spans.h"

namespace sagleme::sql {

using KeyBytes = std::vector<std::uint64_t>;

// Written into room that grows until the key fits.
KeyBytes WriteKey(std::function<void(metalayer::Key&)> const& write);

struct KeyRange {
  KeyBytes first;
  KeyBytes last;
};

// The range of an index for spans of its first columns, all but the last of which are points.
KeyRange RangeOf(ShapeIndex const& index, std::span<Span const* const> spans);
// All objects of a table, with or without those derived from it.
KeyRange RangeOfSet(Table const& table, bool only);

}  // namespace sagleme::sql

#endif

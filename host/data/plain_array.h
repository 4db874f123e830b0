#ifndef SAGLEME_HOST_DATA_PLAIN_ARRAY_H
#define SAGLEME_HOST_DATA_PLAIN_ARRAY_H

// JSON arrays of the form that dumps contain, read in place: a general JSON reader copies every
// text and takes several times as long.

#include <sagleme/host/rows.hpp>
#include <string_view>
#include <vector>

namespace sagleme {

// Takes an array from the beginning of a text, with its closing bracket. Its items may be texts
// without escapes, numbers, true, false and null, separated as JSON allows without line ends. UTF-8
// is not checked. False for anything else; `values` is undefined then, otherwise valid as long as
// the bytes are. REQUIRES: `text` begins after the bracket.
bool TakePlainArray(std::string_view& text, std::vector<RowValue>& values);

}  // namespace sagleme

#endif

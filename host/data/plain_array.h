#ifndef SAGLEME_HOST_DATA_PLAIN_ARRAY_H
#define SAGLEME_HOST_DATA_PLAIN_ARRAY_H

// Arrays of JSON as dumps are full of them, read where they lie: a reader of all JSON copies every
// text and takes several times as long.

#include <sagleme/host/rows.hpp>
#include <string_view>
#include <vector>

namespace sagleme {

// Takes an array from the beginning of a text, with its closing bracket. Its items may be texts
// without escapes, numbers, true, false and null, separated as JSON allows without line ends; that
// texts are UTF-8 is not looked at. False when it is anything else; `values` is undefined
// then, otherwise valid as long as the bytes are. REQUIRES: `text` begins behind the bracket.
bool TakePlainArray(std::string_view& text, std::vector<RowValue>& values);

}  // namespace sagleme

#endif

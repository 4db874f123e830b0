#ifndef SAGLEME_HOST_TEXT_KEY_VALUES_H
#define SAGLEME_HOST_TEXT_KEY_VALUES_H

// The values in a key as the kernel hands it out; the bytes are described in <lscoredb/lscoredb.h>.

#include <sagleme/host.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

// One value for each column of the index. Nothing if the bytes are not a complete key of it.
std::vector<Value> KeyValues(Index const& index, std::string_view key);

// The form for messages: texts in quotation marks, separated by commas.
std::string KeyText(std::vector<Value> const& key);

}  // namespace sagleme

#endif

#ifndef SAGLEME_TOOL_BASE_NEAR_H
#define SAGLEME_TOOL_BASE_NEAR_H

// Suggestions for a misspelt name.

#include <string>
#include <vector>

namespace tool {

// The nearest first, at most three. A name is near if few edits lead to it, if it differs only in
// case, or if it begins with what was typed.
std::vector<std::string> NearNames(std::string const& typed, std::vector<std::string> const& names);

// "Did you mean a, b or c?", or nothing when no name is near.
std::string DidYouMean(std::string const& typed, std::vector<std::string> const& names);

}  // namespace tool

#endif

#ifndef SAGLEME_TOOL_DATA_REFERENCES_H
#define SAGLEME_TOOL_DATA_REFERENCES_H

// References as people and files write them: an object's id, or column=value, which is looked up in
// a unique index over that column of the target.

#include <sagleme/host.hpp>
#include <string>

namespace tool {

// The object that column=value names. BadValue when there is none, or no way to look it up.
// REQUIRES: `column` is a reference.
sagleme::ObjectId ReferencedObject(sagleme::Transaction& transaction, sagleme::Column const& column,
                                   std::string const& text);

}  // namespace tool

#endif

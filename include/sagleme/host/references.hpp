#ifndef SAGLEME_HOST_REFERENCES_HPP
#define SAGLEME_HOST_REFERENCES_HPP

// References as people and files write them: an object's id, or column=value, which is looked up in
// a unique index over that column of the target.

#include <sagleme/export.h>

#include <sagleme/host.hpp>
#include <sagleme/value_text.hpp>
#include <string>

namespace sagleme {

// The object that column=value names. BadValue when there is none, or no way to look it up.
// REQUIRES: `column` is a reference.
SAGLEME_HOST_API ObjectId ReferencedObject(Transaction& transaction, Column const& column,
                                           std::string const& text);

}  // namespace sagleme

#endif

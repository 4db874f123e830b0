#ifndef SAGLEME_TOOL_QUERY_NAMES_H
#define SAGLEME_TOOL_QUERY_NAMES_H

// Tables, columns and indexes by what users type.

#include <sagleme/host.hpp>
#include <string>

namespace tool {

// A table by a name that may lack leading segments; the catalogue's own by its full name only.
// Failure with kRefused when there is none, with near names, or when several end so, which are then
// listed.
sagleme::TablePtr TableNamed(sagleme::Transaction& transaction, std::string const& name);
// The same for commands that write objects: the catalogue's own tables are refused.
sagleme::TablePtr UserTableNamed(sagleme::Transaction& transaction, std::string const& name);
// Throws Failure with kRefused and near names, or the existing columns.
sagleme::Column const& ColumnNamed(sagleme::Table const& table, std::string const& name);
// Throws Failure with kRefused and near names if there is none.
sagleme::Index IndexNamed(sagleme::Transaction& transaction, std::string const& name);
// Throws Failure with kUsage for a malformed id, with kProblem if there is no such object.
sagleme::Object ObjectNamed(sagleme::Transaction& transaction, std::string const& text);
sagleme::ObjectId ParseObjectId(std::string const& text);
// UTF-16 of what a user typed. Failure with kUsage for bytes that are no UTF-8.
std::u16string Typed(std::string const& text);

}  // namespace tool

#endif

#ifndef SAGLEME_TOOL_COMMANDS_NAMES_H
#define SAGLEME_TOOL_COMMANDS_NAMES_H

// Tables, columns and indexes by what users type.

#include <sagleme/host.hpp>
#include <string>

namespace tool {

// A table by a name that may lack leading segments. Failure with kRefused when there is none, or
// when several end so, which are then listed.
sagleme::TablePtr TableNamed(sagleme::Transaction& transaction, std::string const& name);
// Failure with kRefused and the columns that there are.
sagleme::Column const& ColumnNamed(sagleme::Table const& table, std::string const& name);
// Failure with kRefused when there is none.
sagleme::Index IndexNamed(sagleme::Transaction& transaction, std::string const& name);
// UTF-16 of what a user typed. Failure with kUsage for bytes that are no UTF-8.
std::u16string Typed(std::string const& text);

}  // namespace tool

#endif

#ifndef SAGLEME_TOOL_SCHEMA_VALIDATE_H
#define SAGLEME_TOOL_SCHEMA_VALIDATE_H

#include <string>

#include "schema/document.h"

namespace tool {

// Refuses, with Failure of kUsage, a schema that no database can have:
//
//   1. two tables, or two indexes, of one name
//   2. a base that is neither in the document nor a table of the catalogue, or a line of bases that
//      comes back to where it began
//   3. a column whose name occurs twice in a table, inherited ones included, or begins with "__"
//   4. a reference to a table that is neither in the document nor of the catalogue
//   5. an index without columns, or with one that its table has not
void Validate(SchemaDoc const& schema, std::string const& source);

}  // namespace tool

#endif

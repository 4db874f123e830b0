#ifndef SAGLEME_TOOL_CHECK_CHECK_H
#define SAGLEME_TOOL_CHECK_CHECK_H

// The check of a database: its catalogue by itself, the catalogue against the kernel, objects,
// indexes.
//
// Rules, each one function:
//
//   ordinals     the columns of a table are numbered from 0 without gaps
//   inheritance  a table begins with the columns of its base, as they are there
//   layout       a table's layout in the kernel has its columns, with their types
//   set          a table's set specifier extends its base's, and is its alone
//   type id      every table has a type id of its own
//   index        an index exists in the kernel, over its table's set, with columns in order
//   generation   there is one counter of schema changes
//   object       an object belongs to a table or waits to be removed, lies under its table's layout
//   or
//                waits to be moved, and can be read in full
//   entries      an index holds every object of its tables once, in order, and unique keys once
//   reference    a reference leads to an object of its target (only on request: deleting an object
//   does
//                not look for references to it)

#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <string>

namespace tool {

struct Finding {
  std::string rule;
  std::string table;         // empty: of the whole database
  std::uint64_t object = 0;  // 0: of the table
  std::string what;
};

using Report = std::function<void(Finding const&)>;

struct CheckOptions {
  bool references = false;
};

void Check(sagleme::Transaction& transaction, CheckOptions const& options, Report const& report);

// The parts of it.
void CheckCatalogue(sagleme::Transaction& transaction, Report const& report);
void CheckObjects(sagleme::Transaction& transaction, CheckOptions const& options,
                  Report const& report);
void CheckEntries(sagleme::Transaction& transaction, Report const& report);

}  // namespace tool

#endif

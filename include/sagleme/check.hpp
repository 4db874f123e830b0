#ifndef SAGLEME_CHECK_HPP
#define SAGLEME_CHECK_HPP

// The check of a database: the findings of lscoredb_check in the kernel, by table; then the
// catalogue, alone and against the kernel; then the objects against the catalogue.
//
// Rules of the kernel's part, see lscoredb/host.h: pages, definition, layout, index, count, set
// change, identity, object, entries. If pages or definitions are broken, nothing else is
// checked, since it cannot be read. Rules of the catalogue's part, each one function:
//
//   ordinals     the columns of a table are numbered from 0 without gaps
//   inheritance  a table begins with the columns of its base, unchanged
//   layout       a table's layout in the kernel has its columns, with their types
//   tokens       a column is known to the kernel by the token of its catalogue row, an
//                inherited one by its base's
//   set          a table's set specifier extends its base's, and belongs to no other table
//   children     a set specifier's counter of children is above all of them
//   type id      every table has a type id of its own
//   deferred     a reference column knows its target if that exists
//   index        an index exists in the kernel, over its table's set, with columns in order
//   generation   there is one counter of schema changes. Only CheckCatalogue can report several:
//                once they are committed, the layer's start-up ends the process
//   vacuum       a request is the only one for its set, of a known kind, and either a move to the
//                layout of a table or a removal from a set without a table
//   annotation   an annotation belongs to a table, a column or an index, and can be read
//   abstract     a table that is abstract has no objects of its own
//   object       an object belongs to a table or waits to be removed, has its table's layout or
//                waits to be moved, and can be read in full
//   reference    a reference leads to an object of its target: without a rule, deleting an object
//                does not search for references to it. A finding names the rule that was passed
//                by. Those of the catalogue are not checked
//
// Memory grows with the catalogue and the findings of the kernel's part, not with the objects.

#include <sagleme/export.h>

#include <cstdint>
#include <functional>
#include <sagleme/host.hpp>
#include <sagleme/jobs.hpp>
#include <string>

namespace sagleme {

struct Finding {
  std::string rule;
  std::string table;         // empty: the whole database, or unknown
  std::uint64_t object = 0;  // 0: of the table
  std::string what;          // an English sentence
};

// An exception ends the check and is passed on.
using FindingReport = std::function<void(Finding const&)>;

struct CheckOptions {
  bool references = true;  // check for references that lead nowhere
  // Receives the progress of the check. An exception ends the check and is passed on.
  std::function<void(std::uint64_t done, std::uint64_t total)> progress;
  // May stop the check from any thread, which ends it with Error of LSCOREDB_STOPPED. Its pause is
  // made a hundred times, all in one transaction.
  JobControl const* control = nullptr;
};

// Checks the newest committed state of the database in `directory`, even if the process has it
// open. Reads nothing before the pages of the file are known to be consistent. Throws Error if
// there is no database or the kernel cannot open it.
SAGLEME_HOST_API void CheckDatabase(std::string const& directory, CheckOptions const& options,
                                    FindingReport const& report);

// Checks only the catalogue, as a transaction sees it.
SAGLEME_HOST_API void CheckCatalogue(Transaction& transaction, CheckOptions const& options,
                                     FindingReport const& report);

}  // namespace sagleme

#endif

#ifndef SAGLEME_HOST_DUMP_HPP
#define SAGLEME_HOST_DUMP_HPP

// A whole database as text, and back.
//
// The first line is the schema in one JSON document. Each further line is an object, by table in
// the order of the schema and then by id: {"t": index of its table, "id": ..., "v": [values of all
// columns in order]}. The last line counts the objects, in all and by table: {"end": {"objects":
// ..., "tables": [...]}}; a dump without it is truncated. Objects of dropped tables are left out,
// and so is what bindings keep in the catalogue beside tables, columns and indexes.

#include <sagleme/export.h>

#include <istream>
#include <sagleme/failure.hpp>
#include <sagleme/host.hpp>
#include <sagleme/host/transfer.hpp>
#include <sagleme/jobs.hpp>
#include <string>

namespace sagleme {

// Writes the database as the transaction sees it, and returns the number of objects. `report` may
// be empty. Error when something cannot be read.
SAGLEME_HOST_API std::uint64_t Dump(Transaction& transaction, TextSink const& to,
                                    TransferReport const& report = {});

struct LoadOptions {
  // Objects get new identities, 1 and up in the order of the dump, and references follow them.
  bool new_ids = false;
  TransferReport report;  // `done` counts objects
  // May stop the load from any thread, which ends it with Error of LSCOREDB_STOPPED and leaves
  // nothing behind. Its pause is made after each 20,000 objects.
  JobControl const* control = nullptr;
};

struct LoadResult {
  std::uint64_t objects = 0;
  // References to objects that the dump does not have, which new identities turn into null.
  std::uint64_t dropped_references = 0;
};

// Creates a new database from a dump in `directory`, which must not exist or be empty. It appears
// complete or not at all: it is built in the directory `directory`.loading, beside it. For the URL
// of a server it is built in the system's directory for temporary files and copied there. A stream
// that cannot be read twice, such as a pipe, is copied to a file first. `source` names the dump in
// messages.
//
// Memory is bounded whatever the dump holds; with new identities it grows with the gaps between the
// old ones. Throws Failure of kRefused if the directory has files, of kBadData with the line for a
// bad dump, of kBadInput for a schema that no database can have.
SAGLEME_HOST_API LoadResult Load(std::string const& directory, std::istream& input,
                                 std::string const& source, LoadOptions const& options = {});

}  // namespace sagleme

#endif

#ifndef SAGLEME_SQL_TABLE_H
#define SAGLEME_SQL_TABLE_H

// The module "sagleme" of virtual tables: one for each name in an attachment's schema.

#include <memory>
#include <string>
#include <vector>

#include "api.h"
#include "plan.h"
#include "schema.h"

namespace sagleme::sql {

class Attachment;
class Connection;

struct VirtualTable : sqlite3_vtab {
  Connection* connection = nullptr;
  Attachment* attachment = nullptr;
  unsigned number = 0;  // of the attachment, for references
  ShapePtr shape;
  std::vector<std::unique_ptr<Plan>> plans;  // of statements that are prepared; idxNum counts them

  Attachment& Attached() { return *attachment; }
  // Sees to an open transaction.
  void Begin();
  // Whether an object is of this table.
  bool Holds(Attachment& at, std::uint64_t oid) const;
};

// Registers the module with a connection, which it shares.
int RegisterTables(sqlite3* database, std::shared_ptr<Connection> const& connection);

}  // namespace sagleme::sql

#endif

#ifndef SAGLEME_SQL_CONNECTION_H
#define SAGLEME_SQL_CONNECTION_H

// The state of one SQLite connection: its attachments, and which of them its transaction writes.
//
// Modules and functions registered with SQLite share it; it ends with the last of them.

#include <sagleme/host.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "api.h"
#include "json.h"

namespace sagleme::sql {

class Attachment;

class Connection {
 public:
  explicit Connection(sqlite3* handle) : handle_(handle) {}
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  sqlite3* handle() const { return handle_; }
  Json& json() { return json_; }
  std::vector<Attachment*> const& attachments() const { return attachments_; }

  // Attaches the database in a directory; an empty `schema` is named after the directory. Returns
  // the name.
  std::string Attach(std::string const& directory, std::string schema);
  // Attaches the database of a transaction that somebody else has open, see join.h.
  void Join(OpenTransaction of, std::string const& place, std::string const& schema);
  // The attachment of a schema, or, for an empty name, the only one. Throws Failure if there is
  // none or more than one.
  Attachment& Find(std::string const& schema);
  // The same; null if there is none of that name.
  Attachment* Known(char const* schema);
  // By the number that references carry; null if it is detached.
  Attachment* At(unsigned number) const;
  unsigned NumberOf(Attachment const* attachment) const;
  void Remove(Attachment* attachment);

  // A transaction writes one database. Throws Failure if it already writes another one.
  void Claim(Attachment* attachment);
  void Release(Attachment* attachment);

 private:
  sqlite3* handle_;
  std::vector<Attachment*> attachments_;  // detached ones leave a null behind
  Attachment* writer_ = nullptr;
  Json json_;
};

// Keeps a transaction open for as long as it lives: the one of the statement that is running or of
// the transaction around it, or, where neither reads the attachment, one of its own.
class Hold {
 public:
  Hold(Connection& connection, Attachment& attachment);
  ~Hold() { sqlite3_finalize(reader_); }
  Hold(Hold const&) = delete;
  Hold& operator=(Hold const&) = delete;

 private:
  sqlite3_stmt* reader_ = nullptr;
};

}  // namespace sagleme::sql

#endif

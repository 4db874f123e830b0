#ifndef SAGLEME_SQL_ATTACHMENT_H
#define SAGLEME_SQL_ATTACHMENT_H

// A database attached to one SQLite connection: a context, its transaction, and the file that
// SQLite takes for the schema.
//
// An attachment that joins works in somebody else's context, and in the transaction that is open
// there, which it never ends: what it writes is kept with that transaction, and what fails is
// undone alone. There are no definitions then, whose schema the transaction's owner would not see.
//
// To SQLite the schema is a database file that lists virtual tables. The file is made up from the
// catalogue and lives in memory; see image.h and vfs.h. SQLite locks a file when a transaction
// first reads it and unlocks it when the transaction ends, which is how a snapshot here begins and
// ends, and a statement of a moment sees one state of definitions and objects. When the file is
// locked and the schema has another generation than before, the file changes with its schema
// cookie, and SQLite reads the definitions again and prepares its statements anew.
//
// One thread at a time uses an attachment: SQLite's lock of the connection ensures that.

#include <memory>
#include <optional>
#include <sagleme/host.hpp>
#include <string>
#include <vector>

#include "api.h"
#include "batches.h"
#include "definition.h"
#include "image.h"
#include "store.h"

namespace sagleme::sql {

class Connection;
class Cursor;

class Attachment {
 public:
  Attachment(std::shared_ptr<Store> store, std::string const& encoding);
  // Joins the transactions of a context.
  Attachment(std::shared_ptr<Store> store, std::string const& encoding, OpenTransaction joined);
  ~Attachment();
  Attachment(Attachment const&) = delete;
  Attachment& operator=(Attachment const&) = delete;

  Store& store() const { return *store_; }
  std::uint64_t context() const { return context_; }
  // The open transaction. REQUIRES: a locked file, see Hold.
  Transaction& transaction();
  bool in_transaction() const { return transaction_.has_value(); }
  // The schema that SQLite has seen last.
  SchemaPtr const& schema() const { return schema_; }
  Connection* connection() const { return connection_; }
  std::string const& name() const { return name_; }
  void Join(Connection* connection, std::string name);

  // About how many objects a table holds, also while no transaction is open.
  std::uint64_t Estimate(Shape const& shape);

  // ---- the file's side
  Image& image() { return image_; }
  // The file is locked: a snapshot begins.
  void Begin();
  // The file is unlocked: uncommitted changes are undone.
  void Unlock() noexcept;
  bool locked() const { return locked_; }

  // ---- writing
  bool wrote() const { return wrote_; }
  // Whether nobody has written in the transaction, as far as that is known here.
  bool IsUnwritten() const { return own_.has_value() && !wrote_; }
  // A number that each write and each rollback moves, at one place as long as the attachment lives.
  std::uint64_t const& writes() const { return writes_; }
  void NoteWrite();
  // Whether the file may be written: the schema was changed in this transaction.
  bool defined() const { return defined_; }
  // Makes a change of the schema, or only plans it; returns the lines of its plan either way.
  // Outside a transaction of SQLite it is committed at once, or made in batches (batches.h); inside
  // it ends with that.
  std::vector<std::string> Define(Definition const& definition);
  // Whether such a change adds tables to the schema or removes them.
  bool defining() const { return defining_; }
  // Commits. Open cursors continue with the objects still ahead of them.
  void Commit();
  void Rollback() noexcept;

  // ---- savepoints, by SQLite's numbers, which every table of a transaction gets
  void Savepoint(int number);
  void RollbackTo(int number);
  void Release(int number);
  // The kernel's number of the newest one; 0: there is none.
  std::uint64_t last_savepoint() const { return marks_.empty() ? 0 : marks_.back().savepoint; }
  // ---- cursors
  void Add(Cursor* cursor) { cursors_.push_back(cursor); }
  void Remove(Cursor* cursor) { std::erase(cursors_, cursor); }

  // Whether the objects in a range of a table's index are those of the table, so that they need not
  // be looked at to be counted. Not where a dropped table left some, nor where somebody else writes
  // in the same transaction.
  bool MayCount();

  // The address of an object; nothing when it is gone.
  std::optional<std::uint64_t> AddressOf(std::uint64_t oid) const;
  // The table of an object, from its set specifier. Null when it was dropped.
  TablePtr TableOf(std::uint64_t oid);
  // Whether the table of an object under that layout exists. Objects of a dropped table stay in the
  // ranges of its bases until vacuum removes them.
  bool IsOfLiveTable(std::uint64_t oid, std::uint16_t layout) {
    bool const known = layout < live_layouts_.size() && live_layouts_[layout] != 0;
    return known ? live_layouts_[layout] == 1 : LookIfLive(oid, layout);
  }

 private:
  struct Mark {
    int number;
    std::uint64_t savepoint;
  };

  void Open();
  bool LookIfLive(std::uint64_t oid, std::uint16_t layout);
  void End() noexcept;
  void UndoOwnWrites() noexcept;
  void Adopt(SchemaPtr schema);
  void ForgetTables();
  void Drain() noexcept;
  void Forget();
  void DefineAlone(DefinitionStatement const& statement);
  void DefineInBatches(LongWork const& work);
  bool IsInterrupted() const;
  void Change(DefinitionStatement const& statement);
  void NotifySqlite(SchemaPtr const& before);
  void ExecuteDefining(std::string const& sql);

  std::shared_ptr<Store> store_;
  std::optional<Context> own_;  // none: it joins
  std::uint64_t context_;
  std::optional<Transaction> transaction_;
  SchemaPtr schema_;
  Image image_;
  std::string encoding_;
  Connection* connection_ = nullptr;
  std::string name_;
  bool locked_ = false;
  bool wrote_ = false;
  std::uint64_t writes_ = 0;
  bool defined_ = false;
  bool defining_ = false;
  bool stale_ = true;  // the file is to be made anew when it is locked next
  std::vector<Mark> marks_;
  std::vector<Cursor*> cursors_;
  std::u16string last_setspec_;
  TablePtr last_table_;
  std::vector<std::uint8_t> live_layouts_;  // 0: not known, 1: with a table, 2: of a dropped one
  std::optional<bool> all_live_;            // whether each layout with objects has a table
};

}  // namespace sagleme::sql

#endif

#ifndef LSCOREDB_SRC_DATABASE_H
#define LSCOREDB_SRC_DATABASE_H

// An open database: its store and what all contexts of the process share: caches, allocators and
// the commit queue. One per directory (or server URL) and process, however often it is opened; it
// lives until its last handle is closed. Any thread.

#include <memory>
#include <string>
#include <vector>

#include "allocators.h"
#include "attachments.h"
#include "definitions.h"
#include "group_commit.h"
#include "identity.h"
#include "layout_numbers.h"
#include "shared_row_cache.h"
#include "store.h"

namespace lscore {

std::uint64_t NextDatabaseNumber();

class Database {
 public:
  // `row_memory`: bytes for the shared row cache. `directory`: of the store; empty: it has none.
  Database(std::unique_ptr<Store> store, std::uint64_t row_memory, std::string directory)
      : directory_(std::move(directory)),
        store_(std::move(store)),
        layout_numbers_(store_->layout_reservations()),
        rows_(store_->foreign_commits(), row_memory),
        ids_(*store_),
        identity_(*store_),
        commits_(*store_, ids_, identity_, rows_) {
    store_->foreign_commits().SetListener(
        [this](std::vector<ObjectId> const& changed, CommitId state) {
          for (ObjectId const id : changed) rows_.TakeOut(id, state);
        });
  }

  Store& store() { return *store_; }
  // For temporary files; empty where the store has no directory.
  std::string const& directory() const { return directory_; }
  SharedRowCache& rows() { return rows_; }
  LayoutCache& layouts() { return layouts_; }
  IndexCatalogues& catalogues() { return catalogues_; }
  IdAllocator& ids() { return ids_; }
  DatabaseIdentity& identity() { return identity_; }
  LayoutNumbers& layout_numbers() { return layout_numbers_; }
  // Whether the directory was removed under the open database.
  bool orphaned() const { return store_->layout_reservations()->orphaned(); }
  // Unique in the process: not even reopening the same database gives the number again.
  std::uint64_t number() const { return number_; }
  Attachments& attachments() { return *attachments_; }
  // For CloseDatabase, which releases them after the store is closed.
  std::unique_ptr<Attachments> TakeAttachments() { return std::move(attachments_); }
  GroupCommit& commits() { return commits_; }

 private:
  std::uint64_t const number_ = NextDatabaseNumber();
  std::string const directory_;
  std::unique_ptr<Store> store_;
  LayoutNumbers layout_numbers_;
  SharedRowCache rows_;
  LayoutCache layouts_;
  IndexCatalogues catalogues_;
  IdAllocator ids_;
  DatabaseIdentity identity_;
  GroupCommit commits_;
  std::unique_ptr<Attachments> attachments_ = std::make_unique<Attachments>();
};

// Opens the database in `directory`, which is created when missing, or shares it when the process
// has it open; null opens a new one in memory. A URL opens a database on a server.
std::shared_ptr<Database> OpenDatabase(char const* directory, StoreOptions const& options);
// Gives a share back. The last one closes the store, then releases the attachments, then the
// reserved layout numbers: attachments may cache layouts by number until they are released.
void CloseDatabase(std::shared_ptr<Database> database);

}  // namespace lscore

#endif

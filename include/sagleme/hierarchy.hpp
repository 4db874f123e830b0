#ifndef SAGLEME_HIERARCHY_HPP
#define SAGLEME_HIERARCHY_HPP

// Objects and tables that change their place in the tree of tables. Identities stay: that of an
// object, and those of a table, its columns and its indexes.
//
//   sagleme::TablePtr const company = transaction.table(u"Shop.Company");
//   std::vector<sagleme::ObjectId> const ids{customer};
//   sagleme::RetypePlan const plan = sagleme::PlanRetype(transaction, ids, *company);
//   if (plan.lost.empty() && plan.referrers.empty()) sagleme::Retype(transaction, ids, *company);
//
//   sagleme::SetBase(transaction, u"Shop.Company", u"Shop.Party");
//
// Indexes follow: an object leaves those that no longer cover it and enters the others. Those that
// are being built (<sagleme/index_build.hpp>) begin again when their table moves. No change
// is refused because an index or a reference exists, only because a unique key would occur twice or
// a reference would lead to an object of a table that its column does not allow.
//
// Changes belong to the given transaction. A function that throws leaves nothing behind.
// Objects of the transaction are valid afterwards, tables and ranges are read anew. Tables and
// handles of before, of whatever process, cannot create objects at an old place:
// LSCOREDB_SET_CLOSED.

#include <sagleme/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <sagleme/column_changes.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/host.hpp>
#include <sagleme/jobs.hpp>
#include <span>
#include <string>
#include <vector>

namespace sagleme {

// What becomes of references to objects that are no longer of the target's tables.
enum class Referring {
  kRefuse,   // nothing is changed, and a Failure lists them
  kSetNull,  // they become null
  kKeep,     // they stay; check finds them
};

// A reference that leads to an object which would no longer be of the column's target.
struct Referrer {
  ObjectId object;
  std::u16string table;  // that declares the column
  std::u16string column;
  ObjectId target;

  friend bool operator==(Referrer const&, Referrer const&) = default;
};

// ---- objects ------------------------------------------------------------------------------------

struct RetypeOptions {
  // Besides columns of a common ancestor, values go to columns of equal name, type and target; a
  // null becomes zero if the new column takes none.
  bool by_name = false;
  Referring referring = Referring::kRefuse;
  Loss loss = Loss::kAllow;  // of values in columns that the new table has not
};

// A column that the new table has not, with the number of objects that have a value there.
struct LostColumn {
  std::u16string table;  // of the objects
  std::u16string column;
  std::uint64_t values = 0;

  friend bool operator==(LostColumn const&, LostColumn const&) = default;
};

struct RetypePlan {
  std::uint64_t objects = 0;  // those that are not of the table yet
  std::vector<LostColumn> lost;
  std::vector<Referrer> referrers;
};

// What Retype would do. Changes nothing. LORV_STATUS_NO_OBJECT for an unknown object. Failure of
// kRefused for objects and tables of the catalogue, and for objects of a dropped table.
SAGLEME_HOST_API RetypePlan PlanRetype(Transaction& transaction, std::span<ObjectId const> objects,
                                       Table const& to, RetypeOptions const& options = {});

// Makes the objects objects of exactly this table; returns how many were not before. Values of
// columns that both tables inherit from the same ancestor are kept, all others are lost, and new
// columns are null or zero. Throws as PlanRetype, Failure of kRefused for referrers and for values
// that would be lost and may not, with the first of them, Error with LSCOREDB_DUPLICATE_KEY for a
// key that a unique index of the new table holds.
SAGLEME_HOST_API std::uint64_t Retype(Transaction& transaction, std::span<ObjectId const> objects,
                                      Table const& to, RetypeOptions const& options = {});

// The same with values for columns of the new table: `write` is called with each object that
// changes, when it has the new columns and is in no table and index yet, so it names the table:
// object.Set(to, column, value). A unique index refuses the object for the values that it has then,
// not for kept ones that are written over. What `write` throws undoes all and comes out. REQUIRES:
// `write` does not end the transaction.
SAGLEME_HOST_API std::uint64_t Retype(Transaction& transaction, std::span<ObjectId const> objects,
                                      Table const& to, RetypeOptions const& options,
                                      std::function<void(Object&)> const& write);

struct RetypeJob {
  std::uint64_t batch = 10000;         // objects in a transaction, at least 1
  std::chrono::milliseconds pause{0};  // between batches
  std::uint32_t attempts = 1000;       // per batch, before a conflict is reported
  // Called after each committed batch; false ends the run there.
  std::function<bool(std::uint64_t done, std::uint64_t total)> report;
  JobControl const* control = nullptr;  // may end the run from another thread
};

// The same in batches, each in its own transaction of the context, which must have none open.
// Readers see each object in one table or the other, with its values and index entries. Objects
// deleted meanwhile are passed over. A run may end after any batch, even by the death of the
// process: ResumeJob (<sagleme/jobs.hpp>) continues it, and so does another one with the same
// objects. Each batch looks at its objects, and at the references to them, as they are by then, and
// throws as Retype, with nothing of the batch done; committed batches stay, and the job can be
// resumed when the cause is gone. A table with such references and no index on them is read once,
// and once more for each batch before which others, or the run, have changed objects of it.
SAGLEME_HOST_API std::uint64_t RetypeInBatches(Context const& context,
                                               std::span<ObjectId const> objects, Text const& to,
                                               RetypeOptions const& options = {},
                                               RetypeJob const& job = {});

// ---- tables -------------------------------------------------------------------------------------

struct SetBaseOptions {
  Referring referring = Referring::kRefuse;
  // Columns of the table with the name, type, nullability and target of one of the new base become
  // that column, with their values. Otherwise such a name is a conflict.
  bool merge = false;
  // Bounds the memory: more objects are refused before anything is written. 0: any number.
  std::uint64_t most_objects = 0;
};

struct SetBasePlan {
  std::uint64_t tables = 0;            // the table and its descendants
  std::uint64_t objects = 0;           // of all of them
  std::vector<std::u16string> kept;    // columns of the old base that become the table's own
  std::vector<std::u16string> merged;  // columns of the table that become the new base's
  std::vector<Referrer> referrers;
};

// What SetBase would do. Changes nothing. Failure of kRefused: a table of the catalogue; a base
// that is the table or a descendant; columns of one name; more columns than a table can have.
// SAGLEME_TABLE_NOT_FOUND. SAGLEME_BASE_NOT_FOUND. SAGLEME_TOO_DEEP.
SAGLEME_HOST_API SetBasePlan PlanSetBase(Transaction& transaction, Text const& table,
                                         Text const& base, SetBaseOptions const& options = {});

// Moves a table with its descendants and all their objects under another base; an empty one is the
// root of all tables. Columns of the old base that the new one has not become the table's own, with
// their values. The time is proportional to the number of objects, and so is the memory: about
// 1 KiB for each. It is one transaction, since a table has one set of objects: with the objects in
// two, a query would miss those of the other one. Throws as PlanSetBase, Failure of kRefused for
// referrers and for more than `most_objects`, Error with LSCOREDB_DUPLICATE_KEY for a key that a
// unique index of the new base holds. The commit fails with LSCOREDB_CONFLICT if another
// transaction has changed an object of these tables meanwhile.
SAGLEME_HOST_API void SetBase(Transaction& transaction, Text const& table, Text const& base,
                              SetBaseOptions const& options = {});

}  // namespace sagleme

#endif

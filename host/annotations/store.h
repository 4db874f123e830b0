#ifndef SAGLEME_HOST_ANNOTATIONS_STORE_H
#define SAGLEME_HOST_ANNOTATIONS_STORE_H

// The rows that hold the annotations of a database.
//
// One table, Sagleme.Internal.Annotation, with a unique index over its first two columns:
//
//   Subject  ulong            the catalogue's row of a table, column or index; 0 in the version row
//   Kind     ulong            Annotation::Kind; 0 in the version row
//   Text     string           as Annotation::text
//   Version  ulong, nullable  of the version row: a random number, new with every change
//
// A transaction that writes objects requires the version row, so it conflicts with changes of the
// annotations that it could not see. The number is random rather than counted because a change may
// be rolled back after it was read. Changes advance the schema's generation too, for those who keep
// what they read of the schema.

#include <optional>
#include <sagleme/annotations.hpp>
#include <string>
#include <vector>

namespace sagleme::annotations {

class Store {
 public:
  // Nothing if the database has no annotations and never had any.
  static std::optional<Store> Find(Transaction& transaction);
  // Creates the table if there is none.
  static Store Make(Transaction& transaction);

  std::uint64_t version() const { return version_; }
  ObjectId version_row() const { return version_row_; }
  Table const& table() const { return *table_; }
  std::optional<std::string> Read(ObjectId subject, Annotation::Kind kind) const;
  // Nothing removes. Writes nothing that is already so, and forgets what the transaction kept of
  // the schema if it wrote: the rules may be others.
  void Write(ObjectId subject, Annotation::Kind kind, std::optional<std::string> const& text);
  // By subject and kind.
  std::vector<Annotation> All() const;

 private:
  Store(Transaction& transaction, TablePtr table, Index index)
      : transaction_(&transaction), table_(std::move(table)), index_(std::move(index)) {}

  std::optional<Object> Row(ObjectId subject, std::uint64_t kind) const;
  void ReadVersion();
  void Touch();

  Transaction* transaction_;
  TablePtr table_;
  Index index_;
  std::uint64_t version_ = 0;
  ObjectId version_row_;
};

}  // namespace sagleme::annotations

#endif

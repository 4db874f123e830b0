#ifndef SAGLEME_SCHEMA_PLAN_HPP
#define SAGLEME_SCHEMA_PLAN_HPP

// A plan of changes that leads from one schema to another.
//
//   sagleme::SchemaDoc const wanted = sagleme::ParseSchema(text, "shop.json");
//   sagleme::ValidateSchema(wanted, "shop.json");
//   sagleme::Transaction transaction(context);
//   sagleme::SchemaDoc const present = sagleme::ReadSchema(transaction, true);
//   sagleme::Plan const plan = sagleme::CompareSchemas(present, wanted);
//   for (sagleme::Change const& change : plan) {
//     if (sagleme::LabelOf(change) == sagleme::Label::kDestructive) return AskFirst(plan);
//   }
//   sagleme::ApplyPlan(transaction, plan);
//   transaction.Commit();
//
// Changes are plain data, in the order in which they can be made; comparing makes them, printing
// and applying are visitors. What is lost by a change, and when its work is done, is its label:
//
//   instant      catalogue rows alone change
//   background   objects are read at once, for an index, or moved later, by vacuum
//   destructive  values or objects are lost

#include <sagleme/schema_document.hpp>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sagleme {

namespace change {

struct DropIndex {
  std::string index;
};
struct DropColumn {
  std::string table;
  std::string column;
};
struct DropTable {
  std::string table;
};
struct RenameTable {
  std::string table;
  std::string new_name;
};
struct RenameColumn {
  std::string table;
  std::string column;
  std::string new_name;
};
struct CreateTable {
  TableDoc table;
};
struct AddColumns {
  std::string table;
  std::vector<ColumnDoc> columns;
};
struct CreateIndex {
  std::string table;
  IndexDoc index;
};

}  // namespace change

using Change = std::variant<change::DropIndex, change::DropColumn, change::DropTable,
                            change::RenameTable, change::RenameColumn, change::CreateTable,
                            change::AddColumns, change::CreateIndex>;
using Plan = std::vector<Change>;

enum class Label { kInstant, kBackground, kDestructive };

SAGLEME_HOST_API Label LabelOf(Change const& change);
SAGLEME_HOST_API std::string_view LabelName(Label label);
// One sentence.
SAGLEME_HOST_API std::string DescribeChange(Change const& change);

// A table or column that is gone, and one that has come in its place and may be the same by a new
// name, or not: nothing in the document says which, and one of the two readings loses values.
struct Doubt {
  std::string table;  // of columns, by its new name; empty: tables themselves
  std::string gone;
  std::string come;
};
enum class Reading { kRenamed, kNew };

// What is to be settled before two schemas can be compared; empty: nothing. Settled tables may
// raise doubts about their columns, so ask again until none is left.
SAGLEME_HOST_API std::vector<Doubt> FindDoubts(SchemaDoc const& from, SchemaDoc const& to);
// Writes the reading into the document. REQUIRES: the doubt was found in it.
SAGLEME_HOST_API void Settle(SchemaDoc& to, Doubt const& doubt, Reading reading);
// Failure of kRefused that tells both readings, and how a document says which, unless there is no
// doubt. `source` names the document and may be empty.
SAGLEME_HOST_API void RefuseDoubts(std::vector<Doubt> const& doubts, std::string const& source);

// What leads from `from`, the schema of a database with identities, to `to`. Tables and columns are
// recognised by their identity, when `to` was written from the same database, by "was", or by their
// name; never by likeness, which is refused as RefuseDoubts does. The order of columns does not
// matter. Failure of kBadInput when two entries of `to` claim the same table or column.
SAGLEME_HOST_API Plan CompareSchemas(SchemaDoc const& from, SchemaDoc const& to);

// Makes the changes. Error when one is refused; the transaction is then to be rolled back.
SAGLEME_HOST_API void ApplyPlan(Transaction& transaction, Plan const& plan);

}  // namespace sagleme

#endif

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
//   background   objects are read or written at once, for an index, a converted value or another
//                base, or moved later, by vacuum
//   destructive  values or objects are lost
//
// A column that changes its table or its type keeps its values (<sagleme/column_changes.hpp>), and
// is refused if one would be lost, unless AllowLosses permits it.
//
// A reference with a rule for the deletion of its target needs an index that begins with its
// column; a plan creates one if the document has none.

#include <optional>
#include <sagleme/column_changes.hpp>
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
  OnDelete on_delete = OnDelete::kKeep;  // the rule of a reference, which is not asked
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
struct PullUpColumn {
  std::string column;
  std::vector<std::string> tables;  // that declare it; equal ones become one
  std::string base;
};
struct PushDownColumn {
  std::string table;
  std::string column;
  std::vector<std::string> tables;
  Loss loss = Loss::kRefuse;
};
struct ChangeColumn {
  std::string table;
  ColumnDoc before;
  ColumnDoc after;  // of the same name
  Loss loss = Loss::kRefuse;
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
// As sagleme::SetBase of <sagleme/hierarchy.hpp>; columns of equal definition are merged.
struct SetBase {
  std::string table;
  std::string base;  // empty: the root of all tables
};

// Sets or removes an annotation of a table, or of one of its columns or indexes.
struct Annotate {
  std::string table;
  std::string column;  // empty: of the table or of an index
  std::string index;   // empty: of the table or of a column
  Annotation::Kind kind = Annotation::Kind::kComment;
  std::optional<std::string> text;  // as Annotation has it; nothing removes
};

}  // namespace change

using Change =
    std::variant<change::DropIndex, change::DropColumn, change::DropTable, change::RenameTable,
                 change::RenameColumn, change::CreateTable, change::AddColumns, change::CreateIndex,
                 change::PullUpColumn, change::PushDownColumn, change::ChangeColumn,
                 change::Annotate, change::SetBase>;
using Plan = std::vector<Change>;

enum class Label { kInstant, kBackground, kDestructive };

SAGLEME_HOST_API Label LabelOf(Change const& change);
SAGLEME_HOST_API std::string_view LabelName(Label label);
// One sentence.
SAGLEME_HOST_API std::string DescribeChange(Change const& change);

// Lets the changes of the plan lose the values that they cannot keep.
SAGLEME_HOST_API void AllowLosses(Plan& plan);
// Why a change would be refused for the values that it would lose, or for references that could
// lead no longer where they do: the text that ApplyPlan would throw. Empty if it would not, or if
// earlier changes of the plan decide that.
SAGLEME_HOST_API std::string RefusalOf(Transaction& transaction, Change const& change);

// A table or column that is gone and a new one that may be the same under a new name: nothing in
// the document says which, and one of the two readings loses values.
struct Doubt {
  std::string table;  // of columns, by its new name; empty: tables themselves
  std::string gone;
  std::string come;
};
enum class Reading { kRenamed, kNew };

// The doubts to settle before two schemas can be compared; empty if there are none. Settled tables
// may raise doubts about their columns, so repeat until there are none.
SAGLEME_HOST_API std::vector<Doubt> FindDoubts(SchemaDoc const& from, SchemaDoc const& to);
// Records the decision in the document. REQUIRES: the doubt was found in it.
SAGLEME_HOST_API void Settle(SchemaDoc& to, Doubt const& doubt, Reading reading);
// Throws Failure of kRefused if there are doubts. The text gives both readings and says how a
// document decides. `source` names the document and may be empty.
SAGLEME_HOST_API void RefuseDoubts(std::vector<Doubt> const& doubts, std::string const& source);

// The changes from `from`, the schema of a database with identities, to `to`. Tables and columns
// are recognised by identity if `to` was written from the same database, by "was", or by name;
// never by similarity, which is refused as by RefuseDoubts. The order of columns does not matter.
// Throws Failure of kBadInput if two entries of `to` claim the same table or column.
SAGLEME_HOST_API Plan CompareSchemas(SchemaDoc const& from, SchemaDoc const& to);

// Applies the changes. Throws Error if one is refused; roll the transaction back then.
SAGLEME_HOST_API void ApplyPlan(Transaction& transaction, Plan const& plan);

// The changes of columns of a plan for which preparing them beside writers pays, before the plan is
// applied in one transaction: they write values of tables that have at least `objects` objects,
// with their descendants. None if the plan renames, drops or moves tables or columns otherwise.
SAGLEME_HOST_API std::vector<Change> ChangesToPrepare(Transaction& transaction, Plan const& plan,
                                                      std::uint64_t objects = 10000);
// Writes the values that such a change needs in batches, for an ApplyPlan to adopt, as
// RunChangeColumnType and its like do before they make the change; `options.loss` counts for
// nothing. The context must have no transaction open. Returns false if `options.report` ended it;
// what was written stays, for another call to continue or for AbandonChange to remove. Throws what
// ApplyPlan throws for the change. REQUIRES: one of ChangesToPrepare.
SAGLEME_HOST_API bool PrepareChange(Context const& context, Change const& change,
                                    ColumnChangeOptions const& options = {});
// Removes what PrepareChange wrote.
SAGLEME_HOST_API void AbandonChange(Context const& context, Change const& change);

}  // namespace sagleme

#endif

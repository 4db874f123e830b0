#ifndef SAGLEME_HOST_ANNOTATIONS_RULES_H
#define SAGLEME_HOST_ANNOTATIONS_RULES_H

// What the annotations of a database ask of writes, made ready for them. Immutable and shared by
// the transactions that see the same schema and the same annotations.

#include <map>
#include <sagleme/annotations.hpp>
#include <set>
#include <vector>

namespace sagleme::detail {

// A reference column with a rule other than to keep.
struct ReferenceRule {
  TablePtr table;  // declares the column
  Column column;
  TablePtr target;
  OnDelete rule = OnDelete::kKeep;

  bool Concerns(Table const& deleted) const { return deleted.IsA(*target); }
};

struct DefaultRule {
  Column column;
  Value value;
};

class Rules {
 public:
  explicit Rules(Transaction& transaction);

  bool empty() const { return abstract_.empty() && defaults_.empty() && references_.empty(); }
  bool IsAbstract(Table const& table) const { return abstract_.contains(table.row.oid); }
  bool HasDefault(Table const& table, Column const& column) const;
  // Of the columns of a table, inherited ones included.
  std::vector<DefaultRule> const& DefaultsOf(Table const& table) const;
  std::vector<ReferenceRule> const& references() const { return references_; }
  // Null if the column, of a table with this set specifier, has no rule.
  ReferenceRule const* Find(std::u16string_view setspec, std::u16string const& column) const;

 private:
  void AddDefault(Transaction& transaction, Table const& table, std::u16string const& column,
                  std::string const& json);

  std::set<std::uint64_t> abstract_;                            // rows of tables
  std::map<std::uint64_t, std::vector<DefaultRule>> defaults_;  // by row of table
  std::vector<ReferenceRule> references_;
};

}  // namespace sagleme::detail

namespace sagleme::annotations {

// The table that declares a column, and the column there; a null table if the row is not there or
// is not a column's.
struct Declared {
  TablePtr table;
  Column const* column = nullptr;
};
Declared DeclaredColumn(Transaction& transaction, ObjectId row);
// The table that declares a column which `table` has or inherits.
TablePtr DeclaringTable(Transaction& transaction, Table const& table, Column const& column);
// Writes an annotation as it is kept, without a look at what it says; nothing removes it.
void WriteText(Transaction& transaction, ObjectId subject, Annotation::Kind kind,
               std::optional<std::string> const& text);

}  // namespace sagleme::annotations

#endif

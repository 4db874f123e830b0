#include <sagleme/annotations.hpp>
#include <sagleme/counts.hpp>
#include <sagleme/value_text.hpp>
#include <set>

#include "annotations/default_text.h"
#include "annotations/rules.h"
#include "parts.h"

namespace sagleme::checks {
namespace {

using Kind = Annotation::Kind;

char const* NameOf(Kind kind) {
  switch (kind) {
    case Kind::kComment:
      return "comment";
    case Kind::kDefault:
      return "default";
    case Kind::kAbstract:
      return "abstract";
    case Kind::kOnDelete:
      break;
  }
  return "rule";
}

class AnnotationCheck {
 public:
  AnnotationCheck(Transaction& transaction, FindingReport const& report)
      : transaction_(transaction), report_(report) {
    for (TablePtr const& table : transaction.Tables()) {
      for (Index const& index : table->indexes) indexes_.insert(index.id);
    }
  }

  void Run() {
    for (Annotation const& each : Annotations(transaction_)) CheckOne(each);
  }

 private:
  void CheckOne(Annotation const& each) {
    if (TablePtr const table = transaction_.ById(each.subject)) return CheckTable(each, *table);
    if (indexes_.contains(each.subject)) return CheckKind(each, {}, {Kind::kComment});
    auto const [table, column] = annotations::DeclaredColumn(transaction_, each.subject);
    if (table != nullptr) return CheckColumn(each, *table, *column);
    Report(each, "", "it belongs to nothing that is there; vacuum removes it");
  }

  void CheckTable(Annotation const& each, Table const& table) {
    std::string const name = ToUtf8(table.name);
    CheckKind(each, name, {Kind::kComment, Kind::kAbstract});
    if (each.kind != Kind::kAbstract) return;
    std::uint64_t const count = ObjectCounts(transaction_).Own(table);
    if (count == 0) return;
    report_({"abstract", name, 0,
             Say("the table is abstract, and {} objects belong to it; delete them or let the "
                 "table have objects",
                 count)});
  }

  void CheckColumn(Annotation const& each, Table const& table, Column const& column) {
    std::string const name = ToUtf8(table.name);
    CheckKind(each, name, {Kind::kComment, Kind::kDefault, Kind::kOnDelete});
    std::string const shown = ToUtf8(column.name);
    bool const reference = column.type == Type::kReference;
    if (each.kind == Kind::kOnDelete && (!reference || !ParseOnDelete(each.text))) {
      Report(each, name, Say("column {} cannot have the rule {}", shown, each.text));
    }
    if (each.kind != Kind::kDefault) return;
    try {
      annotations::ParseJsonValue(column.type, each.text);
    } catch (BadValue const& error) {
      Report(each, name,
             Say("column {} cannot have the default {}: {}", shown, each.text, error.what()));
    }
  }

  void CheckKind(Annotation const& each, std::string const& table, std::set<Kind> const& allowed) {
    if (!allowed.contains(each.kind)) Report(each, table, "it cannot belong to this");
  }

  void Report(Annotation const& each, std::string const& table, std::string const& what) const {
    report_({"annotation", table, 0,
             Say("the {} of row {}: {}", NameOf(each.kind), each.subject.value, what)});
  }

  Transaction& transaction_;
  FindingReport const& report_;
  std::set<ObjectId> indexes_;
};

}  // namespace

void CheckAnnotations(Transaction& transaction, FindingReport const& report) {
  AnnotationCheck(transaction, report).Run();
}

}  // namespace sagleme::checks

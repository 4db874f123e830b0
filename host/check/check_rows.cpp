#include <map>
#include <sagleme/vacuum.hpp>
#include <set>

#include "parts.h"

namespace sagleme::checks {
namespace {

constexpr char16_t kSetSpecifiers[] = u"Lorvenstack.Internal.Metadata.SetSpecifier";
constexpr char16_t kVacuum[] = u"Lorvenstack.Internal.Metadata.Vacuum";
constexpr char16_t kReferenceColumns[] = u"Lorvenstack.Internal.Metadata.ReferenceRawColumn";

// A child's set specifier is its base's, the child's number in letters a to w, and a tilde.
constexpr char16_t kEnd = u'~';
constexpr char16_t kFirstLetter = u'a';
constexpr std::uint64_t kLetters = 23;

struct ChildName {
  std::u16string parent;
  std::uint64_t number = 0;
};

ChildName Split(std::u16string const& setspec) {
  std::size_t const end = setspec.size() - 1;
  std::size_t begin = end;
  while (begin > 0 && setspec[begin - 1] != kEnd) --begin;
  ChildName name{setspec.substr(0, begin), 0};
  for (std::size_t i = begin; i < end; ++i) {
    name.number =
        name.number * kLetters + static_cast<std::uint64_t>(setspec[i] - kFirstLetter) + 1;
  }
  return name;
}

class RowCheck {
 public:
  RowCheck(Transaction& transaction, FindingReport const& report)
      : transaction_(transaction), report_(report) {}

  void Run() {
    ReadCounters();
    Children();
    for (TablePtr const& table : transaction_.Tables(true)) Deferred(*table);
    Requests();
  }

 private:
  void Report(char const* rule, std::u16string const& table, std::string const& what) const {
    report_({rule, ToUtf8(table), 0, what});
  }

  void ReadCounters() {
    TablePtr const table = transaction_.table(kSetSpecifiers);
    Property<std::u16string> const text(*table, u"TypeId");
    Property<std::uint64_t> const children(*table, u"NumberOfChildren");
    for (Object const& row : Range::Only(transaction_, *table)) {
      counters_[text.GetOr(row, u"")] = children.GetOr(row, 0);
    }
  }

  std::u16string TableOf(std::u16string const& setspec) const {
    TablePtr const table = transaction_.BySetspec(setspec);
    return table != nullptr && table->setspec == setspec ? table->name : std::u16string();
  }

  void Children() const {
    for (auto const& [setspec, ignored] : counters_) {
      if (!setspec.ends_with(kEnd)) continue;  // the root has no parent
      ChildName const name = Split(setspec);
      auto const parent = counters_.find(name.parent);
      if (parent != counters_.end() && parent->second > name.number) continue;
      Report("children", TableOf(name.parent),
             parent == counters_.end() ? Say("the set specifier {} has no parent", ToUtf8(setspec))
                                       : Say("the next child is number {}, but {} already exists",
                                             parent->second, ToUtf8(setspec)));
    }
  }

  void Deferred(Table const& table) const {
    TablePtr const rows = transaction_.table(kReferenceColumns);
    Property<ObjectId> const type(*rows, u"DataType");
    for (Column const& column : table.columns) {
      if (column.type != Type::kReference || transaction_.Find(column.target) == nullptr) continue;
      auto const row = Object::Find(transaction_, column.id);
      if (!row || type.Get(*row)) continue;
      Report("deferred", table.name,
             Say("column {} still waits for {}, which exists", ToUtf8(column.name),
                 ToUtf8(column.target)));
    }
  }

  void Requests() {
    std::set<std::u16string> seen;
    for (VacuumRequest const& request : VacuumRequests(transaction_)) {
      std::string const problem =
          seen.insert(request.setspec).second ? ProblemOf(request) : "it exists twice";
      if (problem.empty()) continue;
      report_({"vacuum", ToUtf8(kVacuum), request.row.value,
               Say("the request for the set {}: {}", ToUtf8(request.setspec), problem)});
    }
  }

  std::string ProblemOf(VacuumRequest const& request) const {
    if (!counters_.contains(request.setspec)) return "there is no such set specifier";
    TablePtr const table = transaction_.BySetspec(request.setspec);
    bool const has_table = table != nullptr && table->setspec == request.setspec;
    switch (request.kind) {
      case VacuumRequest::Kind::kMove:
        if (!has_table) return "it moves objects, but there is no such table";
        return table->layout == request.layout ? "" : "it names another layout than the table's";
      case VacuumRequest::Kind::kRemove:
        return has_table ? "it removes objects, but the table exists" : "";
    }
    return "its kind is unknown";
  }

  Transaction& transaction_;
  FindingReport const& report_;
  std::map<std::u16string, std::uint64_t> counters_;  // by set specifier
};

}  // namespace

void CheckRows(Transaction& transaction, FindingReport const& report) {
  RowCheck(transaction, report).Run();
}

}  // namespace sagleme::checks

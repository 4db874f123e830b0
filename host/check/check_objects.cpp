#include <map>
#include <sagleme/annotations.hpp>
#include <sagleme/counts.hpp>
#include <sagleme/vacuum.hpp>

#include "parts.h"

namespace sagleme::checks {
namespace {

class ObjectCheck {
 public:
  ObjectCheck(Transaction& transaction, CheckOptions const& options, FindingReport const& report,
              Progress const& progress)
      : transaction_(transaction), options_(options), report_(report), progress_(progress) {
    for (VacuumRequest const& request : VacuumRequests(transaction)) {
      requests_[request.setspec] = request.kind;
    }
  }

  void Run() {
    std::uint64_t const all = CountObjects();
    std::uint64_t done = 0;
    for (Object const& object : Range::WithDropped(transaction_, *RootTable(transaction_))) {
      if (done++ % kObjectsBetween == 0) progress_.Objects(done, all);
      ReadScope const scope(transaction_.context());
      try {
        CheckOne(object);
      } catch (Error const& error) {
        Report("object", "", object, error.what());
      }
    }
  }

 private:
  static constexpr std::uint64_t kObjectsBetween = 64;

  // Also those that wait to be removed.
  std::uint64_t CountObjects() const {
    std::uint64_t count = 0;
    for (auto const& layout : LayoutStatistics(transaction_)) count += layout.objects;
    return count;
  }

  void Report(char const* rule, std::string const& table, Object const& object,
              std::string const& what) const {
    report_({rule, table, object.id().value, what});
  }

  bool Pending(std::u16string const& setspec, VacuumRequest::Kind kind) const {
    auto const found = requests_.find(setspec);
    return found != requests_.end() && found->second == kind;
  }

  void CheckOne(Object const& object) {
    std::u16string const setspec = object.setspec();
    TablePtr const table = transaction_.BySetspec(setspec);
    if (table == nullptr || table->setspec != setspec) {
      if (Pending(setspec, VacuumRequest::Kind::kRemove)) return;
      return Report("object", "", object,
                    Say("it belongs to no table: {}; vacuum removes it if its table was dropped",
                        ToUtf8(setspec)));
    }
    std::string const name = ToUtf8(table->name);
    if (object.layout() != table->layout && !Pending(setspec, VacuumRequest::Kind::kMove)) {
      Report("object", name, object,
             Say("it has layout {} instead of {}, and no request to vacuum covers it",
                 object.layout(), table->layout));
    }
    for (Column const& column : table->columns) {
      if (!column.system()) CheckColumn(object, *table, column);
    }
  }

  void CheckColumn(Object const& object, Table const& table, Column const& column) {
    std::string const name = ToUtf8(table.name);
    try {
      Value const value = object.Get(table, column);
      auto const* const id = std::get_if<ObjectId>(&value);
      bool const looked_at = options_.references && !table.system && !column.target.empty();
      if (looked_at && id != nullptr) {
        CheckReference(object, name, column, *id);
      }
    } catch (Error const& error) {
      Report("object", name, object, Say("column {}: {}", ToUtf8(column.name), error.what()));
    }
  }

  void CheckReference(Object const& object, std::string const& table, Column const& column,
                      ObjectId id) {
    auto const target = Object::Find(transaction_, id);
    if (target && transaction_.Holds(column.target_id, target->reference())) return;
    std::string const what = target ? "is not of " + ToUtf8(column.target) : "does not exist";
    Report("reference", table, object,
           Say("column {} refers to object {}, which {}{}", ToUtf8(column.name), id.value, what,
               RulePassed(table, column)));
  }
  std::string RulePassed(std::string const& table, Column const& column) const {
    OnDelete const rule = OnDeleteOf(transaction_, *transaction_.table(table), column);
    if (rule == OnDelete::kKeep) return "";
    return Say(" although the rule of the column is {}", OnDeleteName(rule));
  }

  Transaction& transaction_;
  CheckOptions const& options_;
  FindingReport const& report_;
  Progress const& progress_;
  std::map<std::u16string, VacuumRequest::Kind> requests_;
};

}  // namespace

void CheckObjects(Transaction& transaction, CheckOptions const& options,
                  FindingReport const& report, Progress const& progress) {
  ObjectCheck(transaction, options, report, progress).Run();
}

}  // namespace sagleme::checks

#include <fmt/format.h>

#include <map>
#include <sagleme/vacuum.hpp>

#include "check/check.h"

namespace tool {
namespace {

class ObjectCheck {
 public:
  ObjectCheck(sagleme::Transaction& transaction, CheckOptions const& options, Report const& report)
      : transaction_(transaction), options_(options), report_(report) {
    for (sagleme::VacuumRequest const& request : sagleme::VacuumRequests(transaction)) {
      requests_[request.setspec] = request.kind;
    }
  }

  void Run() {
    for (sagleme::Object const& object :
         sagleme::Range::Subtree(transaction_, *sagleme::RootTable(transaction_))) {
      sagleme::ReadScope const scope(transaction_.context());
      try {
        CheckOne(object);
      } catch (sagleme::Error const& error) {
        Tell("object", "", object, error.what());
      }
    }
  }

 private:
  void Tell(char const* rule, std::string const& table, sagleme::Object const& object,
            std::string const& what) const {
    report_({rule, table, object.id().value, what});
  }

  bool Pending(std::u16string const& setspec, sagleme::VacuumRequest::Kind kind) const {
    auto const found = requests_.find(setspec);
    return found != requests_.end() && found->second == kind;
  }

  void CheckOne(sagleme::Object const& object) {
    std::u16string const setspec = object.setspec();
    sagleme::TablePtr const table = transaction_.BySetspec(setspec);
    if (table == nullptr || table->setspec != setspec) {
      if (Pending(setspec, sagleme::VacuumRequest::Kind::kRemove)) return;
      return Tell("object", "", object,
                  fmt::format("it belongs to no table: {}", sagleme::ToUtf8(setspec)));
    }
    std::string const name = sagleme::ToUtf8(table->name);
    if (object.layout() != table->layout &&
        !Pending(setspec, sagleme::VacuumRequest::Kind::kMove)) {
      Tell("object", name, object,
           fmt::format("it lies under layout {} of {}, and nothing asks for its move",
                       object.layout(), table->layout));
    }
    for (sagleme::Column const& column : table->columns) {
      if (!column.system()) CheckColumn(object, *table, column);
    }
  }

  void CheckColumn(sagleme::Object const& object, sagleme::Table const& table,
                   sagleme::Column const& column) {
    std::string const name = sagleme::ToUtf8(table.name);
    try {
      sagleme::Value const value = object.Get(table, column);
      auto const* const id = std::get_if<sagleme::ObjectId>(&value);
      if (options_.references && id != nullptr && !column.target.empty()) {
        CheckReference(object, name, column, *id);
      }
    } catch (sagleme::Error const& error) {
      Tell("object", name, object,
           fmt::format("column {}: {}", sagleme::ToUtf8(column.name), error.what()));
    }
  }

  void CheckReference(sagleme::Object const& object, std::string const& table,
                      sagleme::Column const& column, sagleme::ObjectId id) {
    auto const target = sagleme::Object::Find(transaction_, id);
    sagleme::TablePtr const wanted = transaction_.Find(column.target);
    if (target && wanted != nullptr && target->setspec().starts_with(wanted->setspec)) return;
    Tell("reference", table, object,
         fmt::format("column {} refers to {}, which is no {}", sagleme::ToUtf8(column.name),
                     id.value, sagleme::ToUtf8(column.target)));
  }

  sagleme::Transaction& transaction_;
  CheckOptions const& options_;
  Report const& report_;
  std::map<std::u16string, sagleme::VacuumRequest::Kind> requests_;
};

}  // namespace

void CheckObjects(sagleme::Transaction& transaction, CheckOptions const& options,
                  Report const& report) {
  ObjectCheck(transaction, options, report).Run();
}

}  // namespace tool

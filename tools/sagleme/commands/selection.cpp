#include "commands/selection.h"

#include "query/names.h"

namespace tool {

char const* const kConditionHelp =
    "Conditions: Pages=10, Pages!=10, Pages<10, Pages<=10, Pages>10, Pages>=10, Pages=10..20 (both "
    "included), Title^=The (begins with), Title*=and (contains), Pages= (null or empty), Pages!= "
    "(neither), Owner=131073 or Owner=Name=Ada (a reference by id or by a unique column).\n"
    "All conditions must hold. A suitable index is used if there is one.";

void Selection::Declare(CLI::App& app) {
  app.add_option("TABLE", table_, "The table; leading parts of its name may be omitted")
      ->required()
      ->type_name("");
  app.add_flag("--only", only_, "Leave out the objects of derived tables");
  app.add_option("--where", where_, "A condition on a column. Can be repeated")
      ->allow_extra_args(false)
      ->type_name("CONDITION");
}

SearchRequest Selection::Request(sagleme::Transaction& transaction) const {
  SearchRequest request;
  request.table = TableNamed(transaction, table_);
  request.only = only_;
  for (std::string const& text : where_) {
    request.where.push_back(ParseCondition(transaction, *request.table, text));
  }
  return request;
}

}  // namespace tool

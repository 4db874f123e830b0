#include <sagleme/host/own_columns.hpp>

namespace sagleme {

OwnColumns OwnColumnsOf(Transaction& transaction, Table const& table) {
  OwnColumns names;
  auto const avoid = [&](Table const& each) {
    if (each.FindColumn(u"_oid") != nullptr) names.id = "__oid";
    if (each.FindColumn(u"_table") != nullptr) names.table = "__table";
  };
  avoid(table);
  for (TablePtr const& each : transaction.Tables()) {
    if (each->IsA(table)) avoid(*each);
  }
  return names;
}

}  // namespace sagleme

#include "model_costs/costs.h"

#include <ostream>

namespace sagleme_costs {

namespace {

using recording_kernel::Call;
using sagleme_test::Utf16;

// A first request is a row of its own; a later one writes its layout.
Cost Request(Pending pending) {
  return pending == Pending::kNothing ? Cost{5, 1, 0, 0} : Cost{1, 0, 0, 0};
}

Cost Sum(Cost cost, Cost const& other) { return cost += other; }

bool Inserts(Call const& call) { return call.function == "lorv_context_insert_system"; }
bool Deletes(Call const& call) { return call.function == "lorv_context_delete"; }
bool MakesLayout(Call const& call) { return call.function == "lorvi_context_create_layout"; }

Cost Counted() {
  Cost cost;
  for (Call const& call : recording_kernel::Calls()) {
    if (!call.function.starts_with("lorv_convert_")) ++cost.calls;
    if (Inserts(call)) ++cost.inserted;
    if (Deletes(call)) ++cost.deleted;
    if (MakesLayout(call)) ++cost.layouts;
  }
  return cost;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Cost const& cost) {
  return out << cost.calls << " calls, " << cost.inserted << " rows inserted, " << cost.deleted
             << " deleted, " << cost.layouts << " layouts";
}

// ---- formulas ---------------------------------------------------------------------------------

// A new column has a row and a token.
Cost AddColumnsTop(std::size_t own, std::size_t added, Pending pending) {
  return Sum({45 + 7 * own + 29 * added, 2 * added, 0, 1}, Request(pending));
}

Cost AddColumnsBelow(std::size_t own, std::size_t behind, std::size_t added, Pending pending) {
  return Sum({39 + 7 * own + 3 * behind + 15 * added, added, 0, 1}, Request(pending));
}

Cost DropColumnTop(std::size_t own, std::size_t behind, Pending pending) {
  return Sum({51 + 7 * own + 3 * behind, 0, 1, 1}, Request(pending));
}

Cost DropColumnBelow(std::size_t own, std::size_t behind, Pending pending) {
  return Sum({45 + 7 * own + 3 * behind, 0, 1, 1}, Request(pending));
}

Cost RenameColumnTop() { return {17, 0, 0, 0}; }
Cost RenameColumnBelow() { return {11, 0, 0, 0}; }

Cost RenameTable(std::size_t referring) { return {15 + 2 * referring, 0, 0, 0}; }

Cost DropTableCall() { return {3, 0, 0, 0}; }

// A request that was pending is written in two columns.
Cost DropTableEach(std::size_t columns, std::size_t children, Pending pending, bool force) {
  Cost const request = pending == Pending::kNothing ? Cost{5, 1, 0, 0} : Cost{2, 0, 0, 0};
  std::size_t const checks = force ? 0 : 6;
  return Sum({20 + checks + 2 * columns + children, 0, columns + 1, 0}, request);
}

Cost DropCascadeCall() { return {5, 0, 0, 0}; }

Cost DropCascadeEach(std::size_t columns, std::size_t children) {
  std::size_t const batches = 1 + children / 16;
  return {18 + 2 * columns + 2 * children + 2 * batches, 0, columns + 1, 0};
}

// RawView, SetSpecifier, TypeIdsMeta, the token of the name; each own column has a row and a token.
Cost CreateTable(std::size_t inherited, std::size_t own) {
  return {84 + 15 * inherited + 26 * own, 4 + inherited + 2 * own, 0, 1};
}

// Index, the token of its name; each column has a row.
Cost CreateIndex(std::size_t columns) { return {30 + 22 * columns, 2 + columns, 0, 0}; }
Cost DropIndex(std::size_t columns) { return {11 + 2 * columns, 0, columns + 1, 0}; }

// ---- the fixture ------------------------------------------------------------------------------

void CostTest::SetUp() {
  recording_kernel::Reset();
  DatabaseTest::SetUp();
}

Cost CostTest::CostOf(std::function<uint32_t()> const& change) {
  recording_kernel::Record();
  ExpectOk(change());
  Cost const cost = Counted();
  recording_kernel::Reset();
  return cost;
}

void CostTest::Create(std::string const& name, std::string const& base, int own_columns) {
  std::vector<std::u16string> names;
  for (int i = 0; i < own_columns; ++i) names.push_back(Utf16(name + "_" + std::to_string(i)));
  sagleme_test::Columns columns;
  for (std::u16string const& column : names) columns.Long(column.c_str());
  std::u16string const base_name = Utf16(base);
  ExpectOk(lorv_create_table_by_names(context(), Utf16(name).c_str(),
                                      base.empty() ? nullptr : base_name.c_str(), columns,
                                      nullptr));
}

Cost CostTest::Add(std::string const& table, std::vector<std::string> const& columns) {
  std::vector<std::u16string> names;
  for (std::string const& column : columns) names.push_back(Utf16(column));
  sagleme_test::Columns definitions;
  for (std::u16string const& name : names) definitions.Long(name.c_str());
  return CostOf([&] {
    return lorv_alter_table_add_columns(context(), Utf16(table).c_str(), definitions, nullptr);
  });
}

Cost CostTest::Drop(std::string const& table, std::string const& column) {
  return CostOf([&] {
    return lorv_alter_table_drop_column_by_names(context(), Utf16(table).c_str(),
                                                 Utf16(column).c_str(), nullptr);
  });
}

Cost CostTest::Rename(std::string const& table, std::string const& column,
                      std::string const& name) {
  return CostOf([&] {
    return lorv_alter_table_rename_column(context(), Utf16(table).c_str(), Utf16(column).c_str(),
                                          Utf16(name).c_str());
  });
}

Cost CostTest::DropTable(std::string const& table, bool drop_children, bool force) {
  return CostOf([&] {
    return lorv_drop_table_by_name(context(), Utf16(table).c_str(), drop_children, force);
  });
}

Cost CostTest::DropCascade(std::string const& table) {
  return CostOf([&] { return lorv_drop_table_cascade(context(), Utf16(table).c_str()); });
}

std::uint64_t CostTest::Generation() const { return lorv_get_metaschema_generation(); }

std::size_t CostTest::ColumnsOf(std::string const& table) const {
  return static_cast<std::size_t>(
      metalayer::ddl::GetColumnsCount(metalayer::ddl::ExistingTable(Utf16(table).c_str())));
}

unsigned short CostTest::LayoutOf(std::string const& table) const {
  return static_cast<unsigned short>(metalayer::GetULong(
      metalayer::ddl::ExistingTable(Utf16(table).c_str()), metalayer::RawView::kLayoutHandle));
}

}  // namespace sagleme_costs

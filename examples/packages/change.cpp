#include "change.h"

#include <fmt/core.h>

#include <algorithm>
#include <vector>

#include "schema.h"

namespace packages {
namespace {

using sagleme::ToUtf8;
using namespace change;

std::string NameAfter(std::string const& column) {
  return column == ToUtf8(kSummary) ? ToUtf8(kDescription) : column;
}

std::string TableAfter(std::string const& table) {
  return table == ToUtf8(tables::kDevelopment) ? ToUtf8(tables::kHeaders) : table;
}

// The package's value of a column; null when its table has no such column.
std::string const* Find(View const& view, PackageView const& package, std::string const& name) {
  std::vector<ColumnView> const& columns = view.tables.at(package.table).columns;
  auto const at = std::find_if(columns.begin(), columns.end(),
                               [&](ColumnView const& column) { return column.name == name; });
  return at == columns.end() ? nullptr
                             : &package.values[static_cast<std::size_t>(at - columns.begin())];
}

}  // namespace

void Promise(bool kept, std::string const& what) {
  if (!kept) throw BrokenPromise("the database broke a promise: " + what);
}

void ChangeSchema(sagleme::Transaction& transaction) {
  sagleme::ColumnSpec const added[] = {{kRating, sagleme::Type::kLong, false},
                                       {kNote, sagleme::Type::kString}};
  sagleme::IndexColumnSpec const by_note[] = {{kNote}};
  sagleme::AddColumns(transaction, tables::kPackage, added);
  sagleme::RenameColumn(transaction, tables::kPackage, kSummary, kDescription);
  sagleme::DropColumn(transaction, tables::kPackage, kCompression);
  sagleme::RenameTable(transaction, tables::kDevelopment, tables::kHeaders);
  sagleme::DropTable(transaction, tables::kDocumentation, {.children = true});
  sagleme::CreateIndex(transaction, kPackageByNote, tables::kPackage, by_note);
}

void PrintChange() {
  fmt::print("\nThe change, one transaction\n");
  auto const line = [](char const* verb, char16_t const* table, std::string const& rest) {
    fmt::print("  {:<7} {:<22} {}\n", verb, ToUtf8(table), rest);
  };
  line("add", tables::kPackage, "columns Rating, long and never null, and Note, text");
  line("rename", tables::kPackage, "column Summary to Description");
  line("drop", tables::kPackage, "column Compression");
  line("rename", tables::kDevelopment, "to " + ToUtf8(tables::kHeaders));
  line("drop", tables::kDocumentation, "with what derives from it, " + ToUtf8(tables::kManual));
  line("create", kPackageByNote, "an index of all packages by Note");
}

bool IsDropped(std::string const& table) {
  return table == ToUtf8(tables::kDocumentation) || table == ToUtf8(tables::kManual);
}

Survival::Survival(View const& before, View const& after) : before_(before), after_(after) {
  for (auto const& [oid, package] : before.packages) {
    auto const now = after.packages.find(oid);
    bool const is_there = now != after.packages.end();
    if (IsDropped(package.table)) {
      Promise(!is_there, fmt::format("object {} is still found", oid));
      ++dropped_;
    } else {
      Promise(is_there, fmt::format("object {} is gone", oid));
      Compare(oid, package, now->second);
    }
  }
  Promise(before.packages.size() == after.packages.size() + dropped_, "packages came");
}

void Survival::Compare(uint64_t oid, PackageView const& old, PackageView const& now) {
  Promise(now.type_id == old.type_id, fmt::format("object {} has another type", oid));
  Promise(now.table == TableAfter(old.table), fmt::format("object {} is in another table", oid));
  CompareValues(oid, old, now);
  ++stayed_;
}

void Survival::CompareValues(uint64_t oid, PackageView const& old, PackageView const& now) {
  std::vector<ColumnView> const& columns = before_.tables.at(old.table).columns;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    std::string const* const kept = Find(after_, now, NameAfter(columns[i].name));
    bool const is_dropped = columns[i].name == ToUtf8(kCompression);
    Promise(is_dropped ? kept == nullptr : kept != nullptr && *kept == old.values[i],
            fmt::format("{} of object {}", columns[i].name, oid));
    values_ += is_dropped ? 0 : 1;
  }
  std::string const* const rating = Find(after_, now, ToUtf8(kRating));
  std::string const* const note = Find(after_, now, ToUtf8(kNote));
  Promise(rating != nullptr && *rating == "0", fmt::format("Rating of object {}", oid));
  Promise(note != nullptr && note->empty(), fmt::format("Note of object {}", oid));
}

void Survival::Print() const {
  fmt::print("\nThe {} packages that were there before, read through refreshed handles\n",
             before_.packages.size());
  fmt::print("  {:>6} in tables that stayed: all {} values as before, Rating 0, Note null\n",
             stayed_, values_);
  fmt::print("  {:>6} of the dropped tables: not found any more; vacuum removes them\n", dropped_);
}

}  // namespace packages

#include "query.h"

#include <fmt/core.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "objects.h"
#include "schema.h"

namespace packages {
namespace {

constexpr int kLargest = 10;
constexpr std::size_t kListed = 12;
constexpr std::size_t kLineWidth = 96;

void Heading(std::string const& text) { fmt::print("\n{}\n", text); }

std::string Shortened(std::string text, std::size_t width) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  if (text.size() <= width) return text;
  std::size_t end = width - 3;
  // Not inside a UTF-8 sequence.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end) + "...";
}

std::string Hex(std::span<uint8_t const> bytes) {
  std::string text;
  for (uint8_t const byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

class Answers {
 public:
  explicit Answers(Session& session) : session_(session), handles_(session) {}

  void Counts() const;
  void Largest() const;
  void DependsOn(std::string const& name) const;
  void Show(std::string const& name) const;

 private:
  PackageHandles const& HandlesOf(LS_OBJ_REF const& package) const;
  std::string KeyOf(LS_OBJ_REF const& package) const;
  std::string TableOfObject(uint64_t oid) const;
  uint64_t TypeIdOf(char16_t const* table) const;
  std::vector<TableSpec const*> WithBases(TableSpec const& table) const;
  std::string Value(Object const& object, TableSpec const& table, ColumnSpec const& column) const;
  std::string Referenced(LS_OBJ_REF const& target) const;

  Session& session_;
  Handles const handles_;
  Indexes const indexes_;
};

uint64_t Answers::TypeIdOf(char16_t const* table) const {
  uint64_t type_id = 0;
  session_.Check(lorv_crud_GetTypeId(session_.context(), table, &type_id), "asking for a type id");
  return type_id;
}

// One scan over a subtree counts it and, by the type of each object, the table's own part of it.
void Answers::Counts() const {
  Heading("Objects                        in the table    with all below it");
  for (TableSpec const& table : AllTables()) {
    uint64_t const type_id = TypeIdOf(table.name);
    int64_t own = 0, all = 0;
    EachInSubtree(session_, table.name, [&](LS_OBJ_REF const& object) {
      ++all;
      if (metalayer::crud::GetObjectTypeId(object) == type_id) ++own;
      return true;
    });
    std::string const indent(2 * WithBases(table).size(), ' ');
    fmt::print("{:<28} {:>14} {:>20}\n", indent + sagleme::ToUtf8(table.name), own, all);
  }
}

PackageHandles const& Answers::HandlesOf(LS_OBJ_REF const& package) const {
  PackageHandles const* const own = handles_.OfType(metalayer::crud::GetObjectTypeId(package));
  return own == nullptr ? handles_.Of(Kind::kPackage) : *own;
}

std::string Answers::KeyOf(LS_OBJ_REF const& package) const {
  return Object(session_, package).GetText(HandlesOf(package).key);
}

// The index runs from the largest size down, so its first objects are the answer.
void Answers::Largest() const {
  Heading(fmt::format("The {} largest packages, installed", kLargest));
  db_util::db_iter_with_keys scan;
  metalayer::Key(scan.first_key).ULong(UINT64_MAX);
  metalayer::Key(scan.last_key).Null();
  scan.open(indexes_.package_by_size, metalayer::kForward);
  for (int rank = 1; rank <= kLargest && scan.next(); ++rank) {
    PackageHandles const& handles = HandlesOf(scan.current);
    Object const package(session_, scan.current);
    uint64_t const size = package.GetULong(handles.installed_size).value_or(0);
    fmt::print("  {:>2}  {:>9.1f} MiB  {:<36} {}\n", rank, static_cast<double>(size) / 1024,
               package.GetText(handles.key), TableOfObject(scan.current.oid));
  }
}

void Answers::DependsOn(std::string const& name) const {
  LS_OBJ_REF const target = FindPackage(indexes_, name, {});
  if (IsNull(target)) {
    Heading(fmt::format("No package is called {}", name));
    return;
  }
  std::map<std::string, std::set<std::string>> dependents;
  EachReferring(indexes_.dependency_by_target, target, [&](LS_OBJ_REF const& reference) {
    Object const dependency(session_, reference);
    LS_OBJ_REF const source = dependency.GetRef(handles_.dependency.source);
    if (!IsNull(source)) {
      dependents[dependency.GetText(handles_.dependency.relation)].insert(KeyOf(source));
    }
    return true;
  });
  Heading(fmt::format("Who needs {}", KeyOf(target)));
  for (auto const& [relation, names] : dependents) {
    std::string line;
    std::size_t listed = 0;
    for (std::string const& dependent : names) {
      if (listed++ == kListed) break;
      line += ' ' + dependent;
    }
    fmt::print("  {:<12} {:>6} packages:{}{}\n", relation, names.size(), line,
               names.size() > kListed ? " ..." : "");
  }
  if (dependents.empty()) fmt::print("  nothing in this database\n");
}

// The table of any object of the database, from its id alone.
std::string Answers::TableOfObject(uint64_t oid) const {
  uint64_t addr = 0, type_id = 0;
  session_.Check(lorv_crud_Lookup(session_.context(), oid, &addr, &type_id),
                 "looking up an object");
  metalayer::RawView const view(metalayer::raw_view_by_type_id(type_id));
  return sagleme::ToUtf8(metalayer::GetText(view, metalayer::RawView::kFullName));
}

std::vector<TableSpec const*> Answers::WithBases(TableSpec const& table) const {
  std::vector<TableSpec const*> tables = {&table};
  while (tables.front()->base != nullptr) {
    tables.insert(tables.begin(), FindTable(tables.front()->base));
  }
  return tables;
}

// Text that distinguishes an object from others of its table.
std::string Answers::Referenced(LS_OBJ_REF const& target) const {
  if (IsNull(target)) return {};
  std::string const table = TableOfObject(target.oid);
  Object const object(session_, target);
  std::string const text = table == sagleme::ToUtf8(tables::kMaintainer)
                               ? object.GetText(handles_.maintainer.contact)
                               : KeyOf(target);
  return fmt::format("{} (object {} of {})", text, target.oid, table);
}

std::string Answers::Value(Object const& object, TableSpec const& table,
                           ColumnSpec const& column) const {
  PropertyAccessInfo* property = nullptr;
  session_.Check(
      lorv_crud_GetPropertyHandle(session_.context(), table.name, column.name, &property),
      "asking for a property");
  auto const number = [](auto const& value) { return value ? fmt::format("{}", *value) : ""; };
  switch (column.type) {
    case kBinary:
      return Hex(object.GetBinary(property));
    case kLong:
      return number(object.GetLong(property));
    case kULong:
      return number(object.GetULong(property));
    case kDouble:
      return number(object.GetDouble(property));
    case kBool:
      return number(object.GetBool(property));
    case kReference:
      return Referenced(object.GetRef(property));
    default:
      return object.GetText(property);
  }
}

void Answers::Show(std::string const& name) const {
  LS_OBJ_REF const found = FindPackage(indexes_, name, {});
  if (IsNull(found)) {
    Heading(fmt::format("No package is called {}", name));
    return;
  }
  std::string const table_name = TableOfObject(found.oid);
  TableSpec const* const table = FindTable(sagleme::ToUtf16(table_name));
  if (table == nullptr)
    throw std::runtime_error("the package is in a foreign table, " + table_name);
  Heading(fmt::format("The package {}: object {} of {}", name, found.oid, table_name));
  Object const object(session_, found);
  for (TableSpec const* const part : WithBases(*table)) {
    for (ColumnSpec const& column : part->columns) {
      std::string const value = Value(object, *table, column);
      fmt::print("  {:<20} {}\n", sagleme::ToUtf8(column.name),
                 value.empty() ? "-" : Shortened(value, kLineWidth));
    }
  }
}

}  // namespace

void AnswerAll(Session& session, Questions const& questions) {
  Transaction transaction(session, Transaction::Access::kReadOnly);
  Answers const answers(session);
  answers.Counts();
  answers.Largest();
  answers.DependsOn(questions.depended_on);
  answers.Show(questions.shown);
}

}  // namespace packages

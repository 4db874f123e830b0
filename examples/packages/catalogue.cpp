#include "catalogue.h"

#include <fmt/core.h>

#include "schema.h"

namespace packages {
namespace {

using sagleme::ToUtf8;

// The handles of all columns of one table.
struct Reader {
  std::string table;
  std::vector<std::pair<PropertyAccessInfo const*, sagleme::Type>> properties;
};

TableView ViewOfTable(sagleme::Transaction& transaction, sagleme::Table const& table) {
  TableView view{};
  if (transaction.table(table.base)->system == false) view.base = ToUtf8(table.base);
  view.layout = table.layout;
  for (sagleme::Column const& column : table.columns) {
    if (column.system()) continue;
    view.columns.push_back({ToUtf8(column.name), column.type, column.nullable});
  }
  for (sagleme::Index const& index : table.indexes) view.indexes.push_back(ToUtf8(index.name));
  return view;
}

Reader ReaderOf(uint64_t context, sagleme::Table const& table) {
  Reader reader{ToUtf8(table.name), {}};
  for (sagleme::Column const& column : table.columns) {
    if (column.system()) continue;
    PropertyAccessInfo* handle = nullptr;
    sagleme::detail::CheckLayer(context, lorv_crud_GetPropertyHandle(context, table.name.c_str(),
                                                                     column.name.c_str(), &handle));
    reader.properties.emplace_back(handle, column.type);
  }
  return reader;
}

PackageView ViewOfPackage(uint64_t context, std::map<uint64_t, Reader> const& readers,
                          uint64_t oid) {
  LS_OBJ_REF object{oid, 0};
  PackageView view{};
  sagleme::detail::CheckLayer(context, lorv_crud_Lookup(context, oid, &object.addr, &view.type_id));
  auto const reader = readers.find(view.type_id);
  if (reader == readers.end()) return view;
  sagleme::ReadScope const scope(context);
  view.table = reader->second.table;
  for (auto const& [handle, type] : reader->second.properties) {
    view.values.push_back(ReadText(context, handle, type, object));
  }
  return view;
}

std::string Hex(LORV_BINARY const& binary) {
  uint8_t const* const bytes = binary.bytes;
  std::string text;
  for (std::size_t i = 0; i < binary.length; ++i) text += fmt::format("{:02x}", bytes[i]);
  return text;
}

// Reads through one of the functions for values of a type, and has the value written as a text.
template <typename Value, typename Read, typename Write>
std::string ReadAs(uint64_t context, PropertyAccessInfo const* handle, LS_OBJ_REF const& object,
                   Read&& read, Write&& write) {
  Value value{};
  uint32_t const status = read(context, handle, object.oid, object.addr, &value);
  if (status == LORV_STATUS_NULL) return {};
  sagleme::detail::CheckKernel(status);
  return write(value);
}

void PrintSubtree(View const& view, std::string const& base, std::string const& indent) {
  for (auto const& [name, table] : view.tables) {
    if (table.base != base) continue;
    std::size_t const inherited = base.empty() ? 0 : view.tables.at(base).columns.size();
    fmt::print("{:<28} {:>3} columns{}\n", indent + name, table.columns.size(),
               inherited == 0 ? "" : fmt::format(", {} inherited", inherited));
    PrintSubtree(view, name, indent + "  ");
  }
}

}  // namespace

View ViewOf(sagleme::Transaction& transaction) {
  View view{};
  view.generation = transaction.Generation();
  std::map<uint64_t, Reader> readers;
  for (sagleme::TablePtr const& table : transaction.Tables()) {
    view.tables.emplace(ToUtf8(table->name), ViewOfTable(transaction, *table));
    readers.emplace(table->type_id, ReaderOf(transaction.context(), *table));
  }
  auto packages = sagleme::Range::Subtree(transaction, *transaction.table(tables::kPackage));
  for (sagleme::Object const& package : packages) {
    uint64_t const oid = package.id().value;
    view.packages.emplace(oid, ViewOfPackage(transaction.context(), readers, oid));
  }
  return view;
}

std::string ReadText(uint64_t context, PropertyAccessInfo const* handle, sagleme::Type type,
                     LS_OBJ_REF const& object) {
  auto const number = [](auto value) { return fmt::format("{}", value); };
  auto const read = [&]<typename Value>(Value, auto function, auto write) {
    return ReadAs<Value>(context, handle, object, function, write);
  };
  switch (type) {
    case sagleme::Type::kBinary:
      return read(static_cast<LORV_BINARY*>(nullptr), lorv_crud_ReadBinary,
                  [](LORV_BINARY const* binary) { return Hex(*binary); });
    case sagleme::Type::kLong:
      return read(int64_t{}, lorv_crud_ReadLong, number);
    case sagleme::Type::kULong:
      return read(uint64_t{}, lorv_crud_ReadULong, number);
    case sagleme::Type::kDouble:
      return read(double{}, lorv_crud_ReadDouble, number);
    case sagleme::Type::kBool:
      return read(uint64_t{}, lorv_crud_ReadBool, number);
    case sagleme::Type::kReference:
      return read(uint64_t{}, lorv_crud_ReadRefId, number);
    default:
      return read(static_cast<char16_t const*>(nullptr), lorv_crud_ReadString,
                  [](char16_t const* text) { return ToUtf8(text); });
  }
}

void PrintTables(View const& view) { PrintSubtree(view, {}, "  "); }

}  // namespace packages

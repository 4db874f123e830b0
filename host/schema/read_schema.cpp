#include <random>
#include <sagleme/schema_document.hpp>

namespace sagleme {
namespace {

constexpr char16_t const* kIdentityName = u"SchemaDocumentIdentity";

ColumnDoc ToColumnDoc(Column const& column, bool identities) {
  ColumnDoc doc;
  doc.name = ToUtf8(column.name);
  doc.id = identities ? column.id.value : 0;
  doc.type = column.type;
  doc.nullable = column.nullable;
  doc.target = ToUtf8(column.target);
  return doc;
}

IndexDoc ToIndexDoc(Index const& index) {
  IndexDoc doc;
  doc.name = ToUtf8(index.name);
  doc.unique = index.unique;
  for (IndexedColumn const& column : index.columns) {
    doc.columns.push_back({ToUtf8(column.name), !column.ascending});
  }
  return doc;
}

TableDoc ToTableDoc(Transaction& transaction, Table const& table, bool identities) {
  TableDoc doc;
  doc.name = ToUtf8(table.name);
  doc.id = identities ? table.row.oid : 0;
  if (table.base != RootTable(transaction)->name) doc.base = ToUtf8(table.base);
  for (Column const& column : table.columns) {
    if (!column.inherited && !column.system())
      doc.columns.push_back(ToColumnDoc(column, identities));
  }
  for (Index const& index : table.indexes) doc.indexes.push_back(ToIndexDoc(index));
  return doc;
}

void AddSubtree(Transaction& transaction, Table const& table, SchemaDoc& schema) {
  // A table of a user may derive from one of the catalogue, so the walk goes through those as well.
  for (TablePtr const& child : transaction.Children(table, true)) {
    if (!child->system) {
      schema.tables.push_back(ToTableDoc(transaction, *child, schema.database != 0));
    }
    AddSubtree(transaction, *child, schema);
  }
}

metalayer::Configuration IdentityRow() {
  return metalayer::Configuration::ByConfigurationParameter(kIdentityName);
}

}  // namespace

SchemaDoc ReadSchema(Transaction& transaction, bool identities) {
  SchemaDoc schema;
  if (identities) schema.database = DatabaseIdentity(transaction);
  AddSubtree(transaction, *RootTable(transaction), schema);
  return schema;
}

std::int64_t DatabaseIdentity(Transaction& transaction) {
  return detail::Inside(transaction.context(), []() -> std::int64_t {
    auto const row = IdentityRow();
    return row.is_null() ? 0 : metalayer::GetLong(row, metalayer::Configuration::kValue);
  });
}

void AssureDatabaseIdentity(Transaction& transaction) {
  std::random_device device;
  std::int64_t const number =
      std::int64_t{device() & 0x1FFFFF} << 32 | device();  // exact in any JSON
  detail::Inside(transaction.context(), [number] {
    if (IdentityRow().is_null()) metalayer::Configuration::Insert(kIdentityName, number | 1);
  });
}

}  // namespace sagleme

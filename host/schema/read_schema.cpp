#include <sagleme/schema_document.hpp>

namespace sagleme {
namespace {

constexpr char16_t const* kFormerIdentityName = u"SchemaDocumentIdentity";

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
  // A user's table may derive from one of the catalogue, so the scan includes those.
  for (TablePtr const& child : transaction.Children(table, true)) {
    if (!child->system) {
      schema.tables.push_back(ToTableDoc(transaction, *child, schema.database != 0));
    }
    AddSubtree(transaction, *child, schema);
  }
}

}  // namespace

SchemaDoc ReadSchema(Transaction& transaction, bool identities) {
  SchemaDoc schema;
  if (identities) schema.database = DatabaseIdentity(transaction);
  AddSubtree(transaction, *RootTable(transaction), schema);
  return schema;
}

// Earlier versions kept an identity of their own in the catalogue, which documents may have.
std::int64_t DatabaseIdentity(Transaction& transaction) {
  return detail::Inside(transaction.context(), [&transaction]() -> std::int64_t {
    auto const row = metalayer::Configuration::ByConfigurationParameter(kFormerIdentityName);
    if (!row.is_null()) return metalayer::GetLong(row, metalayer::Configuration::kValue);
    std::uint64_t identity = 0;
    detail::CheckKernel(lscoredb_identity(transaction.context(), &identity));
    return static_cast<std::int64_t>(identity);
  });
}

}  // namespace sagleme

#include <map>
#include <sagleme/schema_document.hpp>

#include "annotations/default_text.h"

namespace sagleme {
namespace {

constexpr char16_t const* kFormerIdentityName = u"SchemaDocumentIdentity";

// The annotations of a database, by subject.
class Annotated {
 public:
  explicit Annotated(Transaction& transaction) {
    for (Annotation& each : Annotations(transaction)) {
      texts_.insert({{each.subject, each.kind}, std::move(each.text)});
    }
  }
  void Add(ObjectId table, TableDoc& doc) const {
    doc.comment = CommentOf(table);
    doc.abstract = Find(table, Annotation::Kind::kAbstract) != nullptr;
  }
  void Add(ObjectId column, ColumnDoc& doc) const {
    doc.comment = CommentOf(column);
    if (auto const* const json = Find(column, Annotation::Kind::kDefault)) {
      doc.fallback = annotations::StoredDefault(doc.type, *json);
    }
    if (auto const* const rule = Find(column, Annotation::Kind::kOnDelete)) {
      doc.on_delete = ParseOnDelete(*rule).value_or(OnDelete::kKeep);
    }
  }
  void Add(ObjectId index, IndexDoc& doc) const { doc.comment = CommentOf(index); }

 private:
  std::string const* Find(ObjectId subject, Annotation::Kind kind) const {
    auto const found = texts_.find({subject, kind});
    return found == texts_.end() ? nullptr : &found->second;
  }
  std::string CommentOf(ObjectId subject) const {
    std::string const* const text = Find(subject, Annotation::Kind::kComment);
    return text == nullptr ? "" : *text;
  }

  std::map<std::pair<ObjectId, Annotation::Kind>, std::string> texts_;
};

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

TableDoc ToTableDoc(Transaction& transaction, Table const& table, bool identities,
                    Annotated const& annotated) {
  TableDoc doc;
  doc.name = ToUtf8(table.name);
  doc.id = identities ? table.row.oid : 0;
  if (table.base != RootTable(transaction)->name) doc.base = ToUtf8(table.base);
  for (Column const& column : table.columns) {
    if (column.inherited || column.system()) continue;
    doc.columns.push_back(ToColumnDoc(column, identities));
    annotated.Add(column.id, doc.columns.back());
  }
  for (Index const& index : table.indexes) {
    doc.indexes.push_back(ToIndexDoc(index));
    annotated.Add(index.id, doc.indexes.back());
  }
  annotated.Add(table.id(), doc);
  return doc;
}

void AddSubtree(Transaction& transaction, Table const& table, Annotated const& annotated,
                SchemaDoc& schema) {
  // A user's table may derive from one of the catalogue, so the scan includes those.
  for (TablePtr const& child : transaction.Children(table, true)) {
    if (!child->system) {
      schema.tables.push_back(ToTableDoc(transaction, *child, schema.database != 0, annotated));
    }
    AddSubtree(transaction, *child, annotated, schema);
  }
}

}  // namespace

SchemaDoc ReadSchema(Transaction& transaction, bool identities) {
  SchemaDoc schema;
  if (identities) schema.database = DatabaseIdentity(transaction);
  AddSubtree(transaction, *RootTable(transaction), Annotated(transaction), schema);
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

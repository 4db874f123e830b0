#include "columns/indexes.h"

#include <fmt/format.h>
#include <lscoredb/refused_key.h>

#include <algorithm>

#include "text/key_values.h"

namespace sagleme::columns {
namespace {

bool Uses(Index const& index, std::u16string const& column) {
  return std::any_of(index.columns.begin(), index.columns.end(),
                     [&](IndexedColumn const& each) { return each.name == column; });
}

LS_OBJ_REF RowOfIndex(std::u16string const& name) {
  return metalayer::ddl::ExistingIndex(name.c_str());
}

LORVI_COLUMN_DEFINITION KernelColumn(Table const& table, Column const& column) {
  LORVI_COLUMN_INFO info{};
  metalayer::Check(lorvi_context_get_column_info(*metalayer::TlsMetalayerContext::Current(),
                                                 table.layout, column.ordinal, &info));
  LORVI_COLUMN_DEFINITION definition{};
  definition.token = info.token;
  definition.type = info.type;
  definition.is_nullable = column.nullable ? 1 : 0;
  return definition;
}

std::vector<IndexColumnSpec> SpecsOf(Index const& index) {
  std::vector<IndexColumnSpec> specs;
  for (IndexedColumn const& column : index.columns) {
    specs.push_back({column.name, column.ascending});
  }
  return specs;
}

}  // namespace

IndexesOnColumn::IndexesOnColumn(Transaction& transaction, Subtree const& subtree,
                                 std::u16string column, bool nullable)
    : transaction_(transaction),
      subtree_(subtree),
      column_(std::move(column)),
      nullable_(nullable) {
  for (std::size_t i = 0; i < subtree.nodes().size(); ++i) {
    Table const& table = *subtree.nodes()[i].before;
    for (Index const& index : table.indexes) {
      if (!Uses(index, column_)) continue;
      held_.push_back(
          {index, i, subtree.TokenBefore(i, column_), table.GetColumn(column_).nullable});
    }
  }
}

bool IndexesOnColumn::IsLost(Held const& held) const {
  return subtree_.TokenAfter(held.node, column_) == 0;
}

bool IndexesOnColumn::IsStale(Held const& held) const {
  return held.nullable != nullable_ || subtree_.TokenAfter(held.node, column_) != held.token;
}

void IndexesOnColumn::Detach() {
  std::erase_if(held_, [this](Held const& held) { return !IsStale(held); });
  for (Held const& held : held_) {
    detail::CheckKernel(lorvi_context_drop_index(transaction_.context(), held.index.handle));
    if (!IsLost(held)) continue;
    detail::Inside(transaction_.context(), [&] {
      metalayer::ddl::DropIndexedColumns(metalayer::Index(RowOfIndex(held.index.name)));
    });
  }
}

void IndexesOnColumn::Attach(std::vector<std::u16string> const& tables) {
  for (Held const& held : held_) {
    if (IsLost(held)) {
      Relocate(held, tables);
    } else {
      Rebuild(held.index, subtree_.nodes()[held.node].before->name);
    }
  }
  transaction_.Forget();
}

// The kernel's index under the same token, and its number in the row, which stays.
void IndexesOnColumn::Rebuild(Index const& index, std::u16string const& table_name) const {
  TablePtr const table = transaction_.table(table_name);
  std::vector<LORVI_COLUMN_DEFINITION> columns;
  unsigned sort_mask = 0;
  detail::Inside(transaction_.context(), [&] {
    for (std::size_t i = 0; i < index.columns.size(); ++i) {
      columns.push_back(KernelColumn(*table, table->GetColumn(index.columns[i].name)));
      if (!index.columns[i].ascending) sort_mask |= 1u << i;
    }
    columns.push_back({});
    std::uint64_t handle = 0;
    auto const status = lorvi_context_create_index(
        transaction_.context(), metalayer::assure_token(index.name.c_str()), table->setspec.c_str(),
        columns.data(), static_cast<std::uint16_t>(sort_mask), index.unique ? LORV_INDEX_UNIQUE : 0,
        &handle);
    if (status == LSCOREDB_DUPLICATE_KEY) RefuseDuplicate(index);
    metalayer::Check(status);
    metalayer::PutULong(RowOfIndex(index.name), metalayer::Index::kIndexHandle, handle);
  });
}

// The first table keeps the row with its identity and name. Without any the row goes; its columns
// and the kernel's index are gone already.
void IndexesOnColumn::Relocate(Held const& held, std::vector<std::u16string> const& tables) const {
  bool moved = false;
  for (std::u16string const& name : tables) {
    TablePtr const table = transaction_.table(name);
    if (!table->IsA(*subtree_.nodes()[held.node].before)) continue;
    if (!moved) {
      detail::Inside(transaction_.context(), [&] { MoveRows(held.index, *table); });
      Rebuild(held.index, name);
      moved = true;
      continue;
    }
    std::u16string const other = held.index.name + u"_" + std::u16string(table->short_name());
    CreateIndex(transaction_, other, name, SpecsOf(held.index),
                held.index.unique ? Uniqueness::kUnique : Uniqueness::kAny);
  }
  if (moved) return;
  detail::Inside(transaction_.context(),
                 [&] { metalayer::DeleteRow(RowOfIndex(held.index.name)); });
}

void IndexesOnColumn::MoveRows(Index const& index, Table const& table) const {
  metalayer::Index const row(RowOfIndex(index.name));
  metalayer::PutRef(row, metalayer::Index::kTable, table.row);
  for (std::size_t i = 0; i < index.columns.size(); ++i) {
    auto const ordinal = static_cast<short>(table.GetColumn(index.columns[i].name).ordinal);
    auto const column = metalayer::RawColumn::ByRawColumnPK(table.row, ordinal);
    metalayer::IndexedColumn::Insert(row, column, i, index.columns[i].ascending);
  }
}

void IndexesOnColumn::RefuseDuplicate(Index const& index) const {
  lscoredb_refused_key key{};
  key.size = sizeof key;
  std::string text = "The values of column " + ToUtf8(column_) + " are no longer unique in index " +
                     ToUtf8(index.name);
  if (lscoredb_refused(transaction_.context(), &key) == 0) {
    TablePtr const table = transaction_.table(index.table);
    Index now = index;
    for (IndexedColumn& column : now.columns) column.type = table->GetColumn(column.name).type;
    std::string_view const bytes(static_cast<char const*>(key.key), key.key_size);
    auto const [first, second] = std::minmax(key.object, key.holder);
    text += fmt::format(": objects {} and {} would both have {}", first, second,
                        KeyText(KeyValues(now, bytes)));
  }
  throw Error(LSCOREDB_DUPLICATE_KEY, text + ".");
}

}  // namespace sagleme::columns

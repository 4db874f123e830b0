#include <fmt/format.h>

#include <map>

#include "check/check.h"

namespace tool {
namespace {

class CatalogueCheck {
 public:
  CatalogueCheck(sagleme::Transaction& transaction, Report const& report)
      : transaction_(transaction), report_(report) {}

  void Run() {
    for (sagleme::TablePtr const& table : transaction_.Tables(true)) {
      Ordinals(*table);
      Inheritance(*table);
      Layout(*table);
      Set(*table);
      TypeId(*table);
      for (sagleme::Index const& index : table->indexes) IndexOf(*table, index);
    }
    Generation();
  }

 private:
  template <typename... Arguments>
  void Tell(char const* rule, sagleme::Table const& table, fmt::format_string<Arguments...> text,
            Arguments&&... arguments) const {
    report_({rule, sagleme::ToUtf8(table.name), 0,
             fmt::format(text, std::forward<Arguments>(arguments)...)});
  }

  void Ordinals(sagleme::Table const& table) const {
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
      if (table.columns[i].ordinal == i) continue;
      return Tell("ordinals", table, "column {} has the number {} where {} is due",
                  sagleme::ToUtf8(table.columns[i].name), table.columns[i].ordinal, i);
    }
    if (table.columns.size() < 3)
      Tell("ordinals", table, "the three hidden columns are not all there");
  }

  void Inheritance(sagleme::Table const& table) const {
    if (table.base.empty()) return;
    sagleme::TablePtr const base = transaction_.Find(table.base);
    if (base == nullptr)
      return Tell("inheritance", table, "the base {} is not there", sagleme::ToUtf8(table.base));
    std::size_t inherited = 0;
    for (sagleme::Column const& column : table.columns) inherited += column.inherited ? 1 : 0;
    if (inherited != base->columns.size()) {
      Tell("inheritance", table, "{} columns are inherited, and the base has {}", inherited,
           base->columns.size());
    }
    for (std::size_t i = 0; i < std::min(base->columns.size(), table.columns.size()); ++i) {
      sagleme::Column const& own = table.columns[i];
      sagleme::Column const& from = base->columns[i];
      if (own.name == from.name && own.type == from.type && own.nullable == from.nullable &&
          own.target == from.target && own.inherited) {
        continue;
      }
      Tell("inheritance", table, "column {} differs from column {} of the base",
           sagleme::ToUtf8(own.name), sagleme::ToUtf8(from.name));
    }
  }

  void Layout(sagleme::Table const& table) const {
    LORVI_LAYOUT_INFO info{};
    auto const status = lorvi_context_get_layout_info(transaction_.context(), table.layout, &info);
    if (status != 0) {
      return Tell("layout", table, "the kernel does not give layout {}: {}", table.layout,
                  lscoredb_status_text(status));
    }
    if (info.column_count != table.columns.size()) {
      Tell("layout", table, "layout {} has {} columns, and the table {}", table.layout,
           info.column_count, table.columns.size());
    }
    for (sagleme::Column const& column : table.columns) LayoutColumn(table, column);
  }

  void LayoutColumn(sagleme::Table const& table, sagleme::Column const& column) const {
    LORVI_COLUMN_INFO info{};
    auto const status =
        lorvi_context_get_column_info(transaction_.context(), table.layout, column.ordinal, &info);
    bool const truth = column.type == sagleme::Type::kBool;
    auto const wanted = truth ? sagleme::Type::kULong : column.type;
    if (status == 0 && info.type == static_cast<std::uint8_t>(wanted)) return;
    Tell("layout", table, "column {} is a {}, and no such column stands at {} in layout {}",
         sagleme::ToUtf8(column.name), sagleme::TypeName(column.type), column.ordinal,
         table.layout);
  }

  void Set(sagleme::Table const& table) {
    if (table.base.empty()) return;
    sagleme::TablePtr const base = transaction_.Find(table.base);
    if (base != nullptr && (!table.setspec.starts_with(base->setspec) ||
                            table.setspec.size() == base->setspec.size())) {
      Tell("set", table, "the set specifier {} does not extend {} of the base",
           sagleme::ToUtf8(table.setspec), sagleme::ToUtf8(base->setspec));
    }
    auto const [other, first] = sets_.emplace(table.setspec, table.name);
    if (!first)
      Tell("set", table, "the set specifier is that of {} too", sagleme::ToUtf8(other->second));
  }

  void TypeId(sagleme::Table const& table) {
    auto const [other, first] = type_ids_.emplace(table.type_id, table.name);
    if (table.type_id == 0) Tell("type id", table, "the table has no type id");
    if (!first)
      Tell("type id", table, "type id {} is that of {} too", table.type_id,
           sagleme::ToUtf8(other->second));
  }

  void IndexOf(sagleme::Table const& table, sagleme::Index const& index) const {
    char16_t const* setspec = nullptr;
    auto const status =
        lorvi_context_get_index_setspec(transaction_.context(), index.handle, &setspec);
    if (status != 0) {
      return Tell("index", table, "the kernel does not give index {}: {}",
                  sagleme::ToUtf8(index.name), lscoredb_status_text(status));
    }
    if (table.setspec != setspec) {
      Tell("index", table, "index {} covers the set {}, and its table is {}",
           sagleme::ToUtf8(index.name), sagleme::ToUtf8(setspec), sagleme::ToUtf8(table.setspec));
    }
    if (index.columns.empty())
      Tell("index", table, "index {} has no columns", sagleme::ToUtf8(index.name));
  }

  void Generation() const {
    sagleme::TablePtr const table =
        transaction_.table(u"Lorvenstack.Internal.Metadata.UserSchemaGeneration");
    std::size_t count = 0;
    for ([[maybe_unused]] sagleme::Object const& row : sagleme::Range::Only(transaction_, *table)) {
      ++count;
    }
    if (count != 1) Tell("generation", *table, "there are {} counters of schema changes", count);
  }

  sagleme::Transaction& transaction_;
  Report const& report_;
  std::map<std::u16string, std::u16string> sets_;
  std::map<std::uint64_t, std::u16string> type_ids_;
};

}  // namespace

void CheckCatalogue(sagleme::Transaction& transaction, Report const& report) {
  CatalogueCheck(transaction, report).Run();
}

void Check(sagleme::Transaction& transaction, CheckOptions const& options, Report const& report) {
  try {
    CheckCatalogue(transaction, report);
    CheckObjects(transaction, options, report);
    CheckEntries(transaction, report);
  } catch (sagleme::Error const& error) {
    report({"reading", "", 0, fmt::format("{} (status {})", error.what(), error.status())});
  }
}

}  // namespace tool

#include <map>
#include <optional>

#include "parts.h"

namespace sagleme::checks {
namespace {

class CatalogueCheck {
 public:
  CatalogueCheck(Transaction& transaction, FindingReport const& report)
      : transaction_(transaction), report_(report) {}

  void Run() {
    for (TablePtr const& table : transaction_.Tables(true)) {
      Ordinals(*table);
      Inheritance(*table);
      Layout(*table);
      if (!table->system) Tokens(*table);
      Set(*table);
      TypeId(*table);
      for (Index const& index : table->indexes) IndexOf(*table, index);
    }
    Generation();
  }

 private:
  template <typename... Arguments>
  void Report(char const* rule, Table const& table, std::string_view text,
              Arguments const&... arguments) const {
    report_({rule, ToUtf8(table.name), 0, Say(text, arguments...)});
  }

  void Ordinals(Table const& table) const {
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
      if (table.columns[i].ordinal == i) continue;
      return Report("ordinals", table, "column {} has number {} instead of {}",
                    ToUtf8(table.columns[i].name), table.columns[i].ordinal, i);
    }
    if (table.columns.size() < 3) Report("ordinals", table, "a hidden column is missing");
  }

  void Inheritance(Table const& table) const {
    if (table.base.empty()) return;
    TablePtr const base = transaction_.Find(table.base);
    if (base == nullptr)
      return Report("inheritance", table, "the base {} does not exist", ToUtf8(table.base));
    std::size_t inherited = 0;
    for (Column const& column : table.columns) inherited += column.inherited ? 1 : 0;
    if (inherited != base->columns.size()) {
      Report("inheritance", table, "{} columns are inherited, but the base has {}", inherited,
             base->columns.size());
    }
    for (std::size_t i = 0; i < std::min(base->columns.size(), table.columns.size()); ++i) {
      Column const& own = table.columns[i];
      Column const& from = base->columns[i];
      if (own.name == from.name && own.type == from.type && own.nullable == from.nullable &&
          own.target == from.target && own.inherited) {
        continue;
      }
      Report("inheritance", table, "column {} differs from column {} of the base", ToUtf8(own.name),
             ToUtf8(from.name));
    }
  }

  void Layout(Table const& table) const {
    LORVI_LAYOUT_INFO info{};
    auto const status = lorvi_context_get_layout_info(transaction_.context(), table.layout, &info);
    if (status != 0) {
      return Report("layout", table, "the kernel cannot read layout {}: {}", table.layout,
                    lscoredb_status_text(status));
    }
    if (info.column_count != table.columns.size()) {
      Report("layout", table, "layout {} has {} columns, but the table has {}", table.layout,
             info.column_count, table.columns.size());
    }
    for (Column const& column : table.columns) LayoutColumn(table, column);
  }

  void LayoutColumn(Table const& table, Column const& column) const {
    LORVI_COLUMN_INFO info{};
    auto const status =
        lorvi_context_get_column_info(transaction_.context(), table.layout, column.ordinal, &info);
    bool const truth = column.type == Type::kBool;
    auto const wanted = truth ? Type::kULong : column.type;
    if (status == 0 && info.type == static_cast<std::uint8_t>(wanted)) return;
    Report("layout", table, "column {} is a {}, but column {} of layout {} is not",
           ToUtf8(column.name), TypeName(column.type), column.ordinal, table.layout);
  }

  // The token of a column in the kernel; nothing if there is no such column, which is reported
  // elsewhere.
  std::optional<std::uint64_t> TokenOf(Table const& table, Column const& column) const {
    LORVI_COLUMN_INFO info{};
    auto const status =
        lorvi_context_get_column_info(transaction_.context(), table.layout, column.ordinal, &info);
    return status == 0 ? std::optional<std::uint64_t>(info.token) : std::nullopt;
  }

  void Tokens(Table const& table) const {
    TablePtr const base = transaction_.Find(table.base);
    for (Column const& column : table.columns) {
      std::optional<std::uint64_t> const token = TokenOf(table, column);
      if (!token) continue;
      if (!column.inherited) {
        if (NameOf(*token) == ToUtf16(std::to_string(column.id.value))) continue;
        Report("tokens", table, "column {} has token {} in the kernel, which is not its own",
               ToUtf8(column.name), *token);
      } else if (base != nullptr && column.ordinal < base->columns.size() &&
                 TokenOf(*base, base->columns[column.ordinal]) != token) {
        Report("tokens", table, "column {} has token {} in the kernel, but another one in the base",
               ToUtf8(column.name), *token);
      }
    }
  }

  std::u16string NameOf(std::uint64_t token) const {
    return detail::Inside(transaction_.context(), [&] {
      auto const row = metalayer::Token::ByNameToken(token);
      return row.is_null() ? std::u16string()
                           : detail::CatalogueText(row, metalayer::Token::kInvariantName);
    });
  }

  void Set(Table const& table) {
    if (table.base.empty()) return;
    TablePtr const base = transaction_.Find(table.base);
    if (base != nullptr && (!table.setspec.starts_with(base->setspec) ||
                            table.setspec.size() == base->setspec.size())) {
      Report("set", table, "the set specifier {} does not extend {} of the base",
             ToUtf8(table.setspec), ToUtf8(base->setspec));
    }
    auto const [other, first] = sets_.emplace(table.setspec, table.name);
    if (!first) Report("set", table, "table {} has the same set specifier", ToUtf8(other->second));
  }

  void TypeId(Table const& table) {
    auto const [other, first] = type_ids_.emplace(table.type_id, table.name);
    if (table.type_id == 0) Report("type id", table, "the table has no type id");
    if (!first)
      Report("type id", table, "type id {} also belongs to {}", table.type_id,
             ToUtf8(other->second));
  }

  void IndexOf(Table const& table, Index const& index) const {
    char16_t const* setspec = nullptr;
    auto const status =
        lorvi_context_get_index_setspec(transaction_.context(), index.handle, &setspec);
    if (status != 0) {
      return Report("index", table, "the kernel cannot read index {}: {}", ToUtf8(index.name),
                    lscoredb_status_text(status));
    }
    if (table.setspec != setspec) {
      Report("index", table, "index {} covers the set {}, but its table is {}", ToUtf8(index.name),
             ToUtf8(setspec), ToUtf8(table.setspec));
    }
    if (index.columns.empty())
      Report("index", table, "index {} has no columns", ToUtf8(index.name));
  }

  void Generation() const {
    TablePtr const table =
        transaction_.table(u"Lorvenstack.Internal.Metadata.UserSchemaGeneration");
    std::size_t count = 0;
    for ([[maybe_unused]] Object const& row : Range::Only(transaction_, *table)) {
      ++count;
    }
    if (count != 1) Report("generation", *table, "there are {} counters of schema changes", count);
  }

  Transaction& transaction_;
  FindingReport const& report_;
  std::map<std::u16string, std::u16string> sets_;
  std::map<std::uint64_t, std::u16string> type_ids_;
};

}  // namespace

void CheckTables(Transaction& transaction, FindingReport const& report) {
  CatalogueCheck(transaction, report).Run();
}

}  // namespace sagleme::checks

#include <algorithm>
#include <map>
#include <sagleme/counts.hpp>
#include <sagleme/host/export.hpp>
#include <sagleme/host/own_columns.hpp>
#include <sagleme/value_text.hpp>

namespace sagleme {
namespace {

std::string CsvValue(Value const& value) {
  if (IsNull(value)) return "";
  std::string const text = ValueText(value);
  return text.empty() ? "\"\"" : CsvText(text);  // bare, it would be null
}

class Exporter {
 public:
  Exporter(Transaction& transaction, Table const& table, ExportOptions const& options)
      : options_(options), own_(OwnColumnsOf(transaction, table)) {
    AddNames(table);
    if (options.only) return;
    for (TablePtr const& each : transaction.Tables()) {
      if (each->IsA(table)) AddNames(*each);
    }
  }

  std::string Heading() const {
    std::string line = own_.id;
    if (!options_.only) line.append(",").append(own_.table);
    for (std::u16string const& name : names_) line.append(",").append(CsvText(ToUtf8(name)));
    return line + "\n";
  }

  // One line with its end; empty for an object whose table was dropped.
  std::string Line(Object const& object) {
    Layout const* const layout = LayoutOf(object);
    if (layout == nullptr) return "";
    return options_.form == FileForm::kCsv ? CsvLine(object, *layout) : JsonLine(object, *layout);
  }

 private:
  // Writes the objects of one table.
  struct Layout {
    TablePtr table;
    std::string name;
    std::vector<Column const*> columns;  // as the heading has them; null: the table has none
  };

  void AddNames(Table const& table) {
    for (Column const* const column : UserColumns(table)) {
      bool const there = std::find(names_.begin(), names_.end(), column->name) != names_.end();
      if (!there) names_.push_back(column->name);
    }
  }

  Layout const* LayoutOf(Object const& object) {
    std::u16string setspec = object.setspec();
    auto const known = layouts_.find(setspec);
    if (known != layouts_.end()) return known->second.table == nullptr ? nullptr : &known->second;
    Layout& layout = layouts_[std::move(setspec)];
    layout.table = object.table();
    if (layout.table == nullptr) return nullptr;
    layout.name = ToUtf8(layout.table->name);
    for (std::u16string const& name : names_) {
      layout.columns.push_back(layout.table->FindColumn(name));
    }
    return &layout;
  }

  std::string CsvLine(Object const& object, Layout const& layout) const {
    std::string line = std::to_string(object.id().value);
    if (!options_.only) line.append(",").append(CsvText(layout.name));
    for (Column const* const column : layout.columns) {
      line += ',';
      if (column != nullptr) line += CsvValue(object.Get(*layout.table, *column));
    }
    return line + "\n";
  }

  std::string JsonLine(Object const& object, Layout const& layout) const {
    std::string line = "{";
    line.append(JsonString(own_.id)).append(": ").append(std::to_string(object.id().value));
    if (!options_.only) {
      line.append(", ").append(JsonString(own_.table)).append(": ").append(JsonString(layout.name));
    }
    for (Column const* const column : layout.columns) {
      if (column == nullptr) continue;
      Value const value = object.Get(*layout.table, *column);
      if (IsNull(value)) continue;
      line.append(", ").append(JsonString(ToUtf8(column->name)));
      line.append(": ").append(ValueJson(value));
    }
    return line + "}\n";
  }

  ExportOptions const& options_;
  OwnColumns own_;
  std::vector<std::u16string> names_;
  std::map<std::u16string, Layout> layouts_;  // by set specifier
};

}  // namespace

ExportResult Export(Transaction& transaction, Table const& table, TextSink const& to,
                    ExportOptions const& options) {
  ObjectCounts const counts(transaction);
  std::uint64_t const total = options.only ? counts.Own(table) : counts.Subtree(table);
  ExportResult result;
  result.left_out = counts.Subtree(table) - total;
  Exporter exporter(transaction, table, options);
  if (options.form == FileForm::kCsv) to(exporter.Heading());
  for (Object const& object :
       options.only ? Range::Only(transaction, table) : Range::Subtree(transaction, table)) {
    ReadScope const scope(transaction.context());
    std::string const line = exporter.Line(object);
    if (line.empty()) continue;
    to(line);
    ++result.objects;
    if (options.report) options.report({result.objects, result.objects, total});
  }
  return result;
}

}  // namespace sagleme

#include <fmt/format.h>

#include <sagleme/host/rows.hpp>
#include <set>
#include <unordered_map>

#include "data/csv_reader.h"
#include "data/flat_json.h"

namespace sagleme {
namespace {

class CsvSource : public RowSource {
 public:
  CsvSource(std::istream& input, char separator) : input_(input), reader_(input_, separator) {
    if (!reader_.Next()) throw BadRow({}, "the file has no heading line");
    heading_ = reader_.raw();
    std::set<std::string_view> seen;
    for (CsvField const& field : reader_.fields()) {
      FileLocation const location = reader_.LocationOf(field.offset);
      if (!seen.insert(field.text).second) {
        throw BadRow(location, fmt::format("column {} is named twice", field.text));
      }
      names_.emplace_back(field.text);
      locations_.push_back(location);
    }
    values_.resize(names_.size());
  }

  bool Next() override {
    if (!reader_.Next()) return false;
    std::vector<CsvField> const& fields = reader_.fields();
    if (fields.size() != names_.size()) {
      throw BadRow(location(), fmt::format("the row has {} values, but the heading has {}",
                                           fields.size(), names_.size()));
    }
    for (std::size_t i = 0; i < fields.size(); ++i) {
      bool const null = fields[i].text.empty() && !fields[i].quoted;
      values_[i] = {i, null ? RowValue::Kind::kNull : RowValue::Kind::kText, fields[i].text, {}};
    }
    return true;
  }
  std::span<RowValue const> values() const override { return values_; }
  std::vector<std::string> const& names() const override { return names_; }
  bool has_heading() const override { return true; }
  FileLocation location() const override { return reader_.LocationOf(0); }
  FileLocation LocationOf(RowValue const& value) const override {
    return reader_.LocationOf(reader_.fields()[value.name].offset);
  }
  FileLocation LocationOfName(std::size_t name) const override { return locations_[name]; }
  std::string raw() const override { return std::string(reader_.raw()); }
  std::string heading() const override { return heading_; }
  std::uint64_t bytes() const override { return input_.bytes(); }

 private:
  TextInput input_;
  CsvReader reader_;
  std::string heading_;
  std::vector<std::string> names_;
  std::vector<FileLocation> locations_;
  std::vector<RowValue> values_;
};

class JsonSource : public RowSource {
 public:
  explicit JsonSource(std::istream& input) : input_(input) {}

  bool Next() override {
    values_.clear();
    if (!NextLine()) return false;
    Parse();
    for (std::size_t i = 0; i < json_.size(); ++i) {
      JsonMember const& member = json_.member(i);
      RowValue value = member.value.view();
      value.name = NumberOf(member.name, i);
      if (row_of_name_[value.name] == line_) {
        throw BadRow(LocationOf(value), fmt::format("column {} is named twice", member.name));
      }
      row_of_name_[value.name] = line_;
      values_.push_back(value);
    }
    return true;
  }
  std::span<RowValue const> values() const override { return values_; }
  std::vector<std::string> const& names() const override { return names_; }
  bool has_heading() const override { return false; }
  FileLocation location() const override { return {line_, 1}; }
  // JSON readers give no locations of values: the first one of the name is the best there is.
  FileLocation LocationOf(RowValue const& value) const override {
    auto const at = text_.find("\"" + names_[value.name] + "\"");
    return {line_, at == std::string_view::npos ? 1 : at + 1};
  }
  FileLocation LocationOfName(std::size_t name) const override {
    return LocationOf({name, {}, {}, {}});
  }
  std::string raw() const override { return std::string(text_) + "\n"; }
  std::string heading() const override { return ""; }
  std::uint64_t bytes() const override { return input_.bytes(); }

 private:
  bool NextLine() {
    while (input_.NextLine(text_)) {
      ++line_;
      if (text_.find_first_not_of(" \t\r") != std::string_view::npos) return true;
    }
    return false;
  }
  void Parse() {
    try {
      json_.Parse(text_);
    } catch (BadJson const& bad) {
      throw BadRow({line_, bad.byte()}, bad.what());
    }
  }
  // Rows mostly have the same names in the same order.
  std::size_t NumberOf(std::string const& name, std::size_t guess) {
    if (guess < names_.size() && names_[guess] == name) return guess;
    auto const [at, added] = numbers_.emplace(name, names_.size());
    if (added) {
      names_.push_back(name);
      row_of_name_.push_back(0);
    }
    return at->second;
  }

  TextInput input_;
  std::string_view text_;
  std::size_t line_ = 0;
  FlatJson json_;
  std::vector<std::string> names_;
  std::unordered_map<std::string, std::size_t> numbers_;
  std::vector<std::size_t> row_of_name_;  // the line in which each came last
  std::vector<RowValue> values_;
};

}  // namespace

std::unique_ptr<RowSource> OpenRows(std::istream& input, RowFormat const& format) {
  if (format.form == FileForm::kJsonLines) return std::make_unique<JsonSource>(input);
  return std::make_unique<CsvSource>(input, format.separator);
}

}  // namespace sagleme

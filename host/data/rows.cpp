#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <sagleme/host/rows.hpp>
#include <set>

#include "data/csv_reader.h"
#include "text/json_value.h"

namespace sagleme {
namespace {

class CsvSource : public RowSource {
 public:
  explicit CsvSource(std::istream& input) : reader_(input) {
    if (!reader_.Next(heading_)) throw BadRow({}, "the file has no heading line");
    heading_text_ = reader_.raw();
    std::set<std::string> names;
    for (CsvField const& field : heading_) {
      if (!names.insert(field.text).second) {
        throw BadRow(field.place, fmt::format("column {} is named twice", field.text));
      }
    }
  }

  bool Next(std::vector<RowField>& row) override {
    row.clear();
    bool const more = reader_.Next(fields_);
    if (!more) return false;
    place_ = fields_.front().place;
    if (fields_.size() != heading_.size()) {
      throw BadRow(place_, fmt::format("the row has {} values, but the heading has {}",
                                       fields_.size(), heading_.size()));
    }
    for (std::size_t i = 0; i < fields_.size(); ++i) row.push_back(ToRowField(i));
    return true;
  }
  FilePlace place() const override { return place_; }
  std::string raw() const override { return reader_.raw(); }
  std::size_t bytes() const override { return reader_.bytes(); }
  std::vector<RowField> names() const override {
    std::vector<RowField> names;
    for (CsvField const& field : heading_) {
      names.push_back({field.text, field.text, false, field.place, {}});
    }
    return names;
  }
  std::string heading() const override { return heading_text_; }

 private:
  RowField ToRowField(std::size_t i) const {
    CsvField const& field = fields_[i];
    bool const null = field.text.empty() && !field.quoted;
    auto const parse = [null, text = field.text](Type type) -> Value {
      if (null) return Null{};
      return ParseValue(type, text);
    };
    return {heading_[i].text, field.text, null, field.place, parse};
  }

  CsvReader reader_;
  std::vector<CsvField> heading_;
  std::string heading_text_;
  std::vector<CsvField> fields_;
  FilePlace place_;
};

class JsonSource : public RowSource {
 public:
  explicit JsonSource(std::istream& input) : input_(input) {}

  bool Next(std::vector<RowField>& row) override {
    row.clear();
    if (!NextLine()) return false;
    nlohmann::json const json = Parse();
    for (auto const& [name, value] : json.items()) row.push_back(ToRowField(name, value));
    return true;
  }
  FilePlace place() const override { return {line_, 1}; }
  std::string raw() const override { return text_ + "\n"; }
  std::size_t bytes() const override { return bytes_; }

 private:
  bool NextLine() {
    while (std::getline(input_, text_)) {
      ++line_;
      bytes_ += text_.size() + 1;
      if (text_.find_first_not_of(" \t\r") != std::string::npos) return true;
    }
    return false;
  }
  nlohmann::json Parse() const {
    try {
      nlohmann::json json = nlohmann::json::parse(text_);
      if (json.is_object()) return json;
    } catch (nlohmann::json::parse_error const& error) {
      throw BadRow({line_, error.byte}, "the line is not valid JSON");
    }
    throw BadRow({line_, 1}, "the line is not a JSON object");
  }
  // JSON readers tell no places of values: where the name first stands is the best that there is.
  FilePlace PlaceOf(std::string const& name) const {
    auto const at = text_.find("\"" + name + "\"");
    return {line_, at == std::string::npos ? 1 : at + 1};
  }
  RowField ToRowField(std::string const& name, nlohmann::json const& value) const {
    std::string const text = value.is_string() ? value.get<std::string>() : value.dump();
    auto const parse = [value](Type type) { return ParseJsonValue(type, value); };
    return {name, text, value.is_null(), PlaceOf(name), parse};
  }

  std::istream& input_;
  std::string text_;
  std::size_t line_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace

std::unique_ptr<RowSource> MakeCsvSource(std::istream& input) {
  return std::make_unique<CsvSource>(input);
}

std::unique_ptr<RowSource> MakeJsonSource(std::istream& input) {
  return std::make_unique<JsonSource>(input);
}

}  // namespace sagleme

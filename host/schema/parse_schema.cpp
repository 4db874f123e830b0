#include <fmt/format.h>

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <sagleme/failure.hpp>
#include <sagleme/schema_document.hpp>

#include "annotations/default_text.h"

namespace sagleme {
namespace {

using Json = nlohmann::json;

// Reads one object of the document, and names it in errors.
class Reader {
 public:
  Reader(Json const& json, std::string where) : json_(json), where_(std::move(where)) {
    if (!json_.is_object()) Refuse("is not an object");
  }

  [[noreturn]] void Refuse(std::string const& what) const {
    throw Failure(Failure::Kind::kBadInput, fmt::format("{} {}", where_, what));
  }
  void AllowOnly(std::initializer_list<std::string_view> names) const {
    for (auto const& [name, value] : json_.items()) {
      if (std::find(names.begin(), names.end(), name) == names.end()) {
        Refuse(fmt::format("has an unknown field \"{}\"", name));
      }
    }
  }
  std::string Text(char const* name) const {
    if (!json_.contains(name)) return {};
    Json const& field = json_.at(name);
    if (!field.is_string()) Refuse(fmt::format("is wrong: \"{}\" must be a string", name));
    return field.get<std::string>();
  }
  std::string Required(char const* name) const {
    std::string text = Text(name);
    if (text.empty()) Refuse(fmt::format("has no \"{}\"", name));
    if (text.find('\0') != std::string::npos) Refuse(fmt::format("has U+0000 in its \"{}\"", name));
    return text;
  }
  std::string Comment() const {
    std::string text = Text("comment");
    if (text.find('\0') != std::string::npos) Refuse("has U+0000 in its \"comment\"");
    return text;
  }
  // Any value, as it would stand in a document; empty where there is none.
  std::string Raw(char const* name) const {
    if (!json_.contains(name)) return {};
    Json const& field = json_.at(name);
    if (!field.is_binary()) return field.dump();
    return {field.get_binary().begin(), field.get_binary().end()};  // see Document
  }
  // "was" is the former name, or null where there is none.
  bool IsNull(char const* name) const { return json_.contains(name) && json_.at(name).is_null(); }
  std::string FormerName() const {
    if (IsNull("was")) return {};
    if (json_.contains("was") && !json_.at("was").is_string()) {
      Refuse("is wrong: \"was\" must be a string, or null for what is new");
    }
    return json_.contains("was") ? Required("was") : "";
  }
  bool Flag(char const* name) const {
    if (!json_.contains(name)) return false;
    if (!json_.at(name).is_boolean())
      Refuse(fmt::format("is wrong: \"{}\" must be true or false", name));
    return json_.at(name).get<bool>();
  }
  std::uint64_t Number(char const* name) const {
    if (!json_.contains(name)) return 0;
    if (!json_.at(name).is_number_unsigned()) {
      Refuse(fmt::format("is wrong: \"{}\" must be a number", name));
    }
    return json_.at(name).get<std::uint64_t>();
  }
  template <typename Each>
  void ForEach(char const* name, Each&& each) const {
    if (!json_.contains(name)) return;
    if (!json_.at(name).is_array()) Refuse(fmt::format("is wrong: \"{}\" must be an array", name));
    for (Json const& entry : json_.at(name)) each(entry);
  }
  std::string const& where() const { return where_; }

 private:
  Json const& json_;
  std::string where_;
};

Type ParseType(Reader const& reader) {
  std::string const name = reader.Required("type");
  for (std::size_t i = 1; i < kTypeNames.size(); ++i) {
    if (kTypeNames[i] == name) return static_cast<Type>(i);
  }
  reader.Refuse(fmt::format("has an unknown type \"{}\"", name));
}

Value ParseDefault(Reader const& reader, ColumnDoc const& column) {
  std::string const json = reader.Raw("default");
  if (json.empty() || json == "null") return Null{};
  if (column.type == Type::kReference) reader.Refuse("is a reference, which has no \"default\"");
  try {
    return annotations::ParseJsonValue(column.type, json);
  } catch (BadValue const& error) {
    reader.Refuse(fmt::format("has the wrong \"default\" {} for type {}: {}", json,
                              TypeName(column.type), error.what()));
  }
}

OnDelete ParseRule(Reader const& reader, ColumnDoc const& column) {
  std::string const name = reader.Text("on_delete");
  if (name.empty()) return OnDelete::kKeep;
  if (column.type != Type::kReference) {
    reader.Refuse("has an \"on_delete\" but is not a reference");
  }
  if (auto const rule = ParseOnDelete(name)) return *rule;
  reader.Refuse(fmt::format(
      "has an unknown \"on_delete\" \"{}\"; it is keep, refuse, set_null, cascade or last", name));
}

ColumnDoc ParseColumn(Json const& json, std::string const& table) {
  Reader const reader(json, fmt::format("a column of table {}", table));
  std::string const name = reader.Required("name");
  Reader const named(json, fmt::format("column {} of table {}", name, table));
  named.AllowOnly(
      {"name", "was", "id", "type", "target", "nullable", "default", "on_delete", "comment"});
  ColumnDoc column{name,
                   named.FormerName(),
                   named.Number("id"),
                   ParseType(named),
                   named.Flag("nullable"),
                   named.Text("target"),
                   named.IsNull("was")};
  if (MustBeNullable(column.type)) column.nullable = true;
  bool const reference = column.type == Type::kReference;
  if (reference == column.target.empty()) {
    named.Refuse(reference ? "is a reference without a \"target\""
                           : "has a \"target\" but is not a reference");
  }
  column.comment = named.Comment();
  column.fallback = ParseDefault(named, column);
  column.on_delete = ParseRule(named, column);
  return column;
}

IndexColumnDoc ParseIndexColumn(Json const& json, std::string const& index) {
  if (json.is_string()) return {json.get<std::string>(), false};
  Reader const reader(json, fmt::format("a column of index {}", index));
  reader.AllowOnly({"name", "descending"});
  return {reader.Required("name"), reader.Flag("descending")};
}

IndexDoc ParseIndex(Json const& json, std::string const& table) {
  Reader const reader(json, fmt::format("an index of table {}", table));
  reader.AllowOnly({"name", "unique", "columns", "comment"});
  IndexDoc index{reader.Required("name"), reader.Flag("unique"), {}};
  reader.ForEach("columns", [&](Json const& entry) {
    index.columns.push_back(ParseIndexColumn(entry, index.name));
  });
  index.comment = reader.Comment();
  return index;
}

TableDoc ParseTable(Json const& json, std::string const& source) {
  Reader const reader(json, fmt::format("{}: a table", source));
  std::string const name = reader.Required("name");
  Reader const named(json, fmt::format("{}: table {}", source, name));
  named.AllowOnly({"name", "was", "id", "base", "columns", "indexes", "abstract", "comment"});
  TableDoc table{name, named.FormerName(), named.Text("base"), named.Number("id"), {},
                 {},   named.IsNull("was")};
  table.comment = named.Comment();
  table.abstract = named.Flag("abstract");
  named.ForEach("columns",
                [&](Json const& entry) { table.columns.push_back(ParseColumn(entry, name)); });
  named.ForEach("indexes",
                [&](Json const& entry) { table.indexes.push_back(ParseIndex(entry, name)); });
  return table;
}

// Where a text stops being JSON: not all exceptions of the parser say so.
class FirstError final : public nlohmann::json_sax<Json> {
 public:
  explicit FirstError(std::string const& text) { Json::sax_parse(text, this); }

  std::size_t at() const { return at_; }
  std::string const& what() const { return what_; }

  bool parse_error(std::size_t position, std::string const& token,
                   Json::exception const& error) override {
    at_ = position;
    bool const of_number = dynamic_cast<Json::out_of_range const*>(&error) != nullptr;
    what_ = of_number ? fmt::format("the number {} is too large", token) : "not valid JSON";
    return false;
  }
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(std::int64_t) override { return true; }
  bool number_unsigned(std::uint64_t) override { return true; }
  bool number_float(double, std::string const&) override { return true; }
  bool string(std::string&) override { return true; }
  bool binary(Json::binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(std::string&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }

 private:
  std::size_t at_ = 0;
  std::string what_ = "not valid JSON";
};

// Reads a document. A number with a fraction or an exponent keeps its digits, which a double would
// lose: as binary data, which no document has. Nothing in a document nests deeply; what does would
// end the stack of who writes it in an error.
class Document : public nlohmann::detail::json_sax_dom_parser<Json> {
 public:
  Document(Json& whole, std::string const& source) : json_sax_dom_parser(whole), source_(source) {}

  bool number_float(double /*value*/, std::string const& text) {
    Json::binary_t digits(std::vector<std::uint8_t>(text.begin(), text.end()));
    return binary(digits);
  }
  bool start_object(std::size_t size) {
    Enter();
    return json_sax_dom_parser::start_object(size);
  }
  bool end_object() {
    --depth_;
    return json_sax_dom_parser::end_object();
  }
  bool start_array(std::size_t size) {
    Enter();
    return json_sax_dom_parser::start_array(size);
  }
  bool end_array() {
    --depth_;
    return json_sax_dom_parser::end_array();
  }

 private:
  void Enter() {
    constexpr int kDeepest = 20;
    if (++depth_ <= kDeepest) return;
    throw Failure(Failure::Kind::kBadInput,
                  fmt::format("{}: arrays and objects are nested deeper than {}, which no schema "
                              "document is",
                              source_, kDeepest));
  }

  std::string const& source_;
  int depth_ = 0;
};

Json ParseJson(std::string const& text, std::string const& source) {
  try {
    Json json;
    Document document(json, source);
    Json::sax_parse(text, &document);
    return json;
  } catch (Json::exception const&) {
    FirstError const error(text);
    auto const end = text.begin() + static_cast<std::ptrdiff_t>(std::min(error.at(), text.size()));
    auto const line = 1 + std::count(text.begin(), end, '\n');
    throw Failure(Failure::Kind::kBadInput, fmt::format("{}:{}: {}", source, line, error.what()));
  }
}

}  // namespace

SchemaDoc ParseSchema(std::string const& text, std::string const& source) {
  Json const json = ParseJson(text, source);
  Reader const reader(json, source);
  reader.AllowOnly({"schema", "database", "part", "tables"});
  if (reader.Number("schema") != 1) reader.Refuse("is not a schema document of version 1");
  SchemaDoc schema;
  schema.database = static_cast<std::int64_t>(reader.Number("database"));
  schema.part = reader.Text("part");
  reader.ForEach("tables",
                 [&](Json const& entry) { schema.tables.push_back(ParseTable(entry, source)); });
  return schema;
}

}  // namespace sagleme

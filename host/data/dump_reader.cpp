#include "data/dump_reader.h"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sagleme/failure.hpp>

#include "data/plain_array.h"

namespace sagleme {
namespace {

using Json = nlohmann::json;

// Takes `word` and a number from the beginning of a text; false when it begins otherwise.
bool Take(std::string_view& text, std::string_view word, std::uint64_t* number) {
  if (!text.starts_with(word)) return false;
  text.remove_prefix(word.size());
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

std::uint64_t NumberOf(JsonMember const* member, bool* is_number) {
  std::uint64_t number = 0;
  std::string_view const text = member == nullptr ? std::string_view() : member->value.text;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  *is_number = member != nullptr && member->value.kind == RowValue::Kind::kNumber &&
               error == std::errc() && end == text.data() + text.size();
  return number;
}

}  // namespace

DumpReader::DumpReader(std::istream& input, std::string source, std::string scratch)
    : input_(&input), source_(std::move(source)), scratch_(std::move(scratch)) {
  pipe_ = input.tellg() == std::istream::pos_type(-1);
  input.clear();
  if (pipe_) {
    kept_.open(scratch_, std::ios::in | std::ios::out | std::ios::trunc | std::ios::binary);
    if (!kept_) {
      throw Failure(Failure::Kind::kRefused,
                    fmt::format("cannot write {}: {}", scratch_, std::strerror(errno)));
    }
  }
  text_ = std::make_unique<TextInput>(input);
  ReadSchemaLine();
  by_table_.resize(schema_.tables.size());
}

void DumpReader::Refuse(std::string const& what) const {
  throw Failure(Failure::Kind::kBadData, fmt::format("{}:{}: {}", source_, line_number_, what),
                "No database was created.");
}

void DumpReader::RefuseAll(std::string const& what) const {
  throw Failure(Failure::Kind::kBadData, fmt::format("{}: {}", source_, what),
                "No database was created.");
}

void DumpReader::NextLine() {
  ++line_number_;
  if (!text_->NextLine(line_)) {
    Refuse(line_number_ == 1
               ? "the dump is empty"
               : "the dump is cut: the last line, which counts the objects, is missing");
  }
  if (!pipe_) return;
  kept_ << line_ << '\n';
  if (!kept_) {
    throw Failure(Failure::Kind::kRefused,
                  fmt::format("cannot write {}: {}", scratch_, std::strerror(errno)));
  }
}

void DumpReader::ReadSchemaLine() {
  NextLine();
  schema_ = ParseSchema(std::string(line_), source_);
  ValidateSchema(schema_, source_);
}

// The beginning of a line as dumps are written, up to the first value.
bool DumpReader::TakeHead(std::string_view& rest, DumpedObject* object) const {
  constexpr std::string_view kValues = ", \"v\": [";
  std::uint64_t table = 0;
  if (!Take(rest, "{\"t\": ", &table) || !Take(rest, ", \"id\": ", &object->id.value)) return false;
  if (!rest.starts_with(kValues) || table >= schema_.tables.size()) return false;
  rest.remove_prefix(kValues.size());
  object->table = table;
  return true;
}

// Most lines have the form that dumps are written in. False for one that has another, which may be
// valid too.
bool DumpReader::TakeLine(DumpedObject* object) {
  std::string_view rest = line_;
  return TakeHead(rest, object) && object->id.value != 0 && TakePlainArray(rest, values_) &&
         rest == "}";
}

void DumpReader::ParseLine(DumpedObject* object) {
  try {
    json_.Parse(line_);
  } catch (BadJson const& bad) {
    Refuse("not an object of the dump");
  }
  bool has_table = false;
  bool has_id = false;
  object->table = NumberOf(json_.Find("t"), &has_table);
  object->id.value = NumberOf(json_.Find("id"), &has_id);
  JsonMember const* const values = json_.Find("v");
  bool const whole = has_table && has_id && object->id.value != 0 && values != nullptr &&
                     values->value.kind == RowValue::Kind::kArray &&
                     object->table < schema_.tables.size();
  if (!whole) Refuse("not an object of the dump");
  values_.clear();
  for (std::size_t i = 0; i < values->item_count; ++i) {
    values_.push_back(json_.item(*values, i).view());
  }
}

bool DumpReader::NextHead(DumpedObject* object) {
  NextLine();
  if (AtEnd()) return false;
  // Whether the rest of the line is right shows when it is read.
  std::string_view rest = line_;
  if (!TakeHead(rest, object)) ParseLine(object);
  ++objects_;
  ++by_table_[object->table];
  return true;
}

bool DumpReader::Next(DumpedObject* object) {
  NextLine();
  if (AtEnd()) return false;
  if (!TakeLine(object)) ParseLine(object);
  return true;
}

void DumpReader::CheckEnd() {
  Json const counted = {{"end", {{"objects", objects_}, {"tables", by_table_}}}};
  if (Json::parse(line_, nullptr, false) != counted) {
    Refuse("the dump is not whole: its last line counts other objects");
  }
  while (text_->NextLine(line_)) {
    ++line_number_;
    if (line_.find_first_not_of(" \t\r") == std::string_view::npos) continue;
    Refuse("there is something behind the line that counts the objects");
  }
}

void DumpReader::Rewind() {
  pipe_ = false;
  std::istream* again = input_;
  if (kept_.is_open()) {
    kept_.flush();
    again = &kept_;
  }
  again->clear();
  again->seekg(0);
  text_ = std::make_unique<TextInput>(*again);
  line_number_ = 0;
  NextLine();
}

}  // namespace sagleme

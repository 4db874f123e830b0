#include "data/flat_json.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace sagleme {

using Kind = RowValue::Kind;

// Handles the reader's events. `depth` counts open brackets: members are at 1, items of an array at
// 2. Of an object used as a value only units are kept.
class FlatJson::Handler {
 public:
  explicit Handler(FlatJson& out) : out_(out) {}

  bool null() { return Plain(Kind::kNull, {}); }
  bool boolean(bool value) { return Plain(Kind::kBool, value ? "true" : "false"); }
  bool number_integer(std::int64_t value) { return Integer(value); }
  bool number_unsigned(std::uint64_t value) {
    return object_ == nullptr ? Integer(value) : Unit(value);
  }
  bool number_float(double, std::string const& text) { return Plain(Kind::kNumber, text); }
  bool string(std::string const& text) { return Plain(Kind::kText, text); }
  bool binary(std::vector<std::uint8_t> const&) { return false; }

  bool start_object(std::size_t) {
    if (depth_ == 0) whole_ = true;
    if (object_ != nullptr) stage_ = Stage::kOther;
    JsonLiteral* const literal = object_ == nullptr ? Begin(Kind::kObject) : nullptr;
    ++depth_;
    if (literal != nullptr) {
      object_ = literal;
      object_depth_ = depth_;
      stage_ = Stage::kOpen;
      literal->units.clear();
    }
    return true;
  }
  bool key(std::string& name) {
    if (depth_ == 1) {
      out_.AddMember().name.swap(name);
    } else if (object_ != nullptr) {
      stage_ = stage_ == Stage::kOpen && name == "utf16" ? Stage::kNamed : Stage::kOther;
    }
    return true;
  }
  bool end_object() {
    if (object_ != nullptr && depth_ == object_depth_) {
      if (stage_ == Stage::kDone) object_->kind = Kind::kUnits;
      object_ = nullptr;
    }
    --depth_;
    return true;
  }
  bool start_array(std::size_t) {
    if (object_ == nullptr) {
      Begin(Kind::kArray);
    } else {
      stage_ = stage_ == Stage::kNamed ? Stage::kUnits : Stage::kOther;
    }
    ++depth_;
    return true;
  }
  bool end_array() {
    if (object_ != nullptr && stage_ == Stage::kUnits) stage_ = Stage::kDone;
    --depth_;
    return true;
  }
  // The reader reports a number that no double holds as a syntax error, and is past it then.
  [[noreturn]] bool parse_error(std::size_t at, std::string const& token,
                                std::exception const& error) {
    if (dynamic_cast<nlohmann::json::out_of_range const*>(&error) == nullptr) {
      throw BadJson(at, "the line is not valid JSON");
    }
    throw BadJson(at - std::min(at - 1, token.size() - 1),
                  fmt::format("the number {} is out of range", token));
  }
  // Whether the line is an object.
  bool whole() const { return whole_; }

 private:
  // How much of {"utf16": [units]} has been seen.
  enum class Stage { kOpen, kNamed, kUnits, kDone, kOther };

  bool Unit(std::uint64_t value) {
    if (stage_ != Stage::kUnits || value == 0 || value > 0xFFFF) {
      stage_ = Stage::kOther;
    } else {
      object_->units.push_back(static_cast<char16_t>(value));
    }
    return true;
  }
  template <typename T>
  bool Integer(T value) {
    char digits[24];
    auto const [end, error] = std::to_chars(digits, std::end(digits), value);
    return Plain(Kind::kNumber, std::string_view(digits, static_cast<std::size_t>(end - digits)));
  }
  bool Plain(Kind kind, std::string_view text) {
    if (object_ != nullptr) {
      stage_ = Stage::kOther;
    } else if (JsonLiteral* const literal = Begin(kind)) {
      literal->text = text;
    }
    return true;
  }
  // The literal to fill with a value here; null if none is kept.
  JsonLiteral* Begin(Kind kind) {
    if (depth_ == 0 || depth_ > 2 || out_.member_count_ == 0) return nullptr;
    JsonMember& member = out_.members_[out_.member_count_ - 1];
    JsonLiteral* literal = &member.value;
    if (depth_ == 2) {
      if (member.item_count++ == 0) member.first_item = out_.item_count_;
      literal = &out_.AddItem();
    }
    literal->kind = kind;
    return literal;
  }

  FlatJson& out_;
  std::size_t depth_ = 0;
  bool whole_ = false;
  JsonLiteral* object_ = nullptr;  // the value that is being read
  std::size_t object_depth_ = 0;   // of its members
  Stage stage_ = Stage::kOther;
};

JsonMember& FlatJson::AddMember() {
  if (member_count_ == members_.size()) members_.emplace_back();
  JsonMember& member = members_[member_count_++];
  member.value.kind = Kind::kNull;
  member.item_count = 0;
  return member;
}

JsonLiteral& FlatJson::AddItem() {
  if (item_count_ == items_.size()) items_.emplace_back();
  return items_[item_count_++];
}

JsonMember const* FlatJson::Find(std::string_view name) const {
  for (std::size_t i = 0; i < member_count_; ++i) {
    if (members_[i].name == name) return &members_[i];
  }
  return nullptr;
}

void FlatJson::Parse(std::string_view line) {
  member_count_ = item_count_ = 0;
  Handler handler(*this);
  try {
    nlohmann::json::sax_parse(line.begin(), line.end(), &handler);
    if (!handler.whole()) throw BadJson(1, "the line is not a JSON object");
  } catch (BadJson const&) {
    member_count_ = 0;
    throw;
  }
}

}  // namespace sagleme

#ifndef SAGLEME_HOST_DATA_FLAT_JSON_H
#define SAGLEME_HOST_DATA_FLAT_JSON_H

// One line of JSON: an object whose members are plain values, or arrays of plain values. Reuses its
// memory from line to line.

#include <cstddef>
#include <deque>
#include <sagleme/host/rows.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sagleme {

// `byte` counts from 1.
class BadJson : public std::runtime_error {
 public:
  BadJson(std::size_t byte, std::string const& what) : std::runtime_error(what), byte_(byte) {}
  std::size_t byte() const { return byte_; }

 private:
  std::size_t byte_;
};

// {"utf16": [units]} is a text, of kUnits.
struct JsonLiteral {
  RowValue::Kind kind = RowValue::Kind::kNull;
  std::string text;
  std::u16string units;

  // Valid while the literal is unchanged.
  RowValue view() const { return {0, kind, text, units}; }
};

struct JsonMember {
  std::string name;
  JsonLiteral value;           // of an array its kind alone
  std::size_t first_item = 0;  // of an array that holds plain values, among all items
  std::size_t item_count = 0;
};

class FlatJson {
 public:
  // Throws BadJson; then there are no members.
  void Parse(std::string_view line);

  // Of the line read last, in its order.
  std::size_t size() const { return member_count_; }
  JsonMember const& member(std::size_t i) const { return members_[i]; }
  // Null if there is none.
  JsonMember const* Find(std::string_view name) const;
  // REQUIRES: i < member.item_count.
  JsonLiteral const& item(JsonMember const& member, std::size_t i) const {
    return items_[member.first_item + i];
  }

 private:
  class Handler;

  JsonMember& AddMember();
  JsonLiteral& AddItem();

  std::deque<JsonMember> members_;
  std::deque<JsonLiteral> items_;
  std::size_t member_count_ = 0;
  std::size_t item_count_ = 0;
};

}  // namespace sagleme

#endif

#ifndef SAGLEME_TOOL_QUERY_CONDITION_H
#define SAGLEME_TOOL_QUERY_CONDITION_H

// Conditions on columns, as --where takes them.
//
//   Pages=10  Pages!=10       equal, not equal
//   Pages<10  <=  >  >=       below, above; texts compare by their UTF-16 code units
//   Pages=10..20              from one value to another, both included; not for texts
//   Title^=The  Title*=and    begins with, contains; for texts
//   Pages=  Pages!=           null or the empty text, and neither of them
//   Owner=Name=Ada            a reference by a unique column of its target, or by id
//
// Null is unequal to every value and neither below nor above one.

#include <compare>
#include <sagleme/host.hpp>
#include <string>

namespace tool {

enum class Operator {
  kEqual,
  kNotEqual,
  kLess,
  kLessOrEqual,
  kGreater,
  kGreaterOrEqual,
  kBegins,
  kContains,
  kBetween,
};

struct Condition {
  sagleme::Column const* column = nullptr;
  Operator op = Operator::kEqual;
  sagleme::Value value;      // null: the condition asks for null or the empty text
  sagleme::Value last = {};  // of kBetween

  bool Holds(sagleme::Value const& found) const;
};

// The columns are those of the table, which must outlive the condition. Throws Failure with kUsage
// for a malformed condition, with kRefused for an unknown column.
Condition ParseCondition(sagleme::Transaction& transaction, sagleme::Table const& table,
                         std::string const& text);

// A value of a column as a user writes it; of a reference also column=value. Failure with kUsage.
sagleme::Value ParseTyped(sagleme::Transaction& transaction, sagleme::Column const& column,
                          std::string const& text);

// The order of an index: null first, texts by code unit. Not a number is unordered.
// REQUIRES: values of one type, or null.
std::partial_ordering Compare(sagleme::Value const& a, sagleme::Value const& b);

}  // namespace tool

#endif

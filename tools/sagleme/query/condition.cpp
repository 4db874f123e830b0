#include "query/condition.h"

#include <fmt/format.h>

#include <optional>
#include <sagleme/host/references.hpp>

#include "base/failure.h"
#include "output/value_text.h"
#include "query/names.h"

namespace tool {
namespace {

struct OperatorText {
  char const* text;
  Operator op;
};

// Longer ones before their beginnings.
constexpr OperatorText kOperators[] = {
    {"!=", Operator::kNotEqual}, {"<=", Operator::kLessOrEqual}, {">=", Operator::kGreaterOrEqual},
    {"^=", Operator::kBegins},   {"*=", Operator::kContains},    {"=", Operator::kEqual},
    {"<", Operator::kLess},      {">", Operator::kGreater}};

OperatorText const* OperatorAt(std::string const& text, std::size_t at) {
  for (OperatorText const& each : kOperators) {
    if (text.compare(at, std::string_view(each.text).size(), each.text) == 0) return &each;
  }
  return nullptr;
}

struct Parts {
  std::string column;
  Operator op = Operator::kEqual;
  std::string value;
};

// The first operator after the name of a column; names may contain characters of operators. If no
// column fits, the first operator of all.
std::optional<Parts> Split(sagleme::Table const& table, std::string const& text) {
  std::optional<Parts> first;
  for (std::size_t at = 1; at < text.size(); ++at) {
    OperatorText const* const found = OperatorAt(text, at);
    if (found == nullptr) continue;
    std::size_t const length = std::string_view(found->text).size();
    Parts parts{text.substr(0, at), found->op, text.substr(at + length)};
    if (table.FindColumn(Typed(parts.column)) != nullptr) return parts;
    if (!first) first = std::move(parts);
    at += length - 1;
  }
  return first;
}

bool IsText(Operator op) { return op == Operator::kBegins || op == Operator::kContains; }

bool IsNullOrEmpty(sagleme::Value const& value) {
  auto const* const text = std::get_if<std::u16string>(&value);
  return sagleme::IsNull(value) || (text != nullptr && text->empty());
}

bool HoldsForText(Operator op, sagleme::Value const& found, sagleme::Value const& value) {
  auto const* const text = std::get_if<std::u16string>(&found);
  if (text == nullptr) return false;
  auto const& part = std::get<std::u16string>(value);
  return op == Operator::kBegins ? text->starts_with(part)
                                 : text->find(part) != std::u16string::npos;
}

bool HoldsInOrder(Operator op, std::partial_ordering order) {
  switch (op) {
    case Operator::kEqual:
      return order == 0;
    case Operator::kNotEqual:
      return order != 0;
    case Operator::kLess:
      return order < 0;
    case Operator::kLessOrEqual:
      return order <= 0;
    case Operator::kGreater:
      return order > 0;
    case Operator::kGreaterOrEqual:
    case Operator::kBetween:
      return order >= 0;
    case Operator::kBegins:
    case Operator::kContains:
      break;
  }
  return false;
}

[[noreturn]] void Refuse(std::string const& text, std::string const& what) {
  throw Failure(Exit::kUsage, fmt::format("--where {}: {}", text, what));
}

void RefuseWrongTypes(Condition const& condition, std::string const& text) {
  sagleme::Type const type = condition.column->type;
  if (IsText(condition.op) && type != sagleme::Type::kString) {
    Refuse(text, fmt::format("^= and *= are for texts, and column {} is a {}",
                             sagleme::ToUtf8(condition.column->name), sagleme::TypeName(type)));
  }
  bool const equality = condition.op == Operator::kEqual || condition.op == Operator::kNotEqual;
  bool const ordered = type != sagleme::Type::kReference && type != sagleme::Type::kBinary;
  if (!equality && !ordered) {
    Refuse(text, fmt::format("column {} is a {}, which knows = and != only",
                             sagleme::ToUtf8(condition.column->name), sagleme::TypeName(type)));
  }
}

template <typename T>
std::partial_ordering CompareTyped(T const& a, T const& b) {
  if constexpr (std::is_same_v<T, sagleme::Null>) {
    return std::partial_ordering::equivalent;
  } else {
    return a <=> b;
  }
}

}  // namespace

std::partial_ordering Compare(sagleme::Value const& a, sagleme::Value const& b) {
  if (a.index() != b.index()) {
    return sagleme::IsNull(a) ? std::partial_ordering::less : std::partial_ordering::greater;
  }
  return std::visit(
      [&b]<typename T>(T const& typed) { return CompareTyped(typed, std::get<T>(b)); }, a);
}

bool Condition::Holds(sagleme::Value const& found) const {
  if (sagleme::IsNull(value)) return IsNullOrEmpty(found) == (op == Operator::kEqual);
  if (IsText(op)) return HoldsForText(op, found, value);
  if (sagleme::IsNull(found)) return op == Operator::kNotEqual;
  if (!HoldsInOrder(op, Compare(found, value))) return false;
  return op != Operator::kBetween || Compare(found, last) <= 0;
}

sagleme::Value ParseTyped(sagleme::Transaction& transaction, sagleme::Column const& column,
                          std::string const& text) {
  bool const by_key = column.type == sagleme::Type::kReference &&
                      text.find_first_not_of("0123456789") != std::string::npos;
  try {
    if (by_key) return sagleme::ReferencedObject(transaction, column, text);
    return ParseValue(column.type, text);
  } catch (BadValue const& error) {
    throw Failure(Exit::kUsage,
                  fmt::format("column {}: {}", sagleme::ToUtf8(column.name), error.what()));
  }
}

Condition ParseCondition(sagleme::Transaction& transaction, sagleme::Table const& table,
                         std::string const& text) {
  auto const parts = Split(table, text);
  if (!parts) Refuse(text, "a condition is a column, an operator and a value, as in Pages>=10");
  Condition condition;
  condition.column = &ColumnNamed(table, parts->column);
  condition.op = parts->op;
  RefuseWrongTypes(condition, text);
  if (parts->value.empty()) {
    if (condition.op == Operator::kEqual || condition.op == Operator::kNotEqual) return condition;
    Refuse(text, "a value is missing behind the operator");
  }
  auto const dots = parts->value.find("..");
  bool const range = condition.op == Operator::kEqual && dots != std::string::npos &&
                     condition.column->type != sagleme::Type::kString;
  condition.value = ParseTyped(transaction, *condition.column,
                               parts->value.substr(0, range ? dots : std::string::npos));
  if (!range) return condition;
  condition.op = Operator::kBetween;
  RefuseWrongTypes(condition, text);
  condition.last = ParseTyped(transaction, *condition.column, parts->value.substr(dots + 2));
  return condition;
}

}  // namespace tool

#include "expressions.h"

#include <iterator>

namespace sql_differential {
namespace {

constexpr char const* kTexts[] = {
    "a",      "",        "b",      "A",   "ab",   "aB",  "Ab",         "abc",          "abd",
    "B",      "z",       "Z",      "10",  "9",    "1e1", " 10",        "-1",           "0.5",
    "x%",     "a_c",     "%",      "Ä",   "ä",    "日",  "\U0001F600", "a\U0001F600b", "\uE000",
    "\uFFFD", "a\uFFFD", "\uFF00", "a*b", "[ab]", "?",   "ABC",        "it''s",        "\u00A0"};
constexpr char const* kPatterns[] = {"a%",  "%",       "ab%", "A%",      "aB_",         "%b",
                                     "a_c", "10%",     "_",   "ä%",      "\U0001F600%", "x\\%%",
                                     "",    "\uE000%", "a%b", "a%\uFFFD"};
constexpr char const* kGlobs[] = {"a*", "*",           "ab*",   "A*", "[ab]*", "a?c", "10*",    "?",
                                  "ä*", "\U0001F600*", "[^a]*", "",   "a[*]b", "a",   "\uE000*"};
constexpr char const* kIntegers[] = {"1",
                                     "0",
                                     "2",
                                     "3",
                                     "-1",
                                     "5",
                                     "7",
                                     "10",
                                     "12",
                                     "100",
                                     "9007199254740992",
                                     "9007199254740993",
                                     "9223372036854775807",
                                     "-9223372036854775807",
                                     "4294967296",
                                     "-5"};
constexpr char const* kSmall[] = {"1", "0", "2", "3", "4", "5", "7", "-1", "10", "-3", "12", "100"};
constexpr char const* kReals[] = {"0.5",
                                  "0.0",
                                  "1.5",
                                  "-2.25",
                                  "1.0",
                                  "2.0",
                                  "0.25",
                                  "10.0",
                                  "-0.75",
                                  "100.5",
                                  "1e999",
                                  "-1e999",
                                  "1e300",
                                  "9223372036854775808.0",
                                  "18446744073709549568.0",
                                  "9007199254740992.0",
                                  "3.0e-320",
                                  "0.1",
                                  "-1e300"};
constexpr char const* kDyadic[] = {"0.5",  "0.0",  "1.5",   "-2.25", "1.0",   "2.0",
                                   "0.25", "10.0", "-0.75", "100.5", "3.125", "7.0"};
constexpr char const* kBlobs[] = {"x'00'", "x''", "x'61'", "x'6162'", "x'ff'", "x'00ff'"};

// Above 2^63 a number of ours is the nearest real number to SQLite.
Dual const kUnsigned[] = {"1",
                          "0",
                          "2",
                          "3",
                          "5",
                          "10",
                          "100",
                          "9007199254740993",
                          "9223372036854775807",
                          {"'9223372036854775808'", "9223372036854775808.0"},
                          {"'9223372036854775809'", "9223372036854775808.0"},
                          {"'9223372036854777856'", "9223372036854777856.0"},
                          {"'18446744073709551615'", "18446744073709551616.0"}};
Dual const kDecimals[] = {"0.5",
                          "0",
                          "1.25",
                          "-3.75",
                          "10",
                          "2",
                          {"'9007199254.740993'", "9007199254740993 / 1000000.0"},
                          {"'9007199254.740992'", "9007199254740992 / 1000000.0"},
                          {"'9223372036854.775807'", "9223372036854775807 / 1000000.0"},
                          {"'-9223372036854.775807'", "-9223372036854775807 / 1000000.0"}};

std::string Quote(std::string const& text) { return "'" + text + "'"; }

bool IsRange(std::string const& op) { return op == "<" || op == "<=" || op == ">" || op == ">="; }

}  // namespace

Kind Expressions::AnyKind() {
  constexpr Kind kKinds[] = {Kind::kInteger, Kind::kText, Kind::kReal};
  return choices_.Pick(kKinds);
}

Dual Expressions::Constant(Kind kind) {
  switch (kind) {
    case Kind::kInteger:
      return choices_.Pick(kIntegers);
    case Kind::kReal:
      return choices_.Pick(kReals);
    case Kind::kText:
      return Quote(choices_.Pick(kTexts));
    case Kind::kBlob:
      return choices_.Pick(kBlobs);
  }
  return "NULL";
}

Dual Expressions::ConstantFor(ColumnMeta const& column, std::vector<std::int64_t> const& targets) {
  if (!column.required && choices_.Chance(15)) return "NULL";
  if (column.reference()) {
    return targets.empty() ? Dual("NULL") : Dual(std::to_string(choices_.Pick(targets)));
  }
  if (column.type == "boolean") return choices_.Chance(50) ? "1" : "0";
  if (column.type == "uint")
    return column.tame ? Dual(std::to_string(choices_.Below(12))) : choices_.Pick(kUnsigned);
  if (column.type == "decimal")
    return column.tame ? Dual(choices_.Pick(kDyadic)) : choices_.Pick(kDecimals);
  if (column.type == "double" && choices_.Chance(10)) return {"x'7ff8000000000000'", "NULL"};
  if (column.type == "double" && choices_.Chance(10)) return "-0.0";
  if (column.type == "text" && !column.unique && choices_.Chance(5))
    return {"x'610000d8'", "'a\uFFFD'"};
  if (column.tame && column.kind == Kind::kInteger) return choices_.Pick(kSmall);
  if (column.tame && column.kind == Kind::kReal) return choices_.Pick(kDyadic);
  return Constant(column.kind);
}

Dual Expressions::Column(Scope const& scope, Kind kind) {
  std::vector<std::string> fitting;
  for (Reachable const& each : scope) {
    if (each.kind == kind) fitting.push_back(each.text);
  }
  return fitting.empty() ? Constant(kind) : Dual(choices_.Pick(fitting));
}

Dual Expressions::Tame(Scope const& scope) {
  std::vector<std::string> fitting;
  for (Reachable const& each : scope) {
    if (each.tame && (each.kind == Kind::kInteger || each.kind == Kind::kReal)) {
      fitting.push_back(each.text);
    }
  }
  if (fitting.empty()) return choices_.Pick(kSmall);
  Dual const column = choices_.Pick(fitting);
  if (choices_.Chance(20)) return "(" + column + " + " + choices_.Pick(kSmall) + ")";
  if (choices_.Chance(10)) return "(" + column + " * " + choices_.Pick(kSmall) + ")";
  return column;
}

Dual Expressions::Integer(Scope const& scope, int depth) {
  switch (choices_.Below(12)) {
    case 0:
    case 1:
    case 2:
      return Column(scope, Kind::kInteger);
    case 3:
      return choices_.Pick(kSmall);
    case 4:
      return Constant(Kind::kInteger);
    case 5: {
      constexpr char const* kOperators[] = {" + ", " - ", " * ", " / ", " % ", " & ", " | "};
      Dual const op = choices_.Pick(kOperators);
      return "(" + Value(scope, Kind::kInteger, depth - 1) + op + choices_.Pick(kSmall) + ")";
    }
    case 6:
      return "length(" + Value(scope, Kind::kText, depth - 1) + ")";
    case 7:
      return "(" + Condition(scope, depth - 1) + ")";
    case 8:
      return "CAST(" + Value(scope, Kind::kText, depth - 1) + " AS INTEGER)";
    case 9:
      return "nullif(" + Value(scope, Kind::kInteger, depth - 1) + ", " + choices_.Pick(kSmall) +
             ")";
    case 10:
      return "max(" + Column(scope, Kind::kInteger) + ", " + choices_.Pick(kSmall) + ")";
    default:
      return "coalesce(" + Column(scope, Kind::kInteger) + ", " + choices_.Pick(kSmall) + ")";
  }
}

Dual Expressions::Real(Scope const& scope, int depth) {
  switch (choices_.Below(6)) {
    case 0:
    case 1:
    case 2:
      return Column(scope, Kind::kReal);
    case 3:
      return Constant(Kind::kReal);
    case 4:
      return "(" + Column(scope, Kind::kReal) + " + " + choices_.Pick(kDyadic) + ")";
    default:
      return "CASE WHEN " + Condition(scope, depth - 1) + " THEN " + Column(scope, Kind::kReal) +
             " ELSE " + choices_.Pick(kDyadic) + " END";
  }
}

Dual Expressions::Text(Scope const& scope, int depth) {
  switch (choices_.Below(10)) {
    case 0:
    case 1:
    case 2:
    case 3:
      return Column(scope, Kind::kText);
    case 4:
      return Constant(Kind::kText);
    case 5:
      return "(" + Value(scope, Kind::kText, depth - 1) + " || " + Constant(Kind::kText) + ")";
    case 6:
      return "upper(" + Column(scope, Kind::kText) + ")";
    case 7:
      return "substr(" + Value(scope, Kind::kText, depth - 1) + ", 1, 2)";
    case 8:
      return "typeof(" + Column(scope, AnyKind()) + ")";
    default:
      return "coalesce(" + Column(scope, Kind::kText) + ", " + Constant(Kind::kText) + ")";
  }
}

Dual Expressions::Value(Scope const& scope, Kind kind, int depth) {
  if (depth <= 0) return choices_.Chance(30) ? Constant(kind) : Column(scope, kind);
  if (choices_.Chance(6)) return "(" + subquery_(scope, kind, Use::kValue, depth - 1) + ")";
  switch (kind) {
    case Kind::kInteger:
      return Integer(scope, depth);
    case Kind::kReal:
      return Real(scope, depth);
    case Kind::kText:
      return Text(scope, depth);
    case Kind::kBlob:
      return Column(scope, Kind::kBlob);
  }
  return "NULL";
}

Dual Expressions::Operator() {
  constexpr char const* kOperators[] = {
      " = ", " < ", " > ", " <= ", " >= ", " <> ", " IS ", " IS NOT ", " = "};
  return choices_.Pick(kOperators);
}

// What an index can answer, mostly.
Dual Expressions::AgainstConstant(Scope const& scope) {
  if (scope.empty()) return "1";
  Reachable const& column = choices_.Pick(scope);
  Kind const kind = choices_.Chance(85) ? column.kind : AnyKind();
  Dual const value = choices_.Chance(8)                      ? Dual("NULL")
                     : column.tame && kind == Kind::kInteger ? Dual(choices_.Pick(kSmall))
                                                             : Constant(kind);
  Dual text = Dual(column.text) + Operator() + value;
  if (column.kind == Kind::kText && choices_.Chance(10)) text += " COLLATE NOCASE";
  return text;
}

Dual Expressions::Comparison(Scope const& scope, int depth) {
  Kind const kind = AnyKind();
  Kind const other = choices_.Chance(85) ? kind : AnyKind();
  return Value(scope, kind, depth - 1) + Operator() + Value(scope, other, depth - 1);
}

Dual Expressions::Pattern(Scope const& scope, int depth) {
  Dual const text =
      choices_.Chance(80)
          ? Column(scope, Kind::kText)
          : Value(scope, AnyKind() == Kind::kText ? Kind::kText : Kind::kInteger, depth - 1);
  Dual const inverse = choices_.Chance(15) ? " NOT" : "";
  if (choices_.Chance(40)) return text + inverse + " GLOB " + Quote(choices_.Pick(kGlobs));
  Dual const pattern = Quote(choices_.Pick(kPatterns));
  return text + inverse + " LIKE " + pattern + (choices_.Chance(15) ? " ESCAPE '\\'" : "");
}

Dual Expressions::Membership(Scope const& scope, int depth) {
  Kind const kind = choices_.Chance(10) ? Kind::kBlob : AnyKind();
  Dual text = Column(scope, kind) + (choices_.Chance(15) ? " NOT IN (" : " IN (");
  if (choices_.Chance(25)) return text + subquery_(scope, kind, Use::kList, depth - 1) + ")";
  std::uint32_t const count = choices_.Below(5);
  for (std::uint32_t i = 0; i < count; ++i) {
    text += i == 0 ? "" : ", ";
    text += choices_.Chance(8)    ? Dual("NULL")
            : choices_.Chance(85) ? Constant(kind)
                                  : Constant(AnyKind());
  }
  return text + ")";
}

Dual Expressions::OfReference(Scope const& scope) {
  std::vector<Reachable> fitting;
  for (Reachable const& each : scope) {
    if (!each.target.empty()) fitting.push_back(each);
  }
  if (fitting.empty()) return AgainstConstant(scope);
  Reachable const& column = choices_.Pick(fitting);
  std::string const root = CopyOf(TableNamed(column.target));
  if (column.target == "Person") {
    Dual const name(column.text + "->'Name'",
                    "(SELECT Name FROM " + root + " AS r WHERE r._oid = " + column.text + ")");
    Dual const boss(column.text + "->'Boss'->'Name'",
                    "(SELECT s.Name FROM " + root + " AS r JOIN " + root +
                        " AS s ON s._oid = r.Boss WHERE r._oid = " + column.text + ")");
    return (choices_.Chance(30) ? boss : name) + Operator() + Constant(Kind::kText);
  }
  return Dual("is_of(" + column.text + ", 'Novel')",
              "(SELECT " + OfTable(TableNamed("Novel")) + " FROM " + root +
                  " AS r WHERE r._oid = " + column.text + ")") +
         Operator() + "1";
}

Dual Expressions::RowValues(Scope const& scope, int depth) {
  constexpr char const* kOperators[] = {"=", "<", ">=", ">", "<=", "<>"};
  std::string const op = choices_.Pick(kOperators);
  Kind const first = AnyKind();
  Kind const second = AnyKind();
  Dual const left = "(" + Column(scope, first) + ", " + Column(scope, second) + ") ";
  if (IsRange(op) || depth <= 1) {
    return left + op + " (" + Constant(first) + ", " + Constant(second) + ")";
  }
  return left + "IN (VALUES (" + Constant(first) + ", " + Constant(second) + "), (" +
         Constant(first) + ", " + Constant(second) + "))";
}

Dual Expressions::Condition(Scope const& scope, int depth) {
  if (depth <= 0) return AgainstConstant(scope);
  switch (choices_.Below(16)) {
    case 0:
    case 1:
    case 2:
    case 3:
      return AgainstConstant(scope);
    case 4:
      return Comparison(scope, depth);
    case 5: {
      Kind const kind = AnyKind();
      return Column(scope, kind) + " BETWEEN " + Constant(kind) + " AND " + Constant(kind);
    }
    case 6:
      return Pattern(scope, depth);
    case 7:
    case 8:
      return Membership(scope, depth);
    case 9:
      return Column(scope, AnyKind()) + (choices_.Chance(50) ? " IS NULL" : " IS NOT NULL");
    case 10:
      return "NOT (" + Condition(scope, depth - 1) + ")";
    case 11:
    case 12:
      return "(" + Condition(scope, depth - 1) + " AND " + Condition(scope, depth - 1) + ")";
    case 13:
      return "(" + Condition(scope, depth - 1) + " OR " + Condition(scope, depth - 1) + ")";
    case 14:
      if (choices_.Chance(50)) return OfReference(scope);
      return "EXISTS (" + subquery_(scope, AnyKind(), Use::kList, depth - 1) + ")";
    default:
      return RowValues(scope, depth);
  }
}

}  // namespace sql_differential

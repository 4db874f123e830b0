#include "queries.h"

namespace sql_differential {
namespace {

constexpr int kDepth = 3;

Dual List(std::vector<Dual> const& items) {
  Dual text;
  for (std::size_t i = 0; i < items.size(); ++i)
    text += (i == 0 ? Dual("") : Dual(", ")) + items[i];
  return text;
}

// A reference that went through a sort is a plain number, so it is followed before.
Scope AfterSort(Scope scope) {
  for (Reachable& each : scope) each.target.clear();
  return scope;
}

}  // namespace

Queries::Queries(Choices& choices)
    : choices_(choices),
      expressions_(choices, [this](Scope const& outer, Kind kind, Expressions::Use use, int depth) {
        return Subselect(outer, kind, use, depth);
      }) {}

TableMeta const& Queries::AnyTable() {
  TableMeta const& table = choices_.Pick(Tables());
  if (table.root != avoided_) return table;
  return avoided_ == Tables().front().root ? Tables().back() : Tables().front();
}

Scope Queries::ScopeOf(TableMeta const& table, std::string const& alias) const {
  Scope scope;
  for (ColumnMeta const& column : table.columns()) {
    scope.push_back({alias + "." + column.name, column.kind, column.tame, column.target});
  }
  scope.push_back({alias + "._oid", Kind::kInteger});
  return scope;
}

// Ids and references are what tables are joined by.
Dual Queries::JoinCondition(Body const& body, Scope const& added, int depth) {
  Reachable const& left = choices_.Pick(body.scope);
  Scope fitting;
  for (Reachable const& each : added) {
    if (each.kind == left.kind) fitting.push_back(each);
  }
  if (fitting.empty()) return expressions_.Condition(added, depth);
  constexpr char const* kOperators[] = {" = ", " = ", " = ", " IS ", " < ", " >= "};
  Dual text = left.text + choices_.Pick(kOperators) + choices_.Pick(fitting).text;
  if (choices_.Chance(30)) text += " AND " + expressions_.Condition(added, depth - 1);
  return text;
}

void Queries::AddSource(Body& body, int depth) {
  Source source{NewAlias()};
  Scope added;
  Dual text;
  if (depth > 1 && choices_.Chance(15)) {
    source.table = false;
    Query const query = Select(depth - 2);
    text = "(SELECT * FROM (" + query.text + ")) AS " + source.alias;
    for (std::size_t i = 0; i < query.kinds.size(); ++i) {
      added.push_back({source.alias + ".c" + std::to_string(i + 1), query.kinds[i]});
    }
  } else {
    TableMeta const& table = AnyTable();
    text = "\"" + table.name + "\" AS " + source.alias;
    added = ScopeOf(table, source.alias);
  }
  if (body.sources.empty()) {
    body.from += text;
  } else if (choices_.Chance(20)) {
    body.from += (choices_.Chance(50) ? Dual(", ") : Dual(" CROSS JOIN ")) + text;
  } else {
    constexpr char const* kJoins[] = {" JOIN ",      " JOIN ",       " LEFT JOIN ",
                                      " LEFT JOIN ", " RIGHT JOIN ", " FULL JOIN "};
    Dual const join = choices_.Pick(kJoins);
    body.from += join + text + " ON " + JoinCondition(body, added, depth - 1);
  }
  body.sources.push_back(source);
  body.scope.insert(body.scope.end(), added.begin(), added.end());
}

Queries::Body Queries::From(int most, int depth) {
  Body body;
  auto const count = 1 + choices_.Below(static_cast<std::uint32_t>(most));
  for (std::uint32_t i = 0; i < count; ++i) AddSource(body, depth);
  return body;
}

Dual Queries::Where(Scope const& scope, int depth) {
  return choices_.Chance(20) ? Dual("") : " WHERE " + expressions_.Condition(scope, depth);
}

// An aggregate of outer columns alone would be one of the query around it.
Dual Queries::Subselect(Scope const& outer, Kind kind, Expressions::Use use, int depth) {
  Body const body = From(1, depth);
  Dual value = expressions_.Value(body.scope, kind, 0);
  if (use == Expressions::Use::kValue) {
    value = (choices_.Chance(50) ? "max(" : "min(") + value + ")";
  }
  Scope reached = body.scope;
  if (choices_.Chance(50)) reached.insert(reached.end(), outer.begin(), outer.end());
  return "SELECT " + value + " FROM " + body.from + Where(reached, depth);
}

void Queries::Limit(Query& query) {
  query.text += " LIMIT " + std::to_string(choices_.Below(8));
  if (choices_.Chance(50)) query.text += " OFFSET " + std::to_string(choices_.Below(5));
}

// An order that an index may have, with nothing behind it that makes it whole.
void Queries::OrderByColumn(Query& query, Body const& body, Scope const& keys) {
  constexpr char const* kDirections[] = {
      "", " DESC", " ASC", " NULLS LAST", " DESC NULLS FIRST", " COLLATE NOCASE"};
  bool const down = choices_.Chance(50);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    std::string const same = down ? " DESC" : "";
    query.text += (i == 0 ? Dual(" ORDER BY ") : Dual(", ")) + keys[i].text;
    bool const collated = choices_.Chance(15);
    std::string const direction = collated ? choices_.Pick(kDirections) : same;
    query.text += direction;
    if (direction != " COLLATE NOCASE") query.keys.push_back(i);
  }
  query.compared =
      query.keys.size() == keys.size() ? Query::Compared::kKeys : Query::Compared::kRows;
  if (choices_.Chance(40)) {
    for (Source const& source : body.sources) query.text += ", " + source.alias + "._oid";
    query.compared = Query::Compared::kSequence;
  }
}

void Queries::OrderByAll(Query& query) {
  for (std::size_t i = 0; i < query.kinds.size(); ++i) {
    query.text += (i == 0 ? " ORDER BY " : ", ") + std::to_string(i + 1);
    if (choices_.Chance(40)) query.text += " DESC";
  }
  query.compared = Query::Compared::kSequence;
}

// Columns first, which an ORDER BY can name, and then values of any kind.
Query Queries::Plain(int depth, bool limited) {
  Query query;
  Body const body = From(depth > 1 ? 3 : 1, depth);
  bool tables = true;
  for (Source const& source : body.sources) tables = tables && source.table;
  Scope keys;
  std::vector<Dual> shown;
  auto const named = 1 + choices_.Below(2);
  for (std::uint32_t i = 0; i < named; ++i) {
    keys.push_back(choices_.Pick(body.scope));
    shown.push_back(keys.back().text + " AS c" + std::to_string(shown.size() + 1));
    query.kinds.push_back(keys.back().kind);
  }
  while (choices_.Chance(50) && shown.size() < 5) {
    Kind const kind = expressions_.AnyKind();
    Dual const value = expressions_.Value(AfterSort(body.scope), kind, depth);
    shown.push_back(value + " AS c" + std::to_string(shown.size() + 1));
    query.kinds.push_back(kind);
  }
  bool const distinct = choices_.Chance(15);
  query.text = Dual(distinct ? "SELECT DISTINCT " : "SELECT ") + List(shown) + " FROM " +
               body.from + Where(body.scope, depth);
  if (!limited) return query;
  if (choices_.Chance(40) && tables && !distinct) {
    OrderByColumn(query, body, keys);
  } else if (choices_.Chance(40)) {
    OrderByAll(query);
  }
  if (!choices_.Chance(25)) return query;
  Limit(query);
  if (query.compared == Query::Compared::kRows) query.compared = Query::Compared::kCount;
  if (query.compared == Query::Compared::kKeys) query.compared = Query::Compared::kKeysOnly;
  return query;
}

Dual Queries::Aggregate(Scope const& sources, Kind& kind) {
  Scope const scope = AfterSort(sources);
  kind = Kind::kInteger;
  Dual const distinct = choices_.Chance(25) ? "DISTINCT " : "";
  Kind const any = expressions_.AnyKind();
  Dual text;
  switch (choices_.Below(7)) {
    case 0:
    case 1:
      text = "count(*)";
      break;
    case 2:
      text = "count(" + distinct + expressions_.Value(scope, any, 1) + ")";
      break;
    case 3:
      kind = Kind::kReal;
      text = "sum(" + distinct + expressions_.Tame(scope) + ")";
      break;
    case 4:
      kind = Kind::kReal;
      text = "avg(" + distinct + expressions_.Tame(scope) + ")";
      break;
    default:
      kind = any;
      text = (choices_.Chance(50) ? "min(" : "max(") + expressions_.Value(scope, any, 1) + ")";
      break;
  }
  if (choices_.Chance(15)) text += " FILTER (WHERE " + expressions_.Condition(scope, 1) + ")";
  return text;
}

Query Queries::Grouped(int depth) {
  Query query;
  Body const body = From(2, depth);
  std::vector<Dual> groups;
  std::vector<Dual> shown;
  auto const count = choices_.Below(3);
  for (std::uint32_t i = 0; i < count; ++i) {
    Reachable const& column = choices_.Pick(body.scope);
    groups.push_back(column.text);
    shown.push_back(column.text + " AS c" + std::to_string(i + 1));
    query.kinds.push_back(column.kind);
  }
  do {
    Kind kind{};
    Dual const value = Aggregate(body.scope, kind);
    shown.push_back(value + " AS c" + std::to_string(shown.size() + 1));
    query.kinds.push_back(kind);
  } while (choices_.Chance(40));
  query.text = "SELECT " + List(shown) + " FROM " + body.from + Where(body.scope, depth);
  if (!groups.empty()) query.text += " GROUP BY " + List(groups);
  if (!groups.empty() && choices_.Chance(25)) {
    Kind kind{};
    Dual const value = Aggregate(body.scope, kind);
    query.text += " HAVING " + value + " > " + expressions_.Constant(kind);
  }
  if (choices_.Chance(40)) OrderByAll(query);
  return query;
}

// Over one table, whose ids make each order whole.
Query Queries::Windowed(int depth) {
  Query query;
  std::string const alias = NewAlias();
  TableMeta const& table = AnyTable();
  Scope const scope = ScopeOf(table, alias);
  constexpr char const* kFunctions[] = {"row_number()", "rank()",   "dense_rank()",
                                        "count(*)",     "ntile(3)", "percent_rank()",
                                        "cume_dist()"};
  constexpr char const* kFrames[] = {
      "", " ROWS BETWEEN 2 PRECEDING AND 1 FOLLOWING", " ROWS UNBOUNDED PRECEDING",
      " GROUPS BETWEEN 1 PRECEDING AND CURRENT ROW",
      " ROWS BETWEEN CURRENT ROW AND UNBOUNDED FOLLOWING EXCLUDE CURRENT ROW"};
  Scope const sorted = AfterSort(scope);
  auto const function = [&]() -> Dual {
    switch (choices_.Below(4)) {
      case 0:
        return "sum(" + expressions_.Tame(scope) + ")";
      case 1:
        return "lag(" + expressions_.Value(sorted, Kind::kText, 1) + ", 1)";
      case 2:
        return "first_value(" + expressions_.Value(sorted, Kind::kText, 1) + ")";
      default:
        return choices_.Pick(kFunctions);
    }
  };
  Dual over = " OVER (";
  if (choices_.Chance(50)) over += "PARTITION BY " + choices_.Pick(scope).text + " ";
  over += "ORDER BY " + choices_.Pick(scope).text + (choices_.Chance(50) ? " DESC" : "") + ", " +
          alias + "._oid";
  over += choices_.Pick(kFrames);
  over += ")";
  query.text = Dual("SELECT " + alias + "._oid AS c1, ") + function() + over + " AS c2 FROM \"" +
               table.name + "\" AS " + alias + Where(scope, depth);
  query.kinds = {Kind::kInteger, Kind::kText};
  if (choices_.Chance(40)) OrderByAll(query);
  return query;
}

Query Queries::Compound(int depth) {
  constexpr char const* kOperators[] = {" UNION ", " UNION ALL ", " INTERSECT ", " EXCEPT "};
  Query query = Plain(depth - 1, false);
  auto const more = 1 + choices_.Below(2);
  for (std::uint32_t i = 0; i < more; ++i) {
    Query next = Plain(depth - 1, false);
    std::vector<Dual> shown;
    for (std::size_t j = 0; j < query.kinds.size(); ++j) {
      bool const there = j < next.kinds.size();
      shown.push_back(there ? "c" + std::to_string(j + 1) : std::string("NULL"));
    }
    query.text +=
        choices_.Pick(kOperators) + ("SELECT " + List(shown) + " FROM (" + next.text + ")");
  }
  if (choices_.Chance(60)) OrderByAll(query);
  if (query.compared == Query::Compared::kSequence && choices_.Chance(30)) Limit(query);
  return query;
}

Query Queries::Common(int depth) {
  Query const inner = Select(depth - 1);
  std::string const name = NewAlias();
  Scope scope;
  for (std::size_t i = 0; i < inner.kinds.size(); ++i) {
    scope.push_back({name + ".c" + std::to_string(i + 1), inner.kinds[i]});
  }
  Query query;
  Dual const value = expressions_.Value(scope, Kind::kText, 1);
  query.text = "WITH " + name + " AS (" + inner.text + ") SELECT " + choices_.Pick(scope).text +
               " AS c1, " + value + " AS c2 FROM " + name + Where(scope, depth - 1);
  query.kinds = {Kind::kInteger, Kind::kText};
  if (choices_.Chance(50)) OrderByAll(query);
  return query;
}

// What both are to refuse.
Query Queries::Wrong() {
  constexpr char const* kQueries[] = {
      "SELECT Nothing FROM Item",
      "SELECT * FROM Nowhere",
      "SELECT t1.Title FROM Item",
      "SELECT Title FROM Item, Book",
      "SELECT sum(max(Year)) FROM Item",
      "SELECT Title FROM Item WHERE sum(Year) > 1",
      "SELECT FROM Item",
      "SELECT Title FROM Item ORDER BY 3",
      "SELECT Title FROM Item UNION SELECT Title, Year FROM Item",
      "SELECT (SELECT Title, Year FROM Item)",
      "SELECT Title FROM Item LIMIT 'x'",
      "SELECT Title FROM Item WHERE Year IN (SELECT Title, Year FROM Item)",
      "SELECT row_number() OVER nothing FROM Item",
      "SELECT Title FROM Item INDEXED BY nothing",
      "SELECT sqlite_nothing(Title) FROM Item",
  };
  Query query;
  query.text = choices_.Pick(kQueries);
  return query;
}

Query Queries::Select(int depth) {
  switch (choices_.Below(8)) {
    case 0:
      return Grouped(depth);
    case 1:
      return Windowed(depth);
    case 2:
      if (depth > 1) return Compound(depth);
      return Plain(depth, false);
    default:
      return Plain(depth, false);
  }
}

Query Queries::Any() {
  switch (choices_.Below(20)) {
    case 11:
    case 12:
    case 13:
      return Grouped(kDepth);
    case 14:
    case 15:
      return Windowed(kDepth);
    case 16:
    case 17:
      return Compound(kDepth);
    case 18:
      return Common(kDepth);
    case 19:
      return choices_.Chance(30) ? Wrong() : Plain(kDepth, true);
    default:
      return Plain(kDepth, true);
  }
}

}  // namespace sql_differential

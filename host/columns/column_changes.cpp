#include <fmt/format.h>
#include <lscoredb/require.h>

#include <algorithm>
#include <sagleme/column_changes.hpp>
#include <sagleme/value_text.hpp>

#include "annotations/carried.h"
#include "columns/prepared.h"
#include "columns/requests.h"
#include "columns/rewrite.h"

namespace sagleme {
namespace {

using columns::Node;
using columns::OwnColumn;
using columns::Subtree;

constexpr std::size_t kListed = 10;
constexpr std::size_t kShownUnits = 40;

std::string Shown(Value const& value) {
  if (IsNull(value)) return "null";
  auto const* const text = std::get_if<std::u16string>(&value);
  if (text == nullptr) return ValueText(value);
  bool const cut = text->size() > kShownUnits;
  return JsonString(ToUtf8(text->substr(0, kShownUnits)) + (cut ? "..." : ""));
}

// "3 of them: 1.5 (object 5), null (object 7) and 1 more"
std::string List(LostValues const& lost) {
  std::string text;
  for (LostValue const& each : lost.first) {
    text += (text.empty() ? "" : ", ") + Shown(each.value) +
            fmt::format(" (object {})", each.object.value);
  }
  if (lost.count > lost.first.size()) {
    text += fmt::format(" and {} more", lost.count - lost.first.size());
  }
  return text;
}

// What others put into the table meanwhile would be missed.
void Guard(Transaction& transaction, Table const& table) {
  detail::CheckKernel(lscoredb_require_set(transaction.context(), table.setspec.c_str()));
}

std::string Counted(std::uint64_t count, char const* one, char const* many) {
  return fmt::format("{} {}", count, count == 1 ? one : many);
}

}  // namespace

void RequireNoneLost(Transaction& transaction, Text const& table, Text const& column,
                     std::span<Text const> tables) {
  LostValues const lost = FindLost(transaction, table, column, tables, kListed);
  if (lost.count == 0) return;
  throw Error(LSCOREDB_WRONG_TYPE,
              fmt::format("Column {} of {} has {} in objects outside of the tables that it shall "
                          "go down to: {}.",
                          ToUtf8(column), ToUtf8(table), Counted(lost.count, "value", "values"),
                          List(lost)));
}

void RequireConvertible(Transaction& transaction, Text const& table, ColumnSpec const& column) {
  LostValues const lost = FindUnconvertible(transaction, table, column, kListed);
  if (lost.count == 0) return;
  throw Error(
      LSCOREDB_WRONG_TYPE,
      fmt::format("{} of column {} of {} {} not convert to {}: {}.",
                  Counted(lost.count, "value", "values"), ToUtf8(column.name), ToUtf8(table),
                  lost.count == 1 ? "does" : "do", columns::Described(column), List(lost)));
}

void PullUpColumn(Transaction& transaction, Text const& table, Text const& column,
                  Text const& base) {
  Savepoint whole(transaction);
  columns::PullUp const request = columns::RequirePullUp(transaction, table, column, base);
  annotations::CarriedAnnotations const annotated(transaction, table, column);
  Subtree subtree(transaction, request.base);
  OwnColumn pulled = Subtree::Take(subtree.At(table), column);
  for (TablePtr const& merged : request.merged) {
    Subtree::Take(subtree.At(merged->name), column);
    Guard(transaction, *merged);
  }
  Node& top = subtree.At(base);
  auto prepared = columns::TakePrepared(top, pulled);
  bool const adopted = prepared.has_value();
  if (adopted) pulled = *std::move(prepared);
  top.own.push_back(std::move(pulled));
  subtree.RequireValid();
  columns::Apply(transaction, subtree, {column, columns::WantedOf(*request.column), {}, false});
  if (adopted) annotated.GiveTo(transaction, base, column);
  detail::DropStaleAnnotations(transaction);
  whole.Release();
}

void PushDownColumn(Transaction& transaction, Text const& table, Text const& column,
                    std::span<Text const> tables, Loss loss) {
  Savepoint whole(transaction);
  if (loss == Loss::kRefuse) RequireNoneLost(transaction, table, column, tables);
  columns::PushDown const request = columns::RequirePushDown(transaction, table, column, tables);
  annotations::CarriedAnnotations const annotated(transaction, table, column);
  Guard(transaction, *request.base);
  if (loss == Loss::kAllow) columns::ClearLost(transaction, request);
  Subtree subtree(transaction, request.base);
  OwnColumn const pushed = Subtree::Take(subtree.At(table), column);
  columns::Rewrite rewrite{column, columns::WantedOf(*request.column), {}, false};
  for (TablePtr const& derived : request.tables) {
    Node& node = subtree.At(derived->name);
    OwnColumn own = pushed;
    if (!rewrite.tables.empty()) own.row = derived->GetColumn(column).id.value;
    if (auto prepared = columns::TakePrepared(node, own)) own = *std::move(prepared);
    node.own.push_back(std::move(own));
    rewrite.tables.push_back(derived->name);
  }
  columns::Apply(transaction, subtree, rewrite);
  for (Text const& each : tables) annotated.GiveTo(transaction, each, column);
  whole.Release();
}

namespace {

OwnColumn& OwnColumnOf(Node& node, std::u16string const& name) {
  return *std::find_if(node.own.begin(), node.own.end(),
                       [&](OwnColumn const& each) { return each.name == name; });
}

void Redefine(OwnColumn& own, ColumnSpec const& column, columns::Retype const& request) {
  own.type = column.type;
  own.nullable = column.nullable;
  own.target = column.type == Type::kReference ? column.target : Text();
  own.data_type = request.data_type;
  if (request.same_form) return;
  own.row = 0;
  own.was.clear();
}

Value ConvertedDefault(Transaction& transaction, columns::Retype const& request,
                       Value const& value) {
  bool const refers = request.wanted.type == Type::kReference;
  if (IsNull(value) || refers) return Null{};  // references have none
  columns::Converted converted =
      columns::Converter(transaction, *request.column, request.wanted)(value);
  return converted.exact ? std::move(converted.value) : Null{};
}

}  // namespace

Value DefaultAfter(Transaction& transaction, Text const& table, ColumnSpec const& column) {
  columns::Retype const request = columns::RequireRetype(transaction, table, column);
  return ConvertedDefault(transaction, request,
                          DefaultOf(transaction, *request.table, *request.column));
}

void ChangeColumnType(Transaction& transaction, Text const& table, ColumnSpec const& column,
                      Loss loss) {
  Savepoint whole(transaction);
  columns::Retype const request = columns::RequireRetype(transaction, table, column);
  if (request.same) return whole.Release();
  annotations::CarriedAnnotations annotated(transaction, table, column.name);
  annotated.ConvertDefault(
      [&](Value const& value) { return ConvertedDefault(transaction, request, value); });
  if (loss == Loss::kRefuse) RequireConvertible(transaction, table, column);
  Guard(transaction, *request.table);
  Subtree subtree(transaction, request.table);
  Node& node = subtree.At(table);
  OwnColumn wanted = OwnColumnOf(node, column.name);
  Redefine(wanted, column, request);
  if (auto prepared = columns::TakePrepared(node, wanted)) wanted = *std::move(prepared);
  OwnColumnOf(node, column.name) = std::move(wanted);
  bool const relaxed = !request.column->nullable && column.nullable;
  bool const values = relaxed || loss == Loss::kAllow;
  columns::Apply(transaction, subtree, {column.name, request.wanted, {}, values});
  annotated.GiveTo(transaction, table, column.name);
  whole.Release();
}

}  // namespace sagleme

// Changes of columns in batches.

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <sagleme/column_changes.hpp>
#include <utility>

#include "columns/column_job.h"
#include "columns/prepared.h"
#include "columns/requests.h"
#include "jobs/kinds.h"

namespace sagleme {
namespace {

using Json = nlohmann::json;

// A change as the row of its job has it.
struct Work {
  std::string description;
  Json details;
  columns::Job::Prepare prepare;
  columns::Job::Finish finish;
};

Work PullUpWork(Text const& table, Text const& column, Text const& base) {
  Work work;
  work.description =
      fmt::format("pull column {} of {} up to {}", ToUtf8(column), ToUtf8(table), ToUtf8(base));
  work.details = {{"change", "pull up"},
                  {"table", ToUtf8(table)},
                  {"column", ToUtf8(column)},
                  {"top", ToUtf8(base)}};
  work.prepare = [=](Transaction& transaction) {
    return columns::PreparationOfPullUp(transaction, table, column, base);
  };
  work.finish = [=](Transaction& transaction) { PullUpColumn(transaction, table, column, base); };
  return work;
}

Work PushDownWork(Text const& table, Text const& column, std::vector<Text> const& tables,
                  Loss loss) {
  std::vector<std::string> names;
  std::string list;
  for (Text const& each : tables) {
    names.push_back(ToUtf8(each));
    list += (list.empty() ? "" : ", ") + names.back();
  }
  Work work;
  work.description =
      fmt::format("push column {} of {} down to {}", ToUtf8(column), ToUtf8(table), list);
  work.details = {{"change", "push down"},
                  {"column", ToUtf8(column)},
                  {"top", ToUtf8(table)},
                  {"tables", names},
                  {"loss", loss == Loss::kAllow}};
  work.prepare = [=](Transaction& transaction) {
    if (loss == Loss::kRefuse) RequireNoneLost(transaction, table, column, tables);
    return columns::PreparationOfPushDown(transaction, table, column, tables);
  };
  work.finish = [=](Transaction& transaction) {
    PushDownColumn(transaction, table, column, tables, loss);
  };
  return work;
}

Work RetypeWork(Text const& table, ColumnSpec const& column, Loss loss) {
  Work work;
  work.description = fmt::format("change column {} of {} to {}", ToUtf8(column.name), ToUtf8(table),
                                 columns::Described(column));
  work.details = {{"change", "type"},
                  {"column", ToUtf8(column.name)},
                  {"top", ToUtf8(table)},
                  {"type", static_cast<int>(column.type)},
                  {"nullable", column.nullable},
                  {"target", ToUtf8(column.target)},
                  {"loss", loss == Loss::kAllow}};
  work.prepare = [=](Transaction& transaction) {
    if (loss == Loss::kRefuse) RequireConvertible(transaction, table, column);
    return columns::PreparationOfRetype(transaction, table, column);
  };
  work.finish = [=](Transaction& transaction) {
    ChangeColumnType(transaction, table, column, loss);
  };
  return work;
}

Text TextIn(Json const& details, char const* key) {
  return Text(details.at(key).get<std::string>());
}

Work WorkOf(Json const& details, bool allow_losses) {
  Text const top = TextIn(details, "top");
  Text const column = TextIn(details, "column");
  std::string const change = details.at("change");
  if (change == "pull up") return PullUpWork(TextIn(details, "table"), column, top);
  bool const lossy = allow_losses || details.at("loss").get<bool>();
  Loss const loss = lossy ? Loss::kAllow : Loss::kRefuse;
  if (change == "type") {
    auto const type = static_cast<Type>(details.at("type").get<int>());
    return RetypeWork(top, {column, type, details.at("nullable"), TextIn(details, "target")}, loss);
  }
  std::vector<Text> tables;
  for (std::string const name : details.at("tables")) tables.emplace_back(name);
  return PushDownWork(top, column, tables, loss);
}

bool RunWork(Context const& context, Work const& work, ColumnChangeOptions const& options) {
  jobs::Row row;
  row.kind = JobKind::kColumnChange;
  row.description = work.description;
  row.details = work.details.dump();
  row.batch = options.batch;
  row.pause = static_cast<std::uint64_t>(options.pause.count());
  jobs::Run run(context, row, options.control);
  return run.Perform([&] {
    run.RequireNobodyElse();
    run.TakeUp();
    columns::Job job(context, options, work.prepare, &run);
    bool const made = job.Run(work.finish);
    if (!made && job.ended()) job.Abandon();
    return made;
  });
}

}  // namespace

bool RunPullUpColumn(Context const& context, Text const& table, Text const& column,
                     Text const& base, ColumnChangeOptions const& options) {
  return RunWork(context, PullUpWork(table, column, base), options);
}

bool RunPushDownColumn(Context const& context, Text const& table, Text const& column,
                       std::span<Text const> tables, ColumnChangeOptions const& options) {
  std::vector<Text> const below(tables.begin(), tables.end());
  return RunWork(context, PushDownWork(table, column, below, options.loss), options);
}

bool RunChangeColumnType(Context const& context, Text const& table, ColumnSpec const& column,
                         ColumnChangeOptions const& options) {
  return RunWork(context, RetypeWork(table, column, options.loss), options);
}

bool jobs::ResumeColumnChange(Context const& context, Run& run, JobOptions const& options) {
  ColumnChangeOptions how;
  if (run.job().batch != 0) how.batch = static_cast<std::uint32_t>(run.job().batch);
  how.pause = std::chrono::milliseconds(run.job().pause);
  how.attempts = options.attempts;
  how.control = options.control;
  how.report = [&](ColumnChangeProgress const&) {
    return !options.report || options.report(run.progress());
  };
  Work const work = WorkOf(Json::parse(run.job().details), options.allow_losses);
  return columns::Job(context, how, work.prepare, &run).Run(work.finish);
}

void jobs::AbandonColumnChange(Transaction& transaction, Row const& job) {
  Json const details = Json::parse(job.details);
  Text const top = TextIn(details, "top");
  if (transaction.Find(top) == nullptr) return;
  sagleme::AbandonColumnChange(transaction, top, TextIn(details, "column"));
}

void AbandonColumnChange(Transaction& transaction, Text const& table, Text const& column) {
  TablePtr const top = transaction.table(table);
  std::vector<TablePtr> const children = transaction.Children(*top);
  columns::DropPrepared(transaction, top->name, column);
  for (TablePtr const& child : children) AbandonColumnChange(transaction, child->name, column);
}

}  // namespace sagleme

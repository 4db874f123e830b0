#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <sagleme/changes.hpp>
#include <sagleme/counts.hpp>

#include "commands/commands.h"
#include "output/listing.h"

namespace tool {
namespace {

class Info : public Command {
 public:
  std::string name() const override { return "info"; }
  std::string summary() const override { return "Show versions, sizes and counts"; }
  std::vector<Example> examples() const override {
    return {{"info shop", "what is in the database and what vacuum would do"},
            {"info shop --format json", "the same for a program"}};
  }
  void Declare(CLI::App&) override {}
  bool lists() const override { return true; }
  Exit Run(Session& session, Output& output) override;
};

std::uint64_t CountVacuum(sagleme::Transaction& transaction, std::uint64_t kind) {
  std::uint64_t count = 0;
  sagleme::TablePtr const table = transaction.table(u"Lorvenstack.Internal.Metadata.Vacuum");
  sagleme::Property<std::uint64_t> const request(*table, u"RequestKind");
  for (sagleme::Object const& row : sagleme::Range::Only(transaction, *table)) {
    if (request.GetOr(row, 0) == kind) ++count;
  }
  return count;
}

std::uint64_t CatalogueVersion(sagleme::Transaction& transaction) {
  sagleme::Index const by_name = *transaction.FindIndex(u"ConfigurationParameter");
  for (sagleme::Object const& row : sagleme::Range::Matching(
           transaction, by_name, {sagleme::Value(std::u16string(u"MetaschemaVersion"))})) {
    return static_cast<std::uint64_t>(std::get<std::int64_t>(row.Get(u"Value")));
  }
  return 0;
}

char const* LogText(lscoredb_statistics const& statistics) {
  if (statistics.log == LSCOREDB_LOG) return "yes";
  return statistics.log == LSCOREDB_NO_LOG ? "no" : "not yet";
}

void AddKernel(Session& session, Properties& properties) {
  lscoredb_statistics const statistics = session.database().Statistics();
  if (!sagleme::IsServerUrl(session.directory())) {
    std::filesystem::path const directory(session.directory());
    properties.Add("data file bytes",
                   Cell::Number(std::filesystem::file_size(directory / "data.mdb")));
    properties.Add("largest data file bytes", Cell::Number(statistics.max_file_size));
  }
  properties.Add("log", Cell::Text(LogText(statistics)));
  properties.Add("newest commit", Cell::Number(statistics.last_commit));
  properties.Add("oldest commit that is read", Cell::Number(statistics.oldest_commit));
  // This command's own reading is one of them, unless it may not write the table of readers.
  auto const others = std::max(statistics.transactions, 1u) - 1;
  properties.Add("other open transactions", Cell::Number(others));
}

// Nothing if changes are not kept, or cannot be.
std::optional<sagleme::KeptChanges> KeptIn(sagleme::Database const& database) {
  try {
    return sagleme::Kept(database);
  } catch (sagleme::Error const& error) {
    bool const keeps_none =
        error.status() == LSCOREDB_NO_CHANGES || error.status() == LSCOREDB_CHANGES_UNSUPPORTED;
    if (!keeps_none) throw;
    return std::nullopt;
  }
}

// 0: there is no such bound.
Cell Bound(std::uint64_t most) { return most != 0 ? Cell::Number(most) : Cell{}; }

void AddChanges(Session& session, Properties& properties) {
  std::optional<sagleme::KeptChanges> const kept = KeptIn(session.database());
  properties.Add("keeps changes", Cell::Text(kept.has_value() ? "yes" : "no"));
  if (!kept.has_value()) return;
  properties.Add("most bytes of changes", Bound(kept->retention.bytes));
  properties.Add("most seconds of changes", Bound(kept->retention.seconds));
  std::uint64_t const commits = kept->last + 1 - kept->first;
  properties.Add("commits with changes", Cell::Number(commits));
  properties.Add("oldest commit with changes", commits != 0 ? Cell::Number(kept->first) : Cell{});
}

void AddCounts(sagleme::Transaction& transaction, Properties& properties) {
  auto const user = transaction.Tables();
  std::uint64_t indexes = 0;
  std::uint64_t objects = 0;
  sagleme::ObjectCounts const counts(transaction);
  for (sagleme::TablePtr const& table : user) {
    indexes += table->indexes.size();
    objects += counts.Own(*table);
  }
  properties.Add("tables", Cell::Number(user.size()));
  properties.Add("indexes", Cell::Number(indexes));
  properties.Add("objects", Cell::Number(objects));
  properties.Add("catalogue rows and objects", Cell::Number(counts.total()));
}

void AddLayouts(sagleme::Transaction& transaction, Properties& properties) {
  std::uint64_t used = 0;
  auto const layouts = sagleme::LayoutStatistics(transaction);
  for (auto const& layout : layouts) used += layout.objects != 0 ? 1 : 0;
  properties.Add("layouts", Cell::Number(layouts.size()));
  properties.Add("layouts in use", Cell::Number(used));
}

Exit Info::Run(Session& session, Output& output) {
  Properties properties;
  session.Read([&](sagleme::Transaction& transaction) {
    properties.Add(sagleme::IsServerUrl(session.directory()) ? "url" : "directory",
                   Cell::Text(sagleme::ShownPlace(session.directory())));
    properties.Add("catalogue version", Cell::Number(CatalogueVersion(transaction)));
    properties.Add("catalogue version of this tool", Cell::Number(lorv_get_metaschema_version()));
    properties.Add("schema generation", Cell::Number(transaction.Generation()));
    AddKernel(session, properties);
    AddChanges(session, properties);
    AddCounts(transaction, properties);
    AddLayouts(transaction, properties);
    properties.Add("tables to move", Cell::Number(CountVacuum(transaction, 1)));
    properties.Add("tables to clear", Cell::Number(CountVacuum(transaction, 2)));
  });
  properties.Print(output);
  return Exit::kDone;
}

}  // namespace

std::unique_ptr<Command> MakeInfo() { return std::make_unique<Info>(); }

}  // namespace tool

// How long commits take while an index build is abandoned, beside those that built it.

#include "index_abandon.h"

#include <algorithm>
#include <sagleme/host.hpp>

#include "sections.h"

namespace bench {
namespace {

constexpr Number kLoaded = 10000;  // objects in a transaction
constexpr char16_t kTable[] = u"Bench.Indexed";

void Check(std::uint32_t status) { sagleme::detail::CheckKernel(status); }

void Load(sagleme::Context const& context, Number objects) {
  sagleme::TablePtr table;
  {
    sagleme::Transaction transaction(context);
    sagleme::CreateTable(transaction, kTable, u"", {{u"Value", sagleme::Type::kLong, true}});
    table = transaction.table(kTable);
    transaction.Commit();
  }
  sagleme::Property<std::int64_t> const value(*table, u"Value");
  for (Number made = 0; made < objects;) {
    sagleme::Transaction transaction(context);
    for (Number const end = std::min(made + kLoaded, objects); made < end; ++made) {
      std::uint64_t const mixed = made * 0x9E3779B97F4A7C15u >> 1;
      value.Set(sagleme::Object::Create(transaction, *table), static_cast<std::int64_t>(mixed));
    }
    transaction.Commit();
  }
}

std::uint64_t PrepareIndex(sagleme::Context const& context) {
  LORVI_COLUMN_DEFINITION column{};
  std::u16string setspec;
  {
    sagleme::Transaction transaction(context, sagleme::Access::kReadOnly);
    auto const table = transaction.table(kTable);
    LORVI_COLUMN_INFO info{};
    Check(lorvi_context_get_column_info(context.id(), table->layout,
                                        table->GetColumn(u"Value").ordinal, &info));
    column.type = info.type;
    column.is_nullable = 1;
    column.token = info.token;
    setspec = table->setspec;
  }
  LORVI_COLUMN_DEFINITION const columns[] = {column, {}};
  std::uint64_t index = 0;
  Check(lscoredb_prepare_index(context.id(), u"", setspec.c_str(), columns, 0, 0, &index));
  return index;
}

void Add(Result& longest, Result& all, std::size_t series, CommitTimes const& times) {
  longest.series[series].values.push_back(times.longest());
  all.series[series].values.push_back(times.sum());
}

}  // namespace

std::vector<Result> MeasureIndexAbandon(Settings const& settings) {
  sagleme::Options options;
  options.no_sync = true;
  sagleme::Database const database =
      sagleme::Database::Create(settings.Directory("abandon"), {}, options);
  sagleme::Context const context(database);
  Load(context, settings.objects);
  auto const result = [](char const* work) {
    return Result{work, "ns", false, {{kSagleme, {}}, {"building", {}}}, {}};
  };
  Result longest = result("longest commit of an index build that is abandoned");
  Result all = result("all commits of an index build that is abandoned");
  for (int round = 0; round < settings.rounds; ++round) {
    std::uint64_t const index = PrepareIndex(context);
    Add(longest, all, 1, BuildIndexTimed(context.id(), index));
    Add(longest, all, 0, AbandonIndexTimed(context.id(), index));
  }
  return {longest, all};
}

}  // namespace bench

#include <lscoredb/index_build.h>

#include <algorithm>
#include <cstring>

#include "c_api.h"
#include "index_arguments.h"
#include "watched_work.h"

namespace lscore {
namespace {

static_assert(static_cast<std::uint32_t>(BuildPhase::kFilling) == LSCOREDB_INDEX_BUILDING);
static_assert(static_cast<std::uint32_t>(BuildPhase::kVerifying) == LSCOREDB_INDEX_WRITE_ONLY);
static_assert(static_cast<std::uint32_t>(BuildPhase::kDuplicates) == LSCOREDB_INDEX_DUPLICATES);
static_assert(static_cast<std::uint32_t>(BuildPhase::kReady) == LSCOREDB_INDEX_READY);
static_assert(static_cast<std::uint32_t>(BuildPhase::kAbandoned) == LSCOREDB_INDEX_ABANDONED);
static_assert(static_cast<std::uint32_t>(BuildPhase::kNone) == LSCOREDB_INDEX_REMOVED);

// Entries that a commit removes: it takes a few milliseconds.
constexpr std::uint64_t kRemovedAtOnce = 5000;

// Runs `work` with a context that has no transaction open.
template <typename Work>
Status WithIdle(std::uint64_t handle, Work&& work) noexcept {
  return Guarded([&]() -> Status {
    Context* const context = Contexts().Find(handle);
    if (context == nullptr) return LSCOREDB_UNKNOWN_CONTEXT;
    if (context->transaction().open()) return LSCOREDB_TRANSACTION_OPEN;
    return work(*context);
  });
}

std::vector<LORVI_COLUMN_DEFINITION> ColumnsOf(IndexDefinition const& index) {
  std::vector<LORVI_COLUMN_DEFINITION> columns;
  for (IndexColumn const& column : index.columns) {
    LORVI_COLUMN_DEFINITION one{};
    one.type = column.type;
    one.is_nullable = column.nullable ? 1 : 0;
    one.token = Raw(column.token);
    columns.push_back(one);
  }
  columns.push_back({});
  return columns;
}

void Fill(ListedBuild const& listed, lscoredb_index_build* out, std::size_t size) {
  IndexBuild const& build = listed.of.build;
  IndexDefinition const& index = *listed.of.index;
  lscoredb_index_build filled{};
  filled.size = size;
  filled.index = Raw(build.id);
  filled.state = static_cast<std::uint32_t>(build.phase);
  filled.flags = index.flags;
  filled.done = build.done;
  filled.total = build.total;
  filled.sort_mask = index.sort_mask;
  filled.column_count = static_cast<std::uint16_t>(index.columns.size());
  filled.name = build.name.c_str();
  filled.setspec = index.setspec.c_str();
  filled.columns = listed.columns.data();
  std::memcpy(out, &filled, std::min(size, sizeof filled));
}

// Keeps builds with the context, for the texts in what it gives out.
std::vector<ListedBuild> const& Keep(Context& context, std::vector<IndexBuilder::Listed> builds) {
  std::vector<ListedBuild>& listed = context.listed_builds();
  listed.clear();
  for (IndexBuilder::Listed& one : builds) {
    std::vector<LORVI_COLUMN_DEFINITION> columns = ColumnsOf(*one.index);
    listed.push_back({std::move(one), std::move(columns)});
  }
  return listed;
}

}  // namespace
}  // namespace lscore

using namespace lscore;

uint32_t lscoredb_prepare_index(uint64_t context, char16_t const* name, char16_t const* setspec,
                                LORVI_COLUMN_DEFINITION const* columns, uint16_t sort_mask,
                                uint32_t flags, uint64_t* out_index_id) {
  return WithIdle(context, [&](Context& found) -> Status {
    if (setspec == nullptr || columns == nullptr || out_index_id == nullptr) {
      return LSCOREDB_NULL_ARGUMENT;
    }
    IndexId id{};
    Status const status = found.index_builder().Prepare(
        DefinitionOf(setspec, columns, sort_mask, flags), name == nullptr ? u"" : name, &id);
    if (status == LORV_STATUS_OK) *out_index_id = Raw(id);
    return status;
  });
}

uint32_t lscoredb_build_index(uint64_t context, uint64_t index_id, uint64_t batch,
                              lscoredb_index_build* out) {
  return WithIdle(context, [&](Context& found) -> Status {
    bool const sized = out == nullptr || out->size >= sizeof out->size;
    if (batch == 0 || !sized) return LSCOREDB_INVALID_ARGUMENT;
    IndexBuilder::Listed build;
    WatchedCall const call;
    Status const status = found.index_builder().Step(IndexId{index_id}, batch, &build);
    bool const known = status == LORV_STATUS_OK || status == LSCOREDB_DUPLICATE_KEY;
    if (known && out != nullptr) Fill(Keep(found, {std::move(build)}).front(), out, out->size);
    return status;
  });
}

uint32_t lscoredb_index_builds(uint64_t context, uint32_t* count, lscoredb_index_build* out) {
  return WithIdle(context, [&](Context& found) -> Status {
    if (count == nullptr || (out == nullptr && *count != 0)) return LSCOREDB_NULL_ARGUMENT;
    std::size_t const size = *count == 0 ? 0 : out->size;
    bool const sized = size >= sizeof out->size && size % alignof(lscoredb_index_build) == 0;
    if (*count != 0 && !sized) return LSCOREDB_INVALID_ARGUMENT;
    std::vector<ListedBuild> const& listed = Keep(found, found.index_builder().List());
    auto* const entries = reinterpret_cast<char*>(out);
    for (std::size_t i = 0; i < listed.size() && i < *count; ++i) {
      Fill(listed[i], reinterpret_cast<lscoredb_index_build*>(entries + i * size), size);
    }
    *count = static_cast<uint32_t>(listed.size());
    return LORV_STATUS_OK;
  });
}

uint32_t lscoredb_index_duplicates(uint64_t context, uint64_t index_id,
                                   lscoredb_duplicate_callback report, void* user) {
  return WithIdle(context, [&](Context& found) -> Status {
    if (report == nullptr) return LSCOREDB_NULL_ARGUMENT;
    return found.index_builder().ForEachDuplicate(
        IndexId{index_id}, [&](ObjectId object, ObjectId holder) {
          return report(user, Raw(object), Raw(holder)) == 0;
        });
  });
}

uint32_t lscoredb_abandon_index(uint64_t context, uint64_t index_id) {
  return WithIdle(context, [&](Context& found) {
    WatchedCall const call;
    return found.index_builder().AbandonAll(IndexId{index_id}, kRemovedAtOnce);
  });
}

uint32_t lscoredb_abandon_index_step(uint64_t context, uint64_t index_id, uint64_t batch,
                                     lscoredb_index_build* out) {
  return WithIdle(context, [&](Context& found) -> Status {
    bool const sized = out == nullptr || out->size >= sizeof out->size;
    if (batch == 0 || !sized) return LSCOREDB_INVALID_ARGUMENT;
    IndexBuilder::Listed left;
    Status const status = found.index_builder().Abandon(IndexId{index_id}, batch, &left);
    if (status == LORV_STATUS_OK && out != nullptr) {
      Fill(Keep(found, {std::move(left)}).front(), out, out->size);
    }
    return status;
  });
}

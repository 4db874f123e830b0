#include "format_corpus.h"

#include <lscoredb/changes.h>
#include <lscoredb/index_build.h>

namespace lscoredb_test::corpus {
namespace {

void PrepareIndex(Session& session) {
  auto const columns = Definitions({{LORV_TYPE_STRING, kTextToken}, {LORV_TYPE_DOUBLE, 102}});
  IndexId index = 0;
  Check("prepare_index",
        lscoredb_prepare_index(session.context(), u"prepared", kSet, columns.data(), 0, 0, &index));
  Check("build_index", lscoredb_build_index(session.context(), index, 1, nullptr));  // sorts
  Check("build_index", lscoredb_build_index(session.context(), index, kPreparedRows, nullptr));
}

void AbandonIndex(Session& session) {
  auto const columns = Definitions({{LORV_TYPE_DOUBLE, 102}});
  IndexId index = 0;
  Check("prepare_index", lscoredb_prepare_index(session.context(), u"abandoned", kSet,
                                                columns.data(), 0, 0, &index));
  lscoredb_index_build build{};
  build.size = sizeof build;
  while (build.state != LSCOREDB_INDEX_READY) {
    Check("build_index", lscoredb_build_index(session.context(), index, kRows, &build));
  }
  Check("abandon_index_step",
        lscoredb_abandon_index_step(session.context(), index, kRemovedRows, nullptr));
}

}  // namespace

void Write(std::string const& directory, std::uint32_t version) {
  lscoredb_options options = NoSync();
  bool const log = version == kLogVersion || version == kChangesVersion;
  options.log = log ? LSCOREDB_LOG : LSCOREDB_NO_LOG;
  Database database(directory, options);
  if (version == kChangesVersion) {
    Check("keep_changes", lscoredb_keep_changes(database.get(), std::uint64_t{1} << 30, 0));
  }
  Session session(database);
  session.Begin();
  LayoutId const layout = session.CreateLayout(kTable, TableColumns());
  session.CreateIndex(kByNumber, kSet, {{LORV_TYPE_LONG, kNumberToken}}, kUnique);
  session.CreateIndex(kByText, kSet, {{LORV_TYPE_STRING, kTextToken}});
  if (version >= 2) session.CreateIndex(kWideIndex, kSet, WideColumns());
  if (version >= 3) Check("close_set", lscoredb_close_set(session.context(), kClosedSet, 0));
  session.Commit();
  Oid last = 0;
  for (int i = 0; i < kRows; ++i) {
    session.Begin();
    Oid const row = session.Insert(layout);
    session.PutLong(row, kNumber, i);
    if (auto const text = TextOf(i)) session.PutString(row, kText, *text);
    Check("put_double", lorv_context_put_double(session.context(), row, 0, kFraction, i / 4.0));
    if (last != 0) {
      Check("put_reference",
            lorv_context_put_reference(session.context(), row, 0, kTarget, last, layout));
    }
    last = row;
    session.Commit();
  }
  if (version >= 5) PrepareIndex(session);
  if (version >= 7) AbandonIndex(session);
}

}  // namespace lscoredb_test::corpus

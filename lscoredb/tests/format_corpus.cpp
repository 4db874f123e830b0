#include "format_corpus.h"

namespace lscoredb_test::corpus {

void Write(std::string const& directory, std::uint32_t version) {
  lscoredb_options options = NoSync();
  options.log = version >= 4 ? LSCOREDB_LOG : LSCOREDB_NO_LOG;
  Database database(directory, options);
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
}

}  // namespace lscoredb_test::corpus

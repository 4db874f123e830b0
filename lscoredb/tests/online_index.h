#ifndef LSCOREDB_TESTS_ONLINE_INDEX_H
#define LSCOREDB_TESTS_ONLINE_INDEX_H

// A database in memory whose objects are to get an index beside writers.

#include <lscoredb/index_build.h>

#include <utility>

#include "kernel_test.h"

namespace lscoredb_test {

inline constexpr std::uint32_t kNumber = 2;
inline constexpr std::uint32_t kOther = 3;
inline constexpr std::uint64_t kNumberToken = 100;
inline constexpr std::uint64_t kToken = 60;

// As a call wants it.
inline lscoredb_index_build Sized() {
  lscoredb_index_build build{};
  build.size = sizeof build;
  return build;
}

class OnlineIndexTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, kNumberToken}, {LORV_TYPE_LONG, 101}});
    for (int i = 0; i < 20; ++i) rows_.push_back(Row(session_, 10 * i));
    elsewhere_ = Row(session_, 7, u"elsewhere/");
    session_.Commit();
  }

  Oid Row(Session& session, std::int64_t number, char16_t const* setspec = kSet) const {
    Oid const oid = session.Insert(layout_, setspec);
    session.PutLong(oid, kNumber, number);
    return oid;
  }

  static std::uint32_t TryPrepare(Session& session, IndexTraits traits, IndexId* out,
                                  char16_t const* setspec = kSet) {
    auto const columns = Definitions({{LORV_TYPE_LONG, kNumberToken}});
    return lscoredb_prepare_index(session.context(), u"by number", setspec, columns.data(),
                                  traits.descending, traits.unique ? LORV_INDEX_UNIQUE : 0, out);
  }

  IndexId Prepare(IndexTraits traits = {}) {
    IndexId index = 0;
    Check("prepare_index", TryPrepare(session_, traits, &index));
    return index;
  }

  static lscoredb_index_build Step(Session& session, IndexId index, std::uint64_t batch = 3) {
    lscoredb_index_build build = Sized();
    Check("build_index", lscoredb_build_index(session.context(), index, batch, &build));
    return build;
  }
  lscoredb_index_build Step(IndexId index, std::uint64_t batch = 3) {
    return Step(session_, index, batch);
  }

  // Steps until the state is reached.
  void StepTo(IndexId index, std::uint32_t state, std::uint64_t batch = 3) {
    while (Step(index, batch).state != state) {
    }
  }

  std::vector<lscoredb_index_build> Builds() {
    std::uint32_t count = 0;
    Check("index_builds", lscoredb_index_builds(session_.context(), &count, nullptr));
    std::vector<lscoredb_index_build> builds(count, Sized());
    if (count != 0) {
      Check("index_builds", lscoredb_index_builds(session_.context(), &count, builds.data()));
    }
    return builds;
  }

  IndexId Create(Session& session, IndexTraits traits = {}) {
    return session.CreateIndex(kToken, kSet, {{LORV_TYPE_LONG, kNumberToken}}, traits);
  }

  // Creates the index, which has to be the prepared one, and gives what it holds.
  Oids Adopt(IndexId index, IndexTraits traits = {}) {
    session_.Begin();
    EXPECT_EQ(index, Create(session_, traits));
    session_.Commit();
    return Committed(index);
  }

  Oids Committed(IndexId index) {
    Session reader(database_);
    reader.BeginReadOnly();
    return reader.Scan(index);
  }

  // All objects of the set by their numbers, read from a new index.
  Oids Expected() {
    session_.Begin();
    IndexId const index = session_.CreateIndex(61, kSet, {{LORV_TYPE_LONG, kNumberToken}});
    Oids const oids = session_.Scan(index);
    session_.Rollback();
    return oids;
  }

  std::vector<std::pair<Oid, Oid>> Duplicates(IndexId index) {
    std::vector<std::pair<Oid, Oid>> found;
    auto const report = [](void* user, std::uint64_t object,
                           std::uint64_t holder) -> std::uint32_t {
      static_cast<std::vector<std::pair<Oid, Oid>>*>(user)->emplace_back(object, holder);
      return 0;
    };
    Check("index_duplicates", lscoredb_index_duplicates(session_.context(), index, report, &found));
    return found;
  }

  void Write(std::function<void()> const& change) {
    writer_.Begin();
    change();
    writer_.Commit();
  }

  Session writer_{database_};
  LayoutId layout_ = 0;
  Oids rows_;
  Oid elsewhere_ = 0;
};

}  // namespace lscoredb_test

#endif

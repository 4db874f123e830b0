// Keys that stand in another order inside their page than the tree wants. The page keeps to the
// bounds of those above it, so nothing but its keys tells.

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "kernel_test.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kHead = 16;
constexpr std::uint16_t kLeaf = 2;
constexpr std::uint32_t kNumber = 2;
constexpr int kRows = 1500;

// The pages of one tree of a closed file, whose numbers are read as they come.
class TreePages {
 public:
  TreePages(std::string const& file, std::string const& tree) : file_(file) {
    bool const first = At<std::uint64_t>(kHead + 128) > At<std::uint64_t>(kPage + kHead + 128);
    auto const names = At<std::uint64_t>((first ? 0 : kPage) + kHead + 72 + 40);
    ForEachNode(names, [&](std::size_t node) {
      std::size_t const size = At<std::uint16_t>(node + 6);
      if (file_.compare(node + 8, size, tree) == 0) Add(At<std::uint64_t>(node + 8 + size + 40));
    });
  }
  std::vector<std::uint64_t> const& numbers() const { return numbers_; }
  std::size_t NodesOf(std::uint64_t page) const {
    return (At<std::uint16_t>(page * kPage + 12) - kHead) / 2;
  }
  bool IsLeaf(std::uint64_t page) const { return At<std::uint16_t>(page * kPage + 10) == kLeaf; }

 private:
  template <typename T>
  T At(std::size_t offset) const {
    T value;
    std::memcpy(&value, file_.data() + offset, sizeof value);
    return value;
  }
  template <typename Visit>
  void ForEachNode(std::uint64_t page, Visit&& visit) const {
    for (std::size_t i = 0; i < NodesOf(page); ++i) {
      visit(page * kPage + At<std::uint16_t>(page * kPage + kHead + 2 * i));
    }
  }
  void Add(std::uint64_t page) {
    numbers_.push_back(page);
    if (IsLeaf(page)) return;
    ForEachNode(page, [&](std::size_t node) { Add(At<std::uint32_t>(node)); });
  }

  std::string const& file_;
  std::vector<std::uint64_t> numbers_;
};

constexpr char const* kTrees[] = {"rows", "index"};

class KeyOrderTest : public testing::Test {
 protected:
  KeyOrderTest() {
    Database database(directory_.path(), Options());
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(50, {{LORV_TYPE_LONG, 100}});
    index_ = session.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100}});
    for (int i = 0; i < kRows; ++i) {
      rows_.push_back(session.Insert(layout));
      session.PutLong(rows_.back(), kNumber, i);
    }
    session.Commit();
    session.Close();
    database.Close();
    sound_ = ReadFile(File());
  }

  static lscoredb_options Options() {
    lscoredb_options options = NoSync();
    options.row_memory = LSCOREDB_NO_ROW_MEMORY;
    return options;
  }
  std::string File() const { return directory_ / "data.mdb"; }

  // The file in which two neighbours of a page have changed places. The first node of a branch has
  // no key.
  void BreakPage(TreePages const& pages, std::uint64_t page) {
    std::size_t const first = pages.IsLeaf(page) ? 0 : 1;
    ASSERT_LE(first + 4, pages.NodesOf(page));
    std::size_t const at = page * kPage + kHead + 2 * (first + 1);
    std::string broken = sound_;
    std::swap_ranges(&broken[at], &broken[at + 2], &broken[at + 2]);
    WriteFile(File(), broken);
  }

  // Calls `work` with every page of the tree broken in turn, except its root.
  template <typename Work>
  void ForEachPage(char const* tree, Work&& work) {
    TreePages const pages(sound_, tree);
    ASSERT_LT(4U, pages.numbers().size());
    for (std::uint64_t const page : pages.numbers()) {
      if (page == pages.numbers().front()) continue;
      SCOPED_TRACE("page " + std::to_string(page));
      ASSERT_NO_FATAL_FAILURE(BreakPage(pages, page));
      work();
    }
  }

  std::uint32_t ChangeAll(Database const& database) {
    Session session(database);
    session.Begin();
    for (Oid const row : rows_) {
      std::uint32_t const status = lorv_context_put_long(session.context(), row, 0, kNumber, 10000);
      EXPECT_TRUE(status == 0 || status == LSCOREDB_DAMAGED);
    }
    return session.TryCommit();
  }

  TemporaryDirectory directory_;
  std::string sound_;
  Oids rows_;
  IndexId index_ = 0;
};

TEST_F(KeyOrderTest, Root_IsFoundByOpening) {
  for (char const* const tree : kTrees) {
    TreePages const pages(sound_, tree);
    ASSERT_NO_FATAL_FAILURE(BreakPage(pages, pages.numbers().front()));
    lscoredb_options const options = Options();
    lscoredb* refused = nullptr;
    EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_open(directory_.path().c_str(), &options, &refused));
  }
}

TEST_F(KeyOrderTest, BatchThatTouchesThePage_IsRefused) {
  for (char const* const tree : kTrees) {
    ForEachPage(tree, [&] {
      Database database(directory_.path(), Options());
      database.ExpectDamage();
      EXPECT_STATUS(LSCOREDB_DAMAGED, ChangeAll(database));
    });
  }
}

// An object is never said not to be there.
TEST_F(KeyOrderTest, Lookup_FindsTheObjectOrRefuses) {
  ForEachPage("rows", [&] {
    Database database(directory_.path(), Options());
    database.ExpectDamage();
    Session session(database);
    session.BeginReadOnly();
    std::size_t found = 0;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      std::int64_t number = 0;
      std::uint32_t const status =
          lorv_context_get_long(session.context(), rows_[i], 0, kNumber, &number);
      if (status == 0) {
        EXPECT_EQ(static_cast<std::int64_t>(i), number);
        ++found;
      } else {
        EXPECT_STATUS(LSCOREDB_DAMAGED, status);
      }
    }
    EXPECT_LT(rows_.size() / 2, found) << "others are read";
  });
}

// The pages on the way to the entry that a scan begins with are not looked at.
TEST_F(KeyOrderTest, Scan_StopsBeforeAnyPageButTheFirst) {
  int pages = 0;
  int unnoticed = 0;
  ForEachPage("index", [&] {
    ++pages;
    Database database(directory_.path(), Options());
    database.ExpectDamage();
    Session session(database);
    session.BeginReadOnly();
    try {
      EXPECT_EQ(rows_.size(), session.Scan(index_).size());
      ++unnoticed;
    } catch (Unexpected const& refused) {
      EXPECT_STATUS(LSCOREDB_DAMAGED, refused.status());
    }
  });
  EXPECT_LT(4, pages);
  EXPECT_LE(unnoticed, 2);
}

TEST_F(KeyOrderTest, VerifyAndCheck_FindIt) {
  for (char const* const tree : kTrees) {
    ForEachPage(tree, [&] {
      lscoredb_options options = Options();
      options.verify = 1;
      lscoredb* refused = nullptr;
      EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_open(directory_.path().c_str(), &options, &refused));
      Database database(directory_.path(), Options());
      database.ExpectDamage();
      EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_check(database.get(), 0, nullptr, nullptr));
    });
  }
}

}  // namespace
}  // namespace lscoredb_test

// Long seeded sequences of changes to indexed rows, against a vector that is sorted anew each time.

#include <algorithm>
#include <map>
#include <random>
#include <tuple>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

struct Row {
  std::optional<std::int64_t> number;
  std::optional<Text> text;
};

// Index order of the tests below: number rising, then text falling, then identity; null below
// values.
struct Entry {
  std::optional<std::int64_t> number;
  std::optional<Text> text;
  Oid oid;

  bool operator<(Entry const& other) const {
    if (number != other.number) return number < other.number;
    if (text != other.text) return text > other.text;
    return oid < other.oid;
  }
};

class IndexModelTest : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override {
    session_.Begin();
    layout_ = session_.CreateLayout(50, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
    index_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}},
                                  {.unique = false, .descending = 2});
    session_.Commit();
    session_.Begin();
    committed_ = model_;
  }

  int Random(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  std::optional<std::int64_t> RandomNumber() {
    if (Random(8) == 0) return std::nullopt;
    return Random(6) - 3;
  }

  // Few distinct texts, some of them longer than the store's own keys and alike up to their end.
  std::optional<Text> RandomText() {
    if (Random(8) == 0) return std::nullopt;
    Text text(Random(4) == 0 ? 700U : static_cast<unsigned>(Random(3)), u'\x3B1');
    for (int i = Random(3); i > 0; --i) text += static_cast<char16_t>(u'a' + Random(2));
    return text;
  }

  void Put(Oid oid, Row const& row) {
    row.number ? session_.PutLong(oid, 2, *row.number) : session_.PutDefault(oid, 2);
    row.text ? session_.PutString(oid, 3, *row.text) : session_.PutDefault(oid, 3);
    model_[oid] = row;
  }

  void Step() {
    int const what = Random(10);
    if (model_.empty() || what < 4) {
      Put(session_.Insert(layout_), {RandomNumber(), RandomText()});
      return;
    }
    auto const at = std::next(model_.begin(), Random(static_cast<int>(model_.size())));
    if (what < 8) {
      Put(at->first, {RandomNumber(), RandomText()});
    } else {
      session_.Delete(at->first);
      model_.erase(at);
    }
  }

  void EndTransaction() {
    if (Random(3) == 0) {
      session_.Rollback();
      model_ = committed_;
    } else {
      session_.Commit();
      committed_ = model_;
    }
    session_.Begin();
  }

  std::vector<Entry> Entries() const {
    std::vector<Entry> entries;
    for (auto const& [oid, row] : model_) entries.push_back({row.number, row.text, oid});
    std::sort(entries.begin(), entries.end());
    return entries;
  }

  void ExpectWholeIndex() {
    Oids expected;
    for (Entry const& entry : Entries()) expected.push_back(entry.oid);
    EXPECT_EQ(session_.Scan(index_), expected);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(session_.ScanBack(index_), expected);
  }

  static Key KeyOf(Row const& row, bool both) {
    Key key;
    row.number ? key.Long(*row.number) : key.Null();
    if (both) row.text ? key.Text(*row.text) : key.Null();
    return key;
  }

  // A bound that stops after the number compares by the number alone.
  static bool Below(Entry const& entry, Row const& bound, bool both) {
    if (entry.number != bound.number) return entry.number < bound.number;
    return both && entry.text > bound.text;
  }

  static bool Above(Entry const& entry, Row const& bound, bool both) {
    if (entry.number != bound.number) return entry.number > bound.number;
    return both && entry.text < bound.text;
  }

  void ExpectRandomRange() {
    Row const low{RandomNumber(), RandomText()};
    Row const high{RandomNumber(), RandomText()};
    bool const low_both = Random(2) == 0;
    bool const high_both = Random(2) == 0;
    Oids expected;
    for (Entry const& entry : Entries())
      if (!Below(entry, low, low_both) && !Above(entry, high, high_both))
        expected.push_back(entry.oid);
    EXPECT_EQ(session_.Scan(index_, KeyOf(low, low_both), KeyOf(high, high_both)), expected);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(session_.ScanBack(index_, KeyOf(high, high_both), KeyOf(low, low_both)), expected);
  }

  Database database_;
  Session session_{database_};
  std::mt19937 random_{GetParam()};
  std::map<Oid, Row> model_;
  std::map<Oid, Row> committed_;
  LayoutId layout_ = 0;
  IndexId index_ = 0;
};

TEST_P(IndexModelTest, Scans_AgreeWithASortedVector) {
  for (int i = 0; i < 400 && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    Step();
    if (Random(10) == 0) EndTransaction();
    ExpectRandomRange();
    if (i % 10 == 0) ExpectWholeIndex();
  }
  session_.Commit();
  session_.Begin();
  ExpectWholeIndex();
}

INSTANTIATE_TEST_SUITE_P(Seeds, IndexModelTest, testing::Range(1U, 9U));

}  // namespace
}  // namespace lscoredb_test

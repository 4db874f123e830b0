// What the check reports: each rule is broken by itself, in the file of a sound database.

#include <thread>

#include "kernel_test.h"
#include "stored_records.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kNumber = 2;
constexpr std::uint32_t kName = 3;
constexpr std::uint64_t kLayoutToken = 50;
constexpr std::uint64_t kNumbersToken = 60;
constexpr std::uint64_t kNamesToken = 61;
constexpr Oid kNobody = 77777;

class CheckTest : public testing::Test {
 protected:
  void SetUp() override {
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    layout_ = session.CreateLayout(kLayoutToken, {{LORV_TYPE_LONG, 100}, {LORV_TYPE_STRING, 101}});
    numbers_ = session.CreateIndex(kNumbersToken, kSet, {{LORV_TYPE_LONG, 100}});
    names_ = session.CreateIndex(kNamesToken, kSet, {{LORV_TYPE_STRING, 101}});
    for (int i = 0; i < 5; ++i)
      rows_.push_back(Add(session, i / 2, Text(1, static_cast<char16_t>(u'A' + i))));
    outsider_ = session.Insert(layout_, u"elsewhere/");
    session.Commit();
  }

  Oid Add(Session& session, std::int64_t number, Text const& name) const {
    Oid const row = session.Insert(layout_);
    session.PutLong(row, kNumber, number);
    session.PutString(row, kName, name);
    return row;
  }

  StoredTree Tree(char const* name) { return {directory_.path(), name}; }
  std::vector<Finding> Check(std::uint32_t flags = 0) {
    Database database(directory_.path());
    database.ExpectDamage();
    return Findings(database.get(), flags);
  }
  void ExpectOnly(Finding const& finding) { EXPECT_EQ(Check(), std::vector<Finding>{finding}); }
  void ExpectHas(Finding const& finding) {
    std::vector<Finding> const findings = Check();
    EXPECT_NE(std::find(findings.begin(), findings.end(), finding), findings.end())
        << testing::PrintToString(findings);
  }

  std::string RowKey(Oid row) const { return Little(row, 8); }
  // A row's bytes changed, with a checksum that fits.
  void ChangeRow(Oid row, std::size_t at, std::string const& bytes) {
    StoredTree rows = Tree("rows");
    std::string image = rows.Get(RowKey(row));
    rows.Put(RowKey(row), Summed(image.replace(at, bytes.size(), bytes)));
  }
  // An object's entry in an index: both take one byte in the key while they are small.
  std::string EntryKey(StoredTree& tree, IndexId index, Oid row) const {
    std::string const prefix(1, static_cast<char>(index));
    return tree.Find([&](std::string const& key) {
      return key.starts_with(prefix) && key.back() == static_cast<char>(row);
    });
  }

  Finding OfLayout(std::uint32_t kind, LayoutId layout) const {
    return {.kind = kind, .layout = layout};
  }
  Finding OfIndex(std::uint32_t kind, IndexId index) const {
    return {.kind = kind, .index = index};
  }
  Finding OfObject(std::uint32_t kind, Oid object, LayoutId layout = 0) const {
    return {.kind = kind, .object = object, .layout = layout};
  }
  Finding OfEntry(std::uint32_t kind, Oid object, IndexId index, LayoutId layout) const {
    return {.kind = kind, .object = object, .index = index, .layout = layout};
  }

  TemporaryDirectory directory_;
  LayoutId layout_ = 0;
  IndexId numbers_ = 0;
  IndexId names_ = 0;
  Oids rows_;
  Oid outsider_ = 0;
};

// ---- the call itself ---------------------------------------------------------------------------

TEST_F(CheckTest, SoundDatabase_ReportsNothing) {
  EXPECT_EQ(Check(), std::vector<Finding>());
  EXPECT_EQ(Check(LSCOREDB_CHECK_PAGES_ONLY), std::vector<Finding>());
  EXPECT_EQ(Check(LSCOREDB_CHECK_NO_ENTRIES), std::vector<Finding>());
}

TEST_F(CheckTest, DatabaseInMemory_CanBeChecked) {
  Database database;
  Session session(database);
  session.Begin();
  session.Insert(session.CreateLayout(kLayoutToken, {{LORV_TYPE_LONG, 100}}));
  session.Commit();
  EXPECT_STATUS(0, lscoredb_check(database.get(), 0, nullptr, nullptr));
}

TEST_F(CheckTest, BadArguments_AreRefused) {
  Database database;
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lscoredb_check(nullptr, 0, nullptr, nullptr));
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, lscoredb_check(database.get(), 64, nullptr, nullptr));
}

TEST_F(CheckTest, FirstFinding_EndsTheCheckWithoutAReport) {
  Tree("index").Put(
      "\x7F"
      "nobody's",
      "");
  Database database(directory_.path());
  database.ExpectDamage();
  EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_check(database.get(), 0, nullptr, nullptr));
}

TEST_F(CheckTest, Host_CanEndTheCheck) {
  for (Oid const row : rows_) ChangeRow(row, 8, Little(1000000, 8));
  Database database(directory_.path());
  database.ExpectDamage();
  int reported = 0;
  auto const count_two = [](void* user, lscoredb_finding const*) -> std::uint32_t {
    return ++*static_cast<int*>(user) == 2;
  };
  EXPECT_STATUS(LSCOREDB_DAMAGED, lscoredb_check(database.get(), 0, count_two, &reported));
  EXPECT_EQ(reported, 2);
}

TEST_F(CheckTest, ExceptionOfTheHost_EndsTheCheckAndIsRethrown) {
  for (Oid const row : rows_) ChangeRow(row, 8, Little(1000000, 8));
  Database database(directory_.path());
  database.ExpectDamage();
  auto const fail = [](void*, lscoredb_finding const*) -> std::uint32_t {
    throw std::runtime_error("the report's disk is full");
  };
  auto const fail_oddly = [](void*, lscoredb_finding const*) -> std::uint32_t { throw 7; };
  try {
    lscoredb_check(database.get(), 0, fail, nullptr);
    ADD_FAILURE() << "nothing came out";
  } catch (std::runtime_error const& error) {
    EXPECT_STREQ("the report's disk is full", error.what());
  }
  EXPECT_THROW(lscoredb_check(database.get(), 0, fail_oddly, nullptr), int);
  EXPECT_EQ(Findings(database.get()).size(), rows_.size());
}

TEST_F(CheckTest, WithoutEntries_ChecksObjectsOnly) {
  Tree("index").Put(
      "\x7F"
      "nobody's",
      "");
  EXPECT_EQ(Check(LSCOREDB_CHECK_NO_ENTRIES), std::vector<Finding>());
  EXPECT_EQ(Check().size(), 1U);
}

TEST_F(CheckTest, Writers_ContinueDuringACheck) {
  Database database(directory_.path());
  std::atomic<bool> finished = false;
  std::thread writer([&] {
    Session session(database);
    for (int i = 0; i < 300; ++i) {
      session.Begin();
      Add(session, i, Text(300, u'x') + Text(1, static_cast<char16_t>(i + 1)));
      session.PutLong(rows_[0], kNumber, i);
      if (i % 20 == 0) session.CreateIndex(kNamesToken, kSet, {{LORV_TYPE_STRING, 101}});
      session.Commit();
    }
    finished = true;
  });
  while (!finished) EXPECT_EQ(Findings(database.get()), std::vector<Finding>());
  writer.join();
}

// ---- pages -------------------------------------------------------------------------------------

TEST_F(CheckTest, PageOfAnotherKind_IsReportedByItsObjects) {
  std::string const text(300, 'z');
  {
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    for (int i = 0; i < 50; ++i) Add(session, i, Text(300, u'y'));
    rows_.push_back(Add(session, 1, Text(300, u'z')));
    session.Commit();
  }
  std::string content = ReadFile(directory_ / "data.mdb");
  for (std::size_t at = content.find(text); at != std::string::npos;
       at = content.find(text, at + 1)) {
    content[at / 4096 * 4096 + 10] = 0x55;
  }
  WriteFile(directory_ / "data.mdb", content);
  bool reported = false;
  for (Finding const& finding : Check()) {
    EXPECT_EQ(finding.kind, LSCOREDB_FINDING_PAGES);
    reported = reported || (finding.object != 0 && finding.object <= rows_.back());
  }
  EXPECT_TRUE(reported);
}

// ---- definitions -------------------------------------------------------------------------------

TEST_F(CheckTest, DefinitionWithAWrongChecksum_IsReported) {
  std::string const key = "T" + Big(kLayoutToken, 8) + Big(layout_, 2);
  {
    StoredTree tree = Tree("definitions");
    std::string value = tree.Get(key);
    value[0] ^= 1;
    tree.Put(key, value);
  }
  ExpectOnly(OfLayout(LSCOREDB_FINDING_DEFINITION, layout_));
}

TEST_F(CheckTest, TruncatedDefinition_IsReported) {
  Tree("definitions").Change("I" + Big(names_, 8), [](std::string& record) { record.resize(10); });
  ExpectOnly(OfIndex(LSCOREDB_FINDING_DEFINITION, names_));
}

TEST_F(CheckTest, DefinitionOfAnUnknownKind_IsReported) {
  Tree("definitions").PutChecked("Q", "");
  ExpectOnly({.kind = LSCOREDB_FINDING_DEFINITION});
}

TEST_F(CheckTest, ClosedSetUnderAnotherKey_IsReported) {
  {
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    ::lscoredb_test::Check("close_set", lscoredb_close_set(session.context(), u"closed/", 0));
    session.Commit();
  }
  EXPECT_EQ(Check(), std::vector<Finding>());
  {
    StoredTree tree = Tree("definitions");
    std::string const key = tree.FindPrefix("Z");
    tree.PutChecked(key + "x", WithoutChecksum(tree.Get(key)));
  }
  ExpectOnly({.kind = LSCOREDB_FINDING_DEFINITION});
}

TEST_F(CheckTest, ClosedSetWithoutReference_IsReported) {
  Tree("definitions").PutChecked("Z", std::string(1, '\0') + "closed/");
  EXPECT_EQ(Check().size(), 2U);
}

TEST_F(CheckTest, CountAmongDefinitions_IsReported) {
  Tree("definitions").PutChecked("C" + Big(layout_, 2), Little(0, 9));
  ExpectOnly(OfLayout(LSCOREDB_FINDING_DEFINITION, layout_));
}

TEST_F(CheckTest, ImpossibleTypeOfAnIndexedColumn_IsReported) {
  Tree("definitions").Change("I" + Big(names_, 8), [](std::string& record) { record[16] = 77; });
  ExpectOnly({.kind = LSCOREDB_FINDING_DEFINITION, .index = names_, .column = 0});
}

TEST_F(CheckTest, UnreadableIdentities_AreReported) {
  Tree("meta").Put("next-id", "?");
  ExpectOnly({.kind = LSCOREDB_FINDING_DEFINITION});
}

TEST_F(CheckTest, LayoutNotFoundByItsToken_IsReported) {
  Tree("definitions").Delete("T" + Big(kLayoutToken, 8) + Big(layout_, 2));
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, layout_));
}

TEST_F(CheckTest, TokenOfAnotherLayout_IsReported) {
  Tree("definitions").PutChecked("T" + Big(51, 8) + Big(layout_, 2), Little(1, 12));
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, layout_));
}

TEST_F(CheckTest, TokenOfNoLayout_IsReported) {
  Tree("definitions").PutChecked("T" + Big(51, 8) + Big(999, 2), Little(1, 12));
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, 999));
}

TEST_F(CheckTest, LayoutOlderOrYoungerThanItsToken_IsReported) {
  Tree("definitions").PutChecked("T" + Big(kLayoutToken, 8) + Big(layout_, 2), Little(77, 12));
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, layout_));
}

TEST_F(CheckTest, LayoutWithoutItsBase_IsReported) {
  Tree("definitions").Change("L" + Big(layout_, 2), [](std::string& record) {
    record.replace(0, 2, Little(999, 2));
  });
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, layout_));
}

TEST_F(CheckTest, CountOfNoLayout_IsReported) {
  Tree("meta").PutChecked("C" + Big(999, 2), Little(3, 8) + Little(0, 1));
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, 999));
}

TEST_F(CheckTest, ReleaseOfNoLayout_IsReported) {
  Tree("definitions").PutChecked("R" + Big(999, 2), "");
  ExpectOnly(OfLayout(LSCOREDB_FINDING_LAYOUT, 999));
}

TEST_F(CheckTest, IndexNotFoundByItsToken_IsReported) {
  Tree("definitions").Delete("J" + Big(kNamesToken, 8) + Big(names_, 8));
  ExpectOnly(OfIndex(LSCOREDB_FINDING_INDEX, names_));
}

TEST_F(CheckTest, IndexNotFoundByItsSet_IsReported) {
  {
    StoredTree tree = Tree("definitions");
    tree.Delete(tree.Find([&](std::string const& key) {
      return key.starts_with("S") && key.ends_with(Big(names_, 8));
    }));
  }
  ExpectOnly(OfIndex(LSCOREDB_FINDING_INDEX, names_));
}

TEST_F(CheckTest, NameOfNoIndex_IsReported) {
  Tree("definitions").PutChecked("J" + Big(kNamesToken, 8) + Big(999, 8), "");
  Tree("definitions").PutChecked("S" + Big(1, 8) + Big(998, 8), "");
  EXPECT_EQ(Check(), (std::vector<Finding>{OfIndex(LSCOREDB_FINDING_INDEX, 999),
                                           OfIndex(LSCOREDB_FINDING_INDEX, 998)}));
}

TEST_F(CheckTest, SetOfAnotherIndex_IsReported) {
  Tree("definitions").PutChecked("S" + Big(1, 8) + Big(names_, 8), "");
  ExpectOnly(OfIndex(LSCOREDB_FINDING_INDEX, names_));
}

TEST_F(CheckTest, WrongCount_IsReported) {
  Tree("meta").Change("C" + Big(layout_, 2), [](std::string& record) { record[0] = 9; });
  ExpectOnly(OfLayout(LSCOREDB_FINDING_COUNT, layout_));
}

TEST_F(CheckTest, ChangeNotRecordedForItsSet_IsReported) {
  {
    StoredTree tree = Tree("meta");
    std::string elsewhere = "W";
    for (char const letter : std::string("elsewhere/")) elsewhere += std::string(1, '\0') + letter;
    tree.Delete(tree.FindPrefix(elsewhere));
  }
  ExpectOnly(OfObject(LSCOREDB_FINDING_SET_CHANGE, outsider_));
}

TEST_F(CheckTest, ChangeRecordedUnderAnotherSet_IsReported) {
  Tree("meta").PutChecked("Wxyz", Little(1, 8) + std::string("\0set/", 5));
  ExpectOnly({.kind = LSCOREDB_FINDING_DEFINITION});
}

TEST_F(CheckTest, ContradictoryFreeIdentityRanges_AreReported) {
  auto const key = [](char first) { return "F" + std::string(7, '\0') + first; };
  Tree("meta").PutChecked(key(5), Little(5, 8));
  ExpectOnly(OfObject(LSCOREDB_FINDING_NEXT_ID, 5));
  Tree("meta").PutChecked(key(5), Little(9, 8));
  Tree("meta").PutChecked(key(8), Little(12, 8));
  ExpectOnly(OfObject(LSCOREDB_FINDING_NEXT_ID, 8));
  Tree("meta").PutChecked(key(8), Little(std::uint64_t{1} << 50, 8));
  ExpectOnly(OfObject(LSCOREDB_FINDING_NEXT_ID, 8));
}

TEST_F(CheckTest, DeletedIdentityInUse_IsReported) {
  Tree("meta").PutChecked("X" + std::string(7, '\0') + static_cast<char>(3), "");
  ExpectOnly(OfObject(LSCOREDB_FINDING_NEXT_ID, 3));
}

TEST_F(CheckTest, IndexIdentityThatCouldBeReused_IsReported) {
  IndexId last = 0;
  {
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    last = session.CreateIndex(kNumbersToken, u"nowhere/", {{LORV_TYPE_LONG, 100}});
    session.Commit();
  }
  Tree("meta").PutChecked("next-id", Little(last, 8));
  ExpectOnly(OfIndex(LSCOREDB_FINDING_NEXT_ID, last));
}

// ---- objects -----------------------------------------------------------------------------------

TEST_F(CheckTest, ObjectWithAWrongChecksum_IsReported) {
  {
    StoredTree rows = Tree("rows");
    std::string image = rows.Get(RowKey(rows_[2]));
    image.back() ^= 1;
    rows.Put(RowKey(rows_[2]), image);
  }
  ExpectOnly(OfObject(LSCOREDB_FINDING_OBJECT, rows_[2], layout_));
}

TEST_F(CheckTest, BytesOfAnotherObject_AreReported) {
  {
    StoredTree rows = Tree("rows");
    rows.Put(RowKey(rows_[2]), rows.Get(RowKey(rows_[3])));
  }
  ExpectOnly(OfObject(LSCOREDB_FINDING_OBJECT, rows_[2], layout_));
}

TEST_F(CheckTest, TruncatedObject_IsReported) {
  {
    StoredTree rows = Tree("rows");
    rows.Put(RowKey(rows_[2]), Summed(rows.Get(RowKey(rows_[2])).substr(0, 45)));
  }
  ExpectOnly(OfObject(LSCOREDB_FINDING_OBJECT, rows_[2], layout_));
}

TEST_F(CheckTest, ObjectUnderNoLayout_IsReported) {
  ChangeRow(rows_[2], 4, Little(999, 2));
  EXPECT_EQ(Check(), (std::vector<Finding>{OfObject(LSCOREDB_FINDING_OBJECT, rows_[2], 999),
                                           OfLayout(LSCOREDB_FINDING_COUNT, layout_)}));
}

TEST_F(CheckTest, ObjectOfAFutureCommit_IsReported) {
  ChangeRow(rows_[2], 8, Little(1000000, 8));
  ExpectOnly(OfObject(LSCOREDB_FINDING_OBJECT, rows_[2], layout_));
}

// ---- large objects -----------------------------------------------------------------------------

class CheckPartsTest : public CheckTest {
 protected:
  void SetUp() override {
    CheckTest::SetUp();
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    LayoutId const layout = session.CreateLayout(70, {{LORV_TYPE_BINARY, 100}});
    large_ = session.Insert(layout);
    session.PutBinary(large_, 2, Bytes((std::size_t{16} << 20) + 100, 7));
    session.Commit();
  }
  std::string ChunkKey(std::uint32_t part) const { return Big(large_, 8) + Big(part, 4); }

  Oid large_ = 0;
};

TEST_F(CheckPartsTest, MissingChunk_IsReported) {
  std::string const key = ChunkKey(1);
  Tree("parts").Delete(key);
  EXPECT_EQ(Check().at(0).kind, LSCOREDB_FINDING_OVERFLOW);
  EXPECT_EQ(Check().at(0).object, large_);
}

TEST_F(CheckPartsTest, ChunkOfAnotherSize_IsReported) {
  Tree("parts").Put(ChunkKey(1), "short");
  EXPECT_EQ(Check().at(0).kind, LSCOREDB_FINDING_OVERFLOW);
}

TEST_F(CheckPartsTest, ChunksOfNoObject_AreReportedOnce) {
  Tree("parts").Put(Big(kNobody, 8) + Big(0, 4), "lost");
  Tree("parts").Put(Big(kNobody, 8) + Big(1, 4), "lost");
  ExpectOnly(OfObject(LSCOREDB_FINDING_OVERFLOW, kNobody));
}

TEST_F(CheckPartsTest, ChunkBehindTheLast_IsReported) {
  Tree("parts").Put(ChunkKey(2), "more");
  ExpectOnly(OfObject(LSCOREDB_FINDING_OVERFLOW, large_));
}

// ---- entries -----------------------------------------------------------------------------------

TEST_F(CheckTest, MissingEntry_IsReported) {
  {
    StoredTree index = Tree("index");
    index.Delete(EntryKey(index, names_, rows_[1]));
  }
  ExpectOnly(OfEntry(LSCOREDB_FINDING_MISSING_ENTRY, rows_[1], names_, layout_));
}

TEST_F(CheckTest, EntriesOfNoIndex_AreReportedOnce) {
  Tree("index").Put(
      "\x7F"
      "one",
      "");
  Tree("index").Put(
      "\x7F"
      "two",
      "");
  ExpectOnly(OfIndex(LSCOREDB_FINDING_ENTRY, 0x7F));
}

TEST_F(CheckTest, EntryWithAWrongChecksum_IsReported) {
  {
    StoredTree index = Tree("index");
    std::string const key = EntryKey(index, names_, rows_[1]);
    std::string value = index.Get(key);
    value[0] ^= 1;
    index.Put(key, value);
  }
  ExpectOnly(OfIndex(LSCOREDB_FINDING_ENTRY, names_));
}

TEST_F(CheckTest, EntryOfNoObject_IsReported) {
  {
    StoredTree index = Tree("index");
    std::string key = EntryKey(index, names_, rows_[1]);
    std::string const value = WithoutChecksum(index.Get(key));
    key.back() = 100;
    index.PutChecked(key, value);
  }
  ExpectOnly(OfEntry(LSCOREDB_FINDING_ENTRY, 100, names_, layout_));
}

TEST_F(CheckTest, EntryOfAnUncoveredObject_IsReported) {
  {
    StoredTree index = Tree("index");
    std::string key = EntryKey(index, names_, rows_[1]);
    std::string const value = WithoutChecksum(index.Get(key));
    key.back() = static_cast<char>(outsider_);
    index.PutChecked(key, value);
  }
  ExpectOnly(OfEntry(LSCOREDB_FINDING_ENTRY, outsider_, names_, layout_));
}

TEST_F(CheckTest, ObjectWithTwoEntries_IsReported) {
  {
    StoredTree index = Tree("index");
    std::string key = EntryKey(index, names_, rows_[1]);
    std::string const value = WithoutChecksum(index.Get(key));
    ++key[2];  // the first letter of its name
    index.PutChecked(key, value);
  }
  ExpectOnly(OfEntry(LSCOREDB_FINDING_ENTRY, rows_[1], names_, layout_));
}

TEST_F(CheckTest, EntryWithAnotherLayout_IsReported) {
  {
    StoredTree index = Tree("index");
    index.Change(EntryKey(index, names_, rows_[1]),
                 [](std::string& record) { record.replace(0, 2, Little(999, 2)); });
  }
  ExpectOnly(OfEntry(LSCOREDB_FINDING_ENTRY, rows_[1], names_, 999));
}

// ---- unique keys -------------------------------------------------------------------------------

TEST_F(CheckTest, DuplicateKeyInAUniqueIndex_IsReported) {
  Tree("definitions").Change("I" + Big(numbers_, 8), [](std::string& record) { record[8] = 1; });
  EXPECT_EQ(Check(), (std::vector<Finding>{
                         OfEntry(LSCOREDB_FINDING_DUPLICATE_KEY, rows_[1], numbers_, layout_),
                         OfEntry(LSCOREDB_FINDING_DUPLICATE_KEY, rows_[3], numbers_, layout_)}));
}

TEST_F(CheckTest, NullsAndLongKeysThatDifferAtTheirEnds_AreNoDuplicates) {
  Oids added;
  {
    Database database(directory_.path());
    Session session(database);
    session.Begin();
    session.Insert(layout_);
    session.Insert(layout_);
    for (char16_t const end : {u'a', u'b', u'a'}) {
      added.push_back(Add(session, 0, Text(600, u'l') + end));
    }
    session.Commit();
  }
  Tree("definitions").Change("I" + Big(names_, 8), [](std::string& record) { record[8] = 1; });
  ExpectOnly(OfEntry(LSCOREDB_FINDING_DUPLICATE_KEY, added[2], names_, layout_));
}

}  // namespace
}  // namespace lscoredb_test

#include <gtest/gtest.h>
#include <lscoredb/host.h>

#include <cstring>
#include <deque>
#include <memory>
#include <sagleme/metalayer/keys.hpp>
#include <sagleme/metalayer/records.hpp>
#include <vector>

#include "frame/frame.h"
#include "support/recording_kernel.h"

namespace {

using db_util::db_iter_with_keys;
using db_util::db_iterator;
using metalayer::db_record;
using recording_kernel::Answer;

constexpr uint64_t kContext = 77;
constexpr unsigned char kKey[8] = {0x60, 0xC0, 0, 0, 0, 0, 0, 0};

unsigned int CodeOf(std::function<void()> const& work) {
  try {
    work();
  } catch (db_util::db_exception const& failure) {
    return failure.code();
  }
  return 0;
}

// An index of some rows: hands out iterators and counts what is open through the stand-in.
class RecordsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = kContext;
    Answer<&lorv_context_create_iterator>(
        [this](uint64_t, uint64_t, uint32_t, void const*, void const*, uint64_t* out) {
          *out = ++last_iterator_;
          return 0u;
        });
    Answer<&lorv_iterator_next>([this](uint64_t, LORV_REFERENCE* out) { return Next(out); });
    Answer<&lorv_iterator_free>([](uint64_t) { return 0u; });
  }
  void TearDown() override {
    recording_kernel::Reset();
    *metalayer::TlsMetalayerContext::Current() = 0;
  }

  uint32_t Next(LORV_REFERENCE* out) {
    // At the end a kernel sets the identity alone.
    out->oid = 0;
    if (rows_.empty()) return 0;
    *out = rows_.front();
    rows_.pop_front();
    return 0;
  }

  std::deque<LORV_REFERENCE> rows_;
  uint64_t last_iterator_ = 500;
};

// A string record as a kernel gives it out: no terminator, one unit of slack.
LORV_STRING* KernelText(char16_t const* text) {
  static uint32_t memory[64];
  auto* const record = reinterpret_cast<LORV_STRING*>(memory);
  record->length = static_cast<uint32_t>(std::char_traits<char16_t>::length(text));
  std::memset(memory + 1, 0xFF, sizeof memory - sizeof *memory);
  std::memcpy(record->units, text, record->length * sizeof(char16_t));
  return record;
}

TEST_F(RecordsTest, GetString_TerminatesTheTextInPlace) {
  LORV_STRING* const record = KernelText(u"name");
  Answer<&lorv_context_get_string>(
      [record](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING** out) {
        *out = record;
        return 0u;
      });
  char16_t const* const text = db_record(LS_OBJ_REF{1, 2}).get_string(3);
  EXPECT_EQ(record->units, text);
  EXPECT_EQ(u"name", std::u16string(text));
}

TEST_F(RecordsTest, GetString_AsksInTheThreadsContext) {
  LORV_STRING* const record = KernelText(u"");
  Answer<&lorv_context_get_string>(
      [record](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING** out) {
        *out = record;
        return 0u;
      });
  recording_kernel::Record();
  EXPECT_EQ(0, *db_record(LS_OBJ_REF{1, 2}).get_string(3));
  EXPECT_EQ((std::vector<uint64_t>{kContext, 1, 2, 3}), recording_kernel::Calls().at(0).numbers);
}

TEST_F(RecordsTest, GetString_Null_IsANullPointer) {
  Answer<&lorv_context_get_string>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING**) { return LORV_STATUS_NULL; });
  EXPECT_EQ(nullptr, db_record(LS_OBJ_REF{1, 2}).get_string(3));
  EXPECT_EQ(u"", metalayer::GetText({1, 2}, 3));
}

TEST_F(RecordsTest, GetString_Failure_ThrowsTheKernelsCode) {
  Answer<&lorv_context_get_string>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_STRING**) { return LORV_STATUS_NO_OBJECT; });
  EXPECT_EQ(LORV_STATUS_NO_OBJECT, CodeOf([] { db_record(LS_OBJ_REF{1, 2}).get_string(3); }));
}

TEST_F(RecordsTest, GetRef_FoldsPositionAndLayout) {
  Answer<&lorv_context_get_reference>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE* out) {
        *out = {9, 0xABCDEF012345, 0xFEDC};
        return 0u;
      });
  LS_OBJ_REF const reference = db_record(LS_OBJ_REF{1, 2}).get_ref(3);
  EXPECT_EQ(9u, reference.oid);
  EXPECT_EQ(0xABCDEF012345FEDCu, reference.addr);
}

TEST_F(RecordsTest, GetRef_Null_IsTheNullReference) {
  Answer<&lorv_context_get_reference>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE* out) {
        out->oid = 5;
        return LORV_STATUS_NULL;
      });
  LS_OBJ_REF const reference = db_record(LS_OBJ_REF{1, 2}).get_ref(3);
  EXPECT_EQ(0u, reference.oid);
  EXPECT_EQ(0u, reference.addr);
}

TEST_F(RecordsTest, GetRef_Failure_ThrowsTheKernelsCode) {
  Answer<&lorv_context_get_reference>([](uint64_t, uint64_t, uint64_t, uint32_t, LORV_REFERENCE*) {
    return LORV_STATUS_UNREACHABLE;
  });
  EXPECT_EQ(LORV_STATUS_UNREACHABLE, CodeOf([] { db_record(LS_OBJ_REF{1, 2}).get_ref(3); }));
}

TEST_F(RecordsTest, Record_IsNullByItsIdentityAlone) {
  EXPECT_TRUE(db_record(LS_OBJ_REF{0, 17}).is_null());
  EXPECT_FALSE(db_record(LS_OBJ_REF{17, 0}).is_null());
  EXPECT_TRUE(db_record().is_null());
}

TEST_F(RecordsTest, IntegerOfANullColumn_IsAFailure) {
  Answer<&lorv_context_get_ulong>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, uint64_t*) { return LORV_STATUS_NULL; });
  EXPECT_EQ(LORV_STATUS_NULL, CodeOf([] { metalayer::GetULong({1, 2}, 3); }));
}

TEST_F(RecordsTest, PutBool_WritesOneForTrue) {
  Answer<&lorv_context_put_ulong>(
      [](uint64_t, uint64_t, uint64_t, uint32_t, uint64_t) { return 0u; });
  recording_kernel::Record();
  metalayer::PutBool({1, 2}, 3, true);
  EXPECT_EQ((std::vector<uint64_t>{kContext, 1, 2, 3, 1}), recording_kernel::Calls().at(0).numbers);
}

// ---- lookups ------------------------------------------------------------------------------------

TEST_F(RecordsTest, Lookup_ReadsOneRowWithOneKeyForBothBounds) {
  rows_ = {{11, 3, 4}, {12, 3, 4}};
  recording_kernel::Record();
  LS_OBJ_REF const row = metalayer::LookupByKey(6, kKey);
  EXPECT_EQ(11u, row.oid);
  EXPECT_EQ((uint64_t{3} << 16 | 4), row.addr);
  EXPECT_EQ((std::vector<std::string>{"lorv_context_create_iterator", "lorv_iterator_next",
                                      "lorv_iterator_free"}),
            recording_kernel::Names());
  recording_kernel::Call const& created = recording_kernel::Calls().at(0);
  EXPECT_EQ((std::vector<uint64_t>{kContext, 6, 0x70}), created.numbers);
  EXPECT_EQ(created.keys.at(0), created.keys.at(1));
}

TEST_F(RecordsTest, LookupWithoutAMatch_IsNullAndLeavesNothingOpen) {
  LS_OBJ_REF const row = metalayer::LookupByKey(6, kKey);
  EXPECT_EQ(0u, row.oid);
  EXPECT_EQ(0u, row.addr);
  EXPECT_EQ(0, recording_kernel::OpenIterators());
}

TEST_F(RecordsTest, LookupThatCannotOpen_ThrowsAndFreesNothing) {
  recording_kernel::FailNthOf("lorv_context_create_iterator", 1, LSCOREDB_UNKNOWN_ITERATOR);
  recording_kernel::Record();
  EXPECT_EQ(LSCOREDB_UNKNOWN_ITERATOR, CodeOf([] { metalayer::LookupByKey(6, kKey); }));
  EXPECT_EQ((std::vector<std::string>{"lorv_context_create_iterator"}), recording_kernel::Names());
}

TEST_F(RecordsTest, LookupThatCannotStep_ThrowsAndLeavesNothingOpen) {
  recording_kernel::FailNthOf("lorv_iterator_next", 1, LSCOREDB_UNKNOWN_ITERATOR);
  EXPECT_EQ(LSCOREDB_UNKNOWN_ITERATOR, CodeOf([] { metalayer::LookupByKey(6, kKey); }));
  EXPECT_EQ(0, recording_kernel::OpenIterators());
}

// ---- scans --------------------------------------------------------------------------------------

TEST_F(RecordsTest, Scan_GivesEachRowAndEndsWithTheNullReference) {
  rows_ = {{11, 0, 4}, {12, 0, 4}, {13, 0, 4}};
  db_iterator scan;
  scan.open(6, metalayer::kForward, kKey, kKey);
  std::vector<uint64_t> seen;
  while (scan.next()) seen.push_back(scan.current.oid);
  EXPECT_EQ((std::vector<uint64_t>{11, 12, 13}), seen);
  EXPECT_EQ(0u, scan.current.oid);
  EXPECT_EQ(0u, scan.current.addr);
}

TEST_F(RecordsTest, ScanLeftEarly_FreesItsIterator) {
  rows_ = {{11, 0, 4}, {12, 0, 4}};
  {
    db_iterator scan;
    scan.open(6, metalayer::kForward, kKey, kKey);
    ASSERT_TRUE(scan.next());
    EXPECT_EQ(1, recording_kernel::OpenIterators());
  }
  EXPECT_EQ(0, recording_kernel::OpenIterators());
}

TEST_F(RecordsTest, FailureInAScan_FreesItsIterator) {
  rows_ = {{11, 0, 4}};
  EXPECT_THROW(
      {
        db_iterator scan;
        scan.open(6, metalayer::kForward, kKey, kKey);
        throw std::runtime_error("in the scan");
      },
      std::runtime_error);
  EXPECT_EQ(0, recording_kernel::OpenIterators());
}

TEST_F(RecordsTest, OpeningAgain_FreesTheOldIteratorFirst) {
  db_iterator scan;
  scan.open(6, metalayer::kForward, kKey, kKey);
  scan.next();
  recording_kernel::Record();
  scan.open(7, metalayer::kForward, kKey, kKey);
  EXPECT_EQ((std::vector<std::string>{"lorv_iterator_free", "lorv_context_create_iterator"}),
            recording_kernel::Names());
  EXPECT_EQ(502u, scan.handle);
}

TEST_F(RecordsTest, OpeningAgainInVain_LeavesTheIteratorEmpty) {
  rows_ = {{11, 0, 4}};
  db_iterator scan;
  scan.open(6, metalayer::kForward, kKey, kKey);
  scan.next();
  recording_kernel::FailNthOf("lorv_context_create_iterator", 1, LSCOREDB_INVALID_ARGUMENT);
  EXPECT_EQ(LSCOREDB_INVALID_ARGUMENT,
            CodeOf([&] { scan.open(7, metalayer::kForward, kKey, kKey); }));
  EXPECT_EQ(0u, scan.handle);
  EXPECT_EQ(0u, scan.current.oid);
}

TEST_F(RecordsTest, FreeResourcesThenDestructor_FreeOnce) {
  recording_kernel::Record();
  {
    db_iterator scan;
    scan.open(6, metalayer::kForward, kKey, kKey);
    scan.free_resources();
    scan.free_resources();
    EXPECT_EQ(0u, scan.handle);
  }
  EXPECT_EQ(1u, recording_kernel::CallsOf("lorv_iterator_free").size());
}

TEST_F(RecordsTest, IteratorDeletedThroughItsBase_FreesOnce) {
  std::unique_ptr<db_iterator> scan = std::make_unique<db_iter_with_keys>();
  scan->open(6, metalayer::kForward, kKey, kKey);
  recording_kernel::Record();
  scan.reset();
  EXPECT_EQ((std::vector<std::string>{"lorv_iterator_free"}), recording_kernel::Names());
}

TEST_F(RecordsTest, UnopenedIterator_FreesNothing) {
  recording_kernel::Record();
  { db_iter_with_keys scan; }
  EXPECT_TRUE(recording_kernel::Calls().empty());
}

TEST_F(RecordsTest, IteratorWithKeys_PassesItsOwnTwoBounds) {
  recording_kernel::Record();
  db_iter_with_keys scan;
  metalayer::Key(scan.first_key).ULong(9);
  metalayer::Key(scan.last_key).ULong(1);
  scan.open(6, metalayer::kReverse);
  recording_kernel::Call const& created = recording_kernel::Calls().at(0);
  EXPECT_EQ((std::vector<uint64_t>{kContext, 6, 0x80070}), created.numbers);
  EXPECT_EQ(9, created.keys.at(0).at(8));
  EXPECT_EQ(1, created.keys.at(1).at(8));
}

using RecordsDeathTest = RecordsTest;

TEST_F(RecordsDeathTest, IteratorThatTheKernelKeeps_EndsTheProcess) {
  EXPECT_EXIT(
      {
        db_iterator scan;
        scan.open(6, metalayer::kForward, kKey, kKey);
        recording_kernel::FailNthOf("lorv_iterator_free", 1, 1);
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(RecordsDeathTest, IteratorThatTheKernelKeepsInAFailure_EndsTheProcess) {
  EXPECT_EXIT(
      {
        CodeOf([] {
          db_iterator scan;
          scan.open(6, metalayer::kForward, kKey, kKey);
          recording_kernel::FailNthOf("lorv_iterator_free", 1, 1);
          db_util::db_exception::check(4711);
        });
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(RecordsDeathTest, IteratorThatTheKernelKeepsOnReopening_EndsTheProcess) {
  EXPECT_EXIT(
      {
        db_iterator scan;
        scan.open(6, metalayer::kForward, kKey, kKey);
        recording_kernel::FailNthOf("lorv_iterator_free", 1, 1);
        scan.open(6, metalayer::kForward, kKey, kKey);
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace

// Every function of the contract against every kind of misuse. The calls stand in one table: each
// works when it is given what it needs, and then one thing is taken away.

#include <lscoredb/move.h>
#include <lscoredb/require.h>

#include <set>

#include "kernel_test.h"

namespace lscoredb_test {
namespace {

constexpr std::uint32_t kText = 2;
constexpr std::uint32_t kBinary = 3;
constexpr std::uint32_t kLong = 4;
constexpr std::uint32_t kULong = 5;
constexpr std::uint32_t kDecimal = 6;
constexpr std::uint32_t kFloat = 7;
constexpr std::uint32_t kDouble = 8;
constexpr std::uint32_t kReference = 9;

// What a call is made with.
struct Target {
  std::uint64_t context;
  Oid oid;
  std::uint64_t addr;
  std::uint32_t column_shift = 0;  // added to every column number
};

struct Call {
  char const* name;
  std::function<std::uint32_t(Target const&)> run;
};
using Calls = std::vector<Call>;

struct Outputs {
  std::uint64_t word = 77;
  std::int64_t number = 77;
  float single = 77;
  double twice = 77;
  LORV_STRING* text = nullptr;
  LORV_BINARY* binary = nullptr;
  LORV_REFERENCE reference{77, 77, 77};
  char16_t const* units = nullptr;

  bool Untouched() const {
    return word == 77 && number == 77 && single == 77.0F && twice == 77.0 && text == nullptr &&
           binary == nullptr && reference.oid == 77 && reference.position == 77 &&
           reference.layout == 77 && units == nullptr;
  }
};

class BadInputTest : public KernelTest {
 protected:
  void SetUp() override {
    session_.Begin();
    Columns columns;
    for (std::uint32_t type = LORV_TYPE_STRING; type <= LORV_TYPE_REFERENCE; ++type)
      columns.push_back({type, 100 + type});
    layout_ = session_.CreateLayout(50, columns);
    empty_layout_ = session_.CreateLayout(52, columns);
    index_ = session_.CreateIndex(60, kSet, {{LORV_TYPE_LONG, 100 + LORV_TYPE_LONG}});
    row_ = session_.Insert(layout_);
    session_.PutString(row_, kText, u"x");
    session_.PutBinary(row_, kBinary, {1});
    session_.PutLong(row_, kLong, 1);
    session_.PutULong(row_, kULong, 1);
    session_.PutDecimal(row_, kDecimal, 1);
    session_.PutFloat(row_, kFloat, 1);
    session_.PutDouble(row_, kDouble, 1);
    session_.PutReference(row_, kReference, row_);
    session_.Commit();
  }

  Target Good() const { return {session_.context(), row_, layout_}; }

  Calls ColumnReads();
  Calls ColumnWrites();
  Calls ObjectReads();
  Calls ObjectWrites();
  Calls SchemaReads();
  Calls SchemaWrites();

  static Calls Joined(std::vector<Calls> const& lists) {
    Calls all;
    for (Calls const& list : lists) all.insert(all.end(), list.begin(), list.end());
    return all;
  }

  Calls Reads() { return Joined({ColumnReads(), ObjectReads(), SchemaReads()}); }
  Calls Writes() { return Joined({ColumnWrites(), ObjectWrites(), SchemaWrites()}); }
  Calls All() { return Joined({Reads(), Writes()}); }

  void ExpectEach(std::uint32_t status, Calls const& calls, Target const& target) {
    for (Call const& call : calls) {
      SCOPED_TRACE(call.name);
      outputs_ = Outputs();
      EXPECT_STATUS(status, call.run(target));
      EXPECT_TRUE(status == LORV_STATUS_OK || outputs_.Untouched());
    }
  }

  std::vector<std::uint8_t> const key_ = Key().Long(1).Bytes();
  std::vector<LORVI_COLUMN_DEFINITION> const columns_ = Definitions({{LORV_TYPE_LONG, 300}});
  Outputs outputs_;
  LayoutId layout_ = 0;
  LayoutId empty_layout_ = 0;
  LayoutId made_layout_ = 0;
  IndexId index_ = 0;
  std::uint64_t savepoint_ = 0;
  Oid row_ = 0;
};

Calls BadInputTest::ColumnReads() {
  Outputs& o = outputs_;
  auto const read = [](auto function, std::uint32_t column, auto* out) {
    return [=](Target const& t) {
      return function(t.context, t.oid, t.addr, column + t.column_shift, out);
    };
  };
  return {{"get_ulong", read(lorv_context_get_ulong, kULong, &o.word)},
          {"get_long", read(lorv_context_get_long, kLong, &o.number)},
          {"get_float", read(lorv_context_get_float, kFloat, &o.single)},
          {"get_double", read(lorv_context_get_double, kDouble, &o.twice)},
          {"get_decimal", read(lorv_context_get_decimal, kDecimal, &o.number)},
          {"get_string", read(lorv_context_get_string, kText, &o.text)},
          {"get_binary", read(lorv_context_get_binary, kBinary, &o.binary)},
          {"get_reference", read(lorv_context_get_reference, kReference, &o.reference)},
          {"get_refid", read(lorvi_context_get_refid, kReference, &o.word)}};
}

Calls BadInputTest::ColumnWrites() {
  auto const write = [](auto function, std::uint32_t column, auto... values) {
    return [=](Target const& t) {
      return function(t.context, t.oid, t.addr, column + t.column_shift, values...);
    };
  };
  return {{"put_ulong", write(lorv_context_put_ulong, kULong, 2U)},
          {"put_long", write(lorv_context_put_long, kLong, 2)},
          {"put_float", write(lorv_context_put_float, kFloat, 2.0F)},
          {"put_double", write(lorv_context_put_double, kDouble, 2.0)},
          {"put_decimal", write(lorv_context_put_decimal, kDecimal, 2)},
          {"put_string", write(lorv_context_put_string, kText, u"y")},
          {"put_binary", write(lorv_context_put_binary, kBinary, "y", 1U)},
          {"put_reference", write(lorv_context_put_reference, kReference, row_, 0U)},
          {"put_default", write(lorv_context_put_default, kLong)}};
}

Calls BadInputTest::ObjectReads() {
  return {{"get_setspec",
           [this](Target const& t) {
             return lorv_context_get_setspec(t.context, t.oid, t.addr, &outputs_.text);
           }},
          {"lookup", [this](Target const& t) {
             return lorv_context_lookup(t.context, t.oid, &outputs_.word);
           }}};
}

Calls BadInputTest::ObjectWrites() {
  return {
      {"put_setspec",
       [](Target const& t) {
         return lorv_context_put_setspec(t.context, t.oid, t.addr, u"elsewhere/");
       }},
      {"delete", [](Target const& t) { return lorv_context_delete(t.context, t.oid, t.addr); }}};
}

Calls BadInputTest::SchemaReads() {
  return {
      {"get_layout_info",
       [this](Target const& t) {
         LORVI_LAYOUT_INFO info{};
         return lorvi_context_get_layout_info(t.context, layout_, &info);
       }},
      {"get_layout_infos_by_token",
       [](Target const& t) {
         LORVI_LAYOUT_INFO info{};
         std::uint32_t count = 1;
         return lorvi_context_get_layout_infos_by_token(t.context, 50, &count, &info);
       }},
      {"get_column_info",
       [this](Target const& t) {
         LORVI_COLUMN_INFO info{};
         return lorvi_context_get_column_info(t.context, layout_, 2, &info);
       }},
      {"get_index_infos_by_token",
       [](Target const& t) {
         LORVI_INDEX_INFO info{};
         std::uint32_t count = 1;
         return lorvi_context_get_index_infos_by_token(t.context, 60, &count, &info);
       }},
      {"get_index_setspec",
       [this](Target const& t) {
         return lorvi_context_get_index_setspec(t.context, index_, &outputs_.units);
       }},
      {"create_iterator",
       [this](Target const& t) {
         std::uint64_t iterator = 0;
         std::uint32_t const status = lorv_context_create_iterator(
             t.context, index_, LORV_ITERATOR_FORWARD, key_.data(), key_.data(), &iterator);
         if (status == LORV_STATUS_OK) Check("free", lorv_iterator_free(iterator));
         return status;
       }},
      {"set_changed",
       [this](Target const& t) { return lscoredb_set_changed(t.context, kSet, &outputs_.word); }},
      {"layout_stats",
       [](Target const& t) {
         lscoredb_layout_statistics stats{};
         std::uint32_t count = 1;
         return lscoredb_layout_stats(t.context, &count, &stats);
       }},
      {"savepoint", [this](Target const& t) { return lscoredb_savepoint(t.context, &savepoint_); }},
      {"rollback_to",
       [this](Target const& t) { return lscoredb_rollback_to(t.context, savepoint_); }},
      {"release", [this](Target const& t) { return lscoredb_release(t.context, savepoint_); }},
      {"read_scope_begin", [](Target const& t) { return lscoredb_read_scope_begin(t.context); }},
      {"read_scope_end", [](Target const& t) { return lscoredb_read_scope_end(t.context); }}};
}

Calls BadInputTest::SchemaWrites() {
  return {
      {"insert",
       [this](Target const& t) { return lorv_context_insert(t.context, layout_, &outputs_.word); }},
      {"insert_system",
       [this](Target const& t) {
         return lorv_context_insert_system(t.context, layout_, &outputs_.word);
       }},
      {"insert_with_id",
       [this](Target const& t) {
         return lorvi_context_insert_with_id(t.context, layout_, row_ + 500000);
       }},
      {"create_layout",
       [this](Target const& t) {
         return lorvi_context_create_layout(t.context, 51, 0, columns_.data(), 0, &made_layout_);
       }},
      {"create_index",
       [this](Target const& t) {
         return lorvi_context_create_index(t.context, 61, kSet, columns_.data(), 0, 0,
                                           &outputs_.word);
       }},
      {"require", [this](Target const& t) { return lscoredb_require(t.context, row_); }},
      {"require_set", [](Target const& t) { return lscoredb_require_set(t.context, kSet); }},
      {"move_prepared",
       [](Target const& t) {
         return lscoredb_move_prepared(t.context, kSet, u"elsewhere/", nullptr, 0);
       }},
      {"move_object",
       [this](Target const& t) { return lscoredb_move_object(t.context, row_, layout_); }},
      {"release_layout",
       [this](Target const& t) { return lscoredb_release_layout(t.context, empty_layout_); }},
      {"drop_index",
       [this](Target const& t) { return lorvi_context_drop_index(t.context, index_); }}};
}

// Without this the other tests would prove nothing.
TEST_F(BadInputTest, ValidArguments_Succeed) {
  session_.Begin();
  ExpectEach(0, Reads(), Good());
  ExpectEach(0, Joined({ColumnWrites(), SchemaWrites(), ObjectWrites()}), Good());
}

TEST_F(BadInputTest, UnknownContext_IsRefused) {
  Session closed(database_);
  Target target = Good();
  std::uint64_t const gone = closed.context();
  closed.Close();
  for (std::uint64_t const context :
       {std::uint64_t{0}, gone, session_.context() + 1000, ~std::uint64_t{0}}) {
    target.context = context;
    ExpectEach(LSCOREDB_UNKNOWN_CONTEXT, All(), target);
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_begin(context, 0));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_commit(context));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_rollback(context));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_CONTEXT, lscoredb_context_close(context));
  }
}

TEST_F(BadInputTest, NoTransaction_IsRefused) {
  ExpectEach(LSCOREDB_NO_TRANSACTION, All(), Good());
  session_.Begin();
  session_.Rollback();
  ExpectEach(LSCOREDB_NO_TRANSACTION, All(), Good());
}

TEST_F(BadInputTest, ReadOnlyTransaction_RefusesWrites) {
  session_.BeginReadOnly();
  ExpectEach(LSCOREDB_WRITE_REFUSED, Writes(), Good());
  ExpectEach(0, Reads(), Good());
  EXPECT_EQ(session_.Long(row_, kLong), 1);
  EXPECT_EQ(session_.Scan(index_), Oids{row_});
  session_.Commit();
}

TEST_F(BadInputTest, UnknownObject_IsRefused) {
  session_.Begin();
  for (Oid const oid : {Oid{0}, row_ + 100000, ~Oid{0}}) {
    Target target = Good();
    target.oid = oid;
    ExpectEach(LORV_STATUS_NO_OBJECT,
               Joined({ColumnReads(), ColumnWrites(), ObjectReads(), ObjectWrites()}), target);
  }
}

TEST_F(BadInputTest, UnknownLayoutInAddress_IsRefused) {
  session_.Begin();
  Target target = Good();
  target.addr = 54321;
  ExpectEach(LSCOREDB_UNKNOWN_LAYOUT, Joined({ColumnReads(), ColumnWrites()}), target);
  EXPECT_EQ(session_.Long(row_, kLong), 1);
}

TEST_F(BadInputTest, UnknownColumn_IsRefused) {
  session_.Begin();
  for (std::uint32_t const shift : {8U, 1000U, 0x10000U, 0x80000000U}) {
    Target target = Good();
    target.column_shift = shift;
    ExpectEach(LSCOREDB_UNKNOWN_COLUMN, Joined({ColumnReads(), ColumnWrites()}), target);
  }
}

TEST_F(BadInputTest, NullOutputPointer_IsRefused) {
  session_.Begin();
  std::uint64_t const c = session_.context();
  std::uint64_t const a = layout_;
  std::uint32_t const null = LSCOREDB_NULL_ARGUMENT;
  EXPECT_STATUS(null, lorv_context_get_ulong(c, row_, a, kULong, nullptr));
  EXPECT_STATUS(null, lorv_context_get_long(c, row_, a, kLong, nullptr));
  EXPECT_STATUS(null, lorv_context_get_float(c, row_, a, kFloat, nullptr));
  EXPECT_STATUS(null, lorv_context_get_double(c, row_, a, kDouble, nullptr));
  EXPECT_STATUS(null, lorv_context_get_decimal(c, row_, a, kDecimal, nullptr));
  EXPECT_STATUS(null, lorv_context_get_string(c, row_, a, kText, nullptr));
  EXPECT_STATUS(null, lorv_context_get_binary(c, row_, a, kBinary, nullptr));
  EXPECT_STATUS(null, lorv_context_get_reference(c, row_, a, kReference, nullptr));
  EXPECT_STATUS(null, lorvi_context_get_refid(c, row_, a, kReference, nullptr));
  EXPECT_STATUS(null, lorv_context_get_setspec(c, row_, a, nullptr));
  EXPECT_STATUS(null, lorv_context_put_setspec(c, row_, a, nullptr));
  EXPECT_STATUS(null, lorv_context_lookup(c, row_, nullptr));
  EXPECT_STATUS(null, lorv_context_insert(c, layout_, nullptr));
  EXPECT_STATUS(null, lorv_context_insert_system(c, layout_, nullptr));
  EXPECT_STATUS(null, lscoredb_savepoint(c, nullptr));
  EXPECT_EQ(session_.Setspec(row_), kSet);
}

TEST_F(BadInputTest, NullPointerInSchemaCalls_IsRefused) {
  session_.Begin();
  std::uint64_t const c = session_.context();
  std::uint32_t const null = LSCOREDB_NULL_ARGUMENT;
  LORVI_LAYOUT_INFO layout_info{};
  LORVI_INDEX_INFO index_info{};
  std::uint32_t count = 1;
  EXPECT_STATUS(null, lorvi_context_create_layout(c, 51, 0, columns_.data(), 0, nullptr));
  EXPECT_STATUS(null, lorvi_context_get_layout_info(c, layout_, nullptr));
  EXPECT_STATUS(null, lorvi_context_get_layout_infos_by_token(c, 50, nullptr, &layout_info));
  EXPECT_STATUS(null, lorvi_context_get_layout_infos_by_token(c, 50, &count, nullptr));
  EXPECT_STATUS(null, lorvi_context_get_column_info(c, layout_, 2, nullptr));
  EXPECT_STATUS(null,
                lorvi_context_create_index(c, 61, nullptr, columns_.data(), 0, 0, &outputs_.word));
  EXPECT_STATUS(null, lorvi_context_create_index(c, 61, kSet, columns_.data(), 0, 0, nullptr));
  EXPECT_STATUS(null, lorvi_context_create_index(c, 61, kSet, nullptr, 0, 0, &outputs_.word));
  EXPECT_STATUS(null, lorvi_context_get_index_infos_by_token(c, 60, nullptr, &index_info));
  EXPECT_STATUS(null, lorvi_context_get_index_infos_by_token(c, 60, &count, nullptr));
  EXPECT_STATUS(null, lorvi_context_get_index_setspec(c, index_, nullptr));
  EXPECT_STATUS(null, lscoredb_layout_stats(c, nullptr, nullptr));
  EXPECT_STATUS(null, lscoredb_layout_stats(c, &count, nullptr));
  EXPECT_TRUE(session_.IndexesByToken(61).empty());
  EXPECT_TRUE(session_.LayoutsByToken(51).empty());
  EXPECT_TRUE(outputs_.Untouched());
}

TEST_F(BadInputTest, UnknownIndex_IsRefused) {
  session_.Begin();
  std::uint64_t const c = session_.context();
  for (IndexId const unknown : {IndexId{0}, index_ + 100000, ~IndexId{0}}) {
    EXPECT_STATUS(LORV_STATUS_NO_INDEX, lorvi_context_drop_index(c, unknown));
    EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                  lorvi_context_get_index_setspec(c, unknown, &outputs_.units));
    EXPECT_STATUS(LORV_STATUS_NO_INDEX,
                  lorv_context_create_iterator(c, unknown, LORV_ITERATOR_FORWARD, key_.data(),
                                               key_.data(), &outputs_.word));
  }
  EXPECT_TRUE(outputs_.Untouched());
}

TEST_F(BadInputTest, WrongScanFlagsKeysOrPointers_AreRefused) {
  session_.Begin();
  auto const open = [&](std::uint32_t flags, void const* first, void const* last) {
    return lorv_context_create_iterator(session_.context(), index_, flags, first, last,
                                        &outputs_.word);
  };
  std::vector<std::uint8_t> const wrong_type = Key().Text(u"text").Bytes();
  std::vector<std::uint8_t> const too_long = Key().Long(1).Long(2).Bytes();
  std::uint8_t const* const good = key_.data();
  for (std::uint32_t const flags : {0U, 1U, 0x71U, 0x80000U, 0x100070U, ~0U})
    EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT, open(flags, good, good));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, open(LORV_ITERATOR_FORWARD, nullptr, good));
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, open(LORV_ITERATOR_FORWARD, good, nullptr));
  for (auto const* bad : {&wrong_type, &too_long}) {
    EXPECT_STATUS(LSCOREDB_MALFORMED_KEY, open(LORV_ITERATOR_FORWARD, bad->data(), good));
    EXPECT_STATUS(LSCOREDB_MALFORMED_KEY, open(LORV_ITERATOR_REVERSE, good, bad->data()));
  }
  EXPECT_TRUE(outputs_.Untouched());
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT,
                lorv_context_create_iterator(session_.context(), index_, LORV_ITERATOR_FORWARD,
                                             good, good, nullptr));
}

TEST_F(BadInputTest, UnknownIterator_IsRefused) {
  session_.Begin();
  for (std::uint64_t const unknown : {std::uint64_t{0}, std::uint64_t{12345}, ~std::uint64_t{0}}) {
    EXPECT_STATUS(LSCOREDB_UNKNOWN_ITERATOR, lorv_iterator_next(unknown, &outputs_.reference));
    EXPECT_STATUS(LSCOREDB_UNKNOWN_ITERATOR, lorv_iterator_free(unknown));
  }
  EXPECT_TRUE(outputs_.Untouched());
  Scanner scanner(session_, index_);
  EXPECT_STATUS(LSCOREDB_NULL_ARGUMENT, lorv_iterator_next(scanner.handle(), nullptr));
  EXPECT_EQ(scanner.Next(), row_);
}

TEST_F(BadInputTest, WrongIndexDefinitions_AreRefused) {
  session_.Begin();
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                session_.TryCreateIndex(61, kSet, {{10, 300}}, {}, &outputs_.word));
  Columns many;
  for (std::uint64_t i = 0; i < 1025; ++i) many.push_back({LORV_TYPE_LONG, 300 + i});
  EXPECT_STATUS(LSCOREDB_INVALID_ARGUMENT,
                session_.TryCreateIndex(61, kSet, many, {}, &outputs_.word));
  EXPECT_TRUE(outputs_.Untouched());
  EXPECT_TRUE(session_.IndexesByToken(61).empty());
}

TEST_F(BadInputTest, EveryStatus_HasItsOwnText) {
  std::set<std::string> texts;
  std::vector<std::uint32_t> const statuses{
      LORV_STATUS_OK,          LORV_STATUS_UNREACHABLE,    LORV_STATUS_NO_INDEX,
      LORV_STATUS_NULL,        LORV_STATUS_NO_OBJECT,      LORV_STATUS_DUPLICATE_TOKEN,
      LSCOREDB_NO_MEMORY,      LSCOREDB_NO_TRANSACTION,    LSCOREDB_TRANSACTION_OPEN,
      LSCOREDB_WRITE_REFUSED,  LSCOREDB_UNKNOWN_CONTEXT,   LSCOREDB_UNKNOWN_ITERATOR,
      LSCOREDB_UNKNOWN_LAYOUT, LSCOREDB_UNKNOWN_COLUMN,    LSCOREDB_WRONG_TYPE,
      LSCOREDB_NULL_ARGUMENT,  LSCOREDB_INVALID_ARGUMENT,  LSCOREDB_MALFORMED_KEY,
      LSCOREDB_CONFLICT,       LSCOREDB_DUPLICATE_KEY,     LSCOREDB_ID_IN_USE,
      LSCOREDB_TOO_LARGE,      LSCOREDB_LAYOUTS_EXHAUSTED, LSCOREDB_LAYOUT_IN_USE,
      LSCOREDB_IN_USE,         LSCOREDB_NOT_A_DATABASE,    LSCOREDB_NEWER_FORMAT,
      LSCOREDB_DAMAGED,        LSCOREDB_CANNOT_OPEN,       LSCOREDB_MAP_FULL,
      LSCOREDB_DISK_FULL,      LSCOREDB_IO_ERROR,          LSCOREDB_TOO_MANY_READERS};
  for (std::uint32_t const status : statuses) {
    char const* const text = lscoredb_status_text(status);
    EXPECT_STRNE(text, "") << status;
    EXPECT_TRUE(texts.insert(text).second) << status << " has the text of another: " << text;
  }
  EXPECT_STRNE(lscoredb_status_text(123456), "");
  EXPECT_FALSE(texts.contains(lscoredb_status_text(123456)));
}

}  // namespace
}  // namespace lscoredb_test

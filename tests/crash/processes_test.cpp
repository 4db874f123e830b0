// Many processes in one directory.

#include <vector>

#include "crash/directory.h"
#include "crash/tellers.h"

namespace crash_test {
namespace {

using namespace sagleme;

constexpr std::uint64_t kSeed = 23;
constexpr char16_t kAccount[] = u"Bank.Account";
std::vector<ColumnSpec> const kNote{{u"Note", Type::kString}};

class ProcessesTest : public testing::Test {
 protected:
  void SetUp() override {
    InChild([&] { Bank(directory_.path(), kSeed).ExpectWhole(); });
  }

  // A process that holds a transaction with a change that it never commits, until it is killed.
  std::unique_ptr<Child> HoldTransaction() {
    auto holder = std::make_unique<Child>([&](Channel& channel) {
      Bank bank(directory_.path(), kSeed);
      Context const context(bank.database());
      Transaction transaction(context);
      bank.Work(transaction, 0);
      channel.Say("holding");
      channel.Hear();
      return 0;
    });
    EXPECT_EQ("holding", holder->Next());
    return holder;
  }

  Directory directory_;
};

// Pages of the data file are used again, or not, by each commit only without a log.
class ProcessesWithoutLogTest : public ProcessesTest {
 protected:
  void SetUp() override {
    InChild([&] { Bank(directory_.path(), kSeed, {.log = LSCOREDB_NO_LOG}).ExpectWhole(); });
  }
};

TEST_F(ProcessesTest, ReadersBesideWriters_SeeWholeStatesOnly) {
  constexpr int kSteps = 40;
  constexpr int kLooks = 6;
  std::vector<std::unique_ptr<Child>> children;
  for (int teller = 0; teller <= kTellers; ++teller) {
    children.push_back(std::make_unique<Child>([&, teller](Channel&) {
      Bank bank(directory_.path(), kSeed, {.no_sync = true});
      Context const context(bank.database());
      for (int i = 0; i < kSteps; ++i) bank.Step(context, teller);
      return 0;
    }));
  }
  for (int reader = 0; reader < 3; ++reader) {
    children.push_back(std::make_unique<Child>([&](Channel&) {
      Bank bank(directory_.path(), kSeed, {.no_sync = true});
      for (int i = 0; i < kLooks; ++i) bank.ExpectWhole();
      return 0;
    }));
  }
  for (auto const& child : children) EXPECT_EQ(0, child->Wait());
  InChild([&] {
    Bank bank(directory_.path(), kSeed);
    EXPECT_EQ((Progress{kSteps, kSteps, kSteps, kSteps}), bank.Done());
    bank.ExpectWhole();
  });
}

TEST_F(ProcessesTest, ForkedProcess_OpensTheDatabaseOfItsParentAnew) {
  InChild([&] {
    lscoredb* parents = nullptr;
    ASSERT_EQ(0U, lscoredb_open(directory_.path().c_str(), nullptr, &parents));
    InChild([&] {
      Bank bank(directory_.path(), kSeed);
      EXPECT_EQ(1, bank.Step(Context(bank.database()), 0));
    });
    EXPECT_EQ(0U, lscoredb_close(parents));
    Bank bank(directory_.path(), kSeed);
    EXPECT_EQ(2, bank.Step(Context(bank.database()), 0));
    bank.ExpectWhole();
  });
}

// ---- schema changes -----------------------------------------------------------------------------

// An account made and read through handles that were issued before the schema changed.
class Handles {
 public:
  explicit Handles(std::uint64_t context) {
    EXPECT_EQ(0U, lorv_crud_GetCreateHandle(context, kAccount, &creator_));
    EXPECT_EQ(0U, lorv_crud_GetPropertyHandle(context, kAccount, u"Number", &number_));
  }
  LS_OBJ_REF Make(std::uint64_t context, std::int64_t number) const {
    LS_OBJ_REF made{};
    EXPECT_EQ(0U, lorv_crud_CreateObject(context, creator_, &made.oid, &made.addr));
    EXPECT_EQ(0U, lorv_crud_WriteLong(context, number_, made.oid, made.addr, number));
    return made;
  }
  std::int64_t NumberOf(std::uint64_t context, LS_OBJ_REF const& object) const {
    std::int64_t number = 0;
    EXPECT_EQ(0U, lorv_crud_ReadLong(context, number_, object.oid, object.addr, &number));
    return number;
  }

 private:
  CreateInfo* creator_ = nullptr;
  PropertyAccessInfo* number_ = nullptr;
};

std::uint64_t GenerationOf(std::uint64_t context) {
  return sagleme::detail::Inside(context, lorv_get_metaschema_generation);
}

// The other process: says the identity of an account that it made before the change of the schema
// and of one that it made after it.
int FollowSchema(Channel& channel, std::string const& directory) {
  Bank bank(directory, kSeed);
  Context const context(bank.database());
  auto first = std::make_unique<Transaction>(context);
  Handles const handles(context.id());
  std::uint64_t const generation = GenerationOf(context.id());
  LS_OBJ_REF const before = handles.Make(context.id(), 501);
  channel.Say(std::to_string(before.oid));
  channel.Hear();
  EXPECT_EQ(generation, GenerationOf(context.id())) << "within a transaction nothing changes";
  EXPECT_EQ(nullptr, first->table(kAccount)->FindColumn(u"Note"));
  first->Commit();
  Transaction second(context);
  EXPECT_LT(generation, GenerationOf(context.id()));
  EXPECT_NE(nullptr, second.table(kAccount)->FindColumn(u"Note"));
  EXPECT_EQ(0U, lorv_crud_RefreshIssuedHandles(context.id()));
  EXPECT_EQ(501, handles.NumberOf(context.id(), before));
  LS_OBJ_REF const after = handles.Make(context.id(), 502);
  EXPECT_EQ(second.table(kAccount)->layout, metalayer::LayoutOf(after));
  Object(second, after).Set(u"Note", std::u16string(u"from the other process"));
  second.Commit();
  channel.Say(std::to_string(after.oid));
  return 0;
}

TEST_F(ProcessesTest, SchemaChange_IsSeenByTheNextTransactionOfTheOthersAndNoEarlier) {
  Child follower([&](Channel& channel) { return FollowSchema(channel, directory_.path()); });
  Child changer([&](Channel& channel) {
    Bank bank(directory_.path(), kSeed);
    Context const context(bank.database());
    ObjectId const before{std::stoull(channel.Hear())};
    Transaction change(context);
    EXPECT_FALSE(Object::Find(change, before).has_value()) << "it is not committed yet";
    AddColumns(change, kAccount, kNote);
    change.Commit();
    channel.Say("changed");
    ObjectId const after{std::stoull(channel.Hear())};
    Transaction look(context, Access::kReadOnly);
    Value const note = Object::Find(look, after).value().Get(u"Note");
    EXPECT_TRUE(note == Value(std::u16string(u"from the other process")));
    EXPECT_TRUE(IsNull(Object::Find(look, before).value().Get(u"Note")));
    return 0;
  });
  changer.Send(follower.Next().value_or("0"));
  EXPECT_EQ("changed", changer.Next());
  follower.Send("go on");
  changer.Send(follower.Next().value_or("0"));
  EXPECT_EQ(0, follower.Wait());
  EXPECT_EQ(0, changer.Wait());
}

// ---- processes that end without a word ----------------------------------------------------------

// Works for a number of steps at each request and answers with the size of the file.
int WorkOnRequest(Channel& channel, Directory const& directory, Options const& options) {
  Bank bank(directory.path(), kSeed, options);
  Context const context(bank.database());
  channel.Say("ready");
  for (std::string line = channel.Hear(); !line.empty(); line = channel.Hear()) {
    std::uint32_t status = 0;
    try {
      for (int i = std::stoi(line); i > 0; --i) bank.Step(context, i % kTellers);
    } catch (Error const& refusal) {
      status = refusal.status();
    }
    channel.Say(status == 0 ? std::to_string(directory.FileSize()) : "refused");
  }
  bank.ExpectWhole();
  return 0;
}

TEST_F(ProcessesTest, ProcessKilledInsideATransaction_BlocksNobodyAndLeavesNothing) {
  Child writer(
      [&](Channel& channel) { return WorkOnRequest(channel, directory_, {.no_sync = true}); });
  EXPECT_EQ("ready", writer.Next());
  for (int i = 0; i < 5; ++i) {
    std::unique_ptr<Child> const holder = HoldTransaction();
    writer.Send("4");
    EXPECT_NE("refused", writer.Next());
    holder->Kill();
    writer.Send("4");
    EXPECT_NE("refused", writer.Next());
  }
  writer.Send("");
  EXPECT_EQ(0, writer.Wait());
  InChild([&] { EXPECT_EQ((Progress{10, 20, 10, 0}), Bank(directory_.path(), kSeed).Done()); });
}

TEST_F(ProcessesWithoutLogTest, PagesThatAKilledReaderHeld_AreUsedAgain) {
  Child writer(
      [&](Channel& channel) { return WorkOnRequest(channel, directory_, {.no_sync = true}); });
  EXPECT_EQ("ready", writer.Next());
  HoldTransaction()->Kill();
  writer.Send("200");
  std::uint64_t const first = std::stoull(writer.Next().value_or("0"));
  writer.Send("400");
  std::uint64_t const second = std::stoull(writer.Next().value_or("0"));
  EXPECT_LE(second, 2 * first);
  EXPECT_GT(first, 0U);
  writer.Send("");
  EXPECT_EQ(0, writer.Wait());
}

TEST_F(ProcessesWithoutLogTest, MapThatAReaderKeptFull_HasRoomAgainWhenTheReaderIsKilled) {
  Child writer([&](Channel& channel) {
    Options const options{.no_sync = true, .max_file_size = directory_.FileSize() + 2000000};
    return WorkOnRequest(channel, directory_, options);
  });
  EXPECT_EQ("ready", writer.Next());
  std::unique_ptr<Child> const holder = HoldTransaction();
  writer.Send("4000");
  EXPECT_EQ("refused", writer.Next());
  writer.Send("1");
  EXPECT_EQ("refused", writer.Next()) << "the reader holds the pages still";
  holder->Kill();
  writer.Send("100");
  EXPECT_NE("refused", writer.Next());
  writer.Send("");
  EXPECT_EQ(0, writer.Wait());
}

}  // namespace
}  // namespace crash_test

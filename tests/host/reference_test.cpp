// References lead to objects of their column's target when they are written.

#include <gtest/gtest.h>

#include <array>
#include <sagleme/check.hpp>
#include <sagleme/host.hpp>

#include "new_database.h"

namespace {

using namespace sagleme;

// What a call throws; empty when it does not.
std::string TextOf(std::function<void()> const& work, std::uint32_t status) {
  try {
    work();
  } catch (Error const& error) {
    EXPECT_EQ(status, error.status());
    return error.what();
  }
  return "";
}

class ReferenceTest : public testing::Test {
 protected:
  ReferenceTest() {
    std::array const named{ColumnSpec{u"Name"}};
    std::array const owned{ColumnSpec{u"Owner", Type::kReference, true, u"Person"},
                           ColumnSpec{u"Next", Type::kReference, true, u"Thing"}};
    CreateTable(transaction_, u"Person", u"", named);
    CreateTable(transaction_, u"Child", u"Person", {});
    CreateTable(transaction_, u"Thing", u"", owned);
    FinishReferences(transaction_);
    thing_ = transaction_.table(u"Thing");
  }

  Object Make(char16_t const* table) {
    return Object::Create(transaction_, *transaction_.table(table));
  }
  void SetOwner(Object& thing, ObjectId owner) { thing.Set(u"Owner", owner); }

  Database database_ = sagleme_test::NewDatabase();
  Context context_{database_};
  Transaction transaction_{context_};
  TablePtr thing_;
};

TEST_F(ReferenceTest, ReferenceToTheTargetOrADescendant_IsTaken) {
  Object thing = Make(u"Thing");
  for (char16_t const* const table : {u"Person", u"Child"}) {
    Object const owner = Make(table);
    SetOwner(thing, owner.id());
    EXPECT_EQ(Value(owner.id()), thing.Get(u"Owner"));
    Property<ObjectId>(*thing_, u"Owner").Set(thing, owner.id());
  }
  thing.Set(u"Next", thing.id());
  thing.Set(u"Owner", Null{});
  EXPECT_TRUE(IsNull(thing.Get(u"Owner")));
}

TEST_F(ReferenceTest, ReferenceToNoObject_IsRefusedAndLeavesTheOldValue) {
  Object thing = Make(u"Thing");
  Object const owner = Make(u"Person");
  SetOwner(thing, owner.id());
  char const* const text =
      "Column Owner of Thing cannot refer to object 4611686018427387900, which does not exist.";
  ObjectId const nobody{4611686018427387900u};
  EXPECT_EQ(text, TextOf([&] { SetOwner(thing, nobody); }, LORV_STATUS_NO_OBJECT));
  Property<ObjectId> const property(*thing_, u"Owner");
  EXPECT_EQ(text, TextOf([&] { property.Set(thing, nobody); }, LORV_STATUS_NO_OBJECT));
  EXPECT_EQ(Value(owner.id()), thing.Get(u"Owner"));
}

TEST_F(ReferenceTest, ReferenceToADeletedObject_IsRefused) {
  Object thing = Make(u"Thing");
  Object owner = Make(u"Person");
  owner.Delete();
  EXPECT_THROW(SetOwner(thing, owner.id()), Error);
}

TEST_F(ReferenceTest, ReferenceToAnotherTable_IsRefusedByName) {
  Object thing = Make(u"Thing");
  std::string const text = TextOf([&] { SetOwner(thing, thing.id()); }, LSCOREDB_WRONG_TYPE);
  EXPECT_EQ("Column Owner of Thing refers to objects of Person, and object " +
                std::to_string(thing.id().value) + " belongs to Thing.",
            text);
  Object const owner = Make(u"Child");
  EXPECT_NE("", TextOf([&] { thing.Set(u"Next", owner.id()); }, LSCOREDB_WRONG_TYPE));
}

TEST_F(ReferenceTest, ReferenceToADroppedTable_IsRefused) {
  Object thing = Make(u"Thing");
  Object const owner = Make(u"Child");
  SetOwner(thing, owner.id());
  DropTable(transaction_, u"Child");
  std::string const text = TextOf([&] { SetOwner(thing, owner.id()); }, LSCOREDB_WRONG_TYPE);
  EXPECT_NE(std::string::npos, text.find("belongs to a table that was dropped")) << text;
}

TEST_F(ReferenceTest, RenamedTarget_IsStillReferenced) {
  Object thing = Make(u"Thing");
  Property<ObjectId> const before(*thing_, u"Owner");
  RenameTable(transaction_, u"Person", u"Human");
  Object const owner = Make(u"Human");
  before.Set(thing, owner.id());
  SetOwner(thing, owner.id());
  EXPECT_EQ(Value(owner.id()), thing.Get(u"Owner"));
}

TEST_F(ReferenceTest, TargetCreatedLater_IsTakenOnceItExists) {
  std::array const columns{ColumnSpec{u"Late", Type::kReference, true, u"Later"}};
  TablePtr const early = CreateTable(transaction_, u"Early", u"", columns);
  Object object = Object::Create(transaction_, *early);
  ObjectId const any = Make(u"Person").id();
  Column const late = early->GetColumn(u"Late");
  EXPECT_THROW(object.Set(*early, late, any), Error);
  CreateTable(transaction_, u"Later", u"", {});
  FinishReferences(transaction_);
  object.Set(*early, late, Make(u"Later").id());
  EXPECT_THROW(object.Set(*early, late, any), Error);
}

TEST_F(ReferenceTest, ReferenceWrittenByTheContract_IsFoundByTheCheck) {
  Object const thing = Make(u"Thing");
  auto const put = [&](std::uint64_t target) {
    ASSERT_EQ(0u, lorv_context_put_reference(context_.id(), thing.id().value, thing_->layout,
                                             thing_->GetColumn(u"Owner").ordinal, target, 0));
  };
  auto const found = [&] {
    std::string text;
    CheckCatalogue(transaction_, {}, [&](Finding const& finding) { text += finding.what; });
    return text;
  };
  EXPECT_EQ("", found());
  put(thing.id().value);
  EXPECT_NE(std::string::npos, found().find("which is not of Person")) << found();
  put(4611686018427387900u);
  EXPECT_NE(std::string::npos, found().find("which does not exist")) << found();
}

}  // namespace

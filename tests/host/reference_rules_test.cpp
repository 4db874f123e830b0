// What becomes of references when their target is deleted.

#include "annotations_test.h"
#include "status_of.h"

namespace {

using namespace sagleme;

TEST_F(AnnotationsTest, Keep_LeavesTheReference) {
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Person");
  Object const thing = MakeThing(transaction, owner.id());
  owner.Delete();
  EXPECT_EQ(Value(owner.id()), thing.Get(u"Owner"));
}

// Whichever way the references are found: by an index, or without one by a scan.
class LastReferenceTest : public AnnotationsTest, public testing::WithParamInterface<bool> {};

TEST_P(LastReferenceTest, OfMany_TakesItsTargetAlong) {
  SetRule(u"Owner", OnDelete::kLast);
  Transaction transaction(context_);
  if (!GetParam()) DropIndex(transaction, u"Thing.Owner.Referrers");
  Object const owner = Make(transaction, u"Person");
  Object const other = Make(transaction, u"Person");
  MakeThing(transaction, other.id());
  std::vector<Object> things;
  for (int i = 0; i < 5; ++i) things.push_back(MakeThing(transaction, owner.id()));
  for (Object& thing : things) {
    EXPECT_TRUE(Exists(transaction, owner));
    thing.Delete();
  }
  EXPECT_FALSE(Exists(transaction, owner));
  EXPECT_TRUE(Exists(transaction, other));
}

INSTANTIATE_TEST_SUITE_P(Ways, LastReferenceTest, testing::Bool(),
                         [](auto const& way) { return way.param ? "Index" : "Scan"; });

TEST_F(AnnotationsTest, Refuse_KeepsTheTargetAndNamesWhoRefers) {
  SetRule(u"Owner", OnDelete::kRefuse);
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Child");
  Object thing = MakeThing(transaction, owner.id());
  std::string const text = Refused(SAGLEME_OBJECT_REFERENCED, [&] { owner.Delete(); });
  EXPECT_EQ("Object " + std::to_string(owner.id().value) + " cannot be deleted: object " +
                std::to_string(thing.id().value) +
                " refers to it in column Owner of Thing, whose rule refuses. Delete that object "
                "first, or let it refer to another.",
            text);
  EXPECT_TRUE(Exists(transaction, owner));
  thing.Set(u"Owner", Null{});
  owner.Delete();
  EXPECT_FALSE(Exists(transaction, owner));
  Object last = Make(transaction, u"Person");
  thing.Set(u"Owner", last.id());
  std::array const both{last.id(), thing.id()};
  EXPECT_EQ(2u, DeleteObjects(transaction, both));
  EXPECT_FALSE(Exists(transaction, thing));
}

TEST_F(AnnotationsTest, SetNull_ClearsTheReferences) {
  SetRule(u"Owner", OnDelete::kSetNull);
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Person");
  Object const other = Make(transaction, u"Person");
  Object const one = MakeThing(transaction, owner.id());
  Object const two = MakeThing(transaction, owner.id());
  Object const three = MakeThing(transaction, other.id());
  owner.Delete();
  EXPECT_TRUE(IsNull(one.Get(u"Owner")));
  EXPECT_TRUE(IsNull(two.Get(u"Owner")));
  EXPECT_EQ(Value(other.id()), three.Get(u"Owner"));
}

TEST_F(AnnotationsTest, Cascade_FollowsChainsAndCycles) {
  SetRule(u"Owner", OnDelete::kCascade);
  SetRule(u"Next", OnDelete::kCascade);
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Person");
  Object one = MakeThing(transaction, owner.id());
  Object two = Make(transaction, u"Thing");
  Object three = Make(transaction, u"Thing");
  Object const apart = Make(transaction, u"Thing");
  two.Set(u"Next", one.id());
  three.Set(u"Next", two.id());
  one.Set(u"Next", three.id());
  Object self = Make(transaction, u"Thing");
  self.Set(u"Next", self.id());
  owner.Delete();
  for (Object const& each : {owner, one, two, three}) EXPECT_FALSE(Exists(transaction, each));
  EXPECT_TRUE(Exists(transaction, apart));
  self.Delete();
  EXPECT_FALSE(Exists(transaction, self));
}

TEST_F(AnnotationsTest, CascadeThatIsRefusedOnTheWay_LeavesNothingBehind) {
  SetRule(u"Owner", OnDelete::kCascade);
  SetRule(u"Next", OnDelete::kRefuse);
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Person");
  Object const one = MakeThing(transaction, owner.id());
  Object two = Make(transaction, u"Thing");
  two.Set(u"Next", one.id());
  Refused(SAGLEME_OBJECT_REFERENCED, [&] { owner.Delete(); });
  EXPECT_TRUE(Exists(transaction, owner));
  EXPECT_TRUE(Exists(transaction, one));
  EXPECT_EQ(Value(owner.id()), one.Get(u"Owner"));
  two.Set(u"Owner", owner.id());  // now both of them go, so neither refuses
  owner.Delete();
  EXPECT_FALSE(Exists(transaction, one));
  EXPECT_FALSE(Exists(transaction, two));
}

TEST_F(AnnotationsTest, Last_DeletesTheTargetWithItsLastReference) {
  SetRule(u"Owner", OnDelete::kLast);
  Transaction transaction(context_);
  Object const owner = Make(transaction, u"Person");
  Object one = MakeThing(transaction, owner.id());
  Object two = MakeThing(transaction, owner.id());
  one.Delete();
  EXPECT_TRUE(Exists(transaction, owner));
  two.Delete();
  EXPECT_FALSE(Exists(transaction, owner));

  Object const first = Make(transaction, u"Person");
  Object const second = Make(transaction, u"Person");
  Object three = MakeThing(transaction, first.id());
  three.Set(u"Owner", first.id());
  EXPECT_TRUE(Exists(transaction, first));
  three.Set(u"Owner", second.id());
  EXPECT_FALSE(Exists(transaction, first));
  Property<ObjectId>(*transaction.table(u"Thing"), u"Owner").Clear(three);
  EXPECT_FALSE(Exists(transaction, second));
}

TEST_F(AnnotationsTest, Last_WhenTheTargetIsDeleted_ClearsTheReferences) {
  SetRule(u"Owner", OnDelete::kLast);
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Person");
  Object const one = MakeThing(transaction, owner.id());
  owner.Delete();
  EXPECT_TRUE(Exists(transaction, one));
  EXPECT_TRUE(IsNull(one.Get(u"Owner")));
}

TEST_F(AnnotationsTest, RuleOnDanglingReferences_IsRefused) {
  Transaction transaction(context_);
  Object owner = Make(transaction, u"Person");
  Object const thing = MakeThing(transaction, owner.id());
  owner.Delete();
  EXPECT_EQ(
      "Column Owner of table Thing: object " + std::to_string(thing.id().value) +
          " refers to object " + std::to_string(owner.id().value) +
          ", which does not exist. Set the reference to null or delete the object.",
      Refused(LORV_STATUS_NO_OBJECT, [&] { SetRule(transaction, u"Owner", OnDelete::kRefuse); }));
  EXPECT_TRUE(transaction.table(u"Thing")->indexes.empty());
  TablePtr const things = transaction.table(u"Thing");
  EXPECT_EQ(OnDelete::kKeep, OnDeleteOf(transaction, *things, things->GetColumn(u"Owner")));
}

TEST_F(AnnotationsTest, RuleOnAColumnThatIsNoReference_IsRefused) {
  Transaction transaction(context_);
  EXPECT_EQ(
      "Column Name of table Person is of type string; only references have a rule for the "
      "deletion of their target.",
      Refused(LSCOREDB_WRONG_TYPE, [&] {
        SetOnDelete(transaction, *transaction.table(u"Person"), u"Name", OnDelete::kCascade);
      }));
}

TEST_F(AnnotationsTest, Rule_UsesAnIndexThatBeginsWithItsColumn) {
  Transaction transaction(context_);
  SetRule(transaction, u"Owner", OnDelete::kCascade);
  ASSERT_EQ(1u, transaction.table(u"Thing")->indexes.size());
  EXPECT_EQ(u"Thing.Owner.Referrers", transaction.table(u"Thing")->indexes.front().name);
  CreateIndex(transaction, u"ThingByNext", u"Thing", {{u"Next", false}, {u"Owner"}});
  SetRule(transaction, u"Next", OnDelete::kCascade);
  EXPECT_EQ(2u, transaction.table(u"Thing")->indexes.size());
  DropIndex(transaction, u"Thing.Owner.Referrers");
  Object owner = Make(transaction, u"Person");
  Object const thing = MakeThing(transaction, owner.id());
  Object next = Make(transaction, u"Thing");
  next.Set(u"Next", thing.id());
  EXPECT_EQ(1u, Referrers(transaction, owner.id(), *transaction.table(u"Thing"), u"Owner").size());
  owner.Delete();  // without an index by a scan
  EXPECT_FALSE(Exists(transaction, next));
}

TEST_F(AnnotationsTest, DeletionPastTheRules_IsFound) {
  Transaction transaction(context_);
  SetRule(transaction, u"Owner", OnDelete::kRefuse);
  Object const owner = Make(transaction, u"Person");
  MakeThing(transaction, owner.id());
  ASSERT_EQ(0u, lorv_context_delete(transaction.context(), owner.id().value, 0));
  auto const findings = FindingsOf(transaction);
  ASSERT_EQ(1u, findings.size());
  EXPECT_EQ("reference: column Owner refers to object " + std::to_string(owner.id().value) +
                ", which does not exist although the rule of the column is refuse",
            findings.front());
}

// Of two transactions, one of which deletes what the other comes to refer to.
class RaceTest : public AnnotationsTest, public testing::WithParamInterface<OnDelete> {
 protected:
  RaceTest() {
    SetRule(u"Owner", GetParam());
    Transaction transaction(context_);
    owner_ = Make(transaction, u"Person").id();
    transaction.Commit();
  }

  Context other_{database_};
  ObjectId owner_;
};

TEST_P(RaceTest, ReferenceCommittedFirst_TheDeletionConflicts) {
  Transaction deleting(context_);
  Object::Find(deleting, owner_)->Delete();
  Transaction referring(other_);
  MakeThing(referring, owner_);
  referring.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { deleting.Commit(); }));
}

TEST_P(RaceTest, DeletionCommittedFirst_TheReferenceConflicts) {
  Transaction referring(other_);
  MakeThing(referring, owner_);
  Transaction deleting(context_);
  Object::Find(deleting, owner_)->Delete();
  deleting.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { referring.Commit(); }));
}

INSTANTIATE_TEST_SUITE_P(Rules, RaceTest,
                         testing::Values(OnDelete::kRefuse, OnDelete::kSetNull, OnDelete::kCascade,
                                         OnDelete::kLast),
                         [](auto const& rule) { return std::string(OnDeleteName(rule.param)); });

TEST_F(AnnotationsTest, TwoTransactionsThatTakeTheLastTwoReferences_Conflict) {
  SetRule(u"Owner", OnDelete::kLast);
  Transaction setup(context_);
  ObjectId const owner = Make(setup, u"Person").id();
  ObjectId const one = MakeThing(setup, owner).id();
  ObjectId const two = MakeThing(setup, owner).id();
  setup.Commit();
  Context other(database_);
  Transaction first(context_);
  Transaction second(other);
  Object::Find(first, one)->Delete();
  Object::Find(second, two)->Delete();
  first.Commit();
  EXPECT_EQ(LSCOREDB_CONFLICT, StatusOf([&] { second.Commit(); }));
  Transaction again(other);
  Object::Find(again, two)->Delete();
  EXPECT_FALSE(Object::Find(again, owner).has_value());
}

}  // namespace

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::RawView;
using metalayer::SetSpecifier;
using ::testing::KilledBySignal;

class DropTableCascadeTest : public CatalogueTest {
 protected:
  uint32_t Cascade(char16_t const* name) { return lorv_drop_table_cascade(context(), name); }
};

TEST_F(DropTableCascadeTest, Subtree_IsRemovedWithoutRequests) {
  Create(u"Parent", Columns().Long(u"a"));
  Create(u"Child", {}, u"Parent");
  RawView const child = View(u"Child");
  uint64_t const generation = Generation();
  ExpectOk(Cascade(u"Parent"));
  EXPECT_TRUE(View(u"Parent").is_null());
  EXPECT_TRUE(View(u"Child").is_null());
  EXPECT_TRUE(ColumnRow(child, u"a").is_null());
  EXPECT_FALSE(SetSpecifier::ByType(child).is_null());
  EXPECT_EQ(0, CountRequests());
  EXPECT_EQ(generation + 1, Generation());
}

TEST_F(DropTableCascadeTest, AnyNumberOfChildren_GoesInBatches) {
  for (int children : {15, 16, 17, 32, 33}) {
    Create(u"Parent");
    for (int i = 0; i < children; ++i) {
      Create((u"Child" + Utf16(std::to_string(i))).c_str(), {}, u"Parent");
    }
    uint64_t const generation = Generation();
    ExpectOk(Cascade(u"Parent"));
    EXPECT_TRUE(View(u"Parent").is_null());
    for (int i = 0; i < children; ++i) {
      EXPECT_TRUE(View((u"Child" + Utf16(std::to_string(i))).c_str()).is_null()) << i;
    }
    EXPECT_EQ(generation + 1, Generation());
  }
}

TEST_F(DropTableCascadeTest, ReferencesAndClasses_DoNotHoldIt) {
  Create(u"Target");
  Create(u"Referrer", Columns().Ref(u"r", u"Target"));
  InsertClass(u"Class", View(u"Target"));
  ExpectOk(Cascade(u"Target"));
}

TEST_F(DropTableCascadeTest, Index_HoldsIt) {
  Create(u"a.T", Columns().Long(u"a"));
  CreateIndex(u"I", u"a.T", {u"a"});
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table a.T still has index I.",
                         [&] { return Cascade(u"a.T"); });
  CreateIndex(u"J", u"a.T", {u"-a"});
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table a.T still has index I and more.",
                         [&] { return Cascade(u"a.T"); });
}

TEST_F(DropTableCascadeTest, IndexOfADescendant_HoldsIt) {
  Create(u"Parent", Columns().Long(u"a"));
  Create(u"First", {}, u"Parent");
  Create(u"Second", {}, u"Parent");
  CreateIndex(u"I", u"Second", {u"a"});
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table Second still has index I.",
                         [&] { return Cascade(u"Parent"); });
}

TEST_F(DropTableCascadeTest, ObjectInAGrandchild_IsReportedForTheTopmostTable) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  Create(u"Grandchild", {}, u"Child");
  uint64_t const object = CreateObject(u"Grandchild");
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table Parent still contains data.",
                         [&] { return Cascade(u"Parent"); });
  ExpectOk(lorv_crud_DeleteObject_NoHandle(context(), object, LayoutOfTable(u"Grandchild")));
  ExpectOk(Cascade(u"Parent"));
}

TEST_F(DropTableCascadeTest, Index_ComesBeforeData) {
  Create(u"T", Columns().Long(u"a"));
  CreateIndex(u"I", u"T", {u"a"});
  CreateObject(u"T");
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table T still has index I.",
                         [&] { return Cascade(u"T"); });
}

TEST_F(DropTableCascadeTest, ObjectsOfSiblings_DoNotHoldIt) {
  Create(u"Parent");
  Create(u"One", {}, u"Parent");
  Create(u"Two", {}, u"Parent");
  CreateObject(u"One");
  CreateObject(u"Parent");
  ExpectOk(Cascade(u"Two"));
  EXPECT_FALSE(View(u"One").is_null());
}

TEST_F(DropTableCascadeTest, Arguments_AreChecked) {
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is null.",
                         [&] { return Cascade(nullptr); });
  ExpectRefusedUntouched(SAGLEME_BAD_ARGUMENT, u"Argument full_table_name is empty.",
                         [&] { return Cascade(u""); });
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_FOUND, u"Table Nobody not found.",
                         [&] { return Cascade(u"Nobody"); });
}

TEST_F(DropTableCascadeTest, WithoutSetSpecifier_EndsTheProcess) {
  Create(u"T");
  metalayer::DeleteRow(SetSpecifier::ByType(View(u"T")));
  EXPECT_EXIT(Cascade(u"T"), KilledBySignal(SIGABRT), "");
}

// A table is judged whole before its children are looked at.
TEST_F(DropTableCascadeTest, Data_ComesBeforeIndexesOfChildren) {
  Create(u"Parent", Columns().Long(u"a"));
  Create(u"Child", {}, u"Parent");
  CreateIndex(u"I", u"Child", {u"a"});
  CreateObject(u"Child");
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table Parent still contains data.",
                         [&] { return Cascade(u"Parent"); });
}

// The empty text is above all others: the range holds whatever object there is.
TEST_F(DropTableCascadeTest, SpecifierWithoutText_CoversEveryObject) {
  Create(u"T");
  metalayer::PutText(SetSpecifier::ByType(View(u"T")), SetSpecifier::kTypeId, nullptr);
  ExpectRefusedUntouched(SAGLEME_TABLE_NOT_EMPTY, u"Table T still contains data.",
                         [&] { return Cascade(u"T"); });
}

TEST_F(DropTableCascadeTest, ChildWithoutSetSpecifier_EndsTheProcess) {
  Create(u"Parent");
  Create(u"Child", {}, u"Parent");
  metalayer::DeleteRow(SetSpecifier::ByType(View(u"Child")));
  EXPECT_EXIT(Cascade(u"Parent"), KilledBySignal(SIGABRT), "");
}

TEST_F(DropTableCascadeTest, PendingRequest_StaysAsItIs) {
  Create(u"T");
  uint16_t const layout = AddColumns(u"T", Columns().Long(u"a"));
  std::string const setspec = SetspecOfTable(View(u"T"));
  ExpectOk(Cascade(u"T"));
  EXPECT_EQ((Request{1, layout}), RequestOfSetspec(setspec));
}

}  // namespace
}  // namespace sagleme_test

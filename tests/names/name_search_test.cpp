#include <stdexcept>

#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::DottedName;
using metalayer::RawView;

class NameSearchTest : public CatalogueTest {
 protected:
  // The full name of the table that the search finds, through the exported function.
  std::string Found(char16_t const* uid) {
    uint64_t oid = 0;
    uint64_t addr = 0;
    ExpectOk(lorv_table_ref_by_incomplete_reverse_uid(context(), uid, &oid, &addr));
    return TextOf({oid, addr}, RawView::kFullName);
  }
  uint32_t Search(char16_t const* uid) {
    uint64_t oid = 17;
    uint64_t addr = 18;
    uint32_t const status = lorv_table_ref_by_incomplete_reverse_uid(context(), uid, &oid, &addr);
    EXPECT_EQ(17u, oid);
    EXPECT_EQ(18u, addr);
    return status;
  }
  void ExpectAmbiguous(char16_t const* uid, std::u16string const& matches) {
    ExpectRefused(SAGLEME_AMBIGUOUS_NAME,
                  std::u16string(u"Incomplete reverse uid ") + uid +
                      u" matches more than one raw view: " + matches + u".",
                  Search(uid));
  }
  void ExpectNotFound(char16_t const* uid) {
    ExpectRefused(SAGLEME_TABLE_NOT_FOUND,
                  std::u16string(u"Table not found by incomplete reverse id ") + uid + u".",
                  Search(uid));
  }
  void ExpectDottedThrows(uint32_t status, std::u16string const& text, char16_t const* name) {
    ExpectThrown(status, text, [name] { metalayer::DottedName2RawView(DottedName::Split(name)); });
  }
  void InsertView(char16_t const* name, char16_t const* reversed_uid) {
    metalayer::VMView::Insert(name, db_util::null_obj_ref, true, name, reversed_uid, name,
                              View(kRootTable));
  }
};

TEST_F(NameSearchTest, WholeReversedIdentifier_IsFound) {
  Create(u"App.Model.Customer");
  EXPECT_EQ("App.Model.Customer", Found(u"Customer.Model.App.Raw.Lorvenstack"));
}

TEST_F(NameSearchTest, ReversedFullName_IsFound) {
  Create(u"App.Model.Customer");
  EXPECT_EQ("App.Model.Customer", Found(u"Customer.Model.App"));
}

TEST_F(NameSearchTest, FirstSegments_AreFound) {
  Create(u"App.Model.Customer");
  EXPECT_EQ("App.Model.Customer", Found(u"Customer"));
  EXPECT_EQ("App.Model.Customer", Found(u"Customer.Model"));
}

TEST_F(NameSearchTest, BeginningOfASegment_IsNotFound) {
  Create(u"App.Model.Customer");
  ExpectNotFound(u"Cust");
  ExpectNotFound(u"Customer.Mod");
}

TEST_F(NameSearchTest, NoCandidate_IsNotFound) { ExpectNotFound(u"Nobody"); }

TEST_F(NameSearchTest, ExactName_BeatsALongerOne) {
  Create(u"CustomerOrder");
  Create(u"Customer");
  EXPECT_EQ("Customer", Found(u"Customer"));
}

TEST_F(NameSearchTest, TwoTablesOfOneShortName_AreAmbiguous) {
  Create(u"A.Customer");
  Create(u"B.Customer");
  ExpectAmbiguous(u"Customer", u"Customer.A.Raw.Lorvenstack, Customer.B.Raw.Lorvenstack");
  EXPECT_EQ("A.Customer", Found(u"Customer.A"));
}

TEST_F(NameSearchTest, ThreeTablesOfOneShortName_SayThatThereAreMore) {
  Create(u"A.Customer");
  Create(u"B.Customer");
  Create(u"C.Customer");
  ExpectAmbiguous(u"Customer", u"Customer.A.Raw.Lorvenstack, Customer.B.Raw.Lorvenstack, and more");
}

TEST_F(NameSearchTest, TwoBeginnings_AreAmbiguousThoughNeitherEndsASegment) {
  Create(u"CustomerOrder");
  Create(u"CustomerPlace");
  ExpectAmbiguous(u"Customer", u"CustomerOrder.Raw.Lorvenstack, CustomerPlace.Raw.Lorvenstack");
}

TEST_F(NameSearchTest, FirstAtASegmentAndSecondNot_FirstWins) {
  Create(u"A.Customer");
  Create(u"CustomerOrder");
  EXPECT_EQ("A.Customer", Found(u"Customer"));
}

// A unit below the dot sorts a longer segment in front of the one that ends.
TEST_F(NameSearchTest, FirstNotAtASegmentAndSecondIs_AreAmbiguous) {
  Create(u"A.Customer");
  Create(u"Customer-Order");
  ExpectAmbiguous(u"Customer", u"Customer-Order.Raw.Lorvenstack, Customer.A.Raw.Lorvenstack");
}

TEST_F(NameSearchTest, RowsOfViewsAndClasses_ArePassedOver) {
  Create(u"A.Customer");
  InsertView(u"View", u"Customer");
  InsertClass(u"Customer", View(u"A.Customer"));
  metalayer::ClrClass::Insert(u"Class", db_util::null_obj_ref, true, u"Class",
                              u"Customer.Raw.Lorvenstack", u"Class", View(u"A.Customer"), u"a",
                              u"d", u"Class");
  EXPECT_EQ("A.Customer", Found(u"Customer"));
}

TEST_F(NameSearchTest, OnlyAView_IsNotFound) {
  InsertView(u"View", u"Customer.A.Raw.Lorvenstack");
  ExpectNotFound(u"Customer");
  ExpectNotFound(u"Customer.A.Raw.Lorvenstack");
}

TEST_F(NameSearchTest, RowOfATableDerivedFromRawView_IsFound) {
  uint16_t const layout = Create(u"MyView", {}, u"Lorvenstack.Metadata.RawView");
  uint64_t oid = 0;
  ASSERT_EQ(0u, lorv_context_insert(context(), layout, &oid));
  std::u16string const setspec = Utf16(SetspecOfTable(View(u"MyView")));
  ASSERT_EQ(0u, lorv_context_put_setspec(context(), oid, layout, setspec.c_str()));
  LS_OBJ_REF const row{oid, layout};
  metalayer::PutText(row, RawView::kFullName, u"Derived.Thing");
  metalayer::PutText(row, RawView::kUniqueIdentifierReversed, u"Thing.Derived.Raw.Lorvenstack");
  EXPECT_EQ("Derived.Thing", Found(u"Thing"));
  EXPECT_EQ("Derived.Thing", Found(u"Thing.Derived"));
}

TEST_F(NameSearchTest, SystemTable_IsFoundByReversedAndByShortName) {
  EXPECT_EQ("Lorvenstack.Metadata.RawView", Found(u"RawView.Metadata.Lorvenstack"));
  EXPECT_EQ("Lorvenstack.Metadata.RawView", Found(u"RawView"));
}

TEST_F(NameSearchTest, KeyTooLong_Is4197) {
  std::u16string const name(5000, u'x');
  ExpectRefused(SAGLEME_NAME_TOO_LONG, u"", Search(name.c_str()));
  ExpectThrown(SAGLEME_NAME_TOO_LONG, u"",
               [&name] { metalayer::DottedName2RawView(DottedName{{name}}); });
}

TEST_F(NameSearchTest, NullText_PassesOutAsALogicError) {
  EXPECT_THROW(metalayer::RawViewByIncompleteReverseUid(nullptr), std::logic_error);
}

TEST_F(NameSearchTest, DottedName_ReadsForward) {
  Create(u"App.Model.Customer");
  for (char16_t const* name : {u"Customer", u"Model.Customer", u"App.Model.Customer"}) {
    EXPECT_EQ(View(u"App.Model.Customer").oid,
              metalayer::DottedName2RawView(DottedName::Split(name)).oid);
    EXPECT_EQ(u"App.Model.Customer", metalayer::DottedName2FullName(DottedName::Split(name)));
  }
}

TEST_F(NameSearchTest, DottedName_NotFoundSpeaksOfTheGivenName) {
  ExpectDottedThrows(SAGLEME_TABLE_NOT_FOUND, u"Table Model.Nobody not found.", u"Model.Nobody");
}

TEST_F(NameSearchTest, DottedName_AmbiguitySpeaksOfFullNames) {
  Create(u"A.Model.Customer");
  Create(u"B.Model.Customer");
  ExpectDottedThrows(SAGLEME_AMBIGUOUS_NAME,
                     u"Incomplete table name Model.Customer matches more than one table: "
                     u"A.Model.Customer, B.Model.Customer.",
                     u"Model.Customer");
  Create(u"C.Model.Customer");
  ExpectDottedThrows(SAGLEME_AMBIGUOUS_NAME,
                     u"Incomplete table name Model.Customer matches more than one table: "
                     u"A.Model.Customer, B.Model.Customer, and more.",
                     u"Model.Customer");
}

TEST_F(NameSearchTest, DottedName_FailuresCarryTheNames) {
  try {
    metalayer::DottedName2RawView(DottedName::Split(u"Some.Thing"));
    ADD_FAILURE();
  } catch (metalayer::exceptions::BadTableArg const& failure) {
    EXPECT_EQ(u"Some.Thing", failure.table);
  }
}

TEST_F(NameSearchTest, Search_WritesNothing) {
  Create(u"A.Customer");
  Create(u"B.Customer");
  ExpectUntouched([&] {
    Search(u"Customer");
    Search(u"Nobody");
    Found(u"Customer.B");
  });
}

}  // namespace
}  // namespace sagleme_test

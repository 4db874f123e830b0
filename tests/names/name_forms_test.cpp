#include "support/catalogue.h"

namespace sagleme_test {
namespace {

using metalayer::DottedName;

struct Forms {
  std::u16string name;
  std::u16string uid;
  std::u16string reversed;
};

Forms FormsOf(char16_t const* full_name) {
  Forms forms;
  metalayer::MakeTableNames(full_name, &forms.name, &forms.uid, &forms.reversed);
  return forms;
}

TEST(NameFormsTest, DottedName_GivesAllForms) {
  Forms const forms = FormsOf(u"App.Model.Customer");
  EXPECT_EQ(u"Customer", forms.name);
  EXPECT_EQ(u"Lorvenstack.Raw.App.Model.Customer", forms.uid);
  EXPECT_EQ(u"Customer.Model.App.Raw.Lorvenstack", forms.reversed);
}

TEST(NameFormsTest, NameWithoutDots_IsItsOwnShortName) {
  Forms const forms = FormsOf(u"Customer");
  EXPECT_EQ(u"Customer", forms.name);
  EXPECT_EQ(u"Lorvenstack.Raw.Customer", forms.uid);
  EXPECT_EQ(u"Customer.Raw.Lorvenstack", forms.reversed);
}

TEST(NameFormsTest, LeadingDot_IsAnEmptySegment) {
  Forms const forms = FormsOf(u".Customer");
  EXPECT_EQ(u"Customer", forms.name);
  EXPECT_EQ(u"Lorvenstack.Raw..Customer", forms.uid);
  EXPECT_EQ(u"Customer..Raw.Lorvenstack", forms.reversed);
}

TEST(NameFormsTest, TrailingDot_AddsNoSegment) {
  Forms const forms = FormsOf(u"Customer.");
  EXPECT_EQ(u"Customer", forms.name);
  EXPECT_EQ(u"Lorvenstack.Raw.Customer", forms.uid);
  EXPECT_EQ(u"Customer.Raw.Lorvenstack", forms.reversed);
}

TEST(NameFormsTest, EmptyName_HasTheShortNameOfTheRoot) {
  Forms const forms = FormsOf(u"");
  EXPECT_EQ(u"Raw", forms.name);
  EXPECT_EQ(u"Lorvenstack.Raw", forms.uid);
  EXPECT_EQ(u"Raw.Lorvenstack", forms.reversed);
}

TEST(DottedNamesTest, Split_KeepsEmptySegmentsButTheLast) {
  using Segments = std::list<std::u16string>;
  EXPECT_EQ((Segments{u"a", u"", u"b"}), DottedName::Split(u"a..b").segments);
  EXPECT_EQ((Segments{u"", u"a"}), DottedName::Split(u".a").segments);
  EXPECT_EQ((Segments{u"a"}), DottedName::Split(u"a.").segments);
  EXPECT_EQ((Segments{u"a", u""}), DottedName::Split(u"a..").segments);
  EXPECT_EQ((Segments{u""}), DottedName::Split(u".").segments);
  EXPECT_TRUE(DottedName::Split(u"").segments.empty());
}

TEST(DottedNamesTest, Join_DropsLeadingEmptySegments) {
  EXPECT_EQ(u"a.b", (DottedName{{u"a", u"b"}}.ToString()));
  EXPECT_EQ(u"a", (DottedName{{u"", u"", u"a"}}.ToString()));
  EXPECT_EQ(u"a..b", (DottedName{{u"a", u"", u"b"}}.ToString()));
  EXPECT_EQ(u"a.", (DottedName{{u"a", u""}}.ToString()));
  EXPECT_EQ(u"", DottedName{}.ToString());
}

class PopulateRawViewTest : public CatalogueTest {};

TEST_F(PopulateRawViewTest, AllNameColumns_AreWritten) {
  metalayer::RawView const base = View(kRootTable);
  metalayer::RawView const row = metalayer::PopulateRawView(u"a.b.C", 4711, base, true);
  EXPECT_EQ("C", TextOf(row, metalayer::RawView::kName));
  EXPECT_EQ("a.b.C", TextOf(row, metalayer::RawView::kFullName));
  EXPECT_EQ("Lorvenstack.Raw.a.b.C", TextOf(row, metalayer::RawView::kUniqueIdentifier));
  EXPECT_EQ("C.b.a.Raw.Lorvenstack", TextOf(row, metalayer::RawView::kUniqueIdentifierReversed));
  EXPECT_EQ(base.oid, row.get_ref(metalayer::RawView::kInherits).oid);
  EXPECT_TRUE(metalayer::GetBool(row, metalayer::RawView::kUpdatable));
  EXPECT_EQ(4711u, metalayer::GetULong(row, metalayer::RawView::kLayoutHandle));
}

TEST_F(PopulateRawViewTest, TrailingDot_StaysInTheFullName) {
  metalayer::RawView const row =
      metalayer::PopulateRawView(u"Customer.", 4711, db_util::null_obj_ref, false);
  EXPECT_EQ("Customer.", TextOf(row, metalayer::RawView::kFullName));
  EXPECT_EQ("Customer.Raw.Lorvenstack", TextOf(row, metalayer::RawView::kUniqueIdentifierReversed));
  EXPECT_EQ(0u, row.get_ref(metalayer::RawView::kInherits).oid);
  EXPECT_FALSE(metalayer::GetBool(row, metalayer::RawView::kUpdatable));
}

}  // namespace
}  // namespace sagleme_test

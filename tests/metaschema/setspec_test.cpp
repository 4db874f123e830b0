// Set specifiers.

#include <csignal>
#include <optional>
#include <sagleme/metalayer/metaschema.hpp>

#include "support/catalogue_definition.h"
#include "support/database.h"

namespace sagleme_test {
namespace {

using namespace metalayer;

auto const kTrap = ::testing::KilledBySignal(SIGABRT);

unsigned long NumberOf(std::u16string const& letters) {
  auto first = letters.crbegin();
  return Setspec::spec2i(first, letters.crend());
}

TEST(ChildNumbersTest, Letters_AreBijectiveInBaseTwentyThree) {
  EXPECT_EQ(u"", Setspec::i2spec(0));
  EXPECT_EQ(u"a", Setspec::i2spec(1));
  EXPECT_EQ(u"w", Setspec::i2spec(23));
  EXPECT_EQ(u"aa", Setspec::i2spec(24));
  EXPECT_EQ(u"ab", Setspec::i2spec(25));
  EXPECT_EQ(u"aw", Setspec::i2spec(46));
  EXPECT_EQ(u"ba", Setspec::i2spec(47));
  EXPECT_EQ(u"ww", Setspec::i2spec(552));
  EXPECT_EQ(u"aaa", Setspec::i2spec(553));
}

TEST(ChildNumbersTest, Numbers_ComeBackFromTheirLetters) {
  for (unsigned long n = 0; n < 13000; ++n) ASSERT_EQ(n, NumberOf(Setspec::i2spec(n))) << n;
  EXPECT_EQ(~0ul, NumberOf(Setspec::i2spec(~0ul)));
}

TEST(ChildNumbersTest, Letters_EndAtTheSeparator) {
  std::u16string const spec = u"b~aw";
  auto first = spec.crbegin();
  EXPECT_EQ(46u, Setspec::spec2i(first, spec.crend()));
  EXPECT_EQ(u'~', *first);
  EXPECT_EQ(0u, Setspec::spec2i(first, spec.crend()));
}

TEST(ChildNumbersTest, ForeignUnits_AreNoFailure) { EXPECT_NO_THROW(NumberOf(u"a\u0416 9")); }

TEST(ParentsTest, Parent_EndsAtTheSeparatorBefore) {
  EXPECT_EQ(u"", ParentSetspec(u""));
  EXPECT_EQ(u"", ParentSetspec(u"~"));
  EXPECT_EQ(u"", ParentSetspec(u"a~"));
  EXPECT_EQ(u"a~", ParentSetspec(u"a~b~"));
  EXPECT_EQ(u"~", ParentSetspec(u"~~"));
  EXPECT_EQ(u"b~~", ParentSetspec(u"b~~aw~"));
  EXPECT_EQ(u"a~", ParentSetspec(u"a~b"));
}

// ---- in a database ------------------------------------------------------------------------------

class SetspecsTest : public DatabaseTest {
 protected:
  SetSpecifier Row(char16_t const* setspec) { return SetSpecifier::ByTypeId_postV2_3(setspec); }
  unsigned long Children(char16_t const* setspec) {
    return GetULong(Row(setspec), SetSpecifier::kNumberOfChildren);
  }
  LS_OBJ_REF Owner(char16_t const* setspec) { return Row(setspec).get_ref(SetSpecifier::kType); }
  RawView View(char16_t const* name) { return RawView::ByRawViewPK2fullname(name); }
};

TEST_F(SetspecsTest, Children_AreNumberedFromTheParentsCounter) {
  EXPECT_EQ(9u, Children(u""));
  EXPECT_EQ(u"i~", NextSetspec(u"", db_util::null_obj_ref));
  EXPECT_EQ(u"j~", NextSetspec(u"", db_util::null_obj_ref));
  EXPECT_EQ(11u, Children(u""));
  EXPECT_EQ(u"i~~", NextSetspec(u"i~", db_util::null_obj_ref));
  EXPECT_EQ(u"i~a~", NextSetspec(u"i~", db_util::null_obj_ref));
  EXPECT_EQ(2u, Children(u"i~"));
}

TEST_F(SetspecsTest, ChildOfATable_ReferToItAndWithoutOneToItself) {
  RawView const view = View(u"Lorvenstack.Metadata.Index");
  std::u16string const own = NextSetspec(u"", db_util::null_obj_ref);
  EXPECT_EQ(Row(own.c_str()).oid, Owner(own.c_str()).oid);
  LS_OBJ_REF const other = Configuration::Insert(u"Some", 1);
  std::u16string const owned = NextSetspec(u"", other);
  EXPECT_EQ(other.oid, Owner(owned.c_str()).oid);
  EXPECT_EQ(view.oid, Owner(u"f~").oid);
}

TEST_F(SetspecsTest, ChildOfAnUnknownParent_EndsTheProcess) {
  EXPECT_EXIT(NextSetspec(u"nowhere~", db_util::null_obj_ref), kTrap, "");
}

TEST_F(SetspecsTest, SpecifierTooLongForAKey_IsRefused) {
  try {
    NextSetspec(std::u16string(3000, u'w') + u"~", db_util::null_obj_ref);
    FAIL() << "the key fits";
  } catch (db_util::db_exception const& failure) {
    EXPECT_EQ(SAGLEME_NAME_TOO_LONG, failure.code());
  }
}

TEST_F(SetspecsTest, GlobalIndex_CoversATableWithItsSubtree) {
  db_util::db_iter_with_keys objects;
  int views = 0;
  RangeGlobalSetspecIndex(u"b~~~", &objects);
  for (; objects.current.oid != 0; objects.next()) ++views;
  EXPECT_EQ(25, views);
  int data_types = 0;
  RangeGlobalSetspecIndex(u"b~", &objects);
  for (; objects.current.oid != 0; objects.next()) ++data_types;
  EXPECT_EQ(25 + 10, data_types);
}

TEST_F(SetspecsTest, GlobalIndex_KeepsLongerNumbersOfTheSameLetterApart) {
  // "b~" is no prefix of "bb~".
  LS_OBJ_REF const row = Configuration::Insert(u"Some", 1);
  ASSERT_EQ(0u, lorv_context_put_setspec(context(), row.oid, row.addr, u"bb~"));
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(u"b~", &objects);
  for (; objects.current.oid != 0; objects.next()) EXPECT_NE(row.oid, objects.current.oid);
  RangeGlobalSetspecIndex(u"bb~", &objects);
  EXPECT_EQ(row.oid, objects.current.oid);
}

TEST_F(SetspecsTest, EmptyRange_LeavesTheIteratorAtNothing) {
  db_util::db_iter_with_keys objects;
  RangeGlobalSetspecIndex(u"nowhere~", &objects);
  EXPECT_EQ(0u, objects.current.oid);
}

// ---- exported -----------------------------------------------------------------------------------

TEST_F(SetspecsTest, NullReference_IsRefused) {
  char16_t const* name = u"before";
  ExpectRefused(SAGLEME_BAD_ARGUMENT, u"The argument setspec_oid is zero.",
                lorv_setspec_name_by_setspec_ref(context(), 0, 77, &name));
  EXPECT_EQ(u"before", std::u16string(name));
}

TEST_F(SetspecsTest, NameOfASpecifierRow_IsItsText) {
  SetSpecifier const row = Row(u"e~~");
  char16_t const* name = nullptr;
  ExpectOk(lorv_setspec_name_by_setspec_ref(context(), row.oid, row.addr, &name));
  EXPECT_EQ(u"e~~", std::u16string(name));
}

TEST_F(SetspecsTest, NameOfARowWithoutText_IsNull) {
  LS_OBJ_REF const row = SetSpecifier::Insert(nullptr, db_util::null_obj_ref, 0);
  char16_t const* name = u"before";
  ExpectOk(lorv_setspec_name_by_setspec_ref(context(), row.oid, row.addr, &name));
  EXPECT_EQ(nullptr, name);
}

TEST_F(SetspecsTest, SpecifierOfATable_IsFoundByItsRow) {
  RawView const view = View(u"Lorvenstack.Metadata.Column");
  unsigned long oid = 0;
  unsigned long addr = 0;
  ExpectOk(lorv_setspec_ref_by_table_ref(context(), view.oid, view.addr, &oid, &addr));
  EXPECT_EQ(Row(u"e~~").oid, oid);
  EXPECT_EQ(SetSpecifier::metaclass_layout_handle(), static_cast<uint16_t>(addr));
}

TEST_F(SetspecsTest, SpecifierOfARowThatIsNoTable_IsNull) {
  Token const row = Token::ByNameToken(1);
  unsigned long oid = 77;
  unsigned long addr = 77;
  ExpectOk(lorv_setspec_ref_by_table_ref(context(), row.oid, row.addr, &oid, &addr));
  EXPECT_EQ(0u, oid);
}

TEST_F(SetspecsTest, SpecifierOfATable_IsFoundByItsReversedName) {
  char16_t const* name = nullptr;
  ExpectOk(lorv_setspec_name_by_table_incomplete_reverse_uid(context(), u"Column.Metadata", &name));
  EXPECT_EQ(u"e~~", std::u16string(name));
}

// ---- of system tables ---------------------------------------------------------------------------

class SystemSetspecsTest : public SetspecsTest {
 protected:
  // Creation has descriptors of its own, and only one set may exist at a time.
  void SetUp() override {
    SetspecsTest::SetUp();
    metaschema_.emplace();
  }
  TABLE_INFO& Table(char16_t const* name) { return *MetaschemaInit::find_table(name); }
  std::optional<MetaschemaInit> metaschema_;
};

TEST_F(SystemSetspecsTest, KnownSpecifier_IsLeftAlone) {
  std::vector<std::string> const before = DumpObjects();
  Table(u"Index").setspec = u"f~";
  populate_setspec(Table(u"Index"));
  populate_setspec(Table(u"MotherOfAllLayouts"));
  EXPECT_EQ("", Differences(before, DumpObjects()));
}

TEST_F(SystemSetspecsTest, EmptySpecifier_IsTakenFromTheBase) {
  populate_setspec(Table(u"Index"));
  EXPECT_EQ(u"i~", Table(u"Index").setspec);
  EXPECT_EQ(Row(u"i~").oid, Owner(u"i~").oid);
}

TEST_F(SystemSetspecsTest, SpecifierWithoutRow_TakesItsNumberFromTheParent) {
  Table(u"Index").setspec = u"aa~";
  populate_setspec(Table(u"Index"));
  EXPECT_EQ(25u, Children(u""));
  EXPECT_EQ(Row(u"aa~").oid, Owner(u"aa~").oid);
  EXPECT_EQ(u"ab~", NextSetspec(u"", db_util::null_obj_ref));
}

TEST_F(SystemSetspecsTest, LowNumberWithoutRow_LeavesTheParentsCounter) {
  DeleteRow(Row(u"g~"));
  Table(u"IndexedColumn").setspec = u"g~";
  populate_setspec(Table(u"IndexedColumn"));
  EXPECT_EQ(9u, Children(u""));
  EXPECT_FALSE(Row(u"g~").is_null());
}

TEST_F(SystemSetspecsTest, FirstChild_RaisesTheCounterToOne) {
  SetSpecifier const root = Row(u"");
  DeleteRow(Row(u"~"));
  PutULong(root, SetSpecifier::kNumberOfChildren, 0);
  Table(u"Token").setspec = u"~";
  populate_setspec(Table(u"Token"));
  EXPECT_EQ(1u, Children(u""));
}

TEST_F(SystemSetspecsTest, RootWithoutRow_GetsOneThatRefersToItself) {
  DeleteRow(Row(u""));
  populate_setspec(Table(u"MotherOfAllLayouts"));
  EXPECT_EQ(Row(u"").oid, Owner(u"").oid);
  EXPECT_EQ(0u, Children(u""));
}

TEST_F(SystemSetspecsTest, ForeignParent_EndsTheProcess) {
  Table(u"Index").setspec = u"f~z~";
  EXPECT_EXIT(populate_setspec(Table(u"Index")), kTrap, "");
}

TEST_F(SystemSetspecsTest, MissingParentRow_EndsTheProcess) {
  DeleteRow(Row(u""));
  Table(u"Index").setspec = u"aa~";
  EXPECT_EXIT(populate_setspec(Table(u"Index")), kTrap, "");
}

TEST_F(SystemSetspecsTest, SpecifierWithoutEnd_EndsTheProcess) {
  Table(u"Index").setspec = u"zz";
  EXPECT_EXIT(populate_setspec(Table(u"Index")), kTrap, "");
}

TEST_F(SystemSetspecsTest, Recovery_GivesTheBasesTheirs) {
  for (char16_t const* const name : {u"TypeIdsMeta", u"MetaData", u"MotherOfAllLayouts"}) {
    Table(name).layout = 1;
  }
  Table(u"TypeIdsMeta").setspec = u"c~~";
  RecoverSetspecs();
  EXPECT_EQ(u"c~", Table(u"MetaData").setspec);
  EXPECT_EQ(u"", Table(u"MotherOfAllLayouts").setspec);
}

TEST_F(SystemSetspecsTest, RecoveryWithoutTheBasesLayout_EndsTheProcess) {
  Table(u"TypeIdsMeta").layout = 1;
  Table(u"TypeIdsMeta").setspec = u"c~~";
  EXPECT_EXIT(RecoverSetspecs(), kTrap, "");
}

TEST_F(SystemSetspecsTest, RecoveryThatContradictsTheBase_EndsTheProcess) {
  Table(u"TypeIdsMeta").layout = 1;
  Table(u"MetaData").layout = 1;
  Table(u"TypeIdsMeta").setspec = u"c~~";
  Table(u"MetaData").setspec = u"d~";
  EXPECT_EXIT(RecoverSetspecs(), kTrap, "");
}

}  // namespace
}  // namespace sagleme_test

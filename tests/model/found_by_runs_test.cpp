// Cases that long runs came upon.

#include "support/database.h"

namespace sagleme_model {

namespace {

class FoundByRunsTest : public sagleme_test::DatabaseTest {
 protected:
  void Create(char16_t const* name, char16_t const* base) {
    ExpectOk(lorv_create_table_by_names(context(), name, base, sagleme_test::Columns(), nullptr));
  }
};

// The child goes with its parent, and when its own turn comes there is no name to tell any more.
TEST_F(FoundByRunsTest, DropTables_MeetsAMappedTableThatIsGone_LeavesNoHalfText) {
  Create(u"Parent", nullptr);
  Create(u"Child", u"Parent");
  metalayer::ClrClass::Insert(u"Class", db_util::null_obj_ref, true, u"Class",
                              u"Class.Clr.Lorvenstack", u"Lorvenstack.Clr.Class",
                              metalayer::RawView::ByRawViewPK2fullname(u"Child"), u"assembly",
                              u"domain", u"Class");
  char16_t const* names[] = {u"Parent", u"Child", nullptr};
  ExpectRefused(LORV_STATUS_UNREACHABLE, u"",
                lorv_drop_tables_by_names(context(), names, true, false));
}

}  // namespace

}  // namespace sagleme_model

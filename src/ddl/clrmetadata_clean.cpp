#include <limits>

#include "catalogue/utils.h"

namespace metalayer::ddl {

namespace {

constexpr std::size_t kHighKeySize = 64;

void DeleteUpTo(unsigned long index_id, unsigned char const* high_key) {
  db_util::db_iterator rows;
  rows.open(index_id, kForward, ukf::full_key_ukn, high_key);
  while (rows.next()) DeleteRow(rows.current);
}

void DeleteMappedProperties() {
  alignas(8) unsigned char high_key[kHighKeySize];
  Key(high_key).ULong(std::numeric_limits<unsigned long>::max()).TextUpperBound(u"");
  DeleteUpTo(MappedProperty::index_id_MappedPropertyPK(), high_key);
}

void DeleteClasses() {
  alignas(8) unsigned char high_key[kHighKeySize];
  Key(high_key).TextUpperBound(u"");
  DeleteUpTo(ClrClass::index_id_ClrClassPK(), high_key);
}

}  // namespace

// Properties go before the classes that they belong to. Stored tables are not touched, so the
// schema generation stays.
void CleanClrMetadata() {
  DeleteMappedProperties();
  DeleteClasses();
}

}  // namespace metalayer::ddl
